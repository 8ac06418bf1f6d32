// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import picocli.CommandLine.*;

/** The options that choose a token. None is needed when there is one token only. */
final class TokenOptions {
  private static final class Choice {
    private PKCS11Uri uri = PKCS11Uri.ANY;

    @Option(names = "--token", paramLabel = "LABEL", description = "The token with this label.")
    void label(String label) {
      uri = PKCS11Uri.ANY.with("token", label);
    }

    @Option(names = "--slot", paramLabel = "N",
        description = "The token in this slot; 0x starts a hexadecimal number.")
    void slot(String number) {
      uri = PKCS11Uri.ANY.with("slot-id", Names.slot(number));
    }

    @Option(names = "--uri", paramLabel = "URI",
        description = "The token, and the object, that a PKCS#11 URI (RFC 7512) names.")
    void uri(String text) {
      uri = PKCS11Uri.parse(text);
      if (uri.modulePath() != null) {
        throw new IllegalArgumentException(
            "the PKCS#11 URI has a module-path: name the module by --module");
      }
    }
  }

  @ArgGroup(exclusive = true)
  private Choice choice = new Choice();

  /** Returns the URI of the token that the user names, else {@link PKCS11Uri#ANY}. */
  PKCS11Uri uri() {
    return choice.uri;
  }

  /** Tells whether the options name a slot; {@code token} is the one in it, or null. */
  boolean matches(NativePKCS11Slot slot, TokenInSlot token) {
    Long number = TokenInSlot.number(slot);
    return token != null ? uri().matches(token.info(), number)
        : uri() == PKCS11Uri.ANY || number.equals(uri().slotID());
  }

  /** Finds the one token that the options name; without an option, it is the initialised one. */
  TokenInSlot choose(Connection connection) throws Failure {
    NativePKCS11Slot slot = connection.call(Step.SLOTS, () -> {
      try {
        return connection.opened().token(uri());
      } catch (PKCS11Exception e) {
        if (e.reason() != PKCS11Exception.Reason.OTHER) {
          throw e;
        }
        throw new Failure(e.getMessage() + "; --token, --slot or --uri names one");
      }
    });
    return connection.call(Step.TOKEN_INFO, () -> TokenInSlot.of(slot));
  }
}
