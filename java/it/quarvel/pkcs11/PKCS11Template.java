// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.time.LocalDate;
import java.time.ZoneId;
import java.time.format.DateTimeFormatter;
import java.util.Date;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Objects;

/**
 * Attributes to search by, or to make an object from.
 *
 * <pre>{@code
 * new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY).put(CKA_LABEL, "signing")
 * }</pre>
 *
 * <p>The Java class of a value decides how it is encoded; the attribute type has no say in it. A
 * value of a class that has no encoding would make a search or a creation do nothing, silently, so
 * there is one method for each class that has one. An attribute that is put twice keeps its place
 * and its latest value.
 *
 * <p>Attribute types of the vendor-defined range (0x80000000 and above) can be named in a module that
 * was opened by {@link PKCS11Module#open} only: an {@code int} reaches any other one with its sign
 * extended to 64 bits, which makes another type of it.
 */
public final class PKCS11Template {
  private static final byte INTEGER = 2;

  private final Map<Integer, Object> attributes = new LinkedHashMap<>();

  /** Makes an empty template, which matches every object. */
  public PKCS11Template() {}

  /**
   * Makes the template of a certificate: its class and type, subject, issuer and serial number as
   * DER, and the certificate itself. A search finds it, and with {@code CKA_TOKEN}, {@code CKA_ID}
   * and {@code CKA_LABEL} added it is ready to be stored.
   *
   * @param certificate the certificate
   * @return a new template
   * @throws CertificateEncodingException when the certificate cannot be encoded
   */
  public static PKCS11Template of(X509Certificate certificate) throws CertificateEncodingException {
    return new PKCS11Template()
        .put(CKA_CLASS, CKO_CERTIFICATE)
        .put(CKA_CERTIFICATE_TYPE, CKC_X_509)
        .put(CKA_SUBJECT, certificate.getSubjectX500Principal().getEncoded())
        .put(CKA_ISSUER, certificate.getIssuerX500Principal().getEncoded())
        .put(CKA_SERIAL_NUMBER, der(certificate.getSerialNumber()))
        .put(CKA_VALUE, certificate.getEncoded());
  }

  /** An INTEGER, of the 20 bytes that serial numbers have at most or a few more. */
  private static byte[] der(BigInteger number) throws CertificateEncodingException {
    byte[] value = number.toByteArray();
    if (value.length > Byte.MAX_VALUE) {
      throw new CertificateEncodingException("a serial number of " + value.length + " bytes");
    }
    return ByteBuffer.allocate(2 + value.length)
        .put(INTEGER).put((byte) value.length).put(value).array();
  }

  /**
   * Puts a text: its modified UTF-8 bytes, without a terminator.
   *
   * @param type a {@code CKA_} constant
   * @param value the text
   * @return this template
   */
  public PKCS11Template put(int type, String value) {
    return set(type, value);
  }

  /**
   * Puts bytes as they are. The array is read when the template is used, not copied, so that a
   * caller can wipe it afterwards.
   *
   * @param type a {@code CKA_} constant
   * @param value the bytes
   * @return this template
   */
  public PKCS11Template put(int type, byte[] value) {
    return set(type, value);
  }

  /**
   * Puts a number: a {@code CK_ULONG} of eight bytes, the sign extended.
   *
   * @param type a {@code CKA_} constant
   * @param value the number, for instance a {@code CKO_} or {@code CKK_} constant
   * @return this template
   */
  public PKCS11Template put(int type, int value) {
    return set(type, value);
  }

  /**
   * Puts a truth value: one byte, 1 or 0.
   *
   * @param type a {@code CKA_} constant
   * @param value the truth value
   * @return this template
   */
  public PKCS11Template put(int type, boolean value) {
    return set(type, value);
  }

  /**
   * Puts a big number: its big-endian bytes without the leading zero byte, so that 0 is empty. A
   * negative number, which no token expects, is written in two's complement.
   *
   * @param type a {@code CKA_} constant
   * @param value the number
   * @return this template
   * @throws IllegalArgumentException for {@code CKA_SERIAL_NUMBER}, which is DER: {@link #of} puts
   *     it
   */
  public PKCS11Template put(int type, BigInteger value) {
    if (type == CKA_SERIAL_NUMBER) {
      throw new IllegalArgumentException("CKA_SERIAL_NUMBER is a DER INTEGER, which no big number is"
          + " written as: PKCS11Template.of(certificate) puts it");
    }
    return set(type, value);
  }

  /**
   * Puts a day: the eight ASCII digits of year, month and day in the default time zone, whatever
   * calendar and digits the default locale has. They are put as a text.
   *
   * @param type a {@code CKA_} constant
   * @param value any moment of that day
   * @return this template
   * @throws java.time.DateTimeException when the year has more than four digits, or is negative
   */
  public PKCS11Template put(int type, Date value) {
    // Not toInstant(), which java.sql.Date refuses.
    LocalDate day = LocalDate.ofInstant(
        Instant.ofEpochMilli(value.getTime()), ZoneId.systemDefault());
    return set(type, day.format(DateTimeFormatter.BASIC_ISO_DATE));
  }

  /**
   * Returns the attribute types, for the methods that take two arrays.
   *
   * @return the types in the order in which they were put
   */
  public int[] types() {
    int[] types = new int[attributes.size()];
    int count = 0;
    for (int type : attributes.keySet()) {
      types[count++] = type;
    }
    return types;
  }

  /**
   * Returns the attribute values, for the methods that take two arrays.
   *
   * @return the values in the order of {@link #types}
   */
  public Object[] values() {
    return attributes.values().toArray();
  }

  private PKCS11Template set(int type, Object value) {
    attributes.put(type, Objects.requireNonNull(value, "value"));
    return this;
  }
}
