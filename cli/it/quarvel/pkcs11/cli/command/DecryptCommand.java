// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import picocli.CommandLine.Command;

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
  @Override
  Step step() {
    return Step.DECRYPT;
  }

  @Override
  Integer defaultMechanism(int keyType) {
    return keyType == CKK_RSA ? CKM_RSA_PKCS : null;
  }

  @Override
  boolean mayBeText() {
    return true;
  }

  @Override
  byte[] apply(
      Connection connection, int mechanism, NativePKCS11Object key, int keyType, byte[] data)
      throws PKCS11Exception {
    return connection.decrypt(mechanism, key, data);
  }
}
