package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import picocli.CommandLine.Command;

/** Signs with a key of the token. */
@Command(
    name = "sign",
    description = {
      "Sign a file with a key of the token.",
      "RSA keys use CKM_SHA256_RSA_PKCS unless --mechanism says otherwise.",
      "EC keys use CKM_ECDSA, which signs what it is given: hash the file first. The signature is"
          + " the two numbers r and s one after the other, not DER.",
      "Mechanisms that need a parameter (RSA-PSS) cannot be used."
    })
public final class SignCommand extends KeyCommand {
  /** SHA-512, the longest of the usual digests. */
  private static final int LONGEST_DIGEST = 64;

  @Override
  String operation() {
    return "sign";
  }

  @Override
  int defaultMechanism(int keyType) {
    return switch (keyType) {
      case CKK_RSA -> CKM_SHA256_RSA_PKCS;
      case CKK_EC -> CKM_ECDSA;
      case CKK_EC_EDWARDS -> CKM_EDDSA;
      default -> NO_DEFAULT;
    };
  }

  @Override
  void warn(int defaultMechanism, byte[] data) {
    if (defaultMechanism == CKM_ECDSA && data.length > LONGEST_DIGEST) {
      program()
          .message("CKM_ECDSA does not hash, and this looks like data that has not been hashed");
    }
  }

  @Override
  byte[] apply(NativePKCS11Session session, int mechanism, NativePKCS11Object key, byte[] data)
      throws PKCS11Exception {
    return session.sign(mechanism, key, data);
  }
}
