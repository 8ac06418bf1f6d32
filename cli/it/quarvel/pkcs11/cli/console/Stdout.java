// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import java.io.*;
import java.nio.charset.StandardCharsets;

/** Standard output, which fails when it cannot be written. Text is UTF-8, as on the token. */
public final class Stdout {
  /** The status that a shell reports of a program that a closed pipe has ended. */
  private static final int BROKEN_PIPE = 141;

  private final OutputStream out;
  private final int columns = Terminal.columns(Terminal.OUT);

  public Stdout(OutputStream out) {
    this.out = out;
  }

  /** Returns its width in characters, {@code Integer.MAX_VALUE} when it is no terminal. */
  public int columns() {
    return columns;
  }

  public void write(String text) throws Failure {
    write(text.getBytes(StandardCharsets.UTF_8));
  }

  public void write(byte[] bytes) throws Failure {
    try {
      out.write(bytes);
      out.flush();
    } catch (IOException e) {
      // A pipe fails when its reader has gone. The text of the error depends on the language.
      throw Terminal.isPipe(Terminal.OUT) ? Failure.silent(BROKEN_PIPE)
          : Failure.file("standard output cannot be written", e);
    }
  }
}
