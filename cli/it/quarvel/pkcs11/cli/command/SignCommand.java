// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.internal.*;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.util.Map;
import picocli.CommandLine.*;

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
  static final Map<Integer, Integer> USUAL = Map.of(
      CKK_RSA, CKM_SHA256_RSA_PKCS, CKK_EC, CKM_ECDSA_SHA256, CKK_EC_EDWARDS, CKM_EDDSA);

  @Mixin private SignatureFormat format;
  @Mixin private ResultOutput output;

  @Override
  public Integer call() throws Failure {
    output.refuseTerminal();
    return super.call();
  }

  @Override
  void run(Connection connection, byte[] data) throws Failure {
    openSession(connection, 0, true);
    NativePKCS11Object key = key(connection);
    int keyType = keyType(key);
    int used = mechanism(USUAL, keyType);
    boolean der = format.isDer(keyType == CKK_EC);
    int rest = Hash.rest(used);
    byte[] signature = connection.call(Step.SIGN, () ->
        rest == used || connection.hasMechanism(used) ? connection.sign(used, key, data)
            : connection.sign(rest, key, Hash.input(used, data)));
    output.write(program().out(), der ? Encodings.derSignature(signature) : signature);
  }
}
