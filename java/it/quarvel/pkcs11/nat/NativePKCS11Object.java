// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.nat;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.AlgorithmParameters;
import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.KeyFactory;
import java.security.PublicKey;
import java.security.cert.CertificateException;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.spec.ECParameterSpec;
import java.security.spec.ECPoint;
import java.security.spec.ECPublicKeySpec;
import java.security.spec.RSAPublicKeySpec;
import java.security.spec.X509EncodedKeySpec;
import java.text.ParseException;
import java.time.LocalDate;
import java.time.ZoneId;
import java.time.format.DateTimeFormatter;
import java.time.format.DateTimeParseException;
import java.util.Arrays;
import java.util.Date;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Objects;

/**
 * An object on the token or in a session: a key, a certificate or data. A {@link
 * NativePKCS11Session} finds or makes it, and the object's calls run in that session. Objects of
 * the same handle on the same slot are equal, whichever session found them.
 *
 * <p>The getters read one attribute each ({@code C_GetAttributeValue}). A getter fails with
 * CKR_ATTRIBUTE_TYPE_INVALID when the object has no such attribute and with CKR_ATTRIBUTE_SENSITIVE
 * when the token keeps the value to itself. Some modules report success and the length -1 instead:
 * no memory can be had for that, and the getter fails with "Internal error".
 */
public class NativePKCS11Object {
  private static final int DATE_LENGTH = 8;

  /** The first byte of a point in the uncompressed form of SEC 1; both coordinates follow. */
  private static final int UNCOMPRESSED = 4;

  /** The sizes of points, in bytes. */
  private static final int ED25519_SIZE = 32;
  private static final int ED448_SIZE = 57;

  static {
    NativePKCS11.loadLibrary();
  }

  private final NativePKCS11Session session;
  private final int objectID;

  /**
   * Makes an object for a handle that is known.
   *
   * @param session the session in which the handle is valid
   * @param objectID the handle
   */
  public NativePKCS11Object(NativePKCS11Session session, int objectID) {
    this.session = session;
    this.objectID = objectID;
  }

  /**
   * Returns the session.
   *
   * @return the session in which the object's calls run
   */
  public NativePKCS11Session session() {
    return session;
  }

  /**
   * Returns the handle.
   *
   * @return the low 32 bits of the object handle
   */
  public int objectID() {
    return objectID;
  }

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native NativePKCS11Object copy(int[] attrTypes, Object[] attrValues)
      throws PKCS11Exception;

  /**
   * Deletes the object ({@code C_DestroyObject}); its handle is of no more use afterwards.
   *
   * @throws PKCS11Exception when the module refuses
   */
  public native void destroy() throws PKCS11Exception;

  /**
   * Returns the object's size ({@code C_GetObjectSize}).
   *
   * @return bytes on the token as the module counts them; -1 if it does not
   * @throws PKCS11Exception when the module refuses
   */
  public native int size() throws PKCS11Exception;

  /**
   * Reads an attribute in the Java class that suits its type: {@code Integer}, {@code Boolean},
   * {@code String}, {@code byte[]}, {@code Date} or {@code BigInteger}.
   *
   * <p>It knows the common attributes of data, certificates and keys. Others, {@code
   * CKA_START_DATE} among them, need the getter of their Java type. It reads a date as {@link
   * #getDateAttributeValue} does, in the calendar of the default locale.
   *
   * @param attr a {@code CKA_} constant
   * @return the value
   * @throws PKCS11Exception when the module refuses; with "Object type not valid" for an attribute
   *     that it does not know; otherwise as the getter of the Java type
   * @throws ParseException when a date attribute holds no date
   */
  public native Object getAttributeValue(int attr) throws PKCS11Exception, ParseException;

  /**
   * Reads a truth value.
   *
   * @param attr a {@code CKA_} constant
   * @return whether the first byte is not zero
   * @throws PKCS11Exception when the module refuses; with "VOID boolean field" for an empty value
   */
  public native boolean getBoolAttributeValue(int attr) throws PKCS11Exception;

  /**
   * Reads a number.
   *
   * @param attr a {@code CKA_} constant
   * @return the low 32 bits
   * @throws PKCS11Exception when the module refuses; with "VOID int field" for an empty value
   */
  public native int getIntAttributeValue(int attr) throws PKCS11Exception;

  /**
   * Reads a text.
   *
   * @param attr a {@code CKA_} constant
   * @return the bytes up to the first zero, read as modified UTF-8; empty for an empty value. A
   *     character above U+FFFF that another program wrote is lost, and the text after it may be:
   *     {@link #getByteArrayAttributeValue} returns its four bytes
   * @throws PKCS11Exception when the module refuses
   */
  public native String getStringAttributeValue(int attr) throws PKCS11Exception;

  /**
   * Reads any attribute as the bytes that the module gives, numbers in the machine's byte order.
   *
   * @param attr a {@code CKA_} constant
   * @return the bytes, none for an empty value
   * @throws PKCS11Exception when the module refuses
   */
  public native byte[] getByteArrayAttributeValue(int attr) throws PKCS11Exception;

  /**
   * Reads a date leniently, so that 30 February is a day in March, and in the calendar of the
   * default locale, so that a calendar other than the Gregorian one gives another day. {@link
   * #getDate} does neither, and returns a {@code Date}.
   *
   * @param attr {@code CKA_START_DATE} or {@code CKA_END_DATE}
   * @return a {@code Date}: midnight of that day in the default time zone
   * @throws PKCS11Exception when the module refuses; with "VOID Date field" when no date is set
   * @throws ParseException when the value is no date
   */
  public native Object getDateAttributeValue(int attr) throws PKCS11Exception, ParseException;

  /**
   * Reads a big number; {@link #getBigInteger} returns it as one. A number of more than
   * 2<sup>31</sup> bits raises the {@code ArithmeticException} of {@code BigInteger}.
   *
   * @param attr {@code CKA_MODULUS} for instance
   * @return a {@code BigInteger}, never negative
   * @throws PKCS11Exception when the module refuses; with "VOID BigInteger field" for an empty
   *     value
   */
  public native Object getBigIntegerAttributeValue(int attr) throws PKCS11Exception;

  /**
   * Changes an attribute ({@code C_SetAttributeValue}).
   *
   * @param attr a {@code CKA_} constant
   * @param value the new value, of one of the classes that {@link NativePKCS11} names, a {@code
   *     Date} in the calendar and the digits of the default locale; null, or a value of another
   *     class, changes nothing and raises nothing
   * @throws PKCS11Exception when the module refuses, with CKR_ATTRIBUTE_READ_ONLY for an attribute
   *     that never changes
   */
  public native void setAttributeValue(int attr, Object value) throws PKCS11Exception;

  /**
   * Changes several attributes in one call ({@code C_SetAttributeValue}).
   *
   * @param attrArray the {@code CKA_} constants
   * @param valArray the new values in the same order, a {@code Date} in the calendar and the digits
   *     of the default locale; if one is null or of a class that {@link NativePKCS11} does not
   *     name, the call changes nothing and raises nothing
   * @throws PKCS11Exception when the module refuses; with "Different array length" unless both
   *     arrays have the same length
   */
  public native void setAttributeValues(int[] attrArray, Object[] valArray) throws PKCS11Exception;

  /**
   * Changes an attribute that is a truth value ({@code C_SetAttributeValue}).
   *
   * @param attr a {@code CKA_} constant
   * @param value the new value, one byte in the module
   * @throws PKCS11Exception when the module refuses
   */
  public native void setBoolAttributeValue(int attr, boolean value) throws PKCS11Exception;

  /**
   * Changes an attribute that is a number ({@code C_SetAttributeValue}).
   *
   * @param attr a {@code CKA_} constant
   * @param value the new value, a {@code CK_ULONG} with the sign extended in the module
   * @throws PKCS11Exception when the module refuses
   */
  public native void setIntAttributeValue(int attr, int value) throws PKCS11Exception;

  /**
   * Reads a date: eight ASCII digits, or the digit values 0 to 9 that some tokens store, and
   * nothing else. The calendar is the Gregorian one, whatever the default locale has.
   *
   * @param attr {@code CKA_START_DATE} or {@code CKA_END_DATE}
   * @return the start of that day in the default time zone
   * @throws PKCS11Exception when the module refuses; with "VOID Date field" when no date is set
   * @throws ParseException when the value is no day of the calendar, 30 February for instance
   */
  public Date getDate(int attr) throws PKCS11Exception, ParseException {
    byte[] value = getByteArrayAttributeValue(attr);
    if (value.length < DATE_LENGTH || value[0] == 0) {
      throw new PKCS11Exception("VOID Date field");
    }
    if (value[0] > 0 && value[0] <= 9) {
      for (int i = 0; i < DATE_LENGTH; i++) {
        value[i] += '0';
      }
    }
    if (value.length > DATE_LENGTH) {
      throw new ParseException("A date of " + value.length + " bytes", DATE_LENGTH);
    }
    String digits = new String(value, StandardCharsets.ISO_8859_1);
    try {
      LocalDate day = LocalDate.parse(digits, DateTimeFormatter.BASIC_ISO_DATE);
      return Date.from(day.atStartOfDay(ZoneId.systemDefault()).toInstant());
    } catch (DateTimeParseException e) {
      throw (ParseException) new ParseException(e.getMessage(), e.getErrorIndex()).initCause(e);
    }
  }

  /**
   * Reads a big number.
   *
   * @param attr {@code CKA_MODULUS} for instance
   * @return the number, never negative
   * @throws PKCS11Exception when the module refuses; with "VOID BigInteger field" for an empty
   *     value
   */
  public BigInteger getBigInteger(int attr) throws PKCS11Exception {
    return (BigInteger) getBigIntegerAttributeValue(attr);
  }

  /**
   * Makes Java's own public key of an RSA key, private or public, or of a public EC or Edwards key.
   * It reads attributes of this object only ({@code C_GetAttributeValue}): the type, then {@code
   * CKA_MODULUS} and {@code CKA_PUBLIC_EXPONENT}, or {@code CKA_EC_POINT} and for EC {@code
   * CKA_EC_PARAMS}; some tokens show the latter two of private keys too.
   *
   * @return an {@link java.security.interfaces.RSAPublicKey}, {@link
   *     java.security.interfaces.ECPublicKey} or {@link java.security.interfaces.EdECPublicKey}
   * @throws PKCS11Exception when the module refuses, with CKR_ATTRIBUTE_TYPE_INVALID for an object
   *     that is no key or lacks the public numbers
   * @throws InvalidKeyException for a key of another type or on a curve that Java does not have,
   *     and when the numbers make no key
   */
  public PublicKey publicKey() throws PKCS11Exception, InvalidKeyException {
    int type = getIntAttributeValue(CKA_KEY_TYPE);
    try {
      return switch (type) {
        case CKK_RSA -> KeyFactory.getInstance("RSA").generatePublic(new RSAPublicKeySpec(
            getBigInteger(CKA_MODULUS), getBigInteger(CKA_PUBLIC_EXPONENT)));
        case CKK_EC -> KeyFactory.getInstance("EC").generatePublic(ecKey());
        case CKK_EC_EDWARDS -> KeyFactory.getInstance("EdDSA").generatePublic(edwardsKey());
        default -> throw new InvalidKeyException("no public key of type " + keyTypeName(type));
      };
    } catch (InvalidKeyException e) {
      throw e;
    } catch (GeneralSecurityException | IOException e) {
      throw new InvalidKeyException(e.getMessage(), e);
    }
  }

  /** Takes the point from the end of the value, since not all tokens wrap it in DER. */
  private ECPublicKeySpec ecKey() throws PKCS11Exception, GeneralSecurityException, IOException {
    AlgorithmParameters parameters = AlgorithmParameters.getInstance("EC");
    parameters.init(getByteArrayAttributeValue(CKA_EC_PARAMS));
    ECParameterSpec curve = parameters.getParameterSpec(ECParameterSpec.class);
    byte[] point = getByteArrayAttributeValue(CKA_EC_POINT);
    int size = (curve.getCurve().getField().getFieldSize() + 7) / 8;
    int x = point.length - 2 * size;
    if (x < 1 || point[x - 1] != UNCOMPRESSED) {
      throw new InvalidKeyException("CKA_EC_POINT is no uncompressed point of the key's curve");
    }
    return new ECPublicKeySpec(new ECPoint(new BigInteger(1, point, x, size),
        new BigInteger(1, point, x + size, size)), curve);
  }

  /** Tells the curve by the size of the point: tokens name it in several ways, some in none. */
  private X509EncodedKeySpec edwardsKey() throws PKCS11Exception, InvalidKeyException {
    byte[] point = getByteArrayAttributeValue(CKA_EC_POINT); // bare, or in an OCTET STRING
    String start = switch (point.length) {
      case ED25519_SIZE, 2 + ED25519_SIZE -> "302a300506032b6570032100";
      case ED448_SIZE, 2 + ED448_SIZE -> "3043300506032b6571033a00";
      default -> throw new InvalidKeyException("CKA_EC_POINT is no point of Ed25519 or Ed448");
    };
    int size = point.length < ED448_SIZE ? ED25519_SIZE : ED448_SIZE;
    byte[] prefix = HexFormat.of().parseHex(start);
    byte[] key = Arrays.copyOf(prefix, prefix.length + size);
    System.arraycopy(point, point.length - size, key, prefix.length, size);
    return new X509EncodedKeySpec(key);
  }

  /**
   * Makes Java's own certificate of this object ({@code CKA_VALUE}).
   *
   * @return the certificate
   * @throws PKCS11Exception when the module refuses, with CKR_ATTRIBUTE_TYPE_INVALID for an object
   *     without a value
   * @throws CertificateException when the value is no X.509 certificate
   */
  public X509Certificate certificate() throws PKCS11Exception, CertificateException {
    return (X509Certificate) CertificateFactory.getInstance("X.509")
        .generateCertificate(new ByteArrayInputStream(getByteArrayAttributeValue(CKA_VALUE)));
  }

  /**
   * Reads several attributes ({@code C_GetAttributeValue}, for each). It leaves out an attribute
   * that the object does not have, that has no value, or that the token keeps to itself.
   *
   * @param types {@code CKA_} constants
   * @return the values in the order of {@code types}: dates as {@link #getDate} reads them, others
   *     as {@link #getAttributeValue} does, and a value that neither can read as {@code byte[]}
   * @throws PKCS11Exception when the module refuses for another reason
   */
  public Map<Integer, Object> attributes(int... types) throws PKCS11Exception {
    Map<Integer, Object> values = new LinkedHashMap<>();
    for (int type : types) {
      try {
        Object value = value(type);
        if (value != null) {
          values.put(type, value);
        }
      } catch (PKCS11Exception e) {
        switch (e.errorCode()) {
          case CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_SENSITIVE -> { }
          case CKR_OK -> session.getInfo(); // fails if the module has gone; else the length was -1
          default -> throw e;
        }
      }
    }
    return values;
  }

  /** Reads an attribute; null if it is empty and its Java type has no empty value. */
  private Object value(int type) throws PKCS11Exception {
    try {
      return type == CKA_START_DATE || type == CKA_END_DATE
          ? getDate(type) : getAttributeValue(type);
    } catch (PKCS11Exception e) {
      if (e.errorCode() != CKR_OK) {
        throw e;
      }
    } catch (ParseException e) {
      // The bytes are the value then.
    }
    byte[] value = getByteArrayAttributeValue(type);
    return value.length == 0 ? null : value;
  }

  /**
   * Changes several attributes in one call ({@code C_SetAttributeValue}).
   *
   * @param template the attributes and their new values
   * @throws PKCS11Exception when the module refuses
   */
  public void setAttributeValues(PKCS11Template template) throws PKCS11Exception {
    setAttributeValues(template.types(), template.values());
  }

  @Override
  public boolean equals(Object other) {
    return other instanceof NativePKCS11Object object && object.objectID == objectID
        && Objects.equals(object.slot(), slot());
  }

  @Override
  public int hashCode() {
    return objectID;
  }

  private NativePKCS11Slot slot() {
    return session == null ? null : session.slot();
  }

  @Override
  public String toString() {
    return "NativePKCS11Object[objectID=" + Integer.toUnsignedString(objectID) + "]";
  }
}
