// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.option;

import it.quarvel.pkcs11.PKCS11Constants;
import java.util.Locale;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.TypeConversionException;

/** From names to the values of {@link PKCS11Constants}, and from digits to numbers. */
public final class Names {
  /** Reads a mechanism: CKM_SHA256_RSA_PKCS, SHA256-RSA-PKCS or 0x40. */
  public static final class Mechanism implements ITypeConverter<Integer> {
    @Override
    public Integer convert(String name) {
      return value("CKM_", "mechanism", name, "\"mechanisms\" lists those of the token");
    }
  }

  /** Reads an attribute: CKA_LABEL, label or 0x3. */
  public static final class Attribute implements ITypeConverter<Integer> {
    @Override
    public Integer convert(String name) {
      return value("CKA_", "attribute", name, "write it as in CKA_LABEL, or as a number, 0x3");
    }
  }

  private Names() {}

  /**
   * Reads a number without a sign, decimal or hexadecimal behind 0x.
   *
   * @throws NumberFormatException for anything else, and for a number beyond 32 bits
   */
  static int number(String text) {
    return Integer.parseUnsignedInt(
        text.replaceFirst("^0[xX]", ""), text.matches("0[xX].*") ? 16 : 10);
  }

  private static int value(String kind, String what, String name, String advice) {
    String upper = name.toUpperCase(Locale.ROOT).replace('-', '_');
    try {
      if (!Character.isDigit(upper.charAt(0))) {
        return constant(upper.startsWith(kind) ? upper : kind + upper);
      }
      return number(name);
    } catch (IllegalArgumentException | IndexOutOfBoundsException e) {
      throw new TypeConversionException("unknown %s %s: %s".formatted(what, name, advice));
    }
  }

  private static int constant(String name) {
    try {
      return PKCS11Constants.class.getField(name).getInt(null);
    } catch (ReflectiveOperationException e) {
      throw new IllegalArgumentException(name, e);
    }
  }
}
