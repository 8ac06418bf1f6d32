// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import picocli.CommandLine.Mixin;

/** A command in one session with one token. */
abstract class TokenCommand extends ModuleCommand {
  @Mixin private TokenOptions token;
  @Mixin private PinOptions pin;

  /** Returns the URI of the token or object that the user names, else {@link PKCS11Uri#ANY}. */
  PKCS11Uri uri() {
    return token.uri();
  }

  final boolean isLoginAsked() {
    return pin.isAsked(uri());
  }

  final TokenInSlot choose(Connection connection) throws Failure {
    return token.choose(connection);
  }

  /** Opens the session, and logs in if the user asks for it or the token wants it for keys. */
  final TokenInSlot openSession(Connection connection, int flags, boolean forKeys)
      throws Failure {
    TokenInSlot chosen = choose(connection);
    connection.openSession(chosen, flags);
    if (isLoginAsked() || forKeys && chosen.info().hasFlag(CKF_LOGIN_REQUIRED)) {
      connection.login(false, askPin(chosen, false));
    }
    return chosen;
  }

  /** Returns the PIN of the user or the security officer; null when the token asks for it itself. */
  final byte[] askPin(TokenInSlot chosen, boolean officer) throws Failure {
    if (chosen.info().hasFlag(officer ? CKF_SO_PIN_FINAL_TRY : CKF_USER_PIN_FINAL_TRY)) {
      program().message("this is the last try: another wrong PIN locks the token");
    }
    return pin.ask(chosen, uri(), officer ? "Security officer's PIN" : "PIN");
  }
}
