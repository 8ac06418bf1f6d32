package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_RW_SESSION;

import it.quarvel.pkcs11.cli.check.CheckTable;
import it.quarvel.pkcs11.cli.check.Checkup;
import it.quarvel.pkcs11.cli.check.KeyTrials;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Output;
import it.quarvel.pkcs11.cli.option.ObjectFilter;
import it.quarvel.pkcs11.cli.option.PinOptions;
import it.quarvel.pkcs11.cli.option.TokenOptions;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Operation;
import it.quarvel.pkcs11.cli.token.Token;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Option;

/** Tries every operation of the library on a token and says which work. */
@Command(
    name = "check",
    description = {
      "Try each operation of the library on a token and show which work.",
      "Without --write nothing is created, and keys are used only when one is named. With it,"
          + " objects are created in a read/write session and removed again; nothing stays.",
      "The status is 0 when nothing was refused. What was not asked for does not count, nor what"
          + " the token has no mechanism or no object for, nor what the binding never offers.",
      "Never tried: changes of PINs, and the methods for particular cards, which print on standard"
          + " output."
    })
public final class CheckCommand extends ModuleCommand {
  @Mixin private TokenOptions token;
  @Mixin private PinOptions pin;
  @Mixin private ObjectFilter filter;
  @Mixin private Output output;

  @Option(names = "--write", description = "Create objects in the session and remove them again.")
  private boolean write;

  private final CheckTable table = new CheckTable();

  @Override
  public Integer call() throws Failure {
    String module = program().module();
    int status = 0;
    try (Connection connection = Connection.open(module, table)) {
      run(connection);
    } catch (Failure e) {
      status = program().report(e);
    }
    table.show(program().out(), output);
    return status == 0 && !table.works() ? Failure.FAILED : status;
  }

  @Override
  void run(Connection connection) throws Failure {
    table.attempt("info", connection.module()::getInfo);
    Token chosen = token.choose(connection);
    Checkup checkup = new Checkup(connection, table, chosen);
    checkup.describe();
    connection.openSession(chosen.slot(), write ? CKF_RW_SESSION : 0);
    checkup.describeSession();
    login(connection, chosen);
    KeyTrials trials = new KeyTrials(connection, table, checkup.mechanisms());
    if (write) {
      trials.create();
    }
    checkup.read(trials.created());
    if (write) {
      trials.useCreated();
      trials.destroy();
    } else {
      use(trials, connection);
    }
    checkup.tryWhatIsNotOffered();
    checkup.close();
  }

  /** A check-up goes on without the login that the token refuses. */
  private void login(Connection connection, Token chosen) throws Failure {
    if (!pin.isAsked(token.uri())) {
      table.note(Operation.LOGIN, CheckTable.Result.NOT_ASKED, "--login or a PIN");
      return;
    }
    try {
      pin.login(program(), connection, chosen, token.uri());
    } catch (Failure e) {
      if (!table.isRefused(Operation.LOGIN)) {
        throw e;
      }
      program().report(e);
    }
  }

  private void use(KeyTrials trials, Connection connection) throws Failure {
    if (filter.isNamed(token.uri())) {
      NativePKCS11Object key = filter.key(connection, token.uri());
      trials.sign(key);
      trials.decrypt(key);
    }
    trials.skipTheRest();
  }
}
