package it.quarvel.pkcs11.cli;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/** A command that makes other data of data with one key. */
abstract class KeyCommand extends ModuleCommand {
  /** There is no sensible mechanism for this type of key. */
  static final int NO_DEFAULT = -1;

  private static final Path STANDARD = Path.of("-");

  @Mixin private TokenOptions token;
  @Mixin private PinOptions pin;
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

  abstract String operation();

  /** Returns the mechanism for who names none. */
  abstract int mechanismFor(int keyType, byte[] data);

  abstract byte[] apply(
      NativePKCS11Session session, int mechanism, NativePKCS11Object key, byte[] data)
      throws PKCS11Exception;

  @Override
  public final Integer call() throws Failure {
    if (!filter.isNamed(token.uri())) {
      throw Failure.usage("which key? Name it by --label, --id or --uri");
    }
    return super.call();
  }

  /** Reads the data first: a file that is not there should cost no login. */
  @Override
  final void run(Connection connection) throws Failure {
    byte[] data = read();
    Token chosen = token.choose(connection);
    connection.openSession(chosen.slot(), 0);
    if (pin.isAsked(token.uri()) || chosen.info().hasFlag(CKF_LOGIN_REQUIRED)) {
      pin.login(main(), connection, chosen, token.uri());
    }
    NativePKCS11Object key = filter.key(connection, token.uri());
    int chosenMechanism = mechanism != null ? mechanism : mechanismFor(key, data);
    write(connection.steps()
        .call(operation(), () -> apply(connection.session(), chosenMechanism, key, data)));
  }

  private int mechanismFor(NativePKCS11Object key, byte[] data) throws Failure {
    Integer keyType = new Attributes(key).read(CKA_KEY_TYPE, key::getIntAttributeValue);
    if (keyType == null) {
      throw Failure.usage("this object is no key: --type is private, public or secret-key");
    }
    int found = mechanismFor(keyType, data);
    if (found == NO_DEFAULT) {
      throw Failure.usage("no usual mechanism for a key of type %s: name one by --mechanism"
          .formatted(PKCS11Constants.keyTypeName(keyType)));
    }
    return found;
  }

  private byte[] read() throws Failure {
    try (InputStream in = input.equals(STANDARD) ? System.in : Files.newInputStream(input)) {
      return in.readAllBytes();
    } catch (NoSuchFileException e) {
      throw new Failure("no file " + input);
    } catch (IOException e) {
      throw new Failure(input + " cannot be read: " + e.getMessage());
    }
  }

  private void write(byte[] result) throws Failure {
    if (output == null) {
      main().out().write(result);
      return;
    }
    try {
      Files.write(output, result);
    } catch (IOException e) {
      throw new Failure(output + " cannot be written: " + e);
    }
  }
}
