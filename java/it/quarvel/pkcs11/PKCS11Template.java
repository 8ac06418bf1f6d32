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
 * <p>The Java class of a value decides its encoding, whatever the attribute type. There is one
 * {@code put} for each class that has an encoding: a value of any other class would make a search
 * or a creation do nothing, silently. An attribute that is put twice keeps its place and its latest
 * value.
 *
 * <p>Attribute types of the vendor-defined range (0x80000000 and above) work only in a module that
 * {@link PKCS11Module#open} opened. Any other module gets the {@code int} with its sign extended to
 * 64 bits, which is another type.
 */
public final class PKCS11Template {
  private static final byte INTEGER = 2;

  private final Map<Integer, Object> attributes = new LinkedHashMap<>();

  /** Makes an empty template, which matches every object. */
  public PKCS11Template() {}

  /**
   * Makes the template of a certificate: its class and type, subject, issuer and serial number as
   * DER, and the certificate itself. The template serves to search for the certificate and, with
   * {@code CKA_TOKEN}, {@code CKA_ID} and {@code CKA_LABEL} added, to store it.
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

  /** Encodes an INTEGER with one byte of length; a serial number has at most 20 bytes. */
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
   * Puts bytes as they are. The template keeps the array itself, and each use reads it, so that the
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
   * Puts a day ({@code CK_DATE}) as a text: the eight ASCII digits of year, month and day in the
   * default time zone, whatever calendar and digits the default locale has.
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
