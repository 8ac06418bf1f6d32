// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.nio.ByteBuffer;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.HexFormat;

/** The hash functions of signatures, with the names and numbers of each signature. */
public enum Hash {
  SHA1("SHA-1", 20, "3021300906052b0e03021a05000414", "1.2.840.113549.1.1.5",
      "1.2.840.10045.4.1", "1.3.133.16.840.63.0.2", CKM_SHA1_RSA_PKCS,
      CKM_ECDSA_SHA1, CKM_SHA1_RSA_PKCS_PSS),
  SHA224("SHA-224", 28, "302d300d06096086480165030402040500041c", "1.2.840.113549.1.1.14",
      "1.2.840.10045.4.3.1", "1.3.132.1.11.0", CKM_SHA224_RSA_PKCS,
      CKM_ECDSA_SHA224, CKM_SHA224_RSA_PKCS_PSS),
  SHA256("SHA-256", 32, "3031300d060960864801650304020105000420", "1.2.840.113549.1.1.11",
      "1.2.840.10045.4.3.2", "1.3.132.1.11.1", CKM_SHA256_RSA_PKCS,
      CKM_ECDSA_SHA256, CKM_SHA256_RSA_PKCS_PSS),
  SHA384("SHA-384", 48, "3041300d060960864801650304020205000430", "1.2.840.113549.1.1.12",
      "1.2.840.10045.4.3.3", "1.3.132.1.11.2", CKM_SHA384_RSA_PKCS,
      CKM_ECDSA_SHA384, CKM_SHA384_RSA_PKCS_PSS),
  SHA512("SHA-512", 64, "3051300d060960864801650304020305000440", "1.2.840.113549.1.1.13",
      "1.2.840.10045.4.3.4", "1.3.132.1.11.3", CKM_SHA512_RSA_PKCS,
      CKM_ECDSA_SHA512, CKM_SHA512_RSA_PKCS_PSS),
  SHA3_224("SHA3-224", 28, "302d300d06096086480165030402070500041c", "2.16.840.1.101.3.4.3.13",
      "2.16.840.1.101.3.4.3.9", null, CKM_SHA3_224_RSA_PKCS,
      CKM_ECDSA_SHA3_224, CKM_SHA3_224_RSA_PKCS_PSS),
  SHA3_256("SHA3-256", 32, "3031300d060960864801650304020805000420", "2.16.840.1.101.3.4.3.14",
      "2.16.840.1.101.3.4.3.10", null, CKM_SHA3_256_RSA_PKCS,
      CKM_ECDSA_SHA3_256, CKM_SHA3_256_RSA_PKCS_PSS),
  SHA3_384("SHA3-384", 48, "3041300d060960864801650304020905000430", "2.16.840.1.101.3.4.3.15",
      "2.16.840.1.101.3.4.3.11", null, CKM_SHA3_384_RSA_PKCS,
      CKM_ECDSA_SHA3_384, CKM_SHA3_384_RSA_PKCS_PSS),
  SHA3_512("SHA3-512", 64, "3051300d060960864801650304020a05000440", "2.16.840.1.101.3.4.3.16",
      "2.16.840.1.101.3.4.3.12", null, CKM_SHA3_512_RSA_PKCS,
      CKM_ECDSA_SHA3_512, CKM_SHA3_512_RSA_PKCS_PSS),
  /** This hash and the next one sign by PKCS #1 alone, as in Java. No mechanism hashes by them. */
  SHA512_224("SHA-512/224", 28, "302d300d06096086480165030402050500041c", "1.2.840.113549.1.1.15",
      null, null, -1, -1, -1),
  SHA512_256("SHA-512/256", 32, "3031300d060960864801650304020605000420", "1.2.840.113549.1.1.16",
      null, null, -1, -1, -1);

  /** Java's name of the digest, {@code SHA-256} for instance. */
  public final String algorithm;

  /** The digest within the names of signatures, {@code SHA256} for instance. */
  public final String shortName;

  /** Object identifier of the signature by RSA PKCS #1. */
  public final String rsaId;

  /** Object identifier of the signature by ECDSA, null if there is none. */
  public final String ecdsaId;

  /** Object identifier of the CMS key agreement that derives keys by this hash, null if none. */
  public final String agreementId;

  /** The {@code CKM_} that hashes and signs by RSA PKCS #1, -1 if there is none. */
  public final int rsaMechanism;

  /** The {@code CKM_} that hashes and signs by ECDSA, -1 if there is none. */
  public final int ecdsaMechanism;

  /** The usual parameters of RSASSA-PSS: MGF1 by the same hash, a salt as long as the digest. */
  public final PSSParameterSpec pss;

  /** The {@code CKM_} that hashes and signs with {@link #pss}, -1 if there is none. */
  public final int pssMechanism;

  /** The DER of a DigestInfo up to the digest. */
  private final byte[] digestInfo;

  Hash(String algorithm, int length, String digestInfo, String rsaId, String ecdsaId,
      String agreementId, int rsaMechanism, int ecdsaMechanism, int pssMechanism) {
    this.algorithm = algorithm;
    shortName = algorithm.startsWith("SHA-") ? "SHA" + algorithm.substring(4) : algorithm;
    this.digestInfo = HexFormat.of().parseHex(digestInfo);
    this.rsaId = rsaId;
    this.ecdsaId = ecdsaId;
    this.agreementId = agreementId;
    this.rsaMechanism = rsaMechanism;
    this.ecdsaMechanism = ecdsaMechanism;
    pss = new PSSParameterSpec(algorithm, "MGF1", new MGF1ParameterSpec(algorithm), length,
        PSSParameterSpec.TRAILER_FIELD_BC);
    this.pssMechanism = pssMechanism;
  }

  /** Returns the hash of a {@code CKM_} that hashes and signs, null for any other number. */
  public static Hash of(int mechanism) {
    for (Hash hash : values()) {
      if (mechanism != -1 && (mechanism == hash.rsaMechanism || mechanism == hash.ecdsaMechanism
          || mechanism == hash.pssMechanism)) {
        return hash;
      }
    }
    return null;
  }

  /**
   * Returns the mechanism that signs the result of {@link #input}, for tokens that do not hash.
   *
   * @param mechanism any {@code CKM_}
   * @return {@code CKM_RSA_PKCS} or {@code CKM_ECDSA} for a mechanism that hashes and signs by
   *     either, else {@code mechanism} itself, RSASSA-PSS included
   */
  public static int rest(int mechanism) {
    Hash hash = of(mechanism);
    return hash == null || mechanism == hash.pssMechanism ? mechanism
        : mechanism == hash.rsaMechanism ? CKM_RSA_PKCS : CKM_ECDSA;
  }

  /**
   * Hashes data for the mechanism that {@link #rest} returns.
   *
   * @param mechanism any {@code CKM_}
   * @return a DER DigestInfo for {@code CKM_RSA_PKCS}, a digest for {@code CKM_ECDSA}; the data
   *     itself if {@code rest} returns {@code mechanism}
   */
  public static byte[] input(int mechanism, byte[] data) {
    if (rest(mechanism) == mechanism) {
      return data;
    }
    Hash hash = of(mechanism);
    byte[] digest = hash.digest().digest(data);
    return mechanism == hash.rsaMechanism ? hash.digestInfo(digest) : digest;
  }

  /** Returns Java's digest of this hash. */
  public MessageDigest digest() {
    return digest(algorithm);
  }

  /** Wraps a digest in a DER DigestInfo, which PKCS #1 signs. */
  public byte[] digestInfo(byte[] digest) {
    return ByteBuffer.allocate(digestInfo.length + digest.length).put(digestInfo).put(digest)
        .array();
  }

  /**
   * Returns a digest of Java.
   *
   * @param algorithm its name, which need not be one of this enum
   * @throws IllegalArgumentException when Java has no such digest
   */
  public static MessageDigest digest(String algorithm) {
    try {
      return MessageDigest.getInstance(algorithm);
    } catch (NoSuchAlgorithmException e) {
      throw new IllegalArgumentException("no digest " + algorithm, e);
    }
  }
}
