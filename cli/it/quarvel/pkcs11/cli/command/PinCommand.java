// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

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
          + " the security officer changes the own PIN. --pin and --pin-source then have the security"
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

  private String variable;

  @Option(names = "--new-pin", paramLabel = "env:NAME",
      description = "Take the new PIN from this environment variable.")
  void variable(String value) {
    variable = PinOptions.variable(value);
  }

  @Option(names = "--new-pin-source", paramLabel = "FILE",
      description = "Take the new PIN from the first line of this file.")
  private Path file;

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
      next = newPin(chosen);
      connection.openSession(chosen, CKF_RW_SESSION);
      if (officer) {
        connection.login(true, old);
      }
      set(connection, old, next);
    } finally {
      Pin.wipe(old);
      Pin.wipe(next);
    }
    program().message("the PIN of %s is set".formatted(chosen));
  }

  /** Reads the new PIN, twice where it is typed. */
  private byte[] newPin(TokenInSlot chosen) throws Failure {
    byte[] pin = PinOptions.read(variable, file, "New PIN", chosen);
    byte[] again = variable != null || file != null ? pin
        : PinOptions.read(null, null, "New PIN, once more,", chosen);
    boolean same = Arrays.equals(pin, again);
    if (again != pin) {
      Pin.wipe(again);
    }
    if (!same) {
      Pin.wipe(pin);
      throw new Failure("the two new PINs differ; nothing was changed");
    }
    return pin;
  }

  /** A String is what the library takes where there is no old PIN; it cannot be wiped. */
  private void set(Connection connection, byte[] old, byte[] next) throws Failure {
    String text = new String(next, StandardCharsets.UTF_8);
    if (change.unblock && text.codePoints().anyMatch(c -> c == 0 || c > Character.MAX_VALUE)) {
      throw new Failure("the library cannot set a PIN with such a character: choose another PIN");
    }
    connection.run(Step.SET_PIN, () -> {
      if (change.unblock) {
        connection.session().initPIN(text);
      } else {
        connection.session().setPINellips(old, next);
      }
    });
  }
}
