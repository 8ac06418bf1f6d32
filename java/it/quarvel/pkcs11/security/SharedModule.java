// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Module;
import java.util.HashSet;
import java.util.Set;
import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * The one module of the process, which all tokens share. Nobody may be in a call when it is closed:
 * those who call hold a lock together, whoever opens or closes holds it alone.
 */
final class SharedModule {
  private static final ReentrantReadWriteLock LOCK = new ReentrantReadWriteLock();
  private static final Set<Object> USERS = new HashSet<>();

  private static PKCS11Module open;
  private static String path;
  private static LinkageError broken;

  private SharedModule() {}

  /**
   * Opens the module, unless it is.
   *
   * @param user who needs it until {@link #release}
   * @throws PKCS11Exception that tells which other module is open, why this one cannot be, or why
   *     there is no native library
   */
  static PKCS11Module acquire(String wanted, Object user) throws PKCS11Exception {
    LOCK.writeLock().lock();
    try {
      if (open == null) {
        open = load(wanted);
        path = wanted;
      } else if (!path.equals(wanted)) {
        throw new PKCS11Exception("there is one module at a time: " + path + " is in use, " + wanted
            + " cannot be opened; p11-kit-proxy.so shows several as one");
      }
      USERS.add(user);
      return open;
    } finally {
      LOCK.writeLock().unlock();
    }
  }

  /** Closes the module with its last user. */
  static void release(Object user) {
    LOCK.writeLock().lock();
    try {
      if (USERS.remove(user) && USERS.isEmpty()) {
        close();
      }
    } finally {
      LOCK.writeLock().unlock();
    }
  }

  /** Starts a module over that has lost what is behind it, unless another thread has. */
  static PKCS11Module reopen(PKCS11Module lost) throws PKCS11Exception {
    LOCK.writeLock().lock();
    try {
      if (open == lost) {
        close();
      }
      if (open == null) {
        open = load(path);
      }
      return open;
    } finally {
      LOCK.writeLock().unlock();
    }
  }

  /**
   * Keeps a module open until this thread calls {@link #leave}.
   *
   * @throws PKCS11Exception with CKR_CRYPTOKI_NOT_INITIALIZED when this module is open no more, so
   *     that its handles are of no use; there is nothing to leave then
   */
  static void enter(PKCS11Module module) throws PKCS11Exception {
    LOCK.readLock().lock();
    if (module != open) {
      leave();
      throw new PKCS11Exception(PKCS11Constants.CKR_CRYPTOKI_NOT_INITIALIZED);
    }
  }

  static void leave() {
    LOCK.readLock().unlock();
  }

  private static void close() {
    if (open != null) {
      open.close();
      open = null;
    }
  }

  /** A library that could not be loaded says why at the first use of its classes alone. */
  private static PKCS11Module load(String wanted) throws PKCS11Exception {
    try {
      if (broken == null) {
        return PKCS11Module.open(wanted);
      }
    } catch (IllegalStateException e) {
      throw failure(e);
    } catch (LinkageError e) {
      broken = e;
    }
    throw failure(broken);
  }

  private static PKCS11Exception failure(Throwable cause) {
    PKCS11Exception failure = new PKCS11Exception(cause.getMessage());
    failure.initCause(cause);
    return failure;
  }
}
