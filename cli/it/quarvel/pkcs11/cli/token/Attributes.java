package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.text.ParseException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import javax.security.auth.x500.X500Principal;

/**
 * The attributes of an object. Those that it lacks, and those that the token keeps to itself, are
 * null.
 *
 * @param object the object
 */
public record Attributes(NativePKCS11Object object) {
  private static final int[] USES = {
    CKA_ENCRYPT, CKA_DECRYPT, CKA_SIGN, CKA_SIGN_RECOVER, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_WRAP,
    CKA_UNWRAP, CKA_DERIVE
  };

  private static final int[] ACCESS = {
    CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_TRUSTED, CKA_SENSITIVE, CKA_ALWAYS_SENSITIVE,
    CKA_EXTRACTABLE, CKA_NEVER_EXTRACTABLE, CKA_LOCAL, CKA_ALWAYS_AUTHENTICATE
  };

  /** Reads a value in one of the Java classes that there are. */
  public interface Getter<T> {
    T get(int type) throws PKCS11Exception, ParseException;
  }

  /** Describes the object as a listing shows it, with further attributes under their names. */
  public Map<String, Object> describe(List<Integer> further) throws Failure {
    Integer known = read(CKA_CLASS, object::getIntAttributeValue);
    int objectClass = known == null ? -1 : known;
    Map<String, Object> values = new LinkedHashMap<>();
    values.put("class", PKCS11Constants.objectClassName(objectClass));
    switch (objectClass) {
      case CKO_PUBLIC_KEY, CKO_PRIVATE_KEY, CKO_SECRET_KEY -> addKey(values, objectClass);
      case CKO_CERTIFICATE -> addCertificate(values);
      case CKO_DATA -> values.put("application", text(CKA_APPLICATION));
      default -> { }
    }
    values.put("label", text(CKA_LABEL));
    values.put("access", flags(ACCESS, objectClass));
    for (int type : further) {
      values.put(PKCS11Constants.attributeName(type), any(type));
    }
    return values;
  }

  /** Reads a value, null when there is none to read. */
  public <T> T read(int type, Getter<T> getter) throws Failure {
    try {
      return getter.get(type);
    } catch (PKCS11Exception e) {
      boolean empty = e.errorCode() == 0 && e.getMessage().startsWith("VOID");
      boolean none =
          e.errorCode() == CKR_ATTRIBUTE_TYPE_INVALID || e.errorCode() == CKR_ATTRIBUTE_SENSITIVE;
      if (empty || none) {
        return null;
      }
      throw Steps.failure("read " + PKCS11Constants.attributeName(type), e);
    } catch (ParseException e) {
      throw new Failure("read " + PKCS11Constants.attributeName(type) + ": " + e.getMessage());
    }
  }

  private void addKey(Map<String, Object> values, int objectClass) throws Failure {
    Integer keyType = read(CKA_KEY_TYPE, object::getIntAttributeValue);
    values.put("keyType", keyType == null ? null : PKCS11Constants.keyTypeName(keyType));
    if (objectClass == CKO_SECRET_KEY) {
      values.put("bytes", read(CKA_VALUE_LEN, object::getIntAttributeValue));
    } else if (keyType != null && keyType == CKK_RSA) {
      byte[] modulus = read(CKA_MODULUS, object::getByteArrayAttributeValue);
      values.put("bits", modulus == null ? null : new BigInteger(1, modulus).bitLength());
    } else {
      values.put("parameters", read(CKA_EC_PARAMS, object::getByteArrayAttributeValue));
    }
    values.put("id", read(CKA_ID, object::getByteArrayAttributeValue));
    values.put("usage", flags(USES, objectClass));
  }

  private void addCertificate(Map<String, Object> values) throws Failure {
    Integer type = read(CKA_CERTIFICATE_TYPE, object::getIntAttributeValue);
    values.put("certificateType",
        type == null ? null : type == CKC_X_509 ? "CKC_X_509" : "0x%08X".formatted(type));
    values.put("id", read(CKA_ID, object::getByteArrayAttributeValue));
    values.put("subject", name(read(CKA_SUBJECT, object::getByteArrayAttributeValue)));
    values.put(
        "serialNumber", integer(read(CKA_SERIAL_NUMBER, object::getByteArrayAttributeValue)));
  }

  /** Not as a String, which would take its bytes for modified UTF-8. */
  private String text(int type) throws Failure {
    byte[] value = read(type, object::getByteArrayAttributeValue);
    return value == null ? null : new String(value, StandardCharsets.UTF_8);
  }

  /** Shows numbers and truth values as such and the rest as bytes. */
  private Object any(int type) throws Failure {
    byte[] bytes = read(type, object::getByteArrayAttributeValue);
    if (bytes == null || type == CKA_LABEL || type == CKA_APPLICATION) {
      return bytes == null ? null : new String(bytes, StandardCharsets.UTF_8);
    }
    Object value = read(type, this::known);
    return value instanceof Integer || value instanceof Boolean ? value : bytes;
  }

  private Object known(int type) {
    try {
      return object.getAttributeValue(type);
    } catch (PKCS11Exception | ParseException e) {
      return null;
    }
  }

  /** Takes off the tag and the length of an INTEGER in DER, where there are any. */
  private static byte[] integer(byte[] der) {
    return der != null && der.length > 2 && der[0] == 2 && der[1] == der.length - 2
        ? Arrays.copyOfRange(der, 2, der.length) : der;
  }

  private static Object name(byte[] der) {
    try {
      return der == null || der.length == 0 ? null : new X500Principal(der).getName();
    } catch (IllegalArgumentException e) {
      return der;
    }
  }

  private List<String> flags(int[] types, int objectClass) throws Failure {
    List<String> set = new ArrayList<>();
    for (int type : types) {
      if (has(type, objectClass)
          && Boolean.TRUE.equals(read(type, object::getBoolAttributeValue))) {
        set.add(PKCS11Constants.attributeName(type).substring(4).toLowerCase(Locale.ROOT));
      }
    }
    return set;
  }

  /** Spares the token the questions that the class of the object answers. */
  private static boolean has(int type, int objectClass) {
    return switch (type) {
      case CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE -> true;
      case CKA_TRUSTED -> objectClass == CKO_CERTIFICATE;
      case CKA_ENCRYPT, CKA_VERIFY, CKA_WRAP ->
          isKey(objectClass) && objectClass != CKO_PRIVATE_KEY;
      case CKA_VERIFY_RECOVER -> objectClass == CKO_PUBLIC_KEY;
      case CKA_DECRYPT, CKA_SIGN, CKA_UNWRAP, CKA_SENSITIVE, CKA_ALWAYS_SENSITIVE, CKA_EXTRACTABLE,
          CKA_NEVER_EXTRACTABLE ->
          isKey(objectClass) && objectClass != CKO_PUBLIC_KEY;
      case CKA_SIGN_RECOVER, CKA_ALWAYS_AUTHENTICATE -> objectClass == CKO_PRIVATE_KEY;
      default -> isKey(objectClass);
    };
  }

  private static boolean isKey(int objectClass) {
    return objectClass == CKO_PUBLIC_KEY || objectClass == CKO_PRIVATE_KEY
        || objectClass == CKO_SECRET_KEY;
  }
}
