// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_PROTECTED_AUTHENTICATION_PATH;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.internal.Pin;
import it.quarvel.pkcs11.internal.Printable;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicInteger;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;
import javax.security.auth.login.LoginException;

/**
 * Gets the PIN of a token from a callback handler or from a file; with neither, the reader's PIN
 * pad has to ask. A token locks after a few wrong PINs, so a login that has waited for another one
 * sends no PIN once that one has failed. Callers of {@link #ask} hold the lock of their {@link
 * Token} and that of {@link #turn}, until the token has answered the login.
 */
final class Asker {
  /** The last failed login with a PIN from one source. */
  private static final class Failures {
    /** The value of {@link #COUNT} at that login, 0 if none has failed. */
    private int last;
    private String why;
  }

  /** The logins at one token with the PIN in one file. */
  private static final class FilePin {
    private final Failures failures = new Failures();

    /** The message by which the token refused the PIN that was read last, null if it did not. */
    private String refusal;

    /** The file's time of modification, in milliseconds, and length when it was read last. */
    private long modified;
    private long length;
  }

  /** The failed logins of all providers at one token; also the lock of {@link #turn}. */
  private static final class Logins {
    private final Failures ofHandlers = new Failures();

    /** The PIN files, by their paths without "." and "..". */
    private final Map<Path, FilePin> files = new HashMap<>();
  }

  /** The number of failed logins with any source, at any token. */
  private static final AtomicInteger COUNT = new AtomicInteger();

  /** The logins of each token, by module path, label, manufacturer, model and serial number. */
  private static final Map<List<String>, Logins> LOGINS = new ConcurrentHashMap<>();

  private final String module;

  /** The handler, null if there is none. */
  private final CallbackHandler handler;

  /** The file of {@code pin-source}, null if there is none. */
  private final Path file;

  /** The value of {@link #COUNT} up to which failures do not keep the file from being read. */
  private volatile int pardoned;

  private Asker(String module, CallbackHandler handler, Path file) {
    this.module = module;
    this.handler = handler;
    this.file = file;
  }

  /** Makes an asker for a handler. */
  static Asker of(PKCS11Uri uri, CallbackHandler handler) {
    return new Asker(uri.modulePath(), handler, null);
  }

  /** Makes an asker for the {@code pin-source} of the URI, without a source if the URI has none. */
  static Asker of(PKCS11Uri uri) {
    return new Asker(uri.modulePath(), null, uri.pinFile());
  }

  /**
   * Starts a login.
   *
   * @return the number of failures that {@link #ask} lets pass. Callers get it before they wait for
   *     the lock of the token, so that {@code ask} counts the failures that happen while they wait
   */
  int begin() {
    return file == null ? COUNT.get() : pardoned;
  }

  /**
   * Lets later logins read the file again although one with it has failed. A PIN that the token
   * refused stays refused until the file changes.
   */
  void pardon() {
    pardoned = COUNT.get();
  }

  /** Returns the lock that every login to the token holds, whichever provider it comes from. */
  Object turn(PKCS11TokenInfo token) {
    return logins(token);
  }

  private Logins logins(PKCS11TokenInfo token) {
    return LOGINS.computeIfAbsent(List.of(module, token.label(), token.manufacturerID(),
        token.model(), token.serialNumber()), key -> new Logins());
  }

  private FilePin filePin(PKCS11TokenInfo token) {
    return logins(token).files.computeIfAbsent(file.normalize(), key -> new FilePin());
  }

  /**
   * Notes that a login has failed. It may have used up a try, whatever the return value says.
   *
   * @param refused whether the return value names the PIN, {@code CKR_PIN_INCORRECT} for instance
   */
  void failed(PKCS11TokenInfo token, PKCS11Exception failure, boolean refused) {
    if (file != null && refused) {
      filePin(token).refusal = failure.getMessage();
    } else {
      Failures noted = failures(token);
      noted.why = failure.getMessage();
      noted.last = COUNT.incrementAndGet();
    }
  }

  /** Notes that a login has succeeded: the PIN in the file is right, whatever failed earlier. */
  void succeeded(PKCS11TokenInfo token) {
    if (file != null) {
      failures(token).last = 0;
    }
  }

  private Failures failures(PKCS11TokenInfo token) {
    return file == null ? logins(token).ofHandlers : filePin(token).failures;
  }

  /**
   * Asks for the PIN.
   *
   * @param token the token that the PIN is for
   * @param begun the result of {@link #begin}
   * @return the PIN in UTF-8, which the caller wipes; null if there is none and the token has a PIN
   *     pad ({@code CKF_PROTECTED_AUTHENTICATION_PATH})
   * @throws LoginException when there is no PIN, when the handler or the file fails, when a login
   *     with this source has failed since {@code begun}, and when the token has refused the file's
   *     PIN and the file has not changed since
   */
  byte[] ask(PKCS11TokenInfo token, int begun) throws LoginException {
    Failures noted = failures(token);
    if (noted.last > begun) {
      throw new LoginException(file == null
          ? "another login failed while this one waited: " + noted.why
          : "the login with the PIN of " + file + " has failed: " + noted.why
              + ": it is tried again by the next load of a key store");
    }
    byte[] pin;
    try {
      pin = file != null ? read(filePin(token)) : handler != null ? answer(token.trimmedLabel()) : null;
    } catch (IOException | UnsupportedCallbackException | RuntimeException e) {
      throw (LoginException) new LoginException((file != null ? "the pin-source cannot be used: "
          : "the PIN cannot be asked for: ") + e).initCause(e);
    }
    if (pin == null && !token.hasFlag(CKF_PROTECTED_AUTHENTICATION_PATH)) {
      throw new LoginException("the token \"" + Printable.of(token.trimmedLabel()) + "\" wants a PIN, and none is"
          + " given: not by load, not by a callback handler, not by a pin-source in the URI");
    }
    return pin;
  }

  /** Reads the PIN file, unless the token has refused its PIN: each try brings the lock nearer. */
  private byte[] read(FilePin known) throws IOException, LoginException {
    long modified = file.toFile().lastModified();
    long length = file.toFile().length();
    if (known.refusal != null && modified == known.modified && length == known.length) {
      throw new LoginException("the PIN of " + file + " was refused: " + known.refusal
          + ": it is tried again when the file has changed");
    }
    byte[] pin = Pin.ofFile(file); // If this fails, the refusal stays: the PIN may be the same.
    known.refusal = null;
    known.modified = modified;
    known.length = length;
    return pin;
  }

  /** Asks the handler; returns null for no answer and for an empty one, since no PIN is empty. */
  private byte[] answer(String label) throws IOException, UnsupportedCallbackException {
    PasswordCallback question = new PasswordCallback("PIN of \"" + Printable.of(label) + "\": ", false);
    char[] typed = {};
    try {
      handler.handle(new Callback[] {question});
      typed = question.getPassword();
      return typed == null || typed.length == 0 ? null : Pin.of(typed);
    } finally {
      question.clearPassword();
      if (typed != null) {
        Arrays.fill(typed, '\0');
      }
    }
  }
}
