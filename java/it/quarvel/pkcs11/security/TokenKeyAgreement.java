// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.internal.Hash;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.Key;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.ProviderException;
import java.security.SecureRandom;
import java.security.interfaces.ECPublicKey;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.ECFieldFp;
import java.security.spec.ECPoint;
import java.security.spec.EllipticCurve;
import java.util.Arrays;
import javax.crypto.KeyAgreement;
import javax.crypto.KeyAgreementSpi;
import javax.crypto.SecretKey;
import javax.crypto.ShortBufferException;
import javax.crypto.spec.SecretKeySpec;
import javax.security.auth.login.LoginException;

/**
 * Agrees on a secret with an EC key on a token, which makes the secret, shows it and destroys it.
 * The agreement hands every other key on to another provider.
 */
final class TokenKeyAgreement extends KeyAgreementSpi {
  /** The beginning of the object identifiers of AES. */
  private static final String AES_IDS = "2.16.840.1.101.3.4.1.";

  /** The longest key that is derived, in bytes: far more than a cipher or MAC takes. */
  private static final int LONGEST_KEY = 1024;

  private final Provider provider;
  private final String name;

  /** The hash by which X9.63 derives a key from the secret, null for the secret itself. */
  private final Hash hash;

  /** The key on a token, null before the first one. */
  private TokenKey.Ec key;

  /** The information that both sides share, null without {@link #hash}. */
  private byte[] info;

  /** The secret between {@link #engineDoPhase} and the call that returns it, else null. */
  private byte[] secret;

  /** The agreement of another provider, null unless the key went on to one. */
  private KeyAgreement other;

  /**
   * Makes an agreement without a key.
   *
   * @param provider the provider of this agreement
   * @param name the algorithm, by which another provider is asked for it
   * @param hash the hash by which X9.63 derives a key for CMS (RFC 5753); null for the secret
   *     itself
   */
  TokenKeyAgreement(Provider provider, String name, Hash hash) {
    this.provider = provider;
    this.name = name;
    this.hash = hash;
  }

  @Override
  protected void engineInit(Key wanted, SecureRandom random) throws InvalidKeyException {
    try {
      engineInit(wanted, null, random);
    } catch (InvalidAlgorithmParameterException e) {
      throw new InvalidKeyException(e.getMessage(), e);
    }
  }

  @Override
  protected void engineInit(Key wanted, AlgorithmParameterSpec parameters, SecureRandom random)
      throws InvalidKeyException, InvalidAlgorithmParameterException {
    secret = null;
    if (!(wanted instanceof TokenKey)) {
      other = OtherProviders.first(provider, candidate -> {
        KeyAgreement agreement = KeyAgreement.getInstance(name, candidate);
        agreement.init(wanted, parameters, random);
        return agreement;
      });
      return;
    }
    if (!(wanted instanceof TokenKey.Ec ec)) {
      throw new InvalidKeyException("a key of EC is wanted, not " + wanted);
    }
    info = parameters == null ? null : sharedInfo(parameters);
    if ((hash == null) != (info == null)) {
      throw new InvalidAlgorithmParameterException(name + (hash == null ? " takes no parameters"
          : " wants the key material that it takes beside the secret"));
    }
    if (info != null && (info.length < Integer.BYTES || size() < 1 || size() > LONGEST_KEY)) {
      throw new InvalidAlgorithmParameterException("the key material does not end in the size of a"
          + " key");
    }
    key = ec;
    other = null;
  }

  /**
   * Returns the shared information among the parameters. Java has no class for them, and the
   * provider does not depend on BouncyCastle, which has one: reflection calls its method.
   */
  private static byte[] sharedInfo(AlgorithmParameterSpec parameters)
      throws InvalidAlgorithmParameterException {
    try {
      return (byte[])
          parameters.getClass().getMethod("getUserKeyingMaterial").invoke(parameters);
    } catch (ReflectiveOperationException e) {
      throw new InvalidAlgorithmParameterException("a UserKeyingMaterialSpec is wanted, not "
          + parameters, e);
    }
  }

  @Override
  protected Key engineDoPhase(Key theirs, boolean lastPhase) throws InvalidKeyException {
    if (other != null) {
      return other.doPhase(theirs, lastPhase);
    }
    if (key == null || secret != null || !lastPhase) {
      throw new IllegalStateException("an agreement has one phase, after it was given a key");
    }
    if (!(theirs instanceof ECPublicKey ec) || !isOnCurve(ec.getW(), key.getParams().getCurve())) {
      throw new InvalidKeyException("a public key of the curve of " + key + " is wanted");
    }
    try {
      secret = key.agree(NewKeys.point(ec));
    } catch (LoginException e) {
      throw new ProviderException(e.getMessage(), e);
    } catch (PKCS11Exception e) {
      throw new InvalidKeyException("the token does not agree on a secret, or does not give it away: "
          + e.getMessage(), e);
    }
    return null;
  }

  /**
   * Tells whether a point is on a curve over a prime field. Not all tokens check it, and the
   * results for points of other curves would reveal the private key.
   */
  private static boolean isOnCurve(ECPoint point, EllipticCurve curve) {
    if (!(curve.getField() instanceof ECFieldFp field) || point.equals(ECPoint.POINT_INFINITY)) {
      return false;
    }
    BigInteger p = field.getP();
    BigInteger x = point.getAffineX();
    BigInteger y = point.getAffineY();
    BigInteger right = x.multiply(x).add(curve.getA()).multiply(x).add(curve.getB());
    return x.max(y).compareTo(p) < 0 && x.min(y).signum() >= 0
        && y.multiply(y).subtract(right).mod(p).signum() == 0;
  }

  @Override
  protected byte[] engineGenerateSecret() {
    if (other != null) {
      return other.generateSecret();
    }
    if (secret == null) {
      throw new IllegalStateException("the other side's key is wanted first");
    }
    byte[] result = hash == null ? secret.clone() : derive();
    Arrays.fill(secret, (byte) 0);
    secret = null;
    return result;
  }

  /**
   * Returns the size of the key that is derived, in bytes. The last four bytes of the shared
   * information hold it in bits (RFC 5753).
   */
  private int size() {
    return ByteBuffer.wrap(info).getInt(info.length - Integer.BYTES) / Byte.SIZE;
  }

  /** Derives a key from the secret by X9.63. */
  private byte[] derive() {
    int size = size();
    MessageDigest digest = hash.digest();
    ByteBuffer derived = ByteBuffer.allocate(size + digest.getDigestLength());
    for (int counter = 1; derived.position() < size; counter++) {
      digest.update(secret);
      digest.update(ByteBuffer.allocate(Integer.BYTES).putInt(0, counter));
      derived.put(digest.digest(info));
    }
    return Arrays.copyOf(derived.array(), size);
  }

  @Override
  protected int engineGenerateSecret(byte[] room, int offset) throws ShortBufferException {
    if (other != null) {
      return other.generateSecret(room, offset);
    }
    byte[] kept = secret == null ? null : secret.clone();
    byte[] result = engineGenerateSecret();
    if (result.length > room.length - offset) {
      secret = kept;
      throw new ShortBufferException(result.length + " bytes are needed");
    }
    System.arraycopy(result, 0, room, offset, result.length);
    return result.length;
  }

  /**
   * Makes a key of the secret.
   *
   * @param algorithm the cipher; CMS names it by an object identifier, which becomes "AES" for AES
   */
  @Override
  protected SecretKey engineGenerateSecret(String algorithm)
      throws NoSuchAlgorithmException, InvalidKeyException {
    if (other != null) {
      return other.generateSecret(algorithm);
    }
    return new SecretKeySpec(
        engineGenerateSecret(), algorithm.startsWith(AES_IDS) ? "AES" : algorithm);
  }
}
