// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.util.Map;
import picocli.CommandLine.*;

/** Decrypts with a key of the token. */
@Command(
    name = "decrypt",
    description = {
      "Decrypt a file with a key of the token.",
      "RSA keys use CKM_RSA_PKCS unless --mechanism says otherwise; other keys need --mechanism,"
          + " and secret keys --type secret-key.",
      "CKM_RSA_PKCS_OAEP is used with its standard parameter; mechanisms that need another one (AES"
          + " in CBC or GCM mode) cannot be used."
    })
public final class DecryptCommand extends KeyCommand {
  @Mixin private ResultOutput output;

  @Override
  void run(Connection connection, byte[] data) throws Failure {
    openSession(connection, 0, true);
    NativePKCS11Object key = key(connection);
    int used = mechanism(Map.of(CKK_RSA, CKM_RSA_PKCS), keyType(key));
    output.write(program().out(),
        connection.call(Step.DECRYPT, () -> connection.decrypt(used, key, data)));
  }
}
