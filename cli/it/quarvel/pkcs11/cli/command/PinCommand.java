// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.internal.Pin;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Arrays;
import picocli.CommandLine.*;

/** Changes PINs. */
@Command(
    name = "pin",
    description = {
      "Change the PIN of a token's user.",
      "With --unblock the security officer sets a new one, where it is locked or forgotten; with --so"
          + " the security officer's own PIN is changed. --pin and --pin-source then give the security"
          + " officer's PIN.",
      "The PIN is tried once, and a new one that is typed is asked for twice."
    })
public final class PinCommand extends TokenCommand {
  private static final class Change {
    @Option(names = "--unblock",
        description = "Set a new PIN of the user, with the security officer's.")
    boolean unblock;

    @Option(names = "--so", description = "Change the PIN of the security officer.")
    boolean officer;
  }

  @ArgGroup(exclusive = true)
  private Change change = new Change();

  private static final class NewPin {
    @Option(names = "--new-pin", paramLabel = "env:NAME", converter = PinOptions.Variable.class,
        description = "Take the new PIN from this environment variable.")
    private String variable;

    @Option(names = "--new-pin-source", paramLabel = "FILE",
        description = "Take the new PIN from the first line of this file.")
    private Path file;
  }

  @ArgGroup(exclusive = true)
  private NewPin source = new NewPin();

  @Override
  void run(Connection connection) throws Failure {
    TokenInSlot chosen = choose(connection);
    boolean officer = change.unblock || change.officer;
    byte[] old = askPin(chosen, officer);
    byte[] next = {};
    try {
      if (old == null && !change.unblock) {
        throw new Failure("a PIN cannot be changed on the reader's PIN pad: name both, by --pin or"
            + " --pin-source and by --new-pin or --new-pin-source");
      }
      next = PinOptions.read(source.variable, source.file, "New PIN", chosen);
      if (source.variable == null && source.file == null) {
        confirm(next, chosen);
      }
      String text = change.unblock ? text(next) : null;
      connection.openSession(chosen, CKF_RW_SESSION);
      login(connection, officer, old);
      byte[] given = next;
      connection.run(Step.SET_PIN, () -> {
        if (change.unblock) {
          connection.session().initPIN(text);
        } else {
          connection.session().setPINellips(old, given);
        }
      });
    } finally {
      Pin.wipe(old);
      Pin.wipe(next);
    }
    program().message("the %sPIN of %s is set".formatted(
        change.officer ? "security officer's " : "", chosen));
  }

  /**
   * Logs in before the change: tpm2-pkcs11 reports success for a change that a wrong PIN has
   * prevented. A PIN that has expired is right, and allows nothing but the change.
   */
  private static void login(Connection connection, boolean officer, byte[] pin) throws Failure {
    try {
      connection.login(officer, pin);
    } catch (Failure e) {
      if (!(e.getCause() instanceof PKCS11Exception cause && cause.errorCode() == CKR_PIN_EXPIRED)) {
        throw e;
      }
    }
  }

  /** Has the user type a new PIN once more. */
  private static void confirm(byte[] pin, TokenInSlot chosen) throws Failure {
    byte[] again = PinOptions.read(null, null, "New PIN, once more,", chosen);
    boolean same = Arrays.equals(pin, again);
    Pin.wipe(again);
    if (!same) {
      throw new Failure("the two new PINs differ; nothing was changed");
    }
  }

  /** Returns the PIN as {@code initPIN} takes it, which cannot be wiped. */
  private static String text(byte[] pin) throws Failure {
    String text = new String(pin, StandardCharsets.UTF_8);
    if (text.codePoints().anyMatch(c -> c == 0 || c > Character.MAX_VALUE)) {
      throw new Failure("the library cannot set a PIN with such a character: choose another PIN");
    }
    return text;
  }
}
