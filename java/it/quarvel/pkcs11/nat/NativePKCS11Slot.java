// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.nat;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11MechanismInfo;
import it.quarvel.pkcs11.PKCS11SlotInfo;
import it.quarvel.pkcs11.PKCS11TokenInfo;

/** A slot of the module; {@link NativePKCS11#slots} lists them. Slots with one number are equal. */
public class NativePKCS11Slot {
  static {
    NativePKCS11.loadLibrary();
  }

  private final NativePKCS11 module;
  private final int slotID;

  /**
   * Makes an object for a slot whose number is known.
   *
   * @param module the module
   * @param slotID the slot's number
   */
  public NativePKCS11Slot(NativePKCS11 module, int slotID) {
    this.module = module;
    this.slotID = slotID;
  }

  /**
   * Returns the module.
   *
   * @return the module that the slot belongs to
   */
  public NativePKCS11 module() {
    return module;
  }

  /**
   * Returns the slot's number.
   *
   * @return the low 32 bits of the slot ID
   */
  public int slotID() {
    return slotID;
  }

  /**
   * Describes the slot ({@code C_GetSlotInfo}).
   *
   * @return the slot's information
   * @throws PKCS11Exception when the module refuses
   */
  public native PKCS11SlotInfo getInfo() throws PKCS11Exception;

  /**
   * Describes the token in the slot ({@code C_GetTokenInfo}).
   *
   * @return the token's information
   * @throws PKCS11Exception when the module refuses, with CKR_TOKEN_NOT_PRESENT for an empty slot
   */
  public native PKCS11TokenInfo getTokenInfo() throws PKCS11Exception;

  /**
   * Returns the token's serial number ({@code C_GetTokenInfo}).
   *
   * @return all 16 characters, the padding included
   * @throws PKCS11Exception when the module refuses
   */
  public native String getTokenSN() throws PKCS11Exception;

  /**
   * Lists the token's mechanisms ({@code C_GetMechanismList}).
   *
   * @return {@code CKM_} values in the module's order, empty when there is none; {@link
   *     it.quarvel.pkcs11.PKCS11Constants#mechanismName} names them
   * @throws PKCS11Exception when the module refuses
   */
  public native int[] getMechanismList() throws PKCS11Exception;

  /**
   * Describes one mechanism ({@code C_GetMechanismInfo}).
   *
   * @param mech a {@code CKM_} value
   * @return key sizes and uses of the mechanism
   * @throws PKCS11Exception when the module refuses, with CKR_MECHANISM_INVALID for a mechanism
   *     that it does not list
   */
  public native PKCS11MechanismInfo getMechanismInfo(int mech) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void initToken(String soPin, String label) throws PKCS11Exception;

  /**
   * Opens a session ({@code C_OpenSession}).
   *
   * @param flags {@code CKF_SERIAL_SESSION} for a read-only session, {@code CKF_SERIAL_SESSION |
   *     CKF_RW_SESSION} for a read/write one
   * @param callback not read
   * @param usrData not read
   * @return the session, which the caller closes
   * @throws PKCS11Exception when the module refuses
   */
  public native NativePKCS11Session openSession(int flags, Object callback, Object usrData)
      throws PKCS11Exception;

  /**
   * Closes every session of this application with the token ({@code C_CloseAllSessions}), which
   * logs the user out.
   *
   * @throws PKCS11Exception when the module refuses
   */
  public native void closeAllSessions() throws PKCS11Exception;

  /**
   * Opens a session ({@code C_OpenSession}).
   *
   * @param flags {@code CKF_SERIAL_SESSION} for a read-only session, {@code CKF_SERIAL_SESSION |
   *     CKF_RW_SESSION} for a read/write one
   * @return the session, which the caller closes
   * @throws PKCS11Exception when the module refuses
   */
  public NativePKCS11Session openSession(int flags) throws PKCS11Exception {
    return openSession(flags, null, null);
  }

  /**
   * Opens a read-only session.
   *
   * @return the session, which the caller closes
   * @throws PKCS11Exception when the module refuses
   */
  public NativePKCS11Session openSession() throws PKCS11Exception {
    return openSession(false);
  }

  /**
   * Opens a session.
   *
   * @param readWrite whether the session may change objects on the token, and its PIN
   * @return the session, which the caller closes
   * @throws PKCS11Exception when the module refuses
   */
  public NativePKCS11Session openSession(boolean readWrite) throws PKCS11Exception {
    return openSession(CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0));
  }

  @Override
  public boolean equals(Object other) {
    return other instanceof NativePKCS11Slot slot && slot.slotID == slotID;
  }

  @Override
  public int hashCode() {
    return slotID;
  }

  @Override
  public String toString() {
    return "NativePKCS11Slot[slotID=" + Integer.toUnsignedString(slotID) + "]";
  }
}
