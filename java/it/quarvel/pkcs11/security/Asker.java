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
 * Gets the PIN of a token from a callback handler or a file, or from nobody, for a reader with a PIN
 * pad. Each wrong try brings a token nearer to its lock, so that nobody tries what has just failed
 * for somebody else. Whoever asks holds the locks of the provider's token and of {@link #turn}, until
 * the token has answered the login.
 */
final class Asker {
  /** The last login that has failed with a PIN from one source. */
  private static final class Failures {
    /** The number that it has in {@link #COUNT}, 0 for none. */
    private int last;
    private String why;
  }

  /** The PIN in a file. */
  private static final class FilePin {
    private final Failures failures = new Failures();

    /** Why the token has refused it, null if it has not. */
    private String refusal;

    /** The file's time and length when the token refused it. */
    private long modified;
    private long length;
  }

  /** The failed logins of all providers of the process at one token. */
  private static final class Logins {
    private final Failures ofHandlers = new Failures();
    private final Map<Path, FilePin> files = new HashMap<>();
  }

  /** Counts the failures of all sources. */
  private static final AtomicInteger COUNT = new AtomicInteger();

  private static final Map<List<String>, Logins> LOGINS = new ConcurrentHashMap<>();

  private final String module;
  private final CallbackHandler handler;
  private final Path file;

  /** The failures after which a file may be read all the same. */
  private volatile int pardoned;

  private Asker(String module, CallbackHandler handler, Path file) {
    this.module = module;
    this.handler = handler;
    this.file = file;
  }

  /** Makes one that asks a handler. */
  static Asker of(PKCS11Uri uri, CallbackHandler handler) {
    return new Asker(uri.modulePath(), handler, null);
  }

  /** Makes one that reads the URI's {@code pin-source}, and asks nobody where there is none. */
  static Asker of(PKCS11Uri uri) {
    return new Asker(uri.modulePath(), null, uri.pinFile());
  }

  /** Returns what {@link #ask} takes, before the token's lock is waited for. */
  int begin() {
    return file == null ? COUNT.get() : pardoned;
  }

  /** Lets those who begin from now on read a file again after a login has failed. */
  void pardon() {
    pardoned = COUNT.get();
  }

  /** Returns the lock of all who log in to a token, by whichever provider. */
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
   * Notes that a login has failed, which may have cost a try whatever the module calls it.
   *
   * @param refused the token has named the PIN as the reason
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

  /** Notes that a login has succeeded: the PIN of a file is the right one, whatever failed before. */
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
   * @param token whose PIN it is
   * @param begun what {@link #begin} has returned
   * @return its bytes, which the caller wipes; null when the token has a path of its own for it
   * @throws LoginException when there is none, or when a login with it has failed since
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

  /** A PIN that was refused is not read again from the same file: it would use up the token's tries. */
  private byte[] read(FilePin known) throws IOException, LoginException {
    long modified = file.toFile().lastModified();
    long length = file.toFile().length();
    if (known.refusal != null && modified == known.modified && length == known.length) {
      throw new LoginException("the PIN of " + file + " was refused: " + known.refusal
          + ": it is tried again when the file has changed");
    }
    byte[] pin = Pin.ofFile(file); // which it may fail to be for a while without a change
    known.refusal = null;
    known.modified = modified;
    known.length = length;
    return pin;
  }

  /** Returns null for no answer and for an empty one, which no token has for a PIN. */
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
