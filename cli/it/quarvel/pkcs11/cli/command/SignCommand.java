// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.SoftHash;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.util.Arrays;
import java.util.stream.IntStream;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/** Signs with a key of the token. */
@Command(
    name = "sign",
    description = {
      "Sign a file with a key of the token.",
      "RSA keys use CKM_SHA256_RSA_PKCS and EC keys CKM_ECDSA_SHA256 unless --mechanism says"
          + " otherwise. Where the token does not hash, the file is hashed here. CKM_RSA_PKCS and"
          + " CKM_ECDSA, if named, sign the file as it is."
    })
public final class SignCommand extends KeyCommand {
  /** How the two numbers of an EC signature are written. */
  private enum Format { der, raw }

  /** DER's tags, and the bit of a first byte of length that says how many more there are. */
  private static final int INTEGER = 2;
  private static final int SEQUENCE = 0x30;
  private static final int LONG_LENGTH = 0x80;

  @Option(names = "--signature-format", paramLabel = "der|raw",
      description = "For EC keys: r and s in DER, or one after the other, as else.")
  private Format format;

  @Override
  Step step() {
    return Step.SIGN;
  }

  @Override
  Integer defaultMechanism(int keyType) {
    return switch (keyType) {
      case CKK_RSA -> CKM_SHA256_RSA_PKCS;
      case CKK_EC -> CKM_ECDSA_SHA256;
      case CKK_EC_EDWARDS -> CKM_EDDSA;
      default -> null;
    };
  }

  @Override
  boolean mayBeText() {
    return false;
  }

  @Override
  byte[] apply(
      Connection connection, int mechanism, NativePKCS11Object key, int keyType, byte[] data)
      throws PKCS11Exception, Failure {
    if (format != null && keyType != CKK_EC) {
      throw Failure.usage("--signature-format is for EC keys");
    }
    SoftHash hash = SoftHash.of(mechanism);
    byte[] signature = hash == null || hashes(connection, mechanism)
        ? connection.sign(mechanism, key, data)
        : connection.sign(hash.rest(), key, hash.apply(data));
    return format == Format.der ? der(signature) : signature;
  }

  private static boolean hashes(Connection connection, int mechanism) throws PKCS11Exception {
    return IntStream.of(connection.session().slot().getMechanismList())
        .anyMatch(listed -> listed == mechanism);
  }

  /** Writes the two halves of a signature as a sequence of two integers. */
  private static byte[] der(byte[] signature) {
    int half = signature.length / 2;
    byte[] r = new BigInteger(1, Arrays.copyOf(signature, half)).toByteArray();
    byte[] s = new BigInteger(1, signature, half, signature.length - half).toByteArray();
    int length = r.length + s.length + 4;
    ByteArrayOutputStream der = new ByteArrayOutputStream();
    der.write(SEQUENCE);
    if (length >= LONG_LENGTH) {
      der.write(LONG_LENGTH + 1);
    }
    der.write(length);
    for (byte[] number : new byte[][] {r, s}) {
      der.write(INTEGER);
      der.write(number.length);
      der.writeBytes(number);
    }
    return der.toByteArray();
  }
}
