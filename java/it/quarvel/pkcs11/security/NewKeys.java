// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Template;
import java.io.IOException;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.security.AlgorithmParameters;
import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.PrivateKey;
import java.security.PublicKey;
import java.security.SecureRandom;
import java.security.interfaces.ECPrivateKey;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.EdECPrivateKey;
import java.security.interfaces.RSAPrivateCrtKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.ECParameterSpec;
import java.security.spec.NamedParameterSpec;
import java.util.Arrays;

/** The templates of keys that a token generates or takes in ({@code CKA_TOKEN} is true in all). */
final class NewKeys {
  /** The {@code CKA_EC_PARAMS} of Ed25519: the object identifier 1.3.101.112 in DER. */
  static final byte[] ED25519_PARAMS = {6, 3, 43, 101, 112};

  /** Bytes of a new {@code CKA_ID}. */
  private static final int ID_LENGTH = 8;

  /** Bytes of a public key of Ed25519. */
  private static final int ED25519_SIZE = 32;

  private static final byte OCTET_STRING = 4;
  private static final byte UNCOMPRESSED = 4;
  private static final byte ONE_LENGTH_BYTE = (byte) 0x81;

  private NewKeys() {}

  /** Returns a new {@code CKA_ID}: eight random bytes, so that no other key has the same. */
  static byte[] id() {
    byte[] id = new byte[ID_LENGTH];
    new SecureRandom().nextBytes(id);
    return id;
  }

  /**
   * Makes the template of a private key that never leaves the token, not even wrapped ({@code
   * CKA_SENSITIVE}, not {@code CKA_EXTRACTABLE}). It signs; RSA also decrypts, and EC derives.
   *
   * @param type a {@code CKK_} value
   * @param id the {@code CKA_ID}
   */
  static PKCS11Template privateKey(int type, byte[] id) {
    PKCS11Template key = key(CKO_PRIVATE_KEY, type, id).put(CKA_PRIVATE, true)
        .put(CKA_SENSITIVE, true).put(CKA_EXTRACTABLE, false).put(CKA_SIGN, true);
    return switch (type) {
      case CKK_RSA -> key.put(CKA_DECRYPT, true);
      case CKK_EC -> key.put(CKA_DERIVE, true);
      default -> key;
    };
  }

  /**
   * Makes the template of a public key, which everybody may read (not {@code CKA_PRIVATE}).
   *
   * @param type a {@code CKK_} value
   * @param id the {@code CKA_ID}
   */
  static PKCS11Template publicKey(int type, byte[] id) {
    PKCS11Template key = key(CKO_PUBLIC_KEY, type, id).put(CKA_PRIVATE, false)
        .put(CKA_VERIFY, true);
    return type == CKK_RSA ? key.put(CKA_ENCRYPT, true) : key;
  }

  private static PKCS11Template key(int objectClass, int type, byte[] id) {
    return new PKCS11Template().put(CKA_CLASS, objectClass).put(CKA_KEY_TYPE, type)
        .put(CKA_TOKEN, true).put(CKA_ID, id);
  }

  /**
   * Makes the template that copies a private key of software to the token.
   *
   * @param id the {@code CKA_ID} of the copy
   * @throws InvalidKeyException for a key that is not RSA, EC or Ed25519, that does not show its
   *     numbers, or whose curve Java does not have; RSA keys need their primes
   */
  static PKCS11Template copy(PrivateKey key, byte[] id) throws InvalidKeyException {
    if (key instanceof RSAPrivateCrtKey rsa) {
      return privateKey(CKK_RSA, id).put(CKA_MODULUS, rsa.getModulus())
          .put(CKA_PUBLIC_EXPONENT, rsa.getPublicExponent())
          .put(CKA_PRIVATE_EXPONENT, rsa.getPrivateExponent())
          .put(CKA_PRIME_1, rsa.getPrimeP()).put(CKA_PRIME_2, rsa.getPrimeQ())
          .put(CKA_EXPONENT_1, rsa.getPrimeExponentP()).put(CKA_EXPONENT_2, rsa.getPrimeExponentQ())
          .put(CKA_COEFFICIENT, rsa.getCrtCoefficient());
    }
    if (key instanceof ECPrivateKey ec) {
      int size = (ec.getParams().getOrder().bitLength() + 7) / 8;
      return privateKey(CKK_EC, id).put(CKA_EC_PARAMS, curve(ec.getParams()))
          .put(CKA_VALUE, fixed(ec.getS(), size));
    }
    if (key instanceof EdECPrivateKey edwards && isEd25519(edwards.getParams())
        && edwards.getBytes().isPresent()) {
      return privateKey(CKK_EC_EDWARDS, id).put(CKA_EC_PARAMS, ED25519_PARAMS)
          .put(CKA_VALUE, edwards.getBytes().get());
    }
    throw new InvalidKeyException("a key of RSA, EC or Ed25519 that shows its numbers is wanted");
  }

  /**
   * Makes the template that copies a public key to the token.
   *
   * @param id the {@code CKA_ID} of the copy
   * @throws InvalidKeyException for a key that is not RSA, EC or Ed25519, or whose curve Java does
   *     not have
   */
  static PKCS11Template copy(PublicKey key, byte[] id) throws InvalidKeyException {
    if (key instanceof RSAPublicKey rsa) {
      return publicKey(CKK_RSA, id).put(CKA_MODULUS, rsa.getModulus())
          .put(CKA_PUBLIC_EXPONENT, rsa.getPublicExponent());
    }
    if (key instanceof ECPublicKey ec) {
      return publicKey(CKK_EC, id).put(CKA_EC_PARAMS, curve(ec.getParams()))
          .put(CKA_EC_POINT, octets(point(ec)));
    }
    if (KeyKind.of(key) == KeyKind.ED25519) {
      return publicKey(CKK_EC_EDWARDS, id).put(CKA_EC_PARAMS, ED25519_PARAMS)
          .put(CKA_EC_POINT, octets(tail(key.getEncoded(), ED25519_SIZE)));
    }
    throw new InvalidKeyException("a public key of RSA, EC or Ed25519 is wanted");
  }

  /** Returns the point of a key uncompressed, as SEC 1 has it: the byte 4, then x and y. */
  static byte[] point(ECPublicKey key) {
    int size = (key.getParams().getCurve().getField().getFieldSize() + 7) / 8;
    return ByteBuffer.allocate(1 + 2 * size).put(UNCOMPRESSED)
        .put(fixed(key.getW().getAffineX(), size)).put(fixed(key.getW().getAffineY(), size)).array();
  }

  /** Returns an unsigned number in big-endian bytes of a given size. */
  private static byte[] fixed(BigInteger number, int size) {
    byte[] padded = new byte[size + 1];
    byte[] bytes = number.toByteArray();
    System.arraycopy(bytes, 0, padded, padded.length - bytes.length, bytes.length);
    return tail(padded, size);
  }

  private static byte[] tail(byte[] bytes, int size) {
    return Arrays.copyOfRange(bytes, bytes.length - size, bytes.length);
  }

  /** Wraps up to 255 bytes in a DER OCTET STRING. */
  private static byte[] octets(byte[] bytes) {
    ByteBuffer der = ByteBuffer.allocate(3 + bytes.length).put(OCTET_STRING);
    if (bytes.length > Byte.MAX_VALUE) {
      der.put(ONE_LENGTH_BYTE);
    }
    der.put((byte) bytes.length).put(bytes);
    return Arrays.copyOf(der.array(), der.position());
  }

  /**
   * Returns the {@code CKA_EC_PARAMS} of a curve: its object identifier in DER.
   *
   * @throws InvalidKeyException for a curve that Java does not have
   */
  private static byte[] curve(ECParameterSpec parameters) throws InvalidKeyException {
    try {
      AlgorithmParameters curve = AlgorithmParameters.getInstance("EC");
      curve.init(parameters);
      return curve.getEncoded();
    } catch (GeneralSecurityException | IOException e) {
      throw new InvalidKeyException(e.getMessage(), e);
    }
  }

  private static boolean isEd25519(NamedParameterSpec curve) {
    return curve.getName().equalsIgnoreCase(NamedParameterSpec.ED25519.getName());
  }
}
