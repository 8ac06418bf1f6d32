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
 * The token that a URI names. It connects at the first need: it opens the module and a session, and
 * logs in. It connects again when the connection is lost: after a card was pulled and put back,
 * after a server was started anew, after a logout.
 */
final class Token {
  /** Work in a session that runs {@code login} once the module wants the PIN for the key. */
  interface PinWork<T> {
    T in(NativePKCS11Session session, Connection connection, NativePKCS11Session.Login login)
        throws PKCS11Exception;
  }

  final PKCS11Uri uri;

  /** How often {@link #run} tries its work before it gives up a token that is lost each time. */
  private static final int MOST_ATTEMPTS = 3;

  /** The lock of all changes to any token, since several providers may have the same token. */
  static final Object CHANGING = new Object();

  /** The source of the PIN when no handler is set. */
  private final Asker byUri;

  /** The source of the PIN. */
  private volatile Asker asker;

  /** The description of the token at the first connection, null before. No other token will do. */
  private volatile PKCS11TokenInfo info;

  /** The mechanisms of {@link #signsWith}, null before the first connection. */
  private volatile Set<Integer> mechanisms;

  /** The connection, null before the first one, after a logout and after a failure to connect. */
  private volatile Connection connection;

  Token(PKCS11Uri uri) {
    this.uri = uri;
    byUri = Asker.of(uri);
    asker = byUri;
  }

  /** Sets the handler that asks for the PIN; null for the {@code pin-source} of the URI. */
  void setHandler(CallbackHandler handler) {
    asker = handler == null ? byUri : Asker.of(uri, handler);
  }

  /** Tells whether there is a connection, which may have been lost since. */
  boolean isOpen() {
    return connection != null;
  }

  /** Returns the label for messages, null before the first connection. */
  String label() {
    return info == null ? null : Printable.of(info.trimmedLabel());
  }

  /**
   * Tells whether the token signs with a mechanism ({@code CKF_SIGN}).
   *
   * @param mechanism {@code CKM_RSA_X_509}, or the {@code CKM_} of RSASSA-PSS with a hash; false
   *     for any other
   */
  boolean signsWith(int mechanism) {
    return mechanisms.contains(mechanism);
  }

  /**
   * Connects, unless there is a connection that is alive and logged in. After a failed login, a PIN
   * file is read again.
   *
   * @param once asks for the PIN this time; null for the handler or file of the token
   * @throws PKCS11Exception when the token is not found or the module refuses; the token leaves
   *     nothing open then
   * @throws LoginException when there is no PIN; a {@code FailedLoginException} when the token
   *     refuses the PIN, with the module's failure as the cause
   */
  void login(CallbackHandler once) throws PKCS11Exception, LoginException {
    Asker chosen = asker(once);
    chosen.pardon();
    connect(connection, chosen, chosen.begin());
  }

  private Asker asker(CallbackHandler once) {
    return once == null ? asker : Asker.of(uri, once);
  }

  /**
   * Closes the sessions, and the module unless another token needs it ({@code C_Finalize}). The
   * login ends with the last session that the process has with the token.
   */
  synchronized void logout() {
    close(connection);
    connection = null;
    SharedModule.release(this);
  }

  /**
   * Does work in a session. When the connection is lost or somebody logs out, the token connects
   * again and starts the work afresh.
   *
   * @throws PKCS11Exception when the work or the connection fails
   * @throws LoginException as {@link #login}
   */
  <T> T run(Connection.Work<T> work) throws PKCS11Exception, LoginException {
    return run(work, null);
  }

  /**
   * Does work in a session as {@link #run(Connection.Work)} does.
   *
   * @param once asks for the PIN this time; null for the handler or file of the token
   */
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
        // A logout by another thread is no failure of the token's.
        failures += current.sessions.isClosed() ? 0 : 1;
        if (!isGone(e) || failures == MOST_ATTEMPTS) {
          throw e;
        }
        if (e.errorCode() == CKR_DEVICE_REMOVED) {
          current.sessions.close(); // Some modules still tell the state of such a session.
        }
      }
    }
  }

  /**
   * Does work with a key that wants a login at each use ({@code CKA_ALWAYS_AUTHENTICATE}). Until
   * the work is done, no other thread asks for the PIN of this token or logs in to it, so that a
   * thread that waits sees a refusal before it sends the same PIN.
   *
   * @throws PKCS11Exception when the work or the connection fails, or the token refuses the PIN for
   *     the key
   * @throws LoginException when there is no PIN for the key; as {@link #login}
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
              throw refused[0]; // A refused PIN is sent once, however often the work starts.
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
   * Does work once in a read/write session of its own ({@code CKF_RW_SESSION}). The token never
   * starts the work again: when it fails, half of it may be done.
   *
   * @throws PKCS11Exception when the work or the connection fails
   * @throws LoginException as {@link #login}
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

  /**
   * Tells whether a failure may mean that the connection is lost, and not that the work is refused.
   */
  static boolean isGone(PKCS11Exception failure) {
    return switch (failure.errorCode()) {
      case CKR_USER_NOT_LOGGED_IN, CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED,
          CKR_OBJECT_HANDLE_INVALID, CKR_KEY_HANDLE_INVALID, CKR_DEVICE_REMOVED, CKR_DEVICE_ERROR,
          CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED, CKR_SLOT_ID_INVALID,
          CKR_CRYPTOKI_NOT_INITIALIZED -> true;
      default -> false;
    };
  }

  /**
   * Logs in ({@code C_Login}), after a look whether the token is still in the slot of the session,
   * for the PIN must go to no other token.
   *
   * @param pin the PIN, null for the reader's PIN pad
   */
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

  /** Tells whether a login has failed for the PIN, rather than for another reason. */
  private static boolean namesThePin(PKCS11Exception failure) {
    return switch (failure.errorCode()) {
      case CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE, CKR_PIN_EXPIRED, CKR_PIN_LOCKED ->
          true;
      default -> false;
    };
  }

  /**
   * Connects, unless another thread has done so since the caller took the connection. If the
   * sessions of the old connection are alive, the new one logs in through them.
   *
   * @param failed the connection that the caller used, null for none
   * @param begun the result of {@link Asker#begin}
   */
  private synchronized Connection connect(Connection failed, Asker asker, int begun)
      throws PKCS11Exception, LoginException {
    if (connection == null || connection == failed) {
      PKCS11TokenInfo known = info;
      Sessions sessions = connection != null && isAlive(failed) ? failed.sessions : attach();
      connection = null;
      try {
        logIn(sessions, asker, begun);
        if (connection == null) { // The handler may have loaded a key store, and so have connected.
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

  /** Tells whether the module still knows the lasting session. */
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

  /** Opens the module and the lasting session, in place of the old connection. */
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
      // A server that was started anew does not know its clients: start the module anew too.
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

  /** Finds the slot of the token: the one that the URI names, and no other than at first. */
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

  /** Returns the URI; after the first connection, with all that describes the token of then. */
  private PKCS11Uri identity() {
    return info == null ? uri : uri.with(info);
  }

  /**
   * Returns those mechanisms of raw RSA and RSASSA-PSS by which the token signs. A token that signs
   * by RSA PKCS #1 may lack any of them.
   */
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

  /** Tells whether a connection is alive and logged in. */
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

  /**
   * Logs in through the lasting session, unless somebody in the process has logged in to the token:
   * then it asks for no PIN.
   */
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
        // The JDK's provider, or this one in another class loader, may have logged in meanwhile.
        if (e.errorCode() != CKR_USER_ALREADY_LOGGED_IN) {
          throw e;
        }
      } finally {
        Pin.wipe(pin);
      }
    }
  }
}
