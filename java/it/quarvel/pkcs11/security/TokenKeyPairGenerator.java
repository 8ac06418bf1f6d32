// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11MechanismInfo;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.io.IOException;
import java.math.BigInteger;
import java.security.AlgorithmParameters;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.InvalidParameterException;
import java.security.KeyPair;
import java.security.KeyPairGeneratorSpi;
import java.security.NoSuchAlgorithmException;
import java.security.ProviderException;
import java.security.SecureRandom;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.ECGenParameterSpec;
import java.security.spec.ECParameterSpec;
import java.security.spec.InvalidParameterSpecException;
import java.security.spec.NamedParameterSpec;
import java.security.spec.RSAKeyGenParameterSpec;
import java.util.List;
import javax.security.auth.login.LoginException;

/**
 * Generates key pairs as token objects ({@code C_GenerateKeyPair}), since no token lets a key of a
 * session become a token object later. The keys have an id, and no label until the key store gives
 * them an alias.
 */
final class TokenKeyPairGenerator extends KeyPairGeneratorSpi {
  /** The keys that can be generated, with a default size in bits that suits every token. */
  enum Kind {
    RSA(CKK_RSA, CKM_RSA_PKCS_KEY_PAIR_GEN, 2048), EC(CKK_EC, CKM_EC_KEY_PAIR_GEN, 256),
    ED25519(CKK_EC_EDWARDS, CKM_EC_EDWARDS_KEY_PAIR_GEN, 255);

    private final int type;
    private final int mechanism;
    private final int defaultSize;

    Kind(int type, int mechanism, int defaultSize) {
      this.type = type;
      this.mechanism = mechanism;
      this.defaultSize = defaultSize;
    }
  }

  /** The fewest bits of an RSA key. */
  private static final int SHORTEST_RSA = 2048;

  private final Token token;
  private final Kind kind;

  /** The template of the public key with its size or curve, null until {@link #initialize}. */
  private PKCS11Template wanted;

  /** Makes a generator for {@code RSA}, {@code EC}, {@code Ed25519} or {@code EdDSA}. */
  TokenKeyPairGenerator(Token token, String algorithm) {
    this.token = token;
    kind = switch (algorithm) {
      case "RSA" -> Kind.RSA;
      case "EC" -> Kind.EC;
      default -> Kind.ED25519;
    };
  }

  @Override
  public void initialize(int size, SecureRandom random) {
    try {
      initialize(switch (kind) {
        case RSA -> new RSAKeyGenParameterSpec(size, RSAKeyGenParameterSpec.F4);
        case EC -> new ECGenParameterSpec("secp" + size + "r1");
        case ED25519 -> new NamedParameterSpec(size == kind.defaultSize ? "Ed25519" : "of " + size);
      }, random);
    } catch (InvalidAlgorithmParameterException e) {
      throw (InvalidParameterException) new InvalidParameterException(e.getMessage()).initCause(e);
    }
  }

  /**
   * Takes the size or the curve, if the token can generate such a key.
   *
   * @param random not read: the token has random numbers of its own
   */
  @Override
  public void initialize(AlgorithmParameterSpec parameters, SecureRandom random)
      throws InvalidAlgorithmParameterException {
    PKCS11Template pub = NewKeys.publicKey(kind.type, NewKeys.id());
    if (kind == Kind.RSA && parameters instanceof RSAKeyGenParameterSpec rsa
        && rsa.getKeyParams() == null) {
      if (rsa.getKeysize() < SHORTEST_RSA) {
        throw new InvalidAlgorithmParameterException("RSA keys have 2,048 bits and more");
      }
      BigInteger exponent = rsa.getPublicExponent();
      if (exponent.compareTo(BigInteger.valueOf(3)) < 0 || !exponent.testBit(0)) {
        throw new InvalidAlgorithmParameterException("a public exponent is odd and at least 3");
      }
      checkSize(rsa.getKeysize());
      pub.put(CKA_MODULUS_BITS, rsa.getKeysize()).put(CKA_PUBLIC_EXPONENT, exponent);
    } else if (kind == Kind.EC
        && (parameters instanceof ECGenParameterSpec || parameters instanceof ECParameterSpec)) {
      try {
        AlgorithmParameters curve = AlgorithmParameters.getInstance("EC");
        curve.init(parameters);
        checkSize(curve.getParameterSpec(ECParameterSpec.class).getCurve().getField()
            .getFieldSize());
        pub.put(CKA_EC_PARAMS, curve.getEncoded());
      } catch (NoSuchAlgorithmException | InvalidParameterSpecException | IOException e) {
        throw new InvalidAlgorithmParameterException("Java has no curve " + name(parameters), e);
      }
    } else if (kind == Kind.ED25519 && parameters instanceof NamedParameterSpec named
        && named.getName().equalsIgnoreCase(NamedParameterSpec.ED25519.getName())) {
      checkSize(0);
      pub.put(CKA_EC_PARAMS, NewKeys.ED25519_PARAMS);
    } else {
      throw new InvalidAlgorithmParameterException(
          "no parameters of a key of " + kind + ": " + name(parameters));
    }
    wanted = pub;
  }

  private static String name(AlgorithmParameterSpec parameters) {
    return parameters instanceof NamedParameterSpec named ? named.getName()
        : String.valueOf(parameters);
  }

  /**
   * Asks the token whether it generates keys of a size ({@code C_GetMechanismInfo}).
   *
   * @param bits the size; 0 for the one size of Ed25519, which tokens count in several ways
   * @throws InvalidAlgorithmParameterException when it does not, or when the token cannot be asked
   */
  private void checkSize(int bits) throws InvalidAlgorithmParameterException {
    PKCS11MechanismInfo info;
    try {
      info = token.run((session, connection) -> session.slot().getMechanismInfo(kind.mechanism));
    } catch (PKCS11Exception | LoginException e) {
      throw new InvalidAlgorithmParameterException(
          "the token makes no " + kind + " key: " + e.getMessage(), e);
    }
    if (bits != 0 && bits < info.minKeySize() || Integer.compareUnsigned(bits, info.maxKeySize()) > 0) {
      throw new InvalidAlgorithmParameterException("the token makes " + kind + " keys of "
          + info.minKeySize() + " to " + Integer.toUnsignedString(info.maxKeySize()) + " bits");
    }
  }

  @Override
  public KeyPair generateKeyPair() {
    if (wanted == null) {
      initialize(kind.defaultSize, null);
    }
    if (token.uri.id() != null) {
      throw new ProviderException("the key would have another id than the one that the URI names");
    }
    try {
      return token.change(this::generate);
    } catch (PKCS11Exception | LoginException e) {
      throw new ProviderException("the token makes no key: " + e.getMessage(), e);
    }
  }

  private KeyPair generate(NativePKCS11Session session, Connection connection)
      throws PKCS11Exception {
    byte[] id = NewKeys.id();
    NativePKCS11Session.KeyPair made = session.generateKeyPair(
        kind.mechanism, wanted.put(CKA_ID, id), NewKeys.privateKey(kind.type, id));
    KeyPair result = null;
    try {
      List<KeyObject> found = KeyObject.find(session, id);
      if (found.isEmpty()) {
        throw new PKCS11Exception("the new key is not found by its id");
      }
      KeyObject key = found.get(0);
      result = new KeyPair(
          key.publicKey(), TokenKey.of(token, key, key.publicKey(), connection));
      return result;
    } catch (InvalidKeyException e) {
      throw (PKCS11Exception) new PKCS11Exception(e.getMessage()).initCause(e);
    } finally {
      if (result == null) {
        for (NativePKCS11Object half : List.of(made.privateKey(), made.publicKey())) {
          try {
            half.destroy();
          } catch (PKCS11Exception e) {
            // The failure that has led here tells more.
          }
        }
      }
    }
  }
}
