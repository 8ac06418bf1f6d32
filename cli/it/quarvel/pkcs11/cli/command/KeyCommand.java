// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.io.IOException;
import java.nio.file.*;
import java.util.Map;
import picocli.CommandLine.*;

/** A command on data with one key. */
abstract class KeyCommand extends ObjectCommand {
  /** The name of standard input and standard output. */
  static final Path STANDARD = Path.of("-");

  private Integer mechanism;

  @Parameters(arity = "0..1", paramLabel = "FILE",
      description = "The data; without it, or with \"-\", standard input.")
  private Path input = STANDARD;

  @Option(names = "--mechanism", paramLabel = "NAME",
      description = "The mechanism; see above for what it is otherwise.")
  void mechanism(String name) {
    mechanism = Names.mechanism(name);
  }

  abstract void run(Connection connection, byte[] data) throws Failure;

  @Override
  public Integer call() throws Failure {
    requireName();
    return super.call();
  }

  /** Reads the data before the command logs in: a file that is missing should cost no login. */
  @Override
  final void run(Connection connection) throws Failure {
    if (mechanism != null) {
      connection.requireName(mechanism);
    }
    run(connection, read());
  }

  /** Returns the mechanism that the user names, else the usual one for a key of this type. */
  final int mechanism(Map<Integer, Integer> usual, int keyType) throws Failure {
    if (mechanism == null && !usual.containsKey(keyType)) {
      throw Failure.usage("no usual mechanism for a key of type %s: name one by --mechanism"
          .formatted(keyTypeName(keyType)));
    }
    return mechanism != null ? mechanism : usual.get(keyType);
  }

  static int keyType(NativePKCS11Object key) throws Failure {
    Object keyType = new Attributes(key).number(CKA_KEY_TYPE);
    if (keyType == null) {
      throw Failure.usage("this object is no key: --type is private, public or secret-key");
    }
    if (keyType instanceof Integer known) {
      return known;
    }
    throw new Failure("the type of the key cannot be read " + keyType);
  }

  private byte[] read() throws Failure {
    if (!input.equals(STANDARD)) {
      return read(input);
    }
    if (Terminal.isClosed(Terminal.IN)) {
      throw new Failure("standard input is closed: name the file with the data");
    }
    try {
      return System.in.readAllBytes(); // not closed: the PIN may come from it
    } catch (IOException e) {
      throw Failure.file("standard input cannot be read", e);
    }
  }

  static byte[] read(Path file) throws Failure {
    try {
      return Files.readAllBytes(file);
    } catch (IOException e) {
      throw Failure.file(file + " cannot be read", e);
    }
  }
}
