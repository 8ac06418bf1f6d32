package it.quarvel.pkcs11;

import java.math.BigInteger;
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
 * <p>Attribute types of the vendor-defined range (0x80000000 and above) cannot be named: an {@code
 * int} reaches the module with its sign extended to 64 bits, which makes another type of it.
 */
public final class PKCS11Template {
  private final Map<Integer, Object> attributes = new LinkedHashMap<>();

  /** Makes an empty template, which matches every object. */
  public PKCS11Template() {}

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
   */
  public PKCS11Template put(int type, BigInteger value) {
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
    return attributes.keySet().stream().mapToInt(Integer::intValue).toArray();
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
