// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import java.util.HexFormat;

/** Makes foreign text, a label on a token for instance, safe to print in a line on a terminal. */
public final class Printable {
  private Printable() {}

  /** Returns the text with an {@link #escape} in place of each character that {@link #steers}. */
  public static String of(String text) {
    StringBuilder shown = new StringBuilder(text.length());
    for (int i = 0; i < text.length();) {
      int c = text.codePointAt(i);
      i += Character.charCount(c);
      if (steers(c)) {
        shown.append(escape(c));
      } else {
        shown.appendCodePoint(c);
      }
    }
    return shown.toString();
  }

  /**
   * Tells whether a terminal may obey a character rather than show it. True for control characters,
   * separators of lines and paragraphs, and format characters, some of which turn text around; also
   * for half of a surrogate pair.
   *
   * @param c a code point
   */
  public static boolean steers(int c) {
    return switch (Character.getType(c)) {
      case Character.CONTROL, Character.FORMAT, Character.SURROGATE,
          Character.LINE_SEPARATOR, Character.PARAGRAPH_SEPARATOR -> true;
      default -> false;
    };
  }

  /** Returns a code point as Java and JSON escape it: backslash, u and hex for each UTF-16 unit. */
  public static String escape(int c) {
    StringBuilder escape = new StringBuilder();
    for (char unit : Character.toChars(c)) {
      escape.append("\\u").append(HexFormat.of().withUpperCase().toHexDigits(unit));
    }
    return escape.toString();
  }
}
