// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_RW_SESSION;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.check.CheckTable;
import it.quarvel.pkcs11.cli.check.Checkup;
import it.quarvel.pkcs11.cli.check.KeyTrials;
import it.quarvel.pkcs11.cli.check.Leftovers;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Terminal;
import it.quarvel.pkcs11.cli.option.ObjectFilter;
import it.quarvel.pkcs11.cli.option.Output;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.cli.token.TokenInSlot;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Option;

/** Tries every operation of the library on a token and says which work. */
@Command(
    name = "check",
    description = {
      "Try each operation of the library on a token and show which work.",
      "Without --write nothing is created. With it, objects are created in a read/write session and"
          + " removed again. Some tokens keep what is made for a session: this is tried on something"
          + " small, and then keys are made only after a question, or with --yes. What is removed at"
          + " an interruption, too, stays behind after a kill -9; it is labelled \"quarvel-pkcs11"
          + " check\".",
      "A key that is named by --label, --id or --uri is used to sign and decrypt, else one that was"
          + " made.",
      "The status is 0 when nothing failed and nothing was refused. What was not asked for does not"
          + " count, nor what the module or the token does not have.",
      "Never tried: changes of PINs, the methods that always fail, and those for particular cards,"
          + " which print on standard output."
    })
public final class CheckCommand extends TokenCommand {
  @Mixin private ObjectFilter filter;
  @Mixin private Output output;

  @Option(names = "--write", description = "Create objects in the session and remove them again.")
  private boolean write;

  @Option(names = "--yes",
      description = "With --write: make keys also on a token that may keep them.")
  private boolean yes;

  private CheckTable table;

  /** The first failure; the check-up may have gone on. */
  private Failure failure;

  @Override
  public Integer call() throws Failure {
    boolean named = filter.isNamed(uri());
    if (filter.isTyped() && !named) {
      throw Failure.usage("which key? Name it by --label, --id or --uri");
    }
    program().module(); // refused before the table has begun
    table = new CheckTable(program().out(), output);
    try (Connection connection = open(table)) {
      run(connection);
    } catch (Failure e) {
      fail(e);
    }
    table.finish(failure);
    return failure != null ? program().report(failure) : table.works() ? 0 : Failure.FAILED;
  }

  @Override
  void run(Connection connection) throws Failure {
    table.attempt(Step.INFO, () -> {
      connection.module().getInfo();
      return CheckTable.Result.WORKS;
    });
    TokenInSlot chosen = choose(connection);
    Checkup checkup = new Checkup(connection, table, chosen);
    checkup.describe();
    connection.openSession(chosen.slot(), write ? CKF_RW_SESSION : 0);
    checkup.describeSession();
    tryLogin(connection, chosen);
    NativePKCS11Object named =
        filter.isNamed(uri()) ? filter.key(connection, uri()) : null;
    KeyTrials trials = new KeyTrials(connection, table, checkup.mechanisms());
    boolean makes = false;
    Leftovers leftovers = new Leftovers(table, trials, program()::message);
    try {
      if (write) {
        makes = makesKeys(trials);
      } else {
        table.skip("--write", Step.CREATE_OBJECT, Step.GENERATE_KEY, Step.GENERATE_KEY_PAIR);
      }
      checkup.read(trials.made());
      NativePKCS11Object key = named != null ? named : trials.privateKey();
      String option = write ? "--yes" : "--write";
      if (key == null && !makes) {
        table.skip(option + ", or a key by --label", Step.SIGN, Step.DECRYPT);
      } else {
        trials.sign(key);
        trials.decrypt(key);
      }
      if (makes) {
        trials.useSecretKey();
      } else {
        table.skip(option, Step.ENCRYPT, Step.WRAP, Step.UNWRAP);
      }
      if (write) {
        trials.setAttribute();
        trials.destroy();
      } else {
        table.skip(option, Step.SET_ATTRIBUTE, Step.DESTROY, Step.SEARCH_AFTER);
      }
    } finally {
      leftovers.remove();
    }
    checkup.close();
  }

  /** Makes an object, and tells whether keys are made too, which the token may keep. */
  private boolean makesKeys(KeyTrials trials) throws Failure {
    String doubt = trials.createObject();
    if (doubt.isEmpty() || yes
        || Terminal.agrees(doubt + ". Make keys all the same, and try to remove them?")) {
      trials.createKeys();
      return true;
    }
    table.skip("--yes", Step.GENERATE_KEY, Step.GENERATE_KEY_PAIR);
    fail(new Failure(doubt + ", so that no keys were made: --yes makes them all the same"));
    return false;
  }

  private void tryLogin(Connection connection, TokenInSlot chosen) throws Failure {
    if (!isLoginAsked()) {
      table.note(Step.LOGIN, CheckTable.Result.NOT_ASKED, "--login or a PIN");
      return;
    }
    try {
      logIn(connection, chosen);
    } catch (Failure e) {
      fail(e);
      if (!(e.getCause() instanceof PKCS11Exception)) {
        throw e;
      }
    }
  }

  private void fail(Failure found) {
    failure = failure == null ? found : failure;
  }
}
