// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.option;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Terminal;
import it.quarvel.pkcs11.cli.console.Text;
import it.quarvel.pkcs11.cli.token.TokenInSlot;
import it.quarvel.pkcs11.internal.Pin;
import java.io.IOException;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Arrays;
import picocli.CommandLine.ArgGroup;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Option;
import picocli.CommandLine.TypeConversionException;

/** How to log in. The PIN is asked for without echo unless one of the options says otherwise. */
public final class PinOptions {
  private static final class Source {
    @Option(names = "--pin", paramLabel = "env:NAME", converter = VariableConverter.class,
        description = "Log in with the PIN in this environment variable.")
    String variable;

    @Option(names = "--pin-source", paramLabel = "FILE",
        description = "Log in with the PIN that is the first line of this file.")
    Path file;

    @Option(names = "--pinpad", description = "Log in with the PIN pad of the reader.")
    boolean pinpad;
  }

  private static final class VariableConverter implements ITypeConverter<String> {
    @Override
    public String convert(String value) {
      if (!value.matches("env:.+")) {
        throw new TypeConversionException(
            "a PIN on the command line can be read by other users in the list of processes: write"
                + " env:NAME, use --pin-source, or leave it out and be asked");
      }
      return value.substring("env:".length());
    }
  }

  @ArgGroup(exclusive = true)
  private Source source = new Source();

  @Option(names = "--login", description = "Log in, and ask for the PIN.")
  private boolean login;

  /** Tells whether the user wants a login, whatever the command needs. */
  public boolean isAsked(PKCS11Uri uri) {
    return login || source.variable != null || source.file != null || source.pinpad
        || uri.pinFile() != null;
  }

  /** Returns the PIN, which the caller wipes; null when the token asks for it itself. */
  public byte[] ask(TokenInSlot token, PKCS11Uri uri) throws Failure {
    if (source.pinpad && !token.info().hasFlag(CKF_PROTECTED_AUTHENTICATION_PATH)) {
      throw new Failure("token %s has no PIN pad, or does not tell of it".formatted(token));
    }
    Path file = source.file != null ? source.file : uri.pinFile();
    byte[] pin = source.variable != null ? ofVariable(source.variable)
        : source.pinpad ? null : file != null ? ofFile(file)
        : token.info().hasFlag(CKF_PROTECTED_AUTHENTICATION_PATH) ? null : ofTerminal(token);
    if (pin != null && pin.length == 0) {
      throw new Failure("the PIN is empty");
    }
    return pin;
  }

  private static byte[] ofVariable(String name) throws Failure {
    String value = System.getenv(name);
    if (value == null) {
      throw new Failure("no environment variable " + name + ", which --pin says has the PIN");
    }
    if (Text.isGarbled(value)) {
      throw new Failure("the PIN in " + name + Text.GARBLED);
    }
    return value.getBytes(StandardCharsets.UTF_8);
  }

  private static byte[] ofFile(Path file) throws Failure {
    try {
      return Pin.ofFile(file);
    } catch (IOException e) {
      // Without its name, which may be a PIN that is not at its place.
      throw Failure.file("the file with the PIN cannot be used", e);
    }
  }

  private static byte[] ofTerminal(TokenInSlot token) throws Failure {
    if (Terminal.console() == null) {
      throw new Failure(
          "no terminal to ask for the PIN, or standard input or output is redirected: use"
              + " --pin env:NAME, --pin-source or --pinpad");
    }
    char[] typed = Terminal.console()
        .readPassword("PIN of token \"%s\": ", Text.printable(token.info().trimmedLabel()));
    if (typed == null) {
      throw new Failure("no PIN");
    }
    try {
      if (!Text.isGarbled(CharBuffer.wrap(typed))) {
        return Pin.of(typed);
      }
    } catch (CharacterCodingException e) {
      // Half a character is as bad as one that was replaced.
    } finally {
      Arrays.fill(typed, '\0');
    }
    throw new Failure("the PIN" + Text.GARBLED + ". It was not tried");
  }
}
