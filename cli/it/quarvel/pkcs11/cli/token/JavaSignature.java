// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.internal.Hash;
import java.security.*;
import java.security.interfaces.*;
import java.util.Arrays;
import javax.crypto.*;

/** Verifies signatures in Java, since the library has no verification. */
public final class JavaSignature {
  private JavaSignature() {}

  /** Returns the type of a public key, a {@code CKK_} value. */
  public static int keyType(PublicKey key) {
    return key instanceof RSAKey ? CKK_RSA : key instanceof ECKey ? CKK_EC : CKK_EC_EDWARDS;
  }

  /** Verifies a signature that a mechanism has made; one of an EC key is in DER or not. */
  public static boolean verifies(
      PublicKey key, int mechanism, boolean der, byte[] data, byte[] signature)
      throws GeneralSecurityException, Failure {
    int rest = Hash.rest(mechanism);
    byte[] input = Hash.input(mechanism, data);
    int type = keyType(key);
    if (type == CKK_RSA && rest == CKM_RSA_PKCS) {
      return Arrays.equals(input, opened(key, signature));
    }
    Hash hash = Hash.of(mechanism);
    String algorithm = type == CKK_RSA && hash != null && rest == mechanism ? "RSASSA-PSS"
        : type == CKK_EC && rest == CKM_ECDSA ? "NONEwithECDSA" + (der ? "" : "inP1363Format")
        : type == CKK_EC_EDWARDS && rest == CKM_EDDSA ? "EdDSA" : null;
    if (algorithm == null) {
      throw Failure.usage(mechanismName(mechanism) + " cannot be verified here for such a key");
    }
    Signature java = Signature.getInstance(algorithm);
    if (type == CKK_RSA) {
      java.setParameter(hash.pss);
    }
    java.initVerify(key);
    java.update(input);
    try {
      return java.verify(signature);
    } catch (SignatureException e) {
      return false;
    }
  }

  /** Returns the data that an RSA key has signed, null if the signature is not of that key. */
  private static byte[] opened(PublicKey key, byte[] signature) throws GeneralSecurityException {
    Cipher rsa = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    rsa.init(Cipher.DECRYPT_MODE, key);
    try {
      return rsa.doFinal(signature);
    } catch (BadPaddingException | IllegalBlockSizeException e) {
      return null;
    }
  }
}
