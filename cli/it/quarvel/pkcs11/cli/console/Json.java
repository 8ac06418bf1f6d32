// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import it.quarvel.pkcs11.internal.Printable;
import java.util.*;
import java.util.stream.Collectors;

/** Writes data for programs, as JSON (RFC 8259). */
public final class Json {
  private Json() {}

  /** Writes maps, lists, numbers, booleans and null as such, bytes in hexadecimal, others as text. */
  public static String of(Object value) {
    if (value == null || value instanceof Number || value instanceof Boolean) {
      return String.valueOf(value);
    }
    if (value instanceof Map<?, ?> map) {
      return map.entrySet().stream()
          .map(entry -> quote(entry.getKey().toString()) + ": " + of(entry.getValue()))
          .collect(Collectors.joining(", ", "{", "}"));
    }
    if (value instanceof List<?> list) {
      return list.stream().map(Json::of).collect(Collectors.joining(", ", "[", "]"));
    }
    if (value instanceof Unread unread) {
      return of(Map.of("unreadable", unread.reason()));
    }
    return quote(value instanceof byte[] bytes ? HexFormat.of().formatHex(bytes) : "" + value);
  }

  private static String quote(String text) {
    return text.codePoints().mapToObj(Json::escape).collect(Collectors.joining("", "\"", "\""));
  }

  /** Escapes the characters that could command a terminal, and a surrogate that stands alone. */
  private static String escape(int c) {
    return Printable.steers(c) ? Printable.escape(c)
        : c == '"' || c == '\\' ? "\\" + (char) c : Character.toString(c);
  }
}
