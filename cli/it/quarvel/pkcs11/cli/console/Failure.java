// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import java.io.IOException;
import java.nio.file.*;

/** Ends a command, with one line for the user and the exit status. */
public final class Failure extends Exception {
  /** Something did not work. */
  public static final int FAILED = 1;

  /** The command line asks for something that does not exist. */
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

  /** Makes a failure that says itself what is wrong and what to do. */
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

  /** Makes a failure that the command line is to blame for. */
  public static Failure usage(String message) {
    return new Failure(USAGE, message);
  }

  /** Makes a failure of a file, whose exception often says no more than its name. */
  public static Failure file(String what, IOException cause) {
    String reason = cause instanceof NoSuchFileException ? "there is no such file or folder"
        : cause instanceof AccessDeniedException ? "you have no permission"
        : cause instanceof FileSystemException e && e.getReason() != null ? e.getReason()
        : cause instanceof FileSystemException ? cause.getClass().getSimpleName()
        : cause.getMessage();
    return new Failure(what + ": " + reason);
  }

  /** Makes a failure that nobody is left to read about. */
  public static Failure silent(int status) {
    return new Failure(status, "");
  }

  public int status() {
    return status;
  }

  /** Returns what went wrong without step and advice, for a table that shows these itself. */
  public String reason() {
    return reason;
  }

  public String advice() {
    return advice;
  }
}
