// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.PKCS11Constants;
import java.util.Locale;
import picocli.CommandLine.ITypeConverter;

/**
 * Reads the names of {@link PKCS11Constants}, and numbers. Any other text raises an {@code
 * IllegalArgumentException} with a message for the user.
 */
final class Names {
  /** Reads an attribute: CKA_LABEL, label or 0x3. */
  static final class Attribute implements ITypeConverter<Integer> {
    @Override
    public Integer convert(String name) {
      return value("CKA_", "attribute", name, "write it as in CKA_LABEL, or as a number, 0x3");
    }
  }

  private Names() {}

  /** Reads a mechanism: CKM_SHA256_RSA_PKCS, SHA256-RSA-PKCS or 0x40. */
  static int mechanism(String name) {
    return value("CKM_", "mechanism", name, "\"mechanisms\" lists those of the token");
  }

  /** Reads the number of a slot, and returns its decimal digits. */
  static String slot(String number) {
    try {
      return Integer.toUnsignedString(number(number));
    } catch (NumberFormatException e) {
      throw new IllegalArgumentException("a slot is a number, as in 12 or 0xc");
    }
  }

  /** Reads a number of up to 32 bits without a sign, decimal or hexadecimal behind 0x. */
  private static int number(String text) {
    return Integer.parseUnsignedInt(
        text.replaceFirst("^0[xX]", ""), text.matches("0[xX].*") ? 16 : 10);
  }

  private static int value(String kind, String what, String name, String advice) {
    String upper = name.toUpperCase(Locale.ROOT).replace('-', '_');
    Integer value = PKCS11Constants.value(upper.startsWith(kind) ? upper : kind + upper);
    try {
      return value != null ? value : number(name);
    } catch (NumberFormatException e) {
      throw new IllegalArgumentException("unknown %s %s: %s".formatted(what, name, advice));
    }
  }
}
