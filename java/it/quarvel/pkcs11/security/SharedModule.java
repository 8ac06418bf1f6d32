// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Module;
import java.util.HashSet;
import java.util.Set;
import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * The module that all providers share, since only one can be open. No call may be under way when it
 * is closed: threads that call share a lock ({@link #enter}), and a thread that opens or closes the
 * module holds it alone.
 */
final class SharedModule {
  private static final ReentrantReadWriteLock LOCK = new ReentrantReadWriteLock();

  /** The tokens that need the module. */
  private static final Set<Object> USERS = new HashSet<>();

  /** The module, null while none is open. */
  private static PKCS11Module open;

  /** The path of the module that was opened last. */
  private static String path;

  /** The last failure to load the native library or the adapter, null before one. */
  private static LinkageError broken;

  private SharedModule() {}

  /**
   * Opens the module, unless it is open.
   *
   * @param wanted the path of the module
   * @param user needs the module until {@link #release}
   * @return the module, which its last user closes
   * @throws PKCS11Exception when another module is open, or when this one, the native library or
   *     the adapter cannot be loaded; the message says which and why
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

  /** Takes a user off the module, and closes the module if no user is left ({@code C_Finalize}). */
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

  /**
   * Closes and opens a module that has lost the server or reader behind it, unless another thread
   * has done so.
   *
   * @param lost the module that the caller used
   * @return the module that is open now
   * @throws PKCS11Exception as {@link #acquire}
   */
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
   * @throws PKCS11Exception with {@code CKR_CRYPTOKI_NOT_INITIALIZED} when this module has been
   *     closed, so that its handles are of no use; the caller does not call {@code leave} then
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

  /**
   * Opens a module. The method keeps a failure to load the native library, since Java says the
   * reason only at the first use of the class.
   */
  private static PKCS11Module load(String wanted) throws PKCS11Exception {
    try {
      return PKCS11Module.open(wanted);
    } catch (IllegalStateException e) {
      throw failure(e);
    } catch (NoClassDefFoundError e) {
      throw failure(broken != null ? broken : e);
    } catch (LinkageError e) {
      broken = e;
      throw failure(e);
    }
  }

  private static PKCS11Exception failure(Throwable cause) {
    PKCS11Exception failure = new PKCS11Exception(cause.getMessage());
    failure.initCause(cause);
    return failure;
  }
}
