// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Module;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.Semaphore;

/**
 * The sessions of one connection. The lasting one keeps the login, which ends with the last
 * session. Beside it, each thread at work has a session of its own. A session is closed after a
 * call in it has failed, since an operation may still be active in it; otherwise another thread
 * gets it next.
 */
final class Sessions {
  /** A session for one thread, which keeps the module open until the thread closes this object. */
  final class Use implements AutoCloseable {
    private NativePKCS11Session session;
    private boolean entered;
    private boolean succeeded;

    NativePKCS11Session session() {
      return session;
    }

    /** Lets another thread have the session next. Without this call, {@link #close} closes it. */
    void succeeded() {
      succeeded = true;
    }

    private void open(boolean writing) throws PKCS11Exception {
      SharedModule.enter(module);
      entered = true;
      NativePKCS11Session pooled = writing ? null : idle.poll();
      session = pooled != null ? pooled : slot.openSession(writing);
      // A session that was opened after the login had ended would find no private object.
      if (closed) {
        throw new PKCS11Exception(PKCS11Constants.CKR_SESSION_CLOSED);
      }
    }

    @Override
    public void close() {
      if (succeeded && !closed) {
        idle.add(session);
        if (closed) {
          closeIdle(); // Sessions.close may have looked before the session was there.
        }
      } else if (session != null) {
        Sessions.close(session);
      }
      if (entered) {
        SharedModule.leave();
      }
      room.release();
    }
  }

  /** The most sessions beside the lasting one. */
  private static final int MOST = 64;

  final PKCS11Module module;
  final NativePKCS11Session lasting;

  private final NativePKCS11Slot slot;

  /** Read-only sessions that no thread uses. */
  private final Queue<NativePKCS11Session> idle = new ConcurrentLinkedQueue<>();

  /** Has a permit for each session that may still be opened or taken from {@link #idle}. */
  private final Semaphore room;
  private volatile boolean closed;

  /**
   * Opens the lasting session ({@code C_OpenSession}). The calling thread has entered the module.
   *
   * @param token its description, which limits the number of sessions ({@code ulMaxSessionCount})
   */
  Sessions(PKCS11Module module, NativePKCS11Slot slot, PKCS11TokenInfo token)
      throws PKCS11Exception {
    this.module = module;
    this.slot = slot;
    int most = token.maxSessionCount() > 1 ? token.maxSessionCount() - 1 : MOST;
    room = new Semaphore(Math.min(most, MOST));
    lasting = slot.openSession();
  }

  /**
   * Takes an idle session or opens one. The call waits while all are in use.
   *
   * @param writing true for a new read/write session ({@code CKF_RW_SESSION})
   * @return the use, which the caller closes
   * @throws PKCS11Exception when no session can be opened, and with {@code CKR_SESSION_CLOSED}
   *     after {@link Sessions#close}
   */
  Use take(boolean writing) throws PKCS11Exception {
    room.acquireUninterruptibly();
    Use use = new Use();
    try {
      use.open(writing);
      return use;
    } catch (Throwable e) {
      use.close();
      throw e;
    }
  }

  /**
   * Returns the state of the lasting session ({@code C_GetSessionInfo}).
   *
   * @return a {@code CKS_} value, {@code CKS_RO_USER_FUNCTIONS} after the login
   */
  int state() throws PKCS11Exception {
    SharedModule.enter(module);
    try {
      return lasting.getInfo().state();
    } finally {
      SharedModule.leave();
    }
  }

  /** Tells whether {@link #close} was called, by a logout for instance. */
  boolean isClosed() {
    return closed;
  }

  /**
   * Closes the idle sessions and the lasting one; a session in use is closed at the end of its use.
   */
  void close() {
    closed = true;
    try {
      SharedModule.enter(module);
    } catch (PKCS11Exception e) {
      return; // The module is closed, and its sessions with it.
    }
    try {
      closeIdle();
      close(lasting);
    } finally {
      SharedModule.leave();
    }
  }

  /** Closes each idle session once: its handle may be another session's afterwards. */
  private void closeIdle() {
    for (NativePKCS11Session each = idle.poll(); each != null; each = idle.poll()) {
      close(each);
    }
  }

  private static void close(NativePKCS11Session session) {
    try {
      session.close();
    } catch (PKCS11Exception e) {
      // The session is gone already, with its token for instance.
    }
  }
}
