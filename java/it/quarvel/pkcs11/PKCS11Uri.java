// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.io.ByteArrayOutputStream;
import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.HashMap;
import java.util.HexFormat;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.StringJoiner;

/**
 * A PKCS#11 URI as RFC 7512 defines it, for instance {@code pkcs11:token=demo;object=signing}. It
 * names a token by {@code token}, {@code manufacturer}, {@code model}, {@code serial} and {@code
 * slot-id}, an object by {@code object}, {@code id} and {@code type}, a file with the PIN by {@code
 * pin-source} and a module by {@code module-path}; {@code x-writable=yes} lets the security
 * provider change the token. Other attributes are refused, since a URI without one of them would
 * match more than its author meant. {@code pin-value} is refused because others could read the PIN.
 */
public final class PKCS11Uri {
  /** The URI without attributes, which matches everything. */
  public static final PKCS11Uri ANY = new PKCS11Uri(Map.of());

  private static final String SCHEME = "pkcs11:";
  private static final String FILE_SCHEME = "^(?i:file:(//(localhost)?)?)(?=/)";
  private static final String OTHER_HOST = "(?i:file://(?!localhost/|/)).*";
  private static final List<String> PATH = List.of(
      "model", "manufacturer", "serial", "token", "slot-id", "id", "object", "type");
  private static final List<String> QUERY = List.of("pin-source", "module-path", "x-writable");
  private static final Set<String> REFUSED = Set.of(
      "library-manufacturer", "library-description", "library-version", "slot-manufacturer",
      "slot-description", "module-name");
  private static final Map<String, Integer> TYPES = Map.of("cert", CKO_CERTIFICATE,
      "data", CKO_DATA, "private", CKO_PRIVATE_KEY, "public", CKO_PUBLIC_KEY,
      "secret-key", CKO_SECRET_KEY);

  private final Map<String, byte[]> attributes;

  private PKCS11Uri(Map<String, byte[]> attributes) {
    this.attributes = attributes;
  }

  /**
   * Reads a URI.
   *
   * @param uri the text
   * @return the URI
   * @throws IllegalArgumentException when the text is no such URI; the message never shows a value,
   *     which may be a PIN
   */
  public static PKCS11Uri parse(String uri) {
    if (!uri.regionMatches(true, 0, SCHEME, 0, SCHEME.length())) {
      throw bad("does not start with \"" + SCHEME + "\"");
    }
    String[] parts = uri.substring(SCHEME.length()).split("\\?", 2);
    Map<String, byte[]> attributes = new HashMap<>();
    add(attributes, parts[0], ";", PATH);
    add(attributes, parts.length > 1 ? parts[1] : "", "&", QUERY);
    PKCS11Uri parsed = new PKCS11Uri(attributes);
    parsed.check();
    return parsed;
  }

  /**
   * Makes the URI of a token.
   *
   * @param token the token's description
   * @return a URI of its model, manufacturer, serial number and label
   */
  public static PKCS11Uri of(PKCS11TokenInfo token) {
    return ANY.with("model", token.model()).with("manufacturer", token.manufacturerID())
        .with("serial", token.serialNumber()).with("token", token.trimmedLabel());
  }

  /**
   * Adds an attribute, in place of one of the same name.
   *
   * @param name "token" or "slot-id" for instance
   * @param value the text, whose trailing blanks do not count
   * @return a new URI
   * @throws IllegalArgumentException for an attribute that names neither a token nor an object, or
   *     for a value that the attribute cannot have
   */
  public PKCS11Uri with(String name, String value) {
    return with(name, value.stripTrailing().getBytes(StandardCharsets.UTF_8));
  }

  /**
   * Adds an attribute, in place of one of the same name.
   *
   * @param name "object" or "id" for instance
   * @param value its bytes, which are copied
   * @return a new URI
   * @throws IllegalArgumentException as {@link #with(String, String)}
   */
  public PKCS11Uri with(String name, byte[] value) {
    if (!PATH.contains(name)) {
      throw bad("names no token and no object by " + name);
    }
    Map<String, byte[]> all = new HashMap<>(attributes);
    all.put(name, value.clone());
    PKCS11Uri uri = new PKCS11Uri(all);
    uri.check();
    return uri;
  }

  /**
   * Adds the attributes of another URI, in place of those of the same name.
   *
   * @param other the other URI
   * @return a new URI
   */
  public PKCS11Uri with(PKCS11Uri other) {
    Map<String, byte[]> all = new HashMap<>(attributes);
    all.putAll(other.attributes);
    return new PKCS11Uri(all);
  }

  /**
   * Makes the template that finds the objects of the URI.
   *
   * @return the label, the id and the class of the objects, as far as the URI names them
   */
  public PKCS11Template template() {
    PKCS11Template template = new PKCS11Template();
    if (object() != null) {
      template.put(CKA_LABEL, object());
    }
    if (id() != null) {
      template.put(CKA_ID, id());
    }
    if (objectClass() != null) {
      template.put(CKA_CLASS, objectClass());
    }
    return template;
  }

  /**
   * Returns the class of objects that a type of RFC 7512 stands for.
   *
   * @param type "cert", "data", "private", "public" or "secret-key"
   * @return a {@code CKO_} value
   * @throws IllegalArgumentException for any other type
   */
  public static int objectClass(String type) {
    Integer objectClass = TYPES.get(type);
    if (objectClass == null) {
      throw new IllegalArgumentException("the types are cert, data, private, public, secret-key");
    }
    return objectClass;
  }

  /**
   * Returns the type of RFC 7512 that stands for a class of objects.
   *
   * @param objectClass a {@code CKO_} value
   * @return the type, null when there is none
   */
  public static String type(int objectClass) {
    return TYPES.entrySet().stream().filter(entry -> entry.getValue() == objectClass)
        .map(Map.Entry::getKey).findFirst().orElse(null);
  }

  /**
   * Tells whether the URI names a token.
   *
   * @param token the token's description
   * @param slot number of its slot, never negative
   * @return true when the token and its slot have every value that the URI gives for them
   */
  public boolean matches(PKCS11TokenInfo token, long slot) {
    return same("token", token.trimmedLabel()) && same("manufacturer", token.manufacturerID())
        && same("model", token.model()) && same("serial", token.serialNumber())
        && (slotID() == null || slotID() == slot);
  }

  /**
   * Narrows the URI to one of the tokens that it matches: adds the label, manufacturer, model and
   * serial number that it does not name yet.
   *
   * @param token the token's description
   * @return a new URI, which names that token alone unless another one describes itself alike
   */
  public PKCS11Uri with(PKCS11TokenInfo token) {
    Map<String, byte[]> all = new HashMap<>(attributes);
    all.putIfAbsent("token", token.trimmedLabel().getBytes(StandardCharsets.UTF_8));
    all.putIfAbsent("manufacturer", token.manufacturerID().getBytes(StandardCharsets.UTF_8));
    all.putIfAbsent("model", token.model().getBytes(StandardCharsets.UTF_8));
    all.putIfAbsent("serial", token.serialNumber().getBytes(StandardCharsets.UTF_8));
    return new PKCS11Uri(all);
  }

  /**
   * Returns the label of the token.
   *
   * @return the label, null when the URI does not name it
   */
  public String token() {
    return text("token");
  }

  /**
   * Returns the serial number of the token.
   *
   * @return the serial number, null when the URI does not name it
   */
  public String serial() {
    return text("serial");
  }

  /**
   * Returns the number of the token's slot.
   *
   * @return the number, never negative; null when the URI does not name it
   */
  public Long slotID() {
    return text("slot-id") == null ? null : Long.valueOf(text("slot-id"));
  }

  /**
   * Returns the label of the object.
   *
   * @return the bytes of the label, null when the URI does not name it
   */
  public byte[] object() {
    return bytes("object");
  }

  /**
   * Returns the id of the object.
   *
   * @return the id, null when the URI does not name it
   */
  public byte[] id() {
    return bytes("id");
  }

  /**
   * Returns the class of the object.
   *
   * @return a {@code CKO_} value, null when the URI does not name its type
   */
  public Integer objectClass() {
    String type = text("type");
    return type == null ? null : objectClass(type);
  }

  /**
   * Returns the file that holds the PIN.
   *
   * @return the absolute path that {@code pin-source} names, null without one
   */
  public Path pinFile() {
    String source = text("pin-source");
    return source == null ? null : Path.of(source.replaceFirst(FILE_SCHEME, ""));
  }

  /**
   * Returns the file of the module.
   *
   * @return the path for {@link PKCS11Module#open}, null when the URI does not name it
   */
  public String modulePath() {
    return text("module-path");
  }

  /**
   * Tells whether the security provider may change the token.
   *
   * @return true for {@code x-writable=yes}
   */
  public boolean isWritable() {
    return "yes".equals(text("x-writable"));
  }

  /**
   * Writes the URI as {@link #parse} reads it.
   *
   * @return the text
   */
  @Override
  public String toString() {
    String query = join(QUERY, "&");
    return SCHEME + join(PATH, ";") + (query.isEmpty() ? "" : "?" + query);
  }

  private String join(List<String> names, String separator) {
    StringJoiner joined = new StringJoiner(separator);
    for (String name : names) {
      if (attributes.containsKey(name)) {
        joined.add(name + "=" + encode(name, attributes.get(name)));
      }
    }
    return joined.toString();
  }

  /** Escapes each byte of an id, which is no text, and the reserved bytes of other values. */
  private static String encode(String name, byte[] value) {
    if (name.equals("id")) {
      return HexFormat.of().withUpperCase().withPrefix("%").formatHex(value);
    }
    String bytes = new String(value, StandardCharsets.ISO_8859_1);
    // URLEncoder writes a blank as web forms do.
    return URLEncoder.encode(bytes, StandardCharsets.ISO_8859_1).replace("+", "%20");
  }

  private void check() {
    objectClass();
    for (String name : QUERY) {
      byte[] value = attributes.get(name);
      if (value != null && !Arrays.equals(value, text(name).getBytes(StandardCharsets.UTF_8))) {
        throw bad("has bytes in " + name + " that are no UTF-8");
      }
    }
    if (text("x-writable") != null && !text("x-writable").matches("yes|no")) {
      throw bad("has an x-writable that is neither yes nor no");
    }
    if (text("slot-id") != null && !text("slot-id").matches("[0-9]{1,18}")) {
      throw bad("has a slot-id that is no decimal number");
    }
    try {
      if (pinFile() != null
          && (!pinFile().isAbsolute() || text("pin-source").matches(OTHER_HOST))) {
        throw bad("names no file by its full path in pin-source");
      }
    } catch (InvalidPathException e) {
      throw bad("names no file in pin-source: one has no zero byte in its name, and no characters"
          + " that this locale does not have");
    }
  }

  /** Compares bytes but for trailing blanks: several sequences of bytes can decode to one text. */
  private boolean same(String name, String found) {
    byte[] wanted = attributes.get(name);
    if (wanted == null) {
      return true;
    }
    int length = wanted.length;
    while (length > 0 && wanted[length - 1] == ' ') {
      length--;
    }
    return Arrays.equals(Arrays.copyOf(wanted, length),
        found.stripTrailing().getBytes(StandardCharsets.UTF_8));
  }

  private String text(String name) {
    byte[] value = attributes.get(name);
    return value == null ? null : new String(value, StandardCharsets.UTF_8);
  }

  private byte[] bytes(String name) {
    byte[] value = attributes.get(name);
    return value == null ? null : value.clone();
  }

  private static void add(
      Map<String, byte[]> attributes, String part, String separator, List<String> known) {
    for (String attribute : part.isEmpty() ? new String[0] : part.split(separator, -1)) {
      String[] pair = attribute.split("=", 2);
      if (pair[0].equals("pin-value")) {
        throw bad("has a pin-value, which others can read in files, logs and the list of"
            + " processes: use pin-source");
      }
      if (pair.length < 2) {
        throw bad("has an attribute without \"=\"");
      }
      if (!known.contains(pair[0])) {
        throw bad("has an attribute that is not known at its place: "
            + (isName(pair[0]) ? pair[0] : "no attribute of RFC 7512"));
      }
      if (attributes.put(pair[0], decode(pair[0], pair[1])) != null) {
        throw bad("has " + pair[0] + " twice");
      }
    }
  }

  private static boolean isName(String text) {
    return PATH.contains(text) || QUERY.contains(text) || REFUSED.contains(text);
  }

  private static byte[] decode(String name, String value) {
    byte[] encoded = value.getBytes(StandardCharsets.UTF_8);
    ByteArrayOutputStream decoded = new ByteArrayOutputStream();
    for (int i = 0; i < encoded.length; i++) {
      if (encoded[i] != '%') {
        decoded.write(encoded[i]);
        continue;
      }
      int high = i + 2 < encoded.length ? Character.digit(encoded[i + 1], 16) : -1;
      int low = i + 2 < encoded.length ? Character.digit(encoded[i + 2], 16) : -1;
      if (high < 0 || low < 0) {
        throw bad("has a \"%\" without two hexadecimal digits in " + name);
      }
      decoded.write(high << 4 | low);
      i += 2;
    }
    return decoded.toByteArray();
  }

  private static IllegalArgumentException bad(String what) {
    return new IllegalArgumentException("the PKCS#11 URI " + what);
  }
}
