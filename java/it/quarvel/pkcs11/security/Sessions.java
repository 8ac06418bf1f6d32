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
  interface Work<T> {
    T in(NativePKCS11Session session) throws PKCS11Exception;
  }

  private static final int MOST = 64;

  final PKCS11Module module;
  final NativePKCS11Session lasting;

  private final NativePKCS11Slot slot;
  private final Queue<NativePKCS11Session> idle = new ConcurrentLinkedQueue<>();
  private final Semaphore room;
  private volatile boolean closed;

  Sessions(PKCS11Module module, NativePKCS11Slot slot, PKCS11TokenInfo token)
      throws PKCS11Exception {
    this.module = module;
    this.slot = slot;
    int most = token.maxSessionCount() > 1 ? token.maxSessionCount() - 1 : MOST;
    room = new Semaphore(Math.min(most, MOST));
    lasting = SharedModule.use(module, slot::openSession);
  }

  /** Does some work in a session that nobody else uses meanwhile. */
  <T> T run(Work<T> work) throws PKCS11Exception {
    room.acquireUninterruptibly();
    try {
      return SharedModule.use(module, () -> {
        NativePKCS11Session pooled = idle.poll();
        NativePKCS11Session session = pooled != null ? pooled : slot.openSession();
        boolean done = false;
        try {
          // One that was opened after the login had ended would find no private object.
          if (closed) {
            throw new PKCS11Exception(PKCS11Constants.CKR_SESSION_CLOSED);
          }
          T result = work.in(session);
          done = true;
          return result;
        } finally {
          if (done && !closed) {
            idle.add(session);
          } else {
            close(session);
          }
        }
      });
    } finally {
      room.release();
    }
  }

  /** Does some work in a read/write session, which is closed then. */
  <T> T runOnce(Work<T> work) throws PKCS11Exception {
    room.acquireUninterruptibly();
    try {
      return SharedModule.use(module, () -> {
        NativePKCS11Session session = slot.openSession(true);
        try {
          return work.in(session);
        } finally {
          close(session);
        }
      });
    } finally {
      room.release();
    }
  }

  /** Does some work in the session that lasts. */
  <T> T runLasting(Work<T> work) throws PKCS11Exception {
    return SharedModule.use(module, () -> work.in(lasting));
  }

  /** Tells whether {@link #close} was called, as it is by a logout. */
  boolean isClosed() {
    return closed;
  }

  /** Closes all sessions, also those that are in use, when they are given back. */
  void close() {
    closed = true;
    try {
      SharedModule.use(module, () -> {
        idle.forEach(Sessions::close);
        close(lasting);
        return null;
      });
    } catch (PKCS11Exception e) {
      // The module has gone, and they with it.
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
