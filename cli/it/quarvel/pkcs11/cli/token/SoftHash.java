// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.HexFormat;
import java.util.List;

/**
 * What a mechanism that hashes and signs does before it signs, for tokens that only do the rest.
 *
 * @param mechanism the mechanism
 * @param name its hash function as Java names it
 * @param digestInfo the DER that PKCS #1 puts before the hash, in hexadecimal digits; empty for EC
 */
public record SoftHash(int mechanism, String name, String digestInfo) {
  private static final List<SoftHash> ALL = List.of(
      new SoftHash(CKM_SHA1_RSA_PKCS, "SHA-1", "3021300906052b0e03021a05000414"),
      new SoftHash(CKM_SHA224_RSA_PKCS, "SHA-224", "302d300d06096086480165030402040500041c"),
      new SoftHash(CKM_SHA256_RSA_PKCS, "SHA-256", "3031300d060960864801650304020105000420"),
      new SoftHash(CKM_SHA384_RSA_PKCS, "SHA-384", "3041300d060960864801650304020205000430"),
      new SoftHash(CKM_SHA512_RSA_PKCS, "SHA-512", "3051300d060960864801650304020305000440"),
      new SoftHash(CKM_ECDSA_SHA1, "SHA-1", ""),
      new SoftHash(CKM_ECDSA_SHA224, "SHA-224", ""),
      new SoftHash(CKM_ECDSA_SHA256, "SHA-256", ""),
      new SoftHash(CKM_ECDSA_SHA384, "SHA-384", ""),
      new SoftHash(CKM_ECDSA_SHA512, "SHA-512", ""));

  /** Returns what a mechanism does before it signs, null for one that does not hash. */
  public static SoftHash of(int mechanism) {
    return ALL.stream().filter(hash -> hash.mechanism == mechanism).findFirst().orElse(null);
  }

  /** Returns the mechanism for what is left to do. */
  public int rest() {
    return digestInfo.isEmpty() ? CKM_ECDSA : CKM_RSA_PKCS;
  }

  /** Makes of the data what is left to be signed. */
  public byte[] apply(byte[] data) {
    try {
      byte[] hash = MessageDigest.getInstance(name).digest(data);
      return HexFormat.of().parseHex(digestInfo + HexFormat.of().formatHex(hash));
    } catch (NoSuchAlgorithmException e) {
      throw new IllegalStateException(e);
    }
  }
}
