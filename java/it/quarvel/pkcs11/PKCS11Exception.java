// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.CKR_OK;

/**
 * A failure of the module, or of the library in front of it.
 *
 * <p>A standard PKCS#11 return value becomes the code, with a message such as "CKR_PIN_INCORRECT
 * (0xA0)". Every other failure has a message alone, and the code 0. "Internal error" means that the
 * module cannot be loaded, is not initialised, lacks the function, announces more than memory holds
 * or answered with a vendor-defined value, or that a text was null; some messages add the cause in
 * brackets. Other messages name the argument, the value or the method that cannot be used. Only the
 * lookup of RSA credentials keeps vendor-defined values as codes.
 */
public class PKCS11Exception extends Exception {
  /** The kinds of failure. */
  public enum Reason {
    /** The module returned {@link #errorCode}. */
    RETURN_VALUE,
    /** The message begins with "Internal error". */
    INTERNAL,
    /** The object has the attribute, and its value is empty. */
    EMPTY_VALUE,
    /** An argument, a value, a file or a method cannot be used; the message says which. */
    OTHER
  }

  private static final long serialVersionUID = 1L;

  private final int errorCode;
  private final boolean vendorDefined;
  private final Reason reason;

  /**
   * Makes an exception that carries only a message.
   *
   * @param message what went wrong
   */
  public PKCS11Exception(String message) {
    super(message);
    errorCode = 0;
    vendorDefined = false;
    reason = reasonOf(String.valueOf(message));
  }

  /**
   * Makes an exception for a standard return value.
   *
   * @param errorCode the {@code CKR_} value
   */
  public PKCS11Exception(int errorCode) {
    this(errorCode, false);
  }

  /**
   * Makes an exception for any return value.
   *
   * @param errorCode the low 32 bits of the return value
   * @param vendorDefined true when the return value is 0x80000000 or above
   */
  public PKCS11Exception(int errorCode, boolean vendorDefined) {
    super(describe(errorCode, vendorDefined));
    this.errorCode = errorCode;
    this.vendorDefined = vendorDefined;
    reason = Reason.RETURN_VALUE;
  }

  /**
   * Returns the return value.
   *
   * @return a {@code CKR_} value, or 0 when the exception carries only a message
   */
  public int errorCode() {
    return errorCode;
  }

  /**
   * Tells what kind of failure this is, for callers that act on it.
   *
   * @return the kind
   */
  public Reason reason() {
    return reason;
  }

  /**
   * Tells whether the code is the vendor's own, so that no {@code CKR_} constant applies.
   *
   * @return true for a vendor-defined return value
   */
  public boolean isVendorDefined() {
    return vendorDefined;
  }

  /**
   * Names the return value.
   *
   * @return "CKR_PIN_INCORRECT" for instance, a text with the number if it has no name, or empty
   *     when the exception carries only a message
   */
  public String name() {
    return errorCode == CKR_OK ? "" : nameOf(errorCode, vendorDefined);
  }

  /** Tells the kind by the text: the native methods raise fixed texts, with no code beside them. */
  private static Reason reasonOf(String message) {
    return message.startsWith("Internal error") ? Reason.INTERNAL
        : message.startsWith("VOID") ? Reason.EMPTY_VALUE : Reason.OTHER;
  }

  private static String describe(int errorCode, boolean vendorDefined) {
    String name = nameOf(errorCode, vendorDefined);
    return name.startsWith("CKR_") ? "%s (0x%X)".formatted(name, errorCode) : name;
  }

  private static String nameOf(int errorCode, boolean vendorDefined) {
    if (vendorDefined) {
      return "vendor-defined 0x%08X".formatted(errorCode);
    }
    String name = PKCS11Constants.returnValueName(errorCode);
    return name.startsWith("CKR_") ? name : "CKR " + name;
  }
}
