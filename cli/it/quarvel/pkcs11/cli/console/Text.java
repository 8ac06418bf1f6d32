package it.quarvel.pkcs11.cli.console;

import java.util.HexFormat;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Set;
import java.util.stream.Collectors;
import java.util.stream.IntStream;

/** Data for people: blocks of named values, and tables. */
public final class Text {
  /** What is wrong with a text that {@link #isGarbled}. */
  public static final String GARBLED =
      " has characters that this locale does not have: start with LC_ALL=C.UTF-8";

  private Text() {}

  /** Java puts a replacement character for each byte that the locale does not know. */
  public static boolean isGarbled(String text) {
    return text.indexOf('\uFFFD') >= 0;
  }

  /**
   * Writes a title and below it the values that say something which the title does not. Who asks
   * for an attribute sees that the object has none.
   */
  static String block(String title, Map<String, Object> values, Set<String> inTitle) {
    int width = values.keySet().stream().mapToInt(key -> words(key).length()).max().orElse(0);
    return values.entrySet().stream()
        .filter(entry -> !inTitle.contains(entry.getKey()) && isShown(entry))
        .map(entry -> "  " + pad(words(entry.getKey()), width) + "  " + shown(entry))
        .collect(Collectors.joining("\n", printable(title) + "\n", "\n"));
  }

  /** Writes rows of the same keys under a heading that names them. */
  static String table(List<Map<String, Object>> rows) {
    if (rows.isEmpty()) {
      return "";
    }
    List<String> keys = List.copyOf(rows.get(0).keySet());
    int[] widths = keys.stream().mapToInt(key -> width(rows, key)).toArray();
    return rows.stream()
        .map(row -> line(keys.stream().map(key -> value(row.get(key))).toList(), widths))
        .collect(Collectors.joining("", line(keys.stream().map(Text::words).toList(), widths), ""));
  }

  /** Shows what could steer a terminal, or turn its text around, as an escape. */
  public static String printable(String text) {
    return text.codePoints()
        .mapToObj(c -> steers(c) ? "\\u%04X".formatted(c) : Character.toString(c))
        .collect(Collectors.joining());
  }

  private static boolean steers(int c) {
    return switch (Character.getType(c)) {
      case Character.CONTROL, Character.FORMAT, Character.SURROGATE,
          Character.LINE_SEPARATOR, Character.PARAGRAPH_SEPARATOR -> true;
      default -> false;
    };
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
    int widest = rows.stream().mapToInt(row -> value(row.get(key)).length()).max().orElse(0);
    return Math.max(widest, words(key).length());
  }

  private static String line(List<String> cells, int[] widths) {
    return IntStream.range(0, widths.length).mapToObj(i -> pad(cells.get(i), widths[i]))
        .collect(Collectors.joining("  ")).stripTrailing() + "\n";
  }

  private static String value(Object value) {
    if (value instanceof List<?> list) {
      return list.stream().map(Text::value).collect(Collectors.joining(" "));
    }
    if (value instanceof byte[] bytes) {
      return HexFormat.of().formatHex(bytes);
    }
    return value == null ? "" : printable(value.toString());
  }

  /** Turns the name of a member, "minKeySize", into words. */
  private static String words(String key) {
    return isAttribute(key) ? key : key.replaceAll("([A-Z])", " $1").toLowerCase(Locale.ROOT);
  }

  private static String pad(String text, int width) {
    return text + " ".repeat(width - text.length());
  }
}
