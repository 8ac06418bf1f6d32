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
 * <p>{@link #open} puts the adapter between Java and the module. The adapter, a PKCS#11 module
 * itself, makes any other module fit:
 *
 * <ul>
 *   <li>Every thread may call, each with a session of its own, and no caller needs a lock.
 *   <li>Handles may have 64 bits, and objects may be numbered from 0.
 *   <li>Attribute and mechanism types of the vendor-defined range work.
 *   <li>{@code CKM_RSA_PKCS_OAEP}, {@code CKM_SHA256_RSA_PKCS_PSS} and its like of another hash get
 *       their standard parameters; {@link PKCS11Mechanisms} has others.
 *   <li>A key may want a login for each operation ({@code CKA_ALWAYS_AUTHENTICATE}): log in again
 *       between {@code signInit} and {@code sign}.
 * </ul>
 *
 * <p>{@link #openDirect} does without the adapter; {@link NativePKCS11} states the rules that hold
 * then.
 *
 * <p>The system property {@code it.quarvel.pkcs11.adapter} names the adapter's file. Without it,
 * the adapter is the one in the jar, else {@code libquarvelpkcs11adapter.so} in {@code
 * java.library.path}. It is copied or linked into a new folder, where {@link NativePKCS11} says
 * that folders are made, and the folder is deleted once the adapter is loaded. Without {@link
 * #close} the module is never finalised.
 */
public final class PKCS11Module implements AutoCloseable {
  /** The slot number with which {@code C_CloseAllSessions} makes the adapter end its module. */
  private static final int EVERY_SLOT = -1;

  /** The module that is open, null when none is; the lock of the class guards it. */
  private static PKCS11Module current;

  /** The path of the last module whose end failed, null when none did; guarded alike. */
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
   * @return three numbers with points between, the first two as {@link NativePKCS11#BRIDGE_VERSION}
   */
  public static String version() {
    return Version.TEXT;
  }

  /**
   * Loads and initialises a module behind the adapter ({@code C_GetFunctionList}, {@code
   * C_Initialize} with {@code CKF_OS_LOCKING_OK}). Class loaders in which these classes open the
   * same module share it. A module that another part of the process has initialised, the JDK's
   * provider for instance, is used as it is, one call at a time, and never finalised.
   *
   * @param path file of the module; a name without a folder is looked up by the dynamic linker
   * @return the module, which the caller closes
   * @throws PKCS11Exception when the module cannot be loaded, with a message that names the file
   *     and says why; when it cannot be initialised, with its return value
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
   * @throws PKCS11Exception as {@link #open}; with CKR_CRYPTOKI_ALREADY_INITIALIZED when another
   *     part of the process uses the module
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
    // A module that refuses is not finalised: another part of the process may be using it.
    module.libInitialize();
    unended = null;
    current = new PKCS11Module(module, path, isDirect);
    return current;
  }

  private static void warn(String text) {
    System.getLogger(PKCS11Module.class.getPackageName()).log(System.Logger.Level.WARNING, text);
  }

  /**
   * Describes the module ({@code C_GetInfo}).
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
   * Lists the slots that hold an initialised token, see {@link PKCS11TokenInfo#isInitialised}. A
   * slot whose token cannot be described is left out.
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
   * @throws PKCS11Exception when no token has the label, or several have, with a list of the tokens
   *     in the message; when the module refuses
   */
  public NativePKCS11Slot token(String label) throws PKCS11Exception {
    String wanted = label.stripTrailing();
    return token("labelled \"" + label + "\"", (slot, token) ->
        token.trimmedLabel().equals(wanted));
  }

  /**
   * Finds the token that a URI names. A token that is not initialised counts only if the URI has
   * its {@code slot-id}.
   *
   * @param uri the URI; {@link PKCS11Uri#ANY} names the only token there is
   * @return the slot that holds the token
   * @throws PKCS11Exception when the URI names no token or several, with a list of the tokens in
   *     the message; when the module refuses
   */
  public NativePKCS11Slot token(PKCS11Uri uri) throws PKCS11Exception {
    return token("found", (slot, token) -> (token.isInitialised() || uri.slotID() != null)
        && uri.matches(token, Integer.toUnsignedLong(slot.slotID())));
  }

  /**
   * Finalises and closes the module ({@code C_Finalize}). Slots, sessions and objects are of no
   * more use, and this object's other methods raise {@code IllegalStateException}. Behind the
   * adapter, closing waits for calls that are under way, and later calls raise {@link
   * PKCS11Exception}; without it, no call may be under way. Closing again does nothing, on any
   * thread.
   *
   * <p>Behind the adapter, other class loaders may have opened the same module. Closing it then
   * ends the sessions of this class loader alone, and the last one that closes the module finalises
   * it. A module that was initialised before it was opened here, by the JDK's provider for
   * instance, stays initialised. The adapter cannot see a part of the program that finds the module
   * initialised later and uses it as it is. That part loses the module here: have it start first.
   * If the module fails to end, the {@link System.Logger} of this package gets a warning.
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

  /** Ends the module behind the adapter by a call that can fail, unlike {@code libFinalize}. */
  private void end() {
    try {
      new NativePKCS11Slot(module, EVERY_SLOT).closeAllSessions();
    } catch (PKCS11Exception e) {
      // Somebody else may have ended the module before.
      if (e.errorCode() != CKR_CRYPTOKI_NOT_INITIALIZED) {
        unended = path;
        warn(path + " is closed, but was not ended: " + e.getMessage());
      }
    }
  }

  /** Returns the module unless this is closed: the bridge would call the module opened next. */
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

  /**
   * Describes the token in each slot that has one. Adds to {@code told} a text for each initialised
   * token, and for each slot whose token cannot be described.
   */
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
