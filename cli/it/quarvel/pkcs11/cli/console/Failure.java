// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import java.io.IOException;
import java.nio.file.*;

/** Ends a command, with one line for the user and the exit status. */
public final class Failure extends Exception {
  /** The exit status when something did not work. */
  public static final int FAILED = 1;

  /** The exit status when the command line is wrong. */
  public static final int USAGE = 2;

  private static final long serialVersionUID = 1L;

  private final int status;
  private final String reason;
  private final String advice;

  private Failure(int status, String message) {
    super(message);
    this.status = status;
    reason = message;
    advice = "";
  }

  /** Makes a failure whose message says what is wrong and what to do. */
  public Failure(String message) {
    this(FAILED, message);
  }

  /** Makes a failure of one step; advice begins with a semicolon, or is empty. */
  public Failure(String reason, Object step, String advice, Throwable cause) {
    super(reason + ": " + step + advice, cause);
    status = FAILED;
    this.reason = reason;
    this.advice = advice;
  }

  /** Makes a failure of the command line. */
  public static Failure usage(String message) {
    return new Failure(USAGE, message);
  }

  /** Makes a failure of a file; the exception's own message is often no more than a name. */
  public static Failure file(String what, IOException cause) {
    String reason = cause instanceof NoSuchFileException ? "there is no such file or folder"
        : cause instanceof AccessDeniedException ? "you have no permission"
        : cause instanceof FileSystemException e && e.getReason() != null ? e.getReason()
        : cause instanceof FileSystemException ? cause.getClass().getSimpleName()
        : cause.getMessage();
    return new Failure(what + ": " + reason);
  }

  /** Makes a failure without a message, for a reader who has gone. */
  public static Failure silent(int status) {
    return new Failure(status, "");
  }

  public int status() {
    return status;
  }

  /** Returns the message without step and advice, for a table that shows these itself. */
  public String reason() {
    return reason;
  }

  public String advice() {
    return advice;
  }
}
