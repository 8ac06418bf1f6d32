// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.nat;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Info;
import java.util.ArrayList;
import java.util.List;

/**
 * The PKCS#11 module of this process, without an adapter. {@link it.quarvel.pkcs11.PKCS11Module}
 * opens one behind an adapter, which lifts many of the rules below.
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
 * <p>These rules hold for this class and for slots, sessions and objects alike:
 *
 * <ul>
 *   <li>The whole process has one module at a time, however many objects of this class there are.
 *       The module is initialised without locking: make one call at a time, from any thread, and
 *       none while the module is loaded, initialised or finalised.
 *   <li>A failure raises a {@link PKCS11Exception}, which explains its codes and messages. But a
 *       date attribute that holds no date raises a {@link java.text.ParseException}, and a failure
 *       of the Java virtual machine raises the machine's own error. A null key or byte array, or a
 *       length beyond its array, raises CKR_ARGUMENTS_BAD before the module is called; a null
 *       string raises "Internal error".
 *   <li>Handles are {@code int}. A module with handles of 64 bits works only behind the adapter or,
 *       if its object handles are small, behind p11-kit-proxy.
 *   <li>A mechanism reaches the module without parameters: the methods read no parameter objects.
 *       They read no offsets either: data starts at the first element of its array.
 *   <li>An attribute value is a {@code String}, {@code byte[]}, {@code Integer}, {@code Boolean},
 *       {@code BigInteger} or {@code Date}; a date is written in the calendar and the digits of the
 *       default locale. A null or a value of another class stops the method silently: it does not
 *       call the module, raises nothing and returns null. A {@link
 *       it.quarvel.pkcs11.PKCS11Template} takes no such value, and its dates do not depend on the
 *       locale.
 *   <li>Texts are modified UTF-8, in both directions. A character above U+FFFF goes out as six
 *       bytes, which other programs do not read, and is lost on the way in if another program wrote
 *       it: use the bytes of such a text. A module with such a character in its path cannot be
 *       opened.
 *   <li>Attribute and mechanism types of the vendor-defined range do not work, since an {@code int}
 *       reaches the module with its sign extended to 64 bits.
 * </ul>
 *
 * <p>The first use of any class of this package loads the native library, from the first of these
 * places that works:
 *
 * <ol>
 *   <li>the file that the system property {@code it.quarvel.pkcs11.library} names; if it is set, no
 *       other place is tried;
 *   <li>the copy in the jar, which has the version of these classes. It is written to a new folder
 *       and deleted once it is loaded. The folder is made in {@code it.quarvel.pkcs11.tmpdir} or,
 *       if that is not set, in the first of {@code java.io.tmpdir}, {@code /dev/shm} and {@code
 *       $XDG_RUNTIME_DIR} where no user but root could exchange it;
 *   <li>the file that {@code System.loadLibrary} finds, in {@code java.library.path} for instance.
 *       It comes last, since an installed library may have another version.
 * </ol>
 *
 * <p>If none works, an {@code UnsatisfiedLinkError} lists the attempts and why they failed. If the
 * loaded library has another version than {@link #BRIDGE_VERSION}, the error names its file. Later
 * uses of these classes raise {@code NoClassDefFoundError} then.
 *
 * <p>If the environment variable PKCS11_ZOV_DEBUG is present, the process's standard output goes to
 * /var/tmp/vorlenk0.log from the first load on, with a trace of every call. Five methods for
 * particular cards print their progress on standard output in any case: {@link
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

  /** Makes an object through which to call the module, and neither loads nor initialises it. */
  public NativePKCS11() {}

  /**
   * Loads a module ({@code C_GetFunctionList}). This is the first of all calls, and {@link
   * #libInitialize} follows. Finalise an earlier module first: it otherwise stays open, out of
   * reach.
   *
   * @param libName path of the module's shared library, which the dynamic linker gets unchanged
   * @return address of the module's function list, never 0
   * @throws PKCS11Exception with "Internal error" when the file cannot be opened, is no module or
   *     hands out no functions, with "Internal error (Null parameter)" for a null path, with the
   *     module's own code when its {@code C_GetFunctionList} fails; a file that was opened stays in
   *     memory
   */
  public static native long loadPKCS11Library(String libName) throws PKCS11Exception;

  /**
   * Initialises the loaded module ({@code C_Initialize} without arguments).
   *
   * @throws PKCS11Exception with the module's return value, for instance
   *     CKR_CRYPTOKI_ALREADY_INITIALIZED when another part of the process uses the module: {@link
   *     #libFinalize} would end it for that part too; with "Internal error" unless the last load
   *     has succeeded and its module has not been finalised since
   */
  public native void libInitialize() throws PKCS11Exception;

  /**
   * Finalises the module ({@code C_Finalize}) and closes it. This never fails. Slots, sessions and
   * objects are of no more use afterwards, and every call raises "Internal error". Load again to
   * start over.
   *
   * <p>After a load that failed, this calls no module, but an earlier module is of no more use all
   * the same. A module without {@code C_Finalize} stays as it is, open and in use.
   *
   * <p>Closing takes the module's code out of the process. The process then dies of a call that is
   * under way, beside a shutdown hook for instance, of a thread that the module has left running,
   * and of a clean-up that the module wants at the end of a thread. {@code System.load} of the
   * module's file, before its first load here, keeps its code in the process.
   */
  public native void libFinalize();

  /**
   * Returns the version of the native library, with or without a module.
   *
   * @return {@link #BRIDGE_VERSION}
   */
  public native String getBridgeVersion();

  /**
   * Describes the module ({@code C_GetInfo}).
   *
   * @return the module's information
   * @throws PKCS11Exception when the module refuses
   */
  public native PKCS11Info getInfo() throws PKCS11Exception;

  /**
   * Lists the slots ({@code C_GetSlotList}); {@link #slots} returns no null.
   *
   * @param tokenIn true for the slots that hold a token, false for all
   * @return the slots in the module's order, or null when there is none
   * @throws PKCS11Exception when the module refuses
   */
  public native NativePKCS11Slot[] getSlotList(boolean tokenIn) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native NativePKCS11Slot waitForSlotEvent(boolean blocking) throws PKCS11Exception;

  /** @deprecated always fails: the library has no such lookup yet */
  @Deprecated
  public native NativePKCS11Object[] getRSAcredential(String alias, int flags, String pin)
      throws PKCS11Exception;

  /**
   * Lists the slots ({@code C_GetSlotList}, and {@code C_GetSlotInfo} of each to find the tokens).
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

  /**
   * Lists all slots, with a second try after CKR_BUFFER_TOO_SMALL, the answer of modules whose list
   * has just grown, and of some whose list is empty.
   */
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

  /** Tells whether a slot holds a token. A module may list a reader that is gone. */
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
   * Loads the native library, by way of the initialiser of this class. Every class with native
   * methods calls this in its own initialiser. One class owns the loading, so that two threads that
   * begin with different classes cannot wait for each other.
   */
  static void loadLibrary() {}
}
