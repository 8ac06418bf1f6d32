// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.CKK_EC;

import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import java.nio.file.Path;
import java.security.PublicKey;
import picocli.CommandLine.*;

/** Verifies a signature that {@link SignCommand} has made. */
@Command(
    name = "verify",
    description = {
      "Verify a signature that \"sign\" made of a file.",
      "Java verifies it, by the public key on the token, or the certificate, that belongs to the"
          + " key. The mechanism is what it would be for \"sign\"."
    })
public final class VerifyCommand extends KeyCommand {
  @Mixin private SignatureFormat format;

  @Option(names = "--signature", paramLabel = "FILE", required = true,
      description = "The signature.")
  private Path signature;

  @Override
  void run(Connection connection, byte[] data) throws Failure {
    byte[] signed = read(signature);
    openSession(connection, 0, false);
    PublicKey key = only(connection.publicKeys(uri().template()),
        "public key or certificate that Java can use");
    int keyType = JavaSignature.keyType(key);
    boolean der = format.isDer(keyType == CKK_EC);
    int used = mechanism(SignCommand.USUAL, keyType);
    if (!connection.call(
        Step.VERIFY, () -> JavaSignature.verifies(key, used, der, data, signed))) {
      throw new Failure("the signature is not one of this data, by this key and mechanism");
    }
    program().out().write("the signature is valid\n");
  }
}
