// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.CKR_CRYPTOKI_NOT_INITIALIZED;

import it.quarvel.pkcs11.internal.Printable;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.function.BiPredicate;
import java.util.Objects;

/**
 * An open PKCS#11 module.
 *
 * <pre>{@code
 * try (PKCS11Module module = PKCS11Module.open("/usr/lib/softhsm/libsofthsm2.so");
 *     NativePKCS11Session session = module.token("demo").openSession()) {
 *   ...
 * }
 * }</pre>
 *
 * <p>{@link #open} puts the adapter between the module and Java, a PKCS#11 module that makes any
 * other one fit: every thread may call, each with a session of its own, and no caller needs a lock;
 * handles of 64 bits, and objects that are numbered from 0, work; so do attribute and mechanism
 * types of the vendor-defined range, mechanisms of PSS without parameters, and keys that want a
 * login for each operation ({@code CKA_ALWAYS_AUTHENTICATE}): log in again between {@code
 * signInit} and {@code sign}. {@link #openDirect} does without, and {@link NativePKCS11} tells what
 * holds then.
 *
 * <p>The adapter is the one in the jar, else {@code libquarvelpkcs11adapter.so} in {@code
 * java.library.path}, unless the system property {@code it.quarvel.pkcs11.adapter} names a file. It
 * is copied or linked into a new folder, made where {@link NativePKCS11} tells, which is deleted once
 * it is loaded. Without {@link #close} the module is never finalised.
 */
public final class PKCS11Module implements AutoCloseable {
  /** Stands for all slots: the adapter ends its module when the sessions of all are closed. */
  private static final int EVERY_SLOT = -1;

  /** The one that is open in this process, null when none is; guarded by the class. */
  private static PKCS11Module current;

  /** The module whose end failed at last, null when there is none; guarded by the class. */
  private static String unended;

  private final NativePKCS11 module;
  private final String path;
  private final boolean isDirect;

  private PKCS11Module(NativePKCS11 module, String path, boolean isDirect) {
    this.module = module;
    this.path = path;
    this.isDirect = isDirect;
  }

  /**
   * Returns the version of this library.
   *
   * @return its three numbers, of which {@link NativePKCS11#BRIDGE_VERSION} tells two
   */
  public static String version() {
    return Version.TEXT;
  }

  /**
   * Loads and initialises a module behind the adapter ({@code C_GetFunctionList}, {@code
   * C_Initialize} with {@code CKF_OS_LOCKING_OK}). A module that these classes have opened in another
   * class loader is shared with it. One that another part of the process has initialised, the JDK's
   * provider for instance, is used as it is, one call at a time, and not finalised.
   *
   * @param path file of the module; a name without a folder is looked up by the dynamic linker
   * @return the module, which the caller closes
   * @throws PKCS11Exception that names the file and tells why it cannot be loaded, or with the
   *     module's return value when it cannot be initialised
   * @throws IllegalStateException when a module is open already
   * @throws UnsatisfiedLinkError when the native library or the adapter cannot be loaded
   */
  public static PKCS11Module open(String path) throws PKCS11Exception {
    return open(path, false);
  }

  /**
   * Loads and initialises a module without the adapter ({@code C_GetFunctionList}, {@code
   * C_Initialize} without arguments).
   *
   * @param path as in {@link #open}
   * @return the module, which the caller closes
   * @throws PKCS11Exception as {@link #open}; CKR_CRYPTOKI_ALREADY_INITIALIZED when another part of
   *     the process uses the module
   * @throws IllegalStateException when a module is open already
   * @throws UnsatisfiedLinkError when the native library cannot be loaded
   */
  public static PKCS11Module openDirect(String path) throws PKCS11Exception {
    return open(path, true);
  }

  private static synchronized PKCS11Module open(String path, boolean isDirect)
      throws PKCS11Exception {
    if (current != null) {
      throw new IllegalStateException("there is one module at a time, and " + current.path
          + " is open: close it first, or open p11-kit-proxy.so, which shows several as one");
    }
    NativePKCS11 module = new NativePKCS11();
    Objects.requireNonNull(path, "no path of a module");
    if (isDirect) {
      ModuleFile.load(path);
    } else {
      ModuleFile.loadAdapted(path);
    }
    if (path.equals(unended)) {
      warn(path + " was not ended when it was closed before, and may be as it was left");
    }
    // One that refuses is left alone: another part of the process may be using it.
    module.libInitialize();
    unended = null;
    current = new PKCS11Module(module, path, isDirect);
    return current;
  }

  private static void warn(String text) {
    System.getLogger(PKCS11Module.class.getPackageName()).log(System.Logger.Level.WARNING, text);
  }

  /**
   * Returns what the module says of itself ({@code C_GetInfo}).
   *
   * @return the module's information
   * @throws PKCS11Exception when the module refuses
   */
  public PKCS11Info info() throws PKCS11Exception {
    return opened().getInfo();
  }

  /**
   * Lists the slots ({@code C_GetSlotList}), with a token or without.
   *
   * @return the slots in the module's order, empty when there is none
   * @throws PKCS11Exception when the module refuses
   */
  public List<NativePKCS11Slot> slots() throws PKCS11Exception {
    return opened().slots(false);
  }

  /**
   * Lists the slots that hold an initialised token, see {@link PKCS11TokenInfo#isInitialised}. One
   * that cannot be described is none.
   *
   * @return the slots in the module's order, empty when there is none
   * @throws PKCS11Exception when the module refuses
   */
  public List<NativePKCS11Slot> tokens() throws PKCS11Exception {
    List<NativePKCS11Slot> tokens = new ArrayList<>();
    for (Map.Entry<NativePKCS11Slot, PKCS11TokenInfo> each : infos(new ArrayList<>()).entrySet()) {
      if (each.getValue().isInitialised()) {
        tokens.add(each.getKey());
      }
    }
    return tokens;
  }

  /**
   * Finds the token with a label.
   *
   * @param label the label, with or without its padding
   * @return the slot that holds the token
   * @throws PKCS11Exception when no token has it, or several have, with a list of the tokens there
   *     are; when the module refuses
   */
  public NativePKCS11Slot token(String label) throws PKCS11Exception {
    String wanted = label.stripTrailing();
    return token("labelled \"" + label + "\"", (slot, token) ->
        token.trimmedLabel().equals(wanted));
  }

  /**
   * Finds the token that a URI names. One that is not initialised counts where the URI has its
   * slot-id.
   *
   * @param uri the URI; {@link PKCS11Uri#ANY} names the only token there is
   * @return the slot that holds the token
   * @throws PKCS11Exception when it names no token or several, with a list of the tokens there are;
   *     when the module refuses
   */
  public NativePKCS11Slot token(PKCS11Uri uri) throws PKCS11Exception {
    return token("found", (slot, token) -> (token.isInitialised() || uri.slotID() != null)
        && uri.matches(token, Integer.toUnsignedLong(slot.slotID())));
  }

  /**
   * Finalises and closes the module ({@code C_Finalize}). Slots, sessions and objects are of no more
   * use, and this object's other methods raise {@code IllegalStateException}. Behind the adapter it
   * waits for calls that are under way, and later ones raise {@link PKCS11Exception}; used directly,
   * none may be under way. Once is enough, and another thread may do the same.
   *
   * <p>Behind the adapter, a module that other class loaders have opened as well loses the sessions of
   * this one alone, and is finalised with the last that closes it. One that was initialised before
   * this one opened it, by the JDK's provider for instance, stays so. But whoever initialises it later
   * and takes it as it is cannot be seen, and loses it here: have that part of the program start first.
   * A module that fails to end is told of to the {@link System.Logger} of this package.
   */
  @Override
  public void close() {
    synchronized (PKCS11Module.class) {
      if (current == this) {
        current = null;
        if (!isDirect) {
          end();
        }
        module.libFinalize();
      }
    }
  }

  /** Ends the module behind the adapter, since {@code libFinalize} does not tell whether that fails. */
  private void end() {
    try {
      new NativePKCS11Slot(module, EVERY_SLOT).closeAllSessions();
    } catch (PKCS11Exception e) {
      // Somebody else may have ended it before.
      if (e.errorCode() != CKR_CRYPTOKI_NOT_INITIALIZED) {
        unended = path;
        warn(path + " is closed, but was not ended: " + e.getMessage());
      }
    }
  }

  /** The bridge has one module: without this, a closed one would answer for the next. */
  private NativePKCS11 opened() {
    synchronized (PKCS11Module.class) {
      if (current != this) {
        throw new IllegalStateException(path + " is closed");
      }
      return module;
    }
  }

  private NativePKCS11Slot token(String which, BiPredicate<NativePKCS11Slot, PKCS11TokenInfo> match)
      throws PKCS11Exception {
    List<String> told = new ArrayList<>();
    Map<NativePKCS11Slot, PKCS11TokenInfo> all = infos(told);
    List<NativePKCS11Slot> found = new ArrayList<>();
    for (Map.Entry<NativePKCS11Slot, PKCS11TokenInfo> each : all.entrySet()) {
      if (match.test(each.getKey(), each.getValue())) {
        found.add(each.getKey());
      }
    }
    if (found.size() != 1) {
      throw new PKCS11Exception("%s %s; there %s".formatted(
          found.isEmpty() ? "no token" : found.size() + " tokens", which,
          told.isEmpty() ? "is none" : "are: " + String.join(", ", told)));
    }
    return found.get(0);
  }

  /** Reads all tokens; {@code told} gets a text of those to choose from, and of unreadable ones. */
  private Map<NativePKCS11Slot, PKCS11TokenInfo> infos(List<String> told) throws PKCS11Exception {
    Map<NativePKCS11Slot, PKCS11TokenInfo> infos = new LinkedHashMap<>();
    for (NativePKCS11Slot slot : opened().slots(true)) {
      String number = "slot " + Integer.toUnsignedString(slot.slotID());
      try {
        PKCS11TokenInfo info = slot.getTokenInfo();
        infos.put(slot, info);
        if (info.isInitialised()) {
          told.add("\"" + Printable.of(info.trimmedLabel()) + "\" (serial number "
              + Printable.of(info.serialNumber().strip()) + ", " + number + ")");
        }
      } catch (PKCS11Exception e) {
        told.add(number + " (" + e.getMessage() + ")");
      }
    }
    return infos;
  }
}
