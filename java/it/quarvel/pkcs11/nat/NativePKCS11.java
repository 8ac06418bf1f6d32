// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.nat;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Info;
import java.util.ArrayList;
import java.util.List;

/**
 * The PKCS#11 module of this process, as it is; {@link it.quarvel.pkcs11.PKCS11Module} opens one
 * behind an adapter that lifts much of what is said here.
 *
 * <pre>{@code
 * NativePKCS11.loadPKCS11Library("/usr/lib/softhsm/libsofthsm2.so");
 * NativePKCS11 module = new NativePKCS11();
 * module.libInitialize(); // before the try: a module that another part of the process uses stays
 * try {
 *   for (NativePKCS11Slot slot : module.slots(true)) {
 *     System.out.println(slot.getTokenInfo().trimmedLabel());
 *   }
 * } finally {
 *   module.libFinalize();
 * }
 * }</pre>
 *
 * <p>What holds for this class and for slots, sessions and objects alike:
 *
 * <ul>
 *   <li>There is one module at a time in the whole process, whatever the number of objects of this
 *       class, and it is initialised without locking: make one call at a time, from whichever
 *       thread, and load, initialise or finalise beside no other call.
 *   <li>A failure is a {@link PKCS11Exception}, which tells what its code and message stand for;
 *       but a date attribute that holds no date is a {@link java.text.ParseException}, and where
 *       the Java virtual machine itself fails its own error arrives. A null key or byte array, or a
 *       length beyond its array, is refused with CKR_ARGUMENTS_BAD before the module is called; a
 *       null string with "Internal error".
 *   <li>Handles are {@code int}. A module with handles of 64 bits works only behind the adapter, or,
 *       where its object handles are small, behind p11-kit-proxy.
 *   <li>A mechanism reaches the module without parameters; the parameter objects are not read.
 *       Offsets are not read either: data starts at the first element of its array.
 *   <li>Attribute values are given as {@code String}, {@code byte[]}, {@code Integer}, {@code
 *       Boolean}, {@code BigInteger} or {@code Date}, which is written in the calendar and the
 *       digits of the default locale. A null or a value of another class stops the
 *       method silently: the module is not called, nothing is raised, the result is null. A {@link
 *       it.quarvel.pkcs11.PKCS11Template} takes no such value, and its dates do not depend on the
 *       locale.
 *   <li>Texts are modified UTF-8, in both directions. A character above U+FFFF is written as six
 *       bytes, which other programs do not read, and one that they have written is lost: take the
 *       bytes of such a text. A module whose path has one cannot be opened.
 *   <li>Attribute and mechanism types of the vendor-defined range cannot be named, since an {@code
 *       int} reaches the module with its sign extended to 64 bits.
 * </ul>
 *
 * <p>Whichever class of this package is used first loads the native library, from the first of
 * these that works:
 *
 * <ol>
 *   <li>the file that the system property {@code it.quarvel.pkcs11.library} names; nothing else is
 *       tried then;
 *   <li>the copy in the jar, which has the version of these classes. It is written to a new folder
 *       in {@code it.quarvel.pkcs11.tmpdir} or, if that is not set, the first of {@code
 *       java.io.tmpdir}, {@code /dev/shm} and {@code $XDG_RUNTIME_DIR} that allows it, and deleted
 *       once it is loaded;
 *   <li>what {@code System.loadLibrary} finds, in {@code java.library.path} for instance. It comes
 *       last, since a library of the system may be of another version.
 * </ol>
 *
 * <p>An {@code UnsatisfiedLinkError} tells what was tried and why it failed, or the file of a
 * library that has another version than {@link #BRIDGE_VERSION}. Later uses of these classes are
 * then a {@code NoClassDefFoundError}.
 *
 * <p>With the environment variable PKCS11_ZOV_DEBUG present, the process's standard output goes to
 * /var/tmp/vorlenk0.log from the first load on, with a trace of every call. Five methods for
 * particular cards print their progress on standard output without it as well: {@link
 * NativePKCS11Session#getCardStatus}, {@link NativePKCS11Session#setCardStatus}, {@link
 * NativePKCS11Session#getIdentrusObject}, {@link NativePKCS11Session#generateKeyPairOB} and {@link
 * NativePKCS11Session#installCertificate}.
 */
public class NativePKCS11 {
  /** The version that the native library must have. */
  public static final String BRIDGE_VERSION = "1.16";

  static {
    NativeLibrary.load();
  }

  /** Makes an object to call the module through; loading and initialising it are separate calls. */
  public NativePKCS11() {}

  /**
   * Loads a module ({@code C_GetFunctionList}). The first of all calls; {@link #libInitialize}
   * follows. Finalise an earlier module first: it stays open otherwise, and out of reach.
   *
   * @param libName path of the module's shared library, which the dynamic linker gets unchanged
   * @return address of the module's function list, never 0
   * @throws PKCS11Exception with "Internal error" when the file cannot be opened, is no module or
   *     hands out no functions, with "Internal error (Null parameter)" for a null path, with the
   *     module's own code when its {@code C_GetFunctionList} fails; whatever was opened stays in
   *     memory
   */
  public static native long loadPKCS11Library(String libName) throws PKCS11Exception;

  /**
   * Initialises the loaded module ({@code C_Initialize} without arguments).
   *
   * @throws PKCS11Exception with the module's return value, for instance
   *     CKR_CRYPTOKI_ALREADY_INITIALIZED when another part of the process uses it, which {@link
   *     #libFinalize} would then end; with "Internal error" unless the last load has succeeded and
   *     its module has not been finalised since
   */
  public native void libInitialize() throws PKCS11Exception;

  /**
   * Finalises the module ({@code C_Finalize}) and closes it. Never fails; slots, sessions and
   * objects are of no more use afterwards, and every call is "Internal error". Load again to start
   * over.
   *
   * <p>After a load that failed it reaches no module, but ends the use of an earlier one all the
   * same. A module without {@code C_Finalize} stays as it is, open and in use.
   *
   * <p>Closing takes the module's code out of the process. A call that is under way, beside a
   * shutdown hook for instance, then ends the process; so do a thread that the module has left
   * running, and what it wants to be done when a thread ends. {@code System.load} of the module's
   * file, before its first load here, keeps its code in the process.
   */
  public native void libFinalize();

  /**
   * Returns the version of the native library, with or without a module.
   *
   * @return {@link #BRIDGE_VERSION}
   */
  public native String getBridgeVersion();

  /**
   * Returns what the module says of itself ({@code C_GetInfo}).
   *
   * @return the module's information
   * @throws PKCS11Exception when the module refuses
   */
  public native PKCS11Info getInfo() throws PKCS11Exception;

  /**
   * Lists the slots ({@code C_GetSlotList}); {@link #slots} does without the null.
   *
   * @param tokenIn true for the slots that hold a token, false for all
   * @return the slots in the module's order, or null when there is none
   * @throws PKCS11Exception when the module refuses
   */
  public native NativePKCS11Slot[] getSlotList(boolean tokenIn) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native NativePKCS11Slot waitForSlotEvent(boolean blocking) throws PKCS11Exception;

  /** @deprecated always fails: there is no lookup behind it yet */
  @Deprecated
  public native NativePKCS11Object[] getRSAcredential(String alias, int flags, String pin)
      throws PKCS11Exception;

  /**
   * Lists the slots.
   *
   * @param tokenPresent true for the slots that hold a token, false for all
   * @return the slots in the module's order, empty when there is none
   * @throws PKCS11Exception when the module refuses
   */
  public List<NativePKCS11Slot> slots(boolean tokenPresent) throws PKCS11Exception {
    List<NativePKCS11Slot> slots = new ArrayList<>();
    for (NativePKCS11Slot slot : allSlots()) {
      if (!tokenPresent || holdsToken(slot)) {
        slots.add(slot);
      }
    }
    return slots;
  }

  /** Some modules refuse a list of none as too long, as others do one that has just grown. */
  private NativePKCS11Slot[] allSlots() throws PKCS11Exception {
    NativePKCS11Slot[] slots = null;
    for (int attempts = 0; attempts < 2 && slots == null; attempts++) {
      try {
        slots = getSlotList(false);
      } catch (PKCS11Exception e) {
        if (e.errorCode() != CKR_BUFFER_TOO_SMALL) {
          throw e;
        }
      }
    }
    return slots == null ? new NativePKCS11Slot[0] : slots;
  }

  /** A slot is listed also when its reader is gone, and then refuses to be described. */
  private static boolean holdsToken(NativePKCS11Slot slot) throws PKCS11Exception {
    try {
      return slot.getInfo().hasFlag(CKF_TOKEN_PRESENT);
    } catch (PKCS11Exception e) {
      return switch (e.errorCode()) {
        case CKR_TOKEN_NOT_PRESENT, CKR_SLOT_ID_INVALID, CKR_DEVICE_REMOVED -> false;
        default -> throw e;
      };
    }
  }

  /**
   * Has the native library loaded: every class with native methods calls this before its first use,
   * and the initialiser of this class does it. One class owns the loading, so that two threads
   * which use two classes first cannot wait for each other.
   */
  static void loadLibrary() {}
}
