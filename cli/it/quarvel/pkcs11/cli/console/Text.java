// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import it.quarvel.pkcs11.internal.Printable;
import java.nio.charset.StandardCharsets;
import java.util.*;
import java.util.stream.*;

/** Writes data for people: blocks of named values, and tables. */
public final class Text {
  /** Tells the user what is wrong with a text that {@link #isGarbled}. */
  public static final String GARBLED =
      " has characters that this locale does not have: start with LC_ALL=C.UTF-8";

  private static final String INDENT = "    ";

  private Text() {}

  /** Tells whether Java has replaced bytes of a text that the locale does not know. */
  public static boolean isGarbled(CharSequence text) {
    return text.chars().anyMatch(c -> c == '\uFFFD');
  }

  /**
   * Writes a title, and below it the values that it does not show. Empty values are left out, but
   * not attributes: who asks for one sees that the object has none.
   */
  public static String block(String title, Map<String, Object> values, Set<String> inTitle, int columns) {
    List<Map.Entry<String, Object>> shown = values.entrySet().stream()
        .filter(entry -> !inTitle.contains(entry.getKey()) && isShown(entry)).toList();
    int width = shown.stream().mapToInt(entry -> words(entry.getKey()).length()).max().orElse(0);
    return shown.stream()
        .map(entry -> wrap("  " + pad(words(entry.getKey()), width) + "  ", shown(entry), columns))
        .map(line -> line + "\n").collect(Collectors.joining("", Printable.of(title) + "\n", ""));
  }

  /** Writes rows of the same keys under a heading that names them. */
  public static String table(List<Map<String, Object>> rows, int columns) {
    if (rows.isEmpty()) {
      return "";
    }
    List<String> keys = List.copyOf(rows.get(0).keySet());
    int[] widths = keys.stream().mapToInt(key -> width(rows, key)).toArray();
    return Stream.concat(Stream.of(keys.stream().map(Text::words).toList()),
            rows.stream().map(row -> keys.stream().map(key -> value(row.get(key))).toList()))
        .map(cells -> line(cells, widths, columns)).collect(Collectors.joining());
  }

  /** Writes one row of a table; the last cell may be longer than the terminal is wide. */
  public static String line(List<String> cells, int[] widths, int columns) {
    int last = cells.size() - 1;
    String start = IntStream.range(0, last).mapToObj(i -> pad(cells.get(i), widths[i]) + "  ")
        .collect(Collectors.joining());
    return wrap(start, cells.get(last), columns) + "\n";
  }

  /**
   * Writes a text behind its start, in lines that fit and begin below each other. If a word is too
   * long for this, the text starts on a line of its own.
   */
  public static String wrap(String start, String text, int columns) {
    if (length(start) + length(text) <= columns) {
      return (start + text).stripTrailing();
    }
    boolean own = Stream.of(text.split(" ")).anyMatch(w -> length(start) + length(w) > columns);
    String indent = own ? INDENT : " ".repeat(length(start));
    StringBuilder all = new StringBuilder(own ? start.stripTrailing() + "\n" + indent : start);
    int used = indent.length();
    for (String word : text.split(" ")) {
      if (used > indent.length() && used + 1 + length(word) > columns) {
        all.append("\n").append(indent);
        used = indent.length();
      } else if (used > indent.length()) {
        all.append(" ");
        used++;
      }
      all.append(word);
      used += length(word);
    }
    return all.toString();
  }

  /** Tells whether bytes are text that does nothing to a terminal but begin new lines. */
  public static boolean isText(byte[] bytes) {
    return new String(bytes, StandardCharsets.UTF_8).codePoints()
        .allMatch(c -> c == '\n' || c == '\t' || c != '\uFFFD' && !Printable.steers(c));
  }

  private static boolean isShown(Map.Entry<String, Object> entry) {
    return isAttribute(entry.getKey()) || !value(entry.getValue()).isEmpty();
  }

  private static String shown(Map.Entry<String, Object> entry) {
    return entry.getValue() == null ? "-" : value(entry.getValue());
  }

  private static boolean isAttribute(String key) {
    return key.startsWith("CKA_") || key.startsWith("0x");
  }

  private static int width(List<Map<String, Object>> rows, String key) {
    int widest = rows.stream().mapToInt(row -> length(value(row.get(key)))).max().orElse(0);
    return Math.max(widest, words(key).length());
  }

  public static String value(Object value) {
    if (value instanceof List<?> list) {
      return list.stream().map(Text::value).collect(Collectors.joining(" "));
    }
    if (value instanceof byte[] bytes) {
      return HexFormat.of().formatHex(bytes);
    }
    return value == null ? "" : Printable.of(value.toString());
  }

  /** Turns the name of a member, "minKeySize", into words. */
  private static String words(String key) {
    return isAttribute(key) ? key : key.replaceAll("([A-Z])", " $1").toLowerCase(Locale.ROOT);
  }

  private static String pad(String text, int width) {
    return text + " ".repeat(Math.max(0, width - length(text)));
  }

  private static int length(String text) {
    return text.codePointCount(0, text.length());
  }
}
