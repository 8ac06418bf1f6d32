// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import it.quarvel.pkcs11.internal.Printable;
import java.io.*;
import java.nio.file.*;
import picocli.CommandLine.Model.UsageMessageSpec;

/** Tells which standard streams are terminals; Java tells only whether all are. */
public final class Terminal {
  public static final int IN = 0;
  public static final int OUT = 1;
  public static final int ERR = 2;

  private Terminal() {}

  public static boolean is(int descriptor) {
    return target(descriptor).toString().matches("/dev/(pts/|tty|console).*");
  }

  /**
   * Tells whether the process was started without this stream: the virtual machine then opens one of
   * its own files in its place.
   */
  public static boolean isClosed(int descriptor) {
    return target(descriptor).startsWith(System.getProperty("java.home"));
  }

  /** Returns a stream's width in characters, {@code Integer.MAX_VALUE} when it is no terminal. */
  public static int columns(int descriptor) {
    return is(descriptor) ? new UsageMessageSpec().autoWidth(true).width() : Integer.MAX_VALUE;
  }

  /**
   * Returns the console to ask a person by, null when nobody would answer. Newer versions of Java
   * offer a console without a terminal too, which would echo a PIN.
   */
  public static Console console() {
    return is(IN) && is(OUT) ? System.console() : null;
  }

  /** Asks a question, and tells whether the answer is yes; it is not when nobody would answer. */
  public static boolean agrees(String question) {
    String answer = console() == null ? null : console().readLine(
        "%s ", Text.wrap("", Printable.of(question + " [y/N]"), columns(OUT)));
    return answer != null && answer.strip().matches("(?i)y(es)?");
  }

  /** Tells whether a stream goes to another process, or comes from one. */
  static boolean isPipe(int descriptor) {
    return target(descriptor).toString().matches("(pipe|socket):.*");
  }

  private static Path target(int descriptor) {
    try {
      return Files.readSymbolicLink(Path.of("/proc/self/fd/" + descriptor));
    } catch (IOException e) {
      return Path.of("");
    }
  }
}
