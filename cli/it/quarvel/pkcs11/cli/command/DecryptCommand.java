package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import picocli.CommandLine.Command;

/** Decrypts with a key of the token. */
@Command(
    name = "decrypt",
    description = {
      "Decrypt a file with a key of the token.",
      "RSA keys use CKM_RSA_PKCS unless --mechanism says otherwise; other keys need --mechanism,"
          + " and secret keys --type secret-key.",
      "Mechanisms that need a parameter (RSA-OAEP, AES in CBC or GCM mode) cannot be used."
    })
public final class DecryptCommand extends KeyCommand {
  @Override
  String operation() {
    return "decrypt";
  }

  @Override
  int defaultMechanism(int keyType) {
    return keyType == CKK_RSA ? CKM_RSA_PKCS : NO_DEFAULT;
  }

  @Override
  byte[] apply(NativePKCS11Session session, int mechanism, NativePKCS11Object key, byte[] data)
      throws PKCS11Exception {
    return session.decrypt(mechanism, key, data);
  }
}
