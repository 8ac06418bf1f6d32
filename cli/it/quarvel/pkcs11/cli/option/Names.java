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
   * Reads a number, decimal or hexadecimal behind 0x.
   *
   * @throws NumberFormatException for anything else, and for a number beyond 63 bits
   */
  static long number(String text) {
    return text.toLowerCase(Locale.ROOT).startsWith("0x")
        ? Long.parseLong("+" + text.substring(2), 16) : Long.parseLong("+" + text);
  }

  private static int value(String kind, String what, String name, String advice) {
    String upper = name.toUpperCase(Locale.ROOT).replace('-', '_');
    try {
      if (!Character.isDigit(upper.charAt(0))) {
        return constant(upper.startsWith(kind) ? upper : kind + upper);
      }
      long value = number(upper);
      if (value <= Integer.MAX_VALUE) {
        return (int) value;
      }
    } catch (IllegalArgumentException | IndexOutOfBoundsException e) {
      throw new TypeConversionException("unknown %s %s: %s".formatted(what, name, advice));
    }
    throw new TypeConversionException(
        "%s %s is the vendor's own and cannot be named".formatted(what, name));
  }

  private static int constant(String name) {
    try {
      return PKCS11Constants.class.getField(name).getInt(null);
    } catch (ReflectiveOperationException e) {
      throw new IllegalArgumentException(name, e);
    }
  }
}
