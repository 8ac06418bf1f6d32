package it.quarvel.pkcs11.cli.option;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Flags;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.TypeConversionException;

/** From names to the values of {@link PKCS11Constants}, and from flag words to names. */
public final class Names {
  public static final List<String> SLOT_FLAGS =
      List.of("TOKEN_PRESENT", "REMOVABLE_DEVICE", "HW_SLOT");

  public static final List<String> TOKEN_FLAGS = List.of(
      "RNG", "WRITE_PROTECTED", "LOGIN_REQUIRED", "USER_PIN_INITIALIZED", "CLOCK_ON_TOKEN",
      "PROTECTED_AUTHENTICATION_PATH", "TOKEN_INITIALIZED", "USER_PIN_COUNT_LOW",
      "USER_PIN_FINAL_TRY", "USER_PIN_LOCKED", "USER_PIN_TO_BE_CHANGED", "SO_PIN_COUNT_LOW",
      "SO_PIN_FINAL_TRY", "SO_PIN_LOCKED", "SO_PIN_TO_BE_CHANGED");

  public static final List<String> MECHANISM_FLAGS = List.of(
      "HW", "ENCRYPT", "DECRYPT", "DIGEST", "SIGN", "SIGN_RECOVER", "VERIFY", "VERIFY_RECOVER",
      "GENERATE", "GENERATE_KEY_PAIR", "WRAP", "UNWRAP", "DERIVE");

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

  /** Names the flags that are set; bits without a name come last, as one number. */
  public static List<String> flags(PKCS11Flags info, List<String> names) {
    List<String> set = new ArrayList<>();
    int rest = info.flags();
    for (String name : names) {
      int flag = constant("CKF_" + name);
      if ((rest & flag) != 0) {
        set.add("CKF_" + name);
        rest &= ~flag;
      }
    }
    if (rest != 0) {
      set.add("0x%X".formatted(rest));
    }
    return set;
  }

  private static int value(String kind, String what, String name, String advice) {
    String upper = name.toUpperCase(Locale.ROOT).replace('-', '_');
    try {
      if (!upper.startsWith("0X")) {
        return constant(upper.startsWith(kind) ? upper : kind + upper);
      }
      int value = Integer.parseUnsignedInt(upper.substring(2), 16);
      if (value >= 0) {
        return value;
      }
    } catch (IllegalArgumentException e) {
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
