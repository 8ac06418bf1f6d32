// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import java.util.HexFormat;

/** Makes text that others have written fit to stand in a line on a terminal. */
public final class Printable {
  private Printable() {}

  /** Shows what could steer a terminal, or turn its text around, as an escape. */
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

  /** Tells whether a character does something else to a terminal than to stand there. */
  public static boolean steers(int c) {
    return switch (Character.getType(c)) {
      case Character.CONTROL, Character.FORMAT, Character.SURROGATE,
          Character.LINE_SEPARATOR, Character.PARAGRAPH_SEPARATOR -> true;
      default -> false;
    };
  }

  /** Writes the code units of a character as Java and JSON do. */
  public static String escape(int c) {
    StringBuilder escape = new StringBuilder();
    for (char unit : Character.toChars(c)) {
      escape.append("\\u").append(HexFormat.of().withUpperCase().toHexDigits(unit));
    }
    return escape.toString();
  }
}
