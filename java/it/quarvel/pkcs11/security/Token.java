// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Module;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.internal.Hash;
import it.quarvel.pkcs11.internal.Pin;
import it.quarvel.pkcs11.internal.Printable;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.HashSet;
import java.util.Set;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.login.FailedLoginException;
import javax.security.auth.login.LoginException;

/**
 * The token that a URI names. It is opened and logged in to at the first need, and again whenever
 * it has gone and come back: a card that was pulled, a server that was started anew, a logout.
 */
final class Token {
  /** A piece of work in a session, with a login of its own in the middle. */
  interface PinWork<T> {
    T in(NativePKCS11Session session, Connection connection, NativePKCS11Session.Login login)
        throws PKCS11Exception;
  }

  final PKCS11Uri uri;

  private static final int MOST_ATTEMPTS = 3;

  /** The lock of all who change a token, since several providers may have the same one. */
  static final Object CHANGING = new Object();

  /** The source of the PIN when no handler is set. */
  private final Asker byUri;

  private volatile Asker asker;

  /** The token that the URI named first, as it said then. */
  private volatile PKCS11TokenInfo info;

  private volatile Set<Integer> mechanisms;
  private volatile Connection connection;

  Token(PKCS11Uri uri) {
    this.uri = uri;
    byUri = Asker.of(uri);
    asker = byUri;
  }

  /** Sets who asks for the PIN; null: what the URI says. */
  void setHandler(CallbackHandler handler) {
    asker = handler == null ? byUri : Asker.of(uri, handler);
  }

  boolean isOpen() {
    return connection != null;
  }

  /** Returns the label as people may see it, null before the token has been seen. */
  String label() {
    return info == null ? null : Printable.of(info.trimmedLabel());
  }

  /** Tells whether the token signs with raw RSA or with a PSS of its own ({@code CKF_SIGN}). */
  boolean signsWith(int mechanism) {
    return mechanisms.contains(mechanism);
  }

  /**
   * Logs in, unless that has been done.
   *
   * @param once asks for the PIN this time; null: whoever was set
   * @throws PKCS11Exception when the token cannot be had; nothing is left open then
   * @throws LoginException when there is no PIN or the token refuses it, which is the cause then
   */
  void login(CallbackHandler once) throws PKCS11Exception, LoginException {
    Asker chosen = asker(once);
    chosen.pardon();
    connect(connection, chosen, chosen.begin());
  }

  private Asker asker(CallbackHandler once) {
    return once == null ? asker : Asker.of(uri, once);
  }

  /** Logs out, and closes the module unless another token needs it. */
  synchronized void logout() {
    close(connection);
    connection = null;
    SharedModule.release(this);
  }

  /** Does some work in a session; anew when the token has gone, or somebody has logged out. */
  <T> T run(Connection.Work<T> work) throws PKCS11Exception, LoginException {
    return run(work, null);
  }

  /** The same; {@code once} asks for the PIN this time, unless it is null. */
  <T> T run(Connection.Work<T> work, CallbackHandler once) throws PKCS11Exception, LoginException {
    Asker chosen = asker(once);
    int begun = chosen.begin();
    Connection current = connection;
    if (current == null) {
      current = connect(null, chosen, begun);
    }
    for (int failures = 0; ; current = connect(current, chosen, begun)) {
      try {
        return current.run(work);
      } catch (PKCS11Exception e) {
        // A logout in another thread is no fault of the token's.
        failures += current.sessions.isClosed() ? 0 : 1;
        if (!isGone(e) || failures == MOST_ATTEMPTS) {
          throw e;
        }
        if (e.errorCode() == CKR_DEVICE_REMOVED) {
          current.sessions.close(); // some modules go on to tell of a session with what has gone
        }
      }
    }
  }

  /**
   * Does some work that logs in once more, for a key that wants that. Until it is done nobody else is
   * asked for a PIN or logs in: who waits for that learns from a refusal.
   */
  <T> T runWithPin(PinWork<T> work) throws PKCS11Exception, LoginException {
    Asker chosen = asker;
    int begun = chosen.begin();
    synchronized (this) {
      synchronized (chosen.turn(info)) {
        byte[] pin = chosen.ask(info, begun);
        PKCS11Exception[] refused = {null};
        try {
          return run((session, connection) -> work.in(session, connection, () -> {
            if (refused[0] != null) {
              throw refused[0]; // and the PIN is not sent again, however often the work is
            }
            try {
              authenticate(connection.sessions, session, pin, chosen);
            } catch (PKCS11Exception e) {
              refused[0] = e;
              throw e;
            }
          }));
        } finally {
          Pin.wipe(pin);
        }
      }
    }
  }

  /**
   * Does some work in a read/write session of its own ({@code CKF_RW_SESSION}). It is never done
   * again by itself: when it fails, half of it may be done.
   */
  <T> T change(Connection.Work<T> work) throws PKCS11Exception, LoginException {
    Connection current = run((session, connection) -> {
      if (info.hasFlag(CKF_LOGIN_REQUIRED) && session.getInfo().state() == CKS_RO_PUBLIC_SESSION) {
        throw new PKCS11Exception(CKR_USER_NOT_LOGGED_IN);
      }
      return connection;
    });
    synchronized (CHANGING) {
      return current.change(work);
    }
  }

  /** Tells whether a failure may be one of the connection rather than of the work. */
  static boolean isGone(PKCS11Exception failure) {
    return switch (failure.errorCode()) {
      case CKR_USER_NOT_LOGGED_IN, CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED,
          CKR_OBJECT_HANDLE_INVALID, CKR_KEY_HANDLE_INVALID, CKR_DEVICE_REMOVED, CKR_DEVICE_ERROR,
          CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED, CKR_SLOT_ID_INVALID,
          CKR_CRYPTOKI_NOT_INITIALIZED -> true;
      default -> false;
    };
  }

  /** Logs in, provided that it is still this token that gets the PIN. */
  private void authenticate(Sessions sessions, NativePKCS11Session session, byte[] pin, Asker asked)
      throws PKCS11Exception {
    if (!choose(sessions.module).equals(session.slot())) {
      throw new PKCS11Exception("the token \"" + label() + "\" has gone to another slot");
    }
    try {
      if (pin == null) {
        session.loginAuthPath(false);
      } else {
        session.loginellips(false, pin);
      }
      asked.succeeded(info);
    } catch (PKCS11Exception e) {
      if (e.errorCode() != CKR_USER_ALREADY_LOGGED_IN
          && (!isGone(e) || e.errorCode() == CKR_DEVICE_ERROR)) {
        asked.failed(info, e, namesThePin(e));
      }
      throw e;
    }
  }

  private static boolean namesThePin(PKCS11Exception failure) {
    return switch (failure.errorCode()) {
      case CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE, CKR_PIN_EXPIRED, CKR_PIN_LOCKED ->
          true;
      default -> false;
    };
  }

  /** Connects anew, unless another thread has done so since the connection was seen to fail. */
  private synchronized Connection connect(Connection failed, Asker asker, int begun)
      throws PKCS11Exception, LoginException {
    if (connection == null || connection == failed) {
      PKCS11TokenInfo known = info;
      Sessions sessions = connection != null && isAlive(failed) ? failed.sessions : attach();
      connection = null;
      try {
        logIn(sessions, asker, begun);
        if (connection == null) { // unless the handler itself has loaded a key store
          connection = new Connection(sessions);
        }
      } finally {
        if (connection == null || connection.sessions != sessions) {
          sessions.close();
        }
        if (connection == null) {
          info = known;
          SharedModule.release(this);
        }
      }
    }
    return connection;
  }

  private static boolean isAlive(Connection connection) {
    try {
      connection.sessions.state();
      return true;
    } catch (PKCS11Exception e) {
      return false;
    }
  }

  private static void close(Connection connection) {
    if (connection != null) {
      connection.sessions.close();
    }
  }

  private Sessions attach() throws PKCS11Exception {
    close(connection);
    connection = null;
    Sessions sessions = null;
    PKCS11Module module = SharedModule.acquire(uri.modulePath(), this);
    try {
      sessions = open(module);
    } catch (PKCS11Exception e) {
      if (e.errorCode() != CKR_DEVICE_ERROR) {
        throw e;
      }
      // A server that has come back knows nothing of who was there before.
      sessions = open(SharedModule.reopen(module));
    } finally {
      if (sessions == null) {
        SharedModule.release(this);
      }
    }
    return sessions;
  }

  private Sessions open(PKCS11Module module) throws PKCS11Exception {
    SharedModule.enter(module);
    try {
      NativePKCS11Slot slot = choose(module);
      if (info == null) {
        mechanisms = signing(slot);
        info = slot.getTokenInfo();
      }
      return new Sessions(module, slot, info);
    } finally {
      SharedModule.leave();
    }
  }

  private NativePKCS11Slot choose(PKCS11Module module) throws PKCS11Exception {
    try {
      return module.token(identity());
    } catch (PKCS11Exception e) {
      if (info == null || e.reason() != PKCS11Exception.Reason.OTHER) {
        throw e;
      }
      throw new PKCS11Exception("the token \"" + label() + "\" of before (serial number "
          + Printable.of(info.serialNumber().strip()) + ") is not found: " + e.getMessage());
    }
  }

  /** Returns the URI, completed by what the token said of itself when it was seen first. */
  private PKCS11Uri identity() {
    return info == null ? uri : uri.with(info);
  }

  /** Returns which of raw RSA and RSASSA-PSS the token signs with: a token with RSA may lack them. */
  private static Set<Integer> signing(NativePKCS11Slot slot) throws PKCS11Exception {
    Set<Integer> signing = new HashSet<>();
    for (int mechanism : slot.getMechanismList()) {
      Hash hash = Hash.of(mechanism);
      if ((mechanism == CKM_RSA_X_509 || hash != null && mechanism == hash.pssMechanism)
          && slot.getMechanismInfo(mechanism).hasFlag(CKF_SIGN)) {
        signing.add(mechanism);
      }
    }
    return signing;
  }

  /** Tells whether a connection is of use, whatever has failed in it. */
  boolean isLoggedIn(Connection connection) {
    try {
      return isLoggedIn(connection.sessions);
    } catch (PKCS11Exception e) {
      return false;
    }
  }

  private boolean isLoggedIn(Sessions sessions) throws PKCS11Exception {
    int state = sessions.state();
    return !info.hasFlag(CKF_LOGIN_REQUIRED) || state == CKS_RO_USER_FUNCTIONS
        || state == CKS_RW_USER_FUNCTIONS;
  }

  private void logIn(Sessions sessions, Asker asker, int begun)
      throws PKCS11Exception, LoginException {
    synchronized (asker.turn(info)) {
      if (isLoggedIn(sessions)) {
        return;
      }
      byte[] pin = asker.ask(info, begun);
      try {
        SharedModule.enter(sessions.module);
        try {
          authenticate(sessions, sessions.lasting, pin, asker);
        } finally {
          SharedModule.leave();
        }
      } catch (PKCS11Exception e) {
        if (namesThePin(e)) {
          throw (LoginException) new FailedLoginException("the token \"" + label()
              + "\" refuses the login: " + e.getMessage()).initCause(e);
        }
        // The JDK's provider may have been quicker, or a copy of ours in another class loader.
        if (e.errorCode() != CKR_USER_ALREADY_LOGGED_IN) {
          throw e;
        }
      } finally {
        Pin.wipe(pin);
      }
    }
  }
}
