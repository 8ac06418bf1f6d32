// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.Unread;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.charset.*;
import java.security.cert.*;
import java.text.ParseException;
import java.time.*;
import java.util.*;
import java.util.function.IntFunction;
import javax.security.auth.x500.X500Principal;
import org.ietf.jgss.*;

/**
 * The attributes of an object.
 *
 * @param object the object
 */
public record Attributes(NativePKCS11Object object) {
  private static final Map<Integer, int[]> USES = Map.of(
      CKO_PUBLIC_KEY, new int[] {
        CKA_ENCRYPT, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_WRAP, CKA_DERIVE},
      CKO_PRIVATE_KEY, new int[] {
        CKA_DECRYPT, CKA_SIGN, CKA_SIGN_RECOVER, CKA_UNWRAP, CKA_DERIVE},
      CKO_SECRET_KEY, new int[] {
        CKA_ENCRYPT, CKA_DECRYPT, CKA_SIGN, CKA_VERIFY, CKA_WRAP, CKA_UNWRAP, CKA_DERIVE});

  /** The attributes that say how an object of a class may be used, beside those of all objects. */
  private static final Map<Integer, int[]> ACCESS = Map.of(
      CKO_CERTIFICATE, new int[] {CKA_TRUSTED},
      CKO_PUBLIC_KEY, new int[] {CKA_LOCAL},
      CKO_PRIVATE_KEY, new int[] {
        CKA_SENSITIVE, CKA_ALWAYS_SENSITIVE, CKA_EXTRACTABLE, CKA_NEVER_EXTRACTABLE, CKA_LOCAL,
        CKA_ALWAYS_AUTHENTICATE},
      CKO_SECRET_KEY, new int[] {
        CKA_SENSITIVE, CKA_ALWAYS_SENSITIVE, CKA_EXTRACTABLE, CKA_NEVER_EXTRACTABLE, CKA_LOCAL});

  private static final Map<String, String> CURVES = Map.ofEntries(
      Map.entry("1.2.840.10045.3.1.1", "P-192"), Map.entry("1.3.132.0.33", "P-224"),
      Map.entry("1.2.840.10045.3.1.7", "P-256"), Map.entry("1.3.132.0.34", "P-384"),
      Map.entry("1.3.132.0.35", "P-521"), Map.entry("1.3.132.0.10", "secp256k1"),
      Map.entry("1.3.36.3.3.2.8.1.1.7", "brainpoolP256r1"),
      Map.entry("1.3.36.3.3.2.8.1.1.11", "brainpoolP384r1"),
      Map.entry("1.3.36.3.3.2.8.1.1.13", "brainpoolP512r1"),
      Map.entry("1.3.101.110", "X25519"), Map.entry("1.3.101.111", "X448"),
      Map.entry("1.3.101.112", "Ed25519"), Map.entry("1.3.101.113", "Ed448"));

  /** The DER tag of an ASCII text. */
  private static final int PRINTABLE_STRING = 0x13;

  /** Reads an attribute as a value of one Java class. */
  interface Getter {
    Object get(int type) throws PKCS11Exception, ParseException;
  }

  /**
   * Describes the object as a listing shows it, with further attributes under their names. A value
   * that the object lacks is null, one that cannot be read is {@link Unread}.
   */
  public Map<String, Object> describe(List<Integer> further) {
    Object known = number(CKA_CLASS);
    int objectClass = known instanceof Integer number ? number : -1;
    Map<String, Object> values = new LinkedHashMap<>();
    values.put("class", known instanceof Integer ? objectClassName(objectClass) : known);
    switch (objectClass) {
      case CKO_PUBLIC_KEY, CKO_PRIVATE_KEY, CKO_SECRET_KEY -> addKey(values, objectClass);
      case CKO_CERTIFICATE -> addCertificate(values);
      case CKO_DATA -> addText(values, "application", CKA_APPLICATION);
      case CKO_PROFILE -> values.put("profile", named(CKA_PROFILE_ID, PKCS11Constants::profileName));
      default -> { }
    }
    addText(values, "label", CKA_LABEL);
    List<Object> access = flags(CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE);
    access.addAll(flags(ACCESS.getOrDefault(objectClass, new int[0])));
    values.put("access", access);
    for (int type : further) {
      addAny(values, type);
    }
    return values;
  }

  /** Tells whether a failure says that the object has no such value. */
  public boolean isAbsent(PKCS11Exception e) {
    return e.errorCode() == CKR_ATTRIBUTE_TYPE_INVALID
        || e.reason() == PKCS11Exception.Reason.EMPTY_VALUE || isWithoutLength(e);
  }

  /**
   * Tells whether a failure comes of the length -1, by which some modules say that there is no such
   * value. It does if the module still reads CKA_CLASS, which every object has.
   */
  public boolean isWithoutLength(PKCS11Exception e) {
    try {
      return e.reason() == PKCS11Exception.Reason.INTERNAL
          && object.getByteArrayAttributeValue(CKA_CLASS).length > 0;
    } catch (PKCS11Exception other) {
      return false;
    }
  }

  /** Tells whether the object is of a class, a {@code CKO_} value. */
  public boolean isOf(int objectClass) {
    return Integer.valueOf(objectClass).equals(number(CKA_CLASS));
  }

  /** Reads an Integer, null when the object lacks it, {@link Unread} when it cannot be read. */
  public Object number(int type) {
    return value(type, object::getIntAttributeValue);
  }

  /** Reads a Boolean, null when the object lacks it, {@link Unread} when it cannot be read. */
  public Object truth(int type) {
    return value(type, object::getBoolAttributeValue);
  }

  /** Reads bytes, null when the object lacks them, {@link Unread} when they cannot be read. */
  public Object bytes(int type) {
    return value(type, object::getByteArrayAttributeValue);
  }

  /** Reads bytes, none when the object lacks them or they cannot be read. */
  public byte[] bytesOrEmpty(int type) {
    return bytes(type) instanceof byte[] bytes ? bytes : new byte[0];
  }

  private Object value(int type, Getter getter) {
    try {
      return getter.get(type);
    } catch (PKCS11Exception e) {
      return isAbsent(e) ? null
          : new Unread(e.errorCode() == CKR_ATTRIBUTE_SENSITIVE ? "sensitive" : e.getMessage());
    } catch (ParseException e) {
      return new Unread(e.getMessage());
    }
  }

  private void addKey(Map<String, Object> values, int objectClass) {
    Object keyType = number(CKA_KEY_TYPE);
    values.put("keyType", named(CKA_KEY_TYPE, PKCS11Constants::keyTypeName));
    if (objectClass == CKO_SECRET_KEY) {
      values.put("bytes", number(CKA_VALUE_LEN));
    } else if (Integer.valueOf(CKK_RSA).equals(keyType)) {
      Object modulus = bytes(CKA_MODULUS);
      values.put("bits",
          modulus instanceof byte[] bytes ? new BigInteger(1, bytes).bitLength() : modulus);
    } else {
      Object parameters = bytes(CKA_EC_PARAMS);
      values.put("curve", parameters instanceof byte[] der ? curve(der) : parameters);
    }
    values.put("id", bytes(CKA_ID));
    values.put("startDate", date(CKA_START_DATE));
    values.put("endDate", date(CKA_END_DATE));
    values.put("usage", flags(USES.get(objectClass)));
  }

  /** Shows what the certificate itself says; the attributes beside it may say something else. */
  private void addCertificate(Map<String, Object> values) {
    values.put("certificateType",
        named(CKA_CERTIFICATE_TYPE, PKCS11Constants::certificateTypeName));
    values.put("id", bytes(CKA_ID));
    try {
      X509Certificate certificate = object.certificate();
      values.put("subject", certificate.getSubjectX500Principal().getName());
      values.put("issuer", certificate.getIssuerX500Principal().getName());
      values.put("serialNumber", certificate.getSerialNumber().toByteArray());
      values.put("notAfter", certificate.getNotAfter().toInstant().toString());
    } catch (PKCS11Exception | CertificateException e) {
      values.put("subject", name(bytes(CKA_SUBJECT)));
      values.put("issuer", name(bytes(CKA_ISSUER)));
      values.put("serialNumber", bytes(CKA_SERIAL_NUMBER));
    }
  }

  private Object named(int type, IntFunction<String> name) {
    Object value = number(type);
    return value instanceof Integer number ? name.apply(number) : value;
  }

  private Object date(int type) {
    Object date = value(type, object::getDate);
    return date instanceof java.util.Date day
        ? LocalDate.ofInstant(day.toInstant(), ZoneId.systemDefault()).toString() : date;
  }

  /**
   * Adds a text. It reads bytes, since the getter of texts would take them for modified UTF-8.
   * Bytes that are no UTF-8 are added as such too.
   */
  private void addText(Map<String, Object> values, String name, int type) {
    Object value = bytes(type);
    if (!(value instanceof byte[] bytes)) {
      values.put(name, value);
      return;
    }
    values.put(name, new String(bytes, StandardCharsets.UTF_8));
    try {
      StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(bytes));
    } catch (CharacterCodingException e) {
      values.put(name + "Bytes", bytes);
    }
  }

  /** Adds any attribute: a number, a truth value, a text or a date as such, the rest as bytes. */
  private void addAny(Map<String, Object> values, int type) {
    String name = attributeName(type);
    switch (type) {
      case CKA_LABEL, CKA_APPLICATION -> addText(values, name, type);
      case CKA_START_DATE, CKA_END_DATE -> values.put(name, date(type));
      default -> {
        Object bytes = bytes(type);
        Object known = bytes instanceof byte[] ? value(type, object::getAttributeValue) : null;
        values.put(name, known instanceof Integer || known instanceof Boolean ? known : bytes);
      }
    }
  }

  /** Names a curve: by its object identifier, or by the name that stands in the place of one. */
  private static Object curve(byte[] der) {
    if (der.length > 2 && der[0] == PRINTABLE_STRING && der[1] == der.length - 2) {
      return new String(der, 2, der.length - 2, StandardCharsets.US_ASCII);
    }
    try {
      String oid = new Oid(der).toString();
      return CURVES.getOrDefault(oid, oid);
    } catch (GSSException e) {
      return der;
    }
  }

  private static Object name(Object der) {
    try {
      return der instanceof byte[] bytes && bytes.length > 0 ? new X500Principal(bytes).getName()
          : der;
    } catch (IllegalArgumentException e) {
      return der;
    }
  }

  /** Names the flags that are set, and for each reason the flags that cannot be read. */
  private List<Object> flags(int... types) {
    List<Object> set = new ArrayList<>();
    Map<String, String> unread = new LinkedHashMap<>();
    for (int type : types) {
      String name = attributeName(type).substring(4).toLowerCase(Locale.ROOT);
      Object value = truth(type);
      if (value instanceof Unread why) {
        unread.merge(why.reason(), name, (names, more) -> names + " " + more);
      } else if (Boolean.TRUE.equals(value)) {
        set.add(name);
      }
    }
    unread.forEach((reason, names) -> set.add(new Unread(names + ": " + reason)));
    return set;
  }
}
