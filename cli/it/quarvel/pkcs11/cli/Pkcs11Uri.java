package it.quarvel.pkcs11.cli;

import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Set;
import picocli.CommandLine.TypeConversionException;

/**
 * A PKCS#11 URI as RFC 7512 defines it, for instance {@code pkcs11:token=demo;object=signing}. It
 * names a token by {@code token}, {@code manufacturer}, {@code model}, {@code serial} and {@code
 * slot-id}, an object by {@code object}, {@code id} and {@code type}, and a file with the PIN by
 * {@code pin-source}. Other attributes are refused, since leaving one out would match more than was
 * meant.
 */
final class Pkcs11Uri {
  /** The URI of those who give none: it matches everything. */
  static final Pkcs11Uri ANY = new Pkcs11Uri(Map.of());

  private static final String SCHEME = "pkcs11:";
  private static final String FILE_SCHEME = "^file:(//(localhost)?)?(?=/)";
  private static final Set<String> PATH =
      Set.of("token", "manufacturer", "model", "serial", "slot-id", "object", "id", "type");
  private static final Set<String> QUERY = Set.of("pin-source");
  private static final Set<String> REFUSED = Set.of(
      "library-manufacturer", "library-description", "library-version", "slot-manufacturer",
      "slot-description", "module-name", "module-path");

  private final Map<String, byte[]> attributes;

  private Pkcs11Uri(Map<String, byte[]> attributes) {
    this.attributes = attributes;
  }

  /** Reads a URI; messages never show a value, which may be a PIN. */
  static Pkcs11Uri parse(String uri) {
    if (!uri.regionMatches(true, 0, SCHEME, 0, SCHEME.length())) {
      throw bad("does not start with \"" + SCHEME + "\"");
    }
    String[] parts = uri.substring(SCHEME.length()).split("\\?", 2);
    Map<String, byte[]> attributes = new LinkedHashMap<>();
    add(attributes, parts[0], ";", PATH);
    add(attributes, parts.length > 1 ? parts[1] : "", "&", QUERY);
    Pkcs11Uri parsed = new Pkcs11Uri(attributes);
    parsed.check();
    return parsed;
  }

  private void check() {
    if (text("type") != null) {
      ObjectFilter.type(text("type"));
    }
    try {
      if (pinFile() != null && !pinFile().isAbsolute()) {
        throw bad("names no file by its full path in pin-source");
      }
    } catch (InvalidPathException e) {
      throw bad("names no file in pin-source: one has no zero byte in its name, and no characters"
          + " that this locale does not have");
    }
  }

  /** Returns a value as text, null when the URI has no such attribute. */
  String text(String name) {
    byte[] value = attributes.get(name);
    return value == null ? null : new String(value, StandardCharsets.UTF_8);
  }

  /** Returns a value as bytes, null when the URI has no such attribute. */
  byte[] bytes(String name) {
    return attributes.get(name);
  }

  /** Returns the file that {@code pin-source} names, null without one. */
  Path pinFile() {
    String source = text("pin-source");
    return source == null ? null : Path.of(source.replaceFirst(FILE_SCHEME, ""));
  }

  private static void add(
      Map<String, byte[]> attributes, String part, String separator, Set<String> known) {
    for (String attribute : part.isEmpty() ? new String[0] : part.split(separator, -1)) {
      String[] pair = attribute.split("=", 2);
      if (pair[0].equals("pin-value")) {
        throw bad("has a pin-value, which other users can read in the list of processes: use"
            + " pin-source, --pin env:NAME or --pin-source");
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

  private static TypeConversionException bad(String what) {
    return new TypeConversionException("the PKCS#11 URI " + what);
  }
}
