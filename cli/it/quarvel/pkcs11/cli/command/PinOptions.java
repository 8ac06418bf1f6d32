// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_PROTECTED_AUTHENTICATION_PATH;

import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.TokenInSlot;
import it.quarvel.pkcs11.internal.Pin;
import it.quarvel.pkcs11.internal.Printable;
import java.io.IOException;
import java.nio.CharBuffer;
import java.nio.charset.*;
import java.nio.file.Path;
import java.util.Arrays;
import picocli.CommandLine.*;

/** The options that say how to log in. Without one of them, the user types the PIN without echo. */
final class PinOptions {
  /** Reads the name of an environment variable, and refuses a text that may be the PIN itself. */
  static final class Variable implements ITypeConverter<String> {
    @Override
    public String convert(String value) {
      if (!value.matches("env:.+")) {
        throw new IllegalArgumentException("a PIN on the command line can be read by other users in"
            + " the list of processes: write env:NAME, name a file, or leave it out and be asked");
      }
      return value.substring("env:".length());
    }
  }

  private static final class Source {
    @Option(names = "--pin", paramLabel = "env:NAME", converter = Variable.class,
        description = "Log in with the PIN in this environment variable.")
    private String variable;

    @Option(names = "--pin-source", paramLabel = "FILE",
        description = "Log in with the PIN that is the first line of this file.")
    private Path file;

    @Option(names = "--pinpad", description = "Log in with the PIN pad of the reader.")
    private boolean pinpad;
  }

  @ArgGroup(exclusive = true)
  private Source source = new Source();

  @Option(names = "--login", description = "Log in, and ask for the PIN.")
  private boolean login;

  /** Tells whether the user wants a login, whatever the command needs. */
  boolean isAsked(PKCS11Uri uri) {
    return login || source.variable != null || source.file != null || source.pinpad
        || uri.pinFile() != null;
  }

  /**
   * Returns the PIN, which the caller wipes; null when the token asks for it itself.
   *
   * @param whose the name of the PIN for the user, "New PIN" for instance
   */
  byte[] ask(TokenInSlot token, PKCS11Uri uri, String whose) throws Failure {
    boolean pad = token.info().hasFlag(CKF_PROTECTED_AUTHENTICATION_PATH);
    if (source.pinpad && !pad) {
      throw new Failure("token %s has no PIN pad, or does not tell of it".formatted(token));
    }
    Path file = source.file != null ? source.file : uri.pinFile();
    return source.pinpad || pad && source.variable == null && file == null ? null
        : read(source.variable, file, whose, token);
  }

  /**
   * Reads a PIN from an environment variable, else from a file; the user types it if both are null.
   *
   * @return the PIN, which the caller wipes
   */
  static byte[] read(String variable, Path file, String whose, TokenInSlot token) throws Failure {
    byte[] pin = variable != null ? ofVariable(variable) : file != null ? ofFile(file, whose)
        : ofTerminal(whose, token);
    if (pin.length == 0) {
      throw new Failure(whose + ": it is empty");
    }
    return pin;
  }

  private static byte[] ofVariable(String name) throws Failure {
    String value = System.getenv(name);
    if (value == null) {
      throw new Failure("no environment variable " + name + ", which is said to have the PIN");
    }
    if (Text.isGarbled(value)) {
      throw new Failure("the PIN in " + name + Text.GARBLED);
    }
    return value.getBytes(StandardCharsets.UTF_8);
  }

  private static byte[] ofFile(Path file, String whose) throws Failure {
    try {
      return Pin.ofFile(file);
    } catch (IOException e) {
      // The message leaves out the file's name, which may be a PIN at the wrong place.
      throw Failure.file(whose + ", from its file", e);
    }
  }

  private static byte[] ofTerminal(String whose, TokenInSlot token) throws Failure {
    if (Terminal.console() == null) {
      throw new Failure("no terminal to ask for the PIN, or standard input or output is redirected:"
          + " an option names an environment variable, a file or the PIN pad instead");
    }
    char[] typed = Terminal.console().readPassword(
        "%s of token \"%s\": ", whose, Printable.of(token.info().trimmedLabel()));
    if (typed == null) {
      throw new Failure("no PIN");
    }
    try {
      if (!Text.isGarbled(CharBuffer.wrap(typed))) {
        return Pin.of(typed);
      }
    } catch (CharacterCodingException e) {
      // Half a surrogate pair is as bad as a character that was replaced.
    } finally {
      Arrays.fill(typed, '\0');
    }
    throw new Failure("the PIN" + Text.GARBLED + ". It was not tried");
  }
}
