// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Terminal;
import it.quarvel.pkcs11.cli.console.Text;
import it.quarvel.pkcs11.cli.option.Names;
import it.quarvel.pkcs11.cli.option.ObjectFilter;
import it.quarvel.pkcs11.cli.token.Attributes;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/** A command that makes other data of data with one key. */
public abstract class KeyCommand extends TokenCommand {
  private static final Path STANDARD = Path.of("-");

  @Mixin private ObjectFilter filter;

  @Option(names = "--mechanism", paramLabel = "NAME", converter = Names.Mechanism.class,
      description = "The mechanism; see above for what it is otherwise.")
  private Integer mechanism;

  @Option(names = {"-o", "--output"}, paramLabel = "FILE",
      description = "Where the result goes; else to standard output.")
  private Path output;

  @Parameters(arity = "0..1", paramLabel = "FILE",
      description = "The data; without it, or with \"-\", standard input.")
  private Path input = STANDARD;

  abstract Step step();

  /** Returns the mechanism for who names none, null when there is no sensible one. */
  abstract Integer defaultMechanism(int keyType);

  /** Tells whether the result is for people to read, if it happens to be text. */
  abstract boolean mayBeText();

  abstract byte[] apply(
      Connection connection, int mechanism, NativePKCS11Object key, int keyType, byte[] data)
      throws PKCS11Exception, Failure;

  @Override
  public final Integer call() throws Failure {
    if (!filter.isNamed(uri())) {
      throw Failure.usage("which key? Name it by --label, --id or --uri");
    }
    if (!mayBeText()) {
      refuseTerminal();
    }
    return super.call();
  }

  /** Reads the data first: a file that is not there should cost no login. */
  @Override
  final void run(Connection connection) throws Failure {
    if (mechanism != null) {
      connection.requireName(mechanism);
    }
    byte[] data = read();
    openSession(connection, true);
    NativePKCS11Object key = filter.key(connection, uri());
    int keyType = keyType(key);
    Integer used = mechanism != null ? mechanism : defaultMechanism(keyType);
    if (used == null) {
      throw Failure.usage("no usual mechanism for a key of type %s: name one by --mechanism"
          .formatted(PKCS11Constants.keyTypeName(keyType)));
    }
    write(connection.call(step(), () -> apply(connection, used, key, keyType, data)));
  }

  private static int keyType(NativePKCS11Object key) throws Failure {
    Object keyType = new Attributes(key).number(CKA_KEY_TYPE);
    if (keyType == null) {
      throw Failure.usage("this object is no key: --type is private, public or secret-key");
    }
    if (keyType instanceof Integer known) {
      return known;
    }
    throw new Failure("the type of the key cannot be read " + keyType);
  }

  private void refuseTerminal() throws Failure {
    if (output == null && Terminal.is(Terminal.OUT)) {
      throw Failure.usage("the result is no text for a terminal: name a file by -o");
    }
  }

  private byte[] read() throws Failure {
    boolean standard = input.equals(STANDARD);
    if (standard && Terminal.isClosed(Terminal.IN)) {
      throw new Failure("standard input is closed: name the file with the data");
    }
    try {
      // Standard input stays open: it may be the terminal that the PIN comes from.
      return standard ? System.in.readAllBytes() : Files.readAllBytes(input);
    } catch (IOException e) {
      throw Failure.file((standard ? "standard input" : input) + " cannot be read", e);
    }
  }

  private void write(byte[] result) throws Failure {
    if (output == null) {
      if (!Text.isText(result)) {
        refuseTerminal();
      }
      program().out().write(result);
      return;
    }
    try {
      Files.write(output, result);
    } catch (IOException e) {
      throw Failure.file(output + " cannot be written", e);
    }
  }
}
