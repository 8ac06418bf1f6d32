// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.option.PinOptions;
import it.quarvel.pkcs11.cli.option.TokenOptions;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.TokenInSlot;
import picocli.CommandLine.Mixin;

/** A command in one session with one token. */
abstract class TokenCommand extends ModuleCommand {
  @Mixin private TokenOptions token;
  @Mixin private PinOptions pin;

  final PKCS11Uri uri() {
    return token.uri();
  }

  final boolean isLoginAsked() {
    return pin.isAsked(uri());
  }

  final TokenInSlot choose(Connection connection) throws Failure {
    return token.choose(connection);
  }

  /** Opens the session, and logs in where the user asks for it or the token wants it for keys. */
  final TokenInSlot openSession(Connection connection, boolean forKeys) throws Failure {
    TokenInSlot chosen = choose(connection);
    connection.openSession(chosen.slot(), 0);
    if (isLoginAsked() || forKeys && chosen.info().hasFlag(CKF_LOGIN_REQUIRED)) {
      logIn(connection, chosen);
    }
    return chosen;
  }

  final void logIn(Connection connection, TokenInSlot chosen) throws Failure {
    if (chosen.info().hasFlag(CKF_USER_PIN_FINAL_TRY)) {
      program().message("this is the last try: another wrong PIN locks the token");
    }
    connection.login(pin.ask(chosen, uri()));
  }
}
