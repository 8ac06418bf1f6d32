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
 * The sessions with a token in its slot: one that lasts, since the login ends with the last one,
 * and as many beside it as threads are at work. Any of those is closed when a call in it fails, for
 * an operation may still be active in it.
 */
final class Sessions {
  /** A session that one thread has for itself, and keeps the module open with, until it closes this. */
  final class Use implements AutoCloseable {
    private NativePKCS11Session session;
    private boolean entered;
    private boolean succeeded;

    NativePKCS11Session session() {
      return session;
    }

    /** Lets others have the session next; otherwise it is closed. */
    void succeeded() {
      succeeded = true;
    }

    private void open(boolean writing) throws PKCS11Exception {
      SharedModule.enter(module);
      entered = true;
      NativePKCS11Session pooled = writing ? null : idle.poll();
      session = pooled != null ? pooled : slot.openSession(writing);
      // One that was opened after the login had ended would find no private object.
      if (closed) {
        throw new PKCS11Exception(PKCS11Constants.CKR_SESSION_CLOSED);
      }
    }

    @Override
    public void close() {
      if (succeeded && !closed) {
        idle.add(session);
      } else if (session != null) {
        Sessions.close(session);
      }
      if (entered) {
        SharedModule.leave();
      }
      room.release();
    }
  }

  private static final int MOST = 64;

  final PKCS11Module module;
  final NativePKCS11Session lasting;

  private final NativePKCS11Slot slot;
  private final Queue<NativePKCS11Session> idle = new ConcurrentLinkedQueue<>();
  private final Semaphore room;
  private volatile boolean closed;

  /** Opens the session that lasts, by a thread that has entered the module. */
  Sessions(PKCS11Module module, NativePKCS11Slot slot, PKCS11TokenInfo token)
      throws PKCS11Exception {
    this.module = module;
    this.slot = slot;
    int most = token.maxSessionCount() > 1 ? token.maxSessionCount() - 1 : MOST;
    room = new Semaphore(Math.min(most, MOST));
    lasting = slot.openSession();
  }

  /**
   * Waits for a session.
   *
   * @param writing for a read/write session ({@code CKF_RW_SESSION}), which is never used again
   * @throws PKCS11Exception when none can be opened, or all were closed
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

  /** Returns the state of the session that lasts: {@code CKS_RO_USER_FUNCTIONS} after the login. */
  int state() throws PKCS11Exception {
    SharedModule.enter(module);
    try {
      return lasting.getInfo().state();
    } finally {
      SharedModule.leave();
    }
  }

  /** Tells whether {@link #close} was called, as it is by a logout. */
  boolean isClosed() {
    return closed;
  }

  /** Closes all sessions, also those that are in use, when they are given back. */
  void close() {
    closed = true;
    try {
      SharedModule.enter(module);
    } catch (PKCS11Exception e) {
      return; // the module has gone, and they with it
    }
    try {
      idle.forEach(Sessions::close);
      close(lasting);
    } finally {
      SharedModule.leave();
    }
  }

  private static void close(NativePKCS11Session session) {
    try {
      session.close();
    } catch (PKCS11Exception e) {
      // It has gone already, with its token for instance.
    }
  }
}
