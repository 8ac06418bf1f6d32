// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.check.*;
import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.util.*;
import picocli.CommandLine.*;

/** Tries every operation of the library on a token and says which work. */
@Command(
    name = "check",
    description = {
      "Try each operation of the library on a token and show which work.",
      "Without --write nothing is created. With it, objects are created in a read/write session and"
          + " removed again. Some tokens keep what is made for a session: this is tried on something"
          + " small, and then keys are made only after a question, or with --yes. An interruption"
          + " removes them too; what a kill -9 leaves behind is labelled \"quarvel-pkcs11 check\", and"
          + " --clean removes it.",
      "A key that is named by --label, --id or --uri is used to sign and decrypt, else with --write"
          + " one that was made, or one that is there where the token makes none.",
      "The status is 0 when nothing failed and nothing was refused. What was not asked for does not"
          + " count, nor what the module or the token does not have, nor what it does not make for a"
          + " session.",
      "Never tried: changes of PINs, the methods that always fail, and those for particular cards,"
          + " which print on standard output."
    })
public final class CheckCommand extends ObjectCommand {
  @Mixin private Output output;

  @Option(names = "--write", description = "Create objects in the session and remove them again.")
  private boolean write;

  @Option(names = "--clean",
      description = "Remove what an earlier check-up had to leave behind, and try nothing.")
  private boolean clean;

  @Option(names = "--yes", description = "With --write: make keys also on a token that may keep"
      + " them. With --clean: remove without a question.")
  private boolean yes;

  private CheckTable table;

  /** The first failure, null without one; the check-up may have gone on. */
  private Failure failure;

  @Override
  public Integer call() throws Failure {
    if (clean) {
      if (write || output.isJson() || isNamed() || uri().objectClass() != null) {
        throw Failure.usage("--clean goes with neither --write nor --json, and finds by itself what to"
            + " remove: no --label, --id or --type");
      }
      try (Connection connection = open(new Steps())) {
        clean(connection);
      }
      return 0;
    }
    if (uri().objectClass() != null) {
      requireName();
    }
    program().module(); // fails, without a module, before the table begins
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
    table.works(Step.INFO, connection.opened()::info);
    TokenInSlot chosen = choose(connection);
    Checkup checkup = new Checkup(connection, table, chosen);
    checkup.describe();
    connection.openSession(chosen, write ? CKF_RW_SESSION : 0);
    checkup.describeSession();
    tryLogin(connection, chosen);
    NativePKCS11Object named = isNamed() ? key(connection) : null;
    KeyTrials trials = new KeyTrials(connection, table, checkup.mechanisms());
    Leftovers leftovers = new Leftovers(table, trials, program()::message);
    try {
      tryObjects(checkup, trials, named);
    } finally {
      leftovers.remove();
    }
    checkup.close();
  }

  private void tryObjects(Checkup checkup, KeyTrials trials, NativePKCS11Object named)
      throws Failure {
    boolean makes = write && makesKeys(trials);
    String option = write ? "--yes" : "--write";
    if (!write) {
      skip(option, Step.CREATE_OBJECT, Step.GENERATE_KEY, Step.GENERATE_KEY_PAIR);
    }
    checkup.read(trials.made());
    if (named == null && !write) {
      skip(option + ", or a key by --label", Step.SIGN, Step.DECRYPT);
    } else {
      trials.sign(named);
      trials.decrypt(named);
    }
    if (makes) {
      trials.useSecretKey();
    } else {
      skip(option, Step.ENCRYPT, Step.WRAP, Step.UNWRAP);
    }
    if (write) {
      trials.setAttribute();
      trials.destroy();
    } else {
      skip(option, Step.SET_ATTRIBUTE, Step.DESTROY, Step.SEARCH_AFTER);
    }
  }

  /** Makes an object, and keys too, for which the user has to agree if the token may keep them. */
  private boolean makesKeys(KeyTrials trials) throws Failure {
    String doubt = trials.createObject();
    if (doubt.isEmpty() || yes
        || Terminal.agrees(doubt + ". Make keys all the same, and try to remove them?")) {
      trials.createKeys();
      return true;
    }
    skip("--yes", Step.GENERATE_KEY, Step.GENERATE_KEY_PAIR);
    program().message(doubt + ", so that no keys were made: --yes makes them all the same");
    return false;
  }

  /** Removes the objects that an earlier check-up has left. */
  private void clean(Connection connection) throws Failure {
    TokenInSlot chosen = openSession(connection, CKF_RW_SESSION, true);
    List<NativePKCS11Object> left = new ArrayList<>();
    for (String label : KeyTrials.LABELS) {
      left.addAll(connection.find(new PKCS11Template().put(CKA_LABEL, label), Integer.MAX_VALUE));
    }
    for (NativePKCS11Object object : left) {
      program().out().write(chosen.uri(object) + "\n");
    }
    if (left.isEmpty()) {
      program().message("no check-up has left anything on %s".formatted(chosen));
    } else if (!yes && !Terminal.agrees("Remove this from %s?".formatted(chosen))) {
      throw new Failure("nothing was removed; --yes removes it without a question");
    }
    for (NativePKCS11Object object : left) {
      connection.run(Step.DESTROY, object::destroy);
    }
  }

  private void tryLogin(Connection connection, TokenInSlot chosen) throws Failure {
    if (!isLoginAsked()) {
      skip("--login or a PIN", Step.LOGIN);
      return;
    }
    try {
      connection.login(false, askPin(chosen, false));
    } catch (Failure e) {
      fail(e);
      if (!(e.getCause() instanceof PKCS11Exception)) {
        throw e;
      }
    }
  }

  private void skip(String why, Step... steps) throws Failure {
    table.skip(CheckTable.Result.NOT_ASKED, why, steps);
  }

  private void fail(Failure found) {
    failure = failure == null ? found : failure;
  }
}
