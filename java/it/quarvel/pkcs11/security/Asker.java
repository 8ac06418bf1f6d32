// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_PROTECTED_AUTHENTICATION_PATH;

import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.internal.Pin;
import it.quarvel.pkcs11.internal.Printable;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;
import javax.security.auth.login.LoginException;

/**
 * Where the PIN of a token comes from: a callback handler, a file, or nowhere, for a reader with a
 * PIN pad. What was refused is not tried again for those who began before that. A file is not read
 * again at all until it is pardoned: it would say the same, and use up the token's tries. Whoever
 * asks holds the token's lock until it has answered the login.
 */
final class Asker {
  private final CallbackHandler handler;
  private final Path file;
  private volatile int refusals;
  private volatile int pardoned;

  private Asker(CallbackHandler handler, Path file) {
    this.handler = handler;
    this.file = file;
  }

  /** Makes one that asks a handler; null asks nobody. */
  static Asker of(CallbackHandler handler) {
    return new Asker(handler, null);
  }

  /** Makes one that reads the first line of a file. */
  static Asker of(Path file) {
    return new Asker(null, file);
  }

  /** Returns what {@link #ask} takes, before the token's lock is waited for. */
  int begin() {
    return file == null ? refusals : pardoned;
  }

  /** Lets a file that was refused be read again by those who begin from now on. */
  void pardon() {
    pardoned = refusals;
  }

  /** Notes that the token did not take the PIN. */
  void refuse() {
    refusals++;
  }

  /**
   * Asks for the PIN.
   *
   * @param token whose PIN it is
   * @param begun what {@link #begin} has returned
   * @return its bytes, which the caller wipes; null when the token has a path of its own for it
   * @throws LoginException when there is none, or when it was refused since
   */
  byte[] ask(PKCS11TokenInfo token, int begun) throws LoginException {
    if (begun != refusals) {
      throw new LoginException(file == null ? "the PIN was refused while others waited to log in"
          : "the PIN of " + file + " was refused: it is tried again when a key store is loaded");
    }
    byte[] pin;
    try {
      pin = file != null ? Pin.ofFile(file) : handler != null ? answer(token.trimmedLabel()) : null;
    } catch (IOException | UnsupportedCallbackException e) {
      throw (LoginException) new LoginException((file != null ? "the pin-source cannot be used: "
          : "the PIN cannot be asked for: ") + e).initCause(e);
    }
    if (pin == null && !token.hasFlag(CKF_PROTECTED_AUTHENTICATION_PATH)) {
      throw new LoginException("the token \"" + Printable.of(token.trimmedLabel()) + "\" wants a PIN, and none is"
          + " given: not by load, not by a callback handler, not by a pin-source in the URI");
    }
    return pin;
  }

  private byte[] answer(String label) throws IOException, UnsupportedCallbackException {
    PasswordCallback question = new PasswordCallback("PIN of \"" + Printable.of(label) + "\": ", false);
    char[] typed = {};
    try {
      handler.handle(new Callback[] {question});
      typed = question.getPassword();
      return typed == null ? null : Pin.of(typed);
    } finally {
      question.clearPassword();
      if (typed != null) {
        Arrays.fill(typed, '\0');
      }
    }
  }
}
