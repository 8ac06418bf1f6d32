// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.internal.Encodings;
import it.quarvel.pkcs11.internal.Hash;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.security.AlgorithmParameters;
import java.security.GeneralSecurityException;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.Key;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.ProviderException;
import java.security.PublicKey;
import java.security.SecureRandom;
import java.security.Signature;
import java.security.SignatureException;
import java.security.SignatureSpi;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Arrays;
import java.util.List;
import javax.security.auth.login.LoginException;

/**
 * Signs with a key on a token. It hands verification, and signatures with every other key, on to
 * another provider.
 */
final class TokenSignature extends SignatureSpi {
  /** The kinds of signatures, with the kinds of keys that make them. */
  enum Scheme {
    PKCS1(KeyKind.RSA), PSS(KeyKind.RSA, KeyKind.RSASSA_PSS), ECDSA_DER(KeyKind.EC),
    ECDSA_P1363(KeyKind.EC), EDDSA(KeyKind.ED25519);

    /** The kinds of keys that sign in this way. */
    private final List<KeyKind> kinds;

    Scheme(KeyKind... kinds) {
      this.kinds = List.of(kinds);
    }

    /** Tells whether a key is on a token and of a kind that signs in this way. */
    boolean takes(Object key) {
      return key instanceof TokenKey tokenKey && kinds.contains(tokenKey.kind);
    }
  }

  /** The most bytes that raw ECDSA takes for a digest, as in Java's own. */
  private static final int LONGEST_DIGEST = 64;

  /** The fewest bytes that PKCS #1 puts around the data. */
  private static final int PKCS1_PADDING = 11;

  private final Provider provider;

  /** The algorithm, by which another provider is asked for it. */
  private final String name;

  private final Scheme scheme;

  /**
   * The hash in the name. If it is null, the caller or the token hashes, or the parameters tell.
   */
  private final Hash hash;

  /** The parameters of RSASSA-PSS, null before they are set and for another scheme. */
  private AlgorithmParameterSpec parameters;

  /** The key on a token, null without one. */
  private TokenKey key;

  /** Whether data has come that is not yet signed. */
  private boolean underWay;

  /** Hashes the data; null if the token gets the data itself. */
  private MessageDigest digest;

  /** The data so far, empty if {@link #digest} hashes it; null before the first key on a token. */
  private ByteArrayOutputStream data;

  /** Whether the last signature has failed, and no data has come since. */
  private boolean failed;

  /** The signature of another provider, null unless the key went on to one. */
  private Signature other;

  /**
   * Makes a signature without a key.
   *
   * @param provider the provider of this signature
   * @param name the algorithm, by which another provider is asked for it
   * @param hash the hash in the algorithm's name, null for a name without one
   */
  TokenSignature(Provider provider, String name, Scheme scheme, Hash hash) {
    this.provider = provider;
    this.name = name;
    this.scheme = scheme;
    this.hash = hash;
    parameters = scheme == Scheme.PSS && hash != null ? hash.pss : null;
  }

  // ---- Keys and parameters ----

  @Override
  protected void engineInitSign(PrivateKey privateKey) throws InvalidKeyException {
    if (privateKey instanceof TokenKey tokenKey) {
      if (!scheme.takes(tokenKey)) {
        throw new InvalidKeyException(name + " takes no " + tokenKey);
      }
      try {
        prepare(tokenKey, parameters);
      } catch (InvalidAlgorithmParameterException e) {
        throw new InvalidKeyException(e.getMessage(), e);
      }
      key = tokenKey;
      other = null;
    } else {
      handOn(privateKey);
    }
  }

  @Override
  protected void engineInitVerify(PublicKey publicKey) throws InvalidKeyException {
    handOn(publicKey);
  }

  private void handOn(Key foreign) throws InvalidKeyException {
    other = OtherProviders.first(provider, candidate -> {
      Signature signature = Signature.getInstance(name, candidate);
      if (parameters != null) {
        signature.setParameter(parameters);
      }
      if (foreign instanceof PrivateKey privateKey) {
        signature.initSign(privateKey, appRandom);
      } else {
        signature.initVerify((PublicKey) foreign);
      }
      return signature;
    });
    key = null;
  }

  @Override
  protected void engineSetParameter(AlgorithmParameterSpec wanted)
      throws InvalidAlgorithmParameterException {
    if (underWay) {
      throw new ProviderException("parameters cannot be set between data and its signature");
    }
    if (scheme == Scheme.PSS) {
      check(wanted);
    }
    if (other != null) {
      other.setParameter(wanted);
    } else if (key != null) {
      prepare(key, wanted);
    }
    parameters = wanted;
  }

  /** Refuses parameters that RSASSA-PSS does not take, or that name another hash than the name. */
  private void check(AlgorithmParameterSpec wanted) throws InvalidAlgorithmParameterException {
    if (!(wanted instanceof PSSParameterSpec pss)
        || !pss.getMGFAlgorithm().equalsIgnoreCase("MGF1")
        || !(pss.getMGFParameters() instanceof MGF1ParameterSpec)
        || pss.getTrailerField() != PSSParameterSpec.TRAILER_FIELD_BC) {
      throw new InvalidAlgorithmParameterException(
          "a PSSParameterSpec with MGF1 and the trailer field 1 is wanted");
    }
    if (hash != null && !pss.getDigestAlgorithm().equals(hash.pss.getDigestAlgorithm())) {
      throw new InvalidAlgorithmParameterException("the digest is " + hash);
    }
  }

  /**
   * Makes ready to sign with a key on a token.
   *
   * @throws InvalidAlgorithmParameterException when the key is too short, or when the scheme, the
   *     token or the key's certificate does not allow the parameters
   */
  private void prepare(TokenKey tokenKey, AlgorithmParameterSpec wanted)
      throws InvalidAlgorithmParameterException {
    MessageDigest first = null;
    if (scheme != Scheme.PSS) {
      if (wanted != null) {
        throw new InvalidAlgorithmParameterException("a key on a token signs without parameters");
      }
      first = hash == null ? null : hash.digest();
      if (scheme == Scheme.PKCS1 && hash != null && ((TokenKey.Rsa) tokenKey).size()
          < hash.digestInfo(new byte[first.getDigestLength()]).length + PKCS1_PADDING) {
        throw new InvalidAlgorithmParameterException("the key is too short for " + name);
      }
    } else if (wanted instanceof PSSParameterSpec pss) {
      first = pssDigest((TokenKey.Rsa) tokenKey, pss);
    }
    digest = first;
    data = new ByteArrayOutputStream();
    underWay = false;
    failed = false;
  }

  /**
   * Returns the digest for RSASSA-PSS by raw RSA, with which any parameters will do. Without raw
   * RSA on the token, returns null: the token hashes the data by a mechanism of its own.
   *
   * @throws InvalidAlgorithmParameterException as {@link #prepare}
   */
  private static MessageDigest pssDigest(TokenKey.Rsa rsa, PSSParameterSpec pss)
      throws InvalidAlgorithmParameterException {
    MessageDigest digest;
    try {
      digest = Hash.digest(pss.getDigestAlgorithm());
      Hash.digest(maskOf(pss));
    } catch (IllegalArgumentException e) {
      throw new InvalidAlgorithmParameterException(e.getMessage(), e);
    }
    PSSParameterSpec limits = rsa.getParams();
    if (limits != null && !allows(limits, pss)) {
      throw new InvalidAlgorithmParameterException(
          "the key's certificate limits it to other parameters: " + limits);
    }
    if ((pssBits(rsa) + 7) / 8 < digest.getDigestLength() + pss.getSaltLength() + 2) {
      throw new InvalidAlgorithmParameterException(
          "the key is too short for such a digest and a salt of %d bytes"
              .formatted(pss.getSaltLength()));
    }
    if (rsa.token.signsWith(CKM_RSA_X_509)) {
      return digest;
    }
    if (!rsa.token.signsWith(pssMechanism(pss))) {
      throw new InvalidAlgorithmParameterException("the token has no raw RSA, and no PSS with"
          + " these parameters");
    }
    return null;
  }

  /**
   * Tells whether the limits of a key allow some parameters: the salt is as long or longer, and all
   * else is the same. The method compares encodings, since a digest has several names.
   */
  private static boolean allows(PSSParameterSpec limits, PSSParameterSpec wanted)
      throws InvalidAlgorithmParameterException {
    PSSParameterSpec salted = new PSSParameterSpec(limits.getDigestAlgorithm(),
        limits.getMGFAlgorithm(), limits.getMGFParameters(), wanted.getSaltLength(),
        limits.getTrailerField());
    try {
      return wanted.getSaltLength() >= limits.getSaltLength()
          && Arrays.equals(encoder(wanted).getEncoded(), encoder(salted).getEncoded());
    } catch (GeneralSecurityException | IOException e) {
      throw new InvalidAlgorithmParameterException(e.getMessage(), e);
    }
  }

  /** Returns the bits that EMSA-PSS fills: one less than the modulus has. */
  private static int pssBits(TokenKey.Rsa rsa) {
    return rsa.getModulus().bitLength() - 1;
  }

  private static String maskOf(PSSParameterSpec pss) {
    return ((MGF1ParameterSpec) pss.getMGFParameters()).getDigestAlgorithm();
  }

  /**
   * Returns the {@code CKM_} of RSASSA-PSS with a hash, for {@link Hash#pss}; -1, by which no token
   * signs, for other parameters.
   */
  private static int pssMechanism(PSSParameterSpec pss) {
    for (Hash each : Hash.values()) {
      if (each.pss.getDigestAlgorithm().equals(pss.getDigestAlgorithm())
          && each.pss.getDigestAlgorithm().equals(maskOf(pss))
          && each.pss.getSaltLength() == pss.getSaltLength()) {
        return each.pssMechanism;
      }
    }
    return -1;
  }

  /** Returns the parameters of RSASSA-PSS, without which JSSE would not use it, null for none. */
  @Override
  protected AlgorithmParameters engineGetParameters() {
    if (other != null) {
      return other.getParameters();
    }
    if (!(parameters instanceof PSSParameterSpec)) {
      return null;
    }
    try {
      return encoder(parameters);
    } catch (GeneralSecurityException e) {
      throw new ProviderException(e);
    }
  }

  private static AlgorithmParameters encoder(AlgorithmParameterSpec pss)
      throws GeneralSecurityException {
    AlgorithmParameters encoder = AlgorithmParameters.getInstance("RSASSA-PSS");
    encoder.init(pss);
    return encoder;
  }

  @Override
  @Deprecated
  protected void engineSetParameter(String parameter, Object value) {
    throw new UnsupportedOperationException("parameters have no names");
  }

  @Override
  @Deprecated
  protected Object engineGetParameter(String parameter) {
    throw new UnsupportedOperationException("parameters have no names");
  }

  // ---- Data ----

  @Override
  protected void engineUpdate(byte b) throws SignatureException {
    engineUpdate(new byte[] {b}, 0, 1);
  }

  @Override
  protected void engineUpdate(byte[] bytes, int offset, int length) throws SignatureException {
    if (other != null) {
      other.update(bytes, offset, length);
    } else if (scheme == Scheme.PSS && parameters == null) {
      throw new SignatureException("RSASSA-PSS wants parameters first");
    } else {
      if (digest != null) {
        digest.update(bytes, offset, length);
      } else {
        data.write(bytes, offset, length);
      }
      underWay = true;
      failed = false;
    }
  }

  @Override
  protected boolean engineVerify(byte[] signature) throws SignatureException {
    return other.verify(signature);
  }

  @Override
  protected byte[] engineSign() throws SignatureException {
    if (other != null) {
      return other.sign();
    }
    if (failed) {
      throw new SignatureException("the last signature failed: there is nothing left to sign");
    }
    byte[] input = digest != null ? digest.digest() : data.toByteArray();
    data.reset();
    underWay = false;
    failed = true;
    try {
      byte[] signature = switch (scheme) {
        case PKCS1 -> signPkcs1((TokenKey.Rsa) key, hash == null ? input : hash.digestInfo(input));
        case PSS -> signPss((TokenKey.Rsa) key, input);
        case ECDSA_DER -> Encodings.derSignature(signEcdsa((TokenKey.Ec) key, input));
        case ECDSA_P1363 -> signEcdsa((TokenKey.Ec) key, input);
        case EDDSA -> key.sign(CKM_EDDSA, input);
      };
      failed = false;
      return signature;
    } catch (PKCS11Exception | LoginException e) {
      throw new SignatureException("the token does not sign: " + e.getMessage(), e);
    }
  }

  private static byte[] signPkcs1(TokenKey.Rsa rsa, byte[] input)
      throws PKCS11Exception, LoginException, SignatureException {
    if (input.length > rsa.size() - PKCS1_PADDING) {
      throw new SignatureException("%d bytes are too many for the key".formatted(input.length));
    }
    return rsa.sign(CKM_RSA_PKCS, input);
  }

  /** Signs a digest by raw RSA, or data that the token hashes. */
  private byte[] signPss(TokenKey.Rsa rsa, byte[] input)
      throws PKCS11Exception, LoginException, SignatureException {
    if (!(parameters instanceof PSSParameterSpec pss)) {
      throw new SignatureException("RSASSA-PSS wants parameters first");
    }
    if (digest == null) {
      return rsa.sign(pssMechanism(pss), input);
    }
    byte[] salt = new byte[pss.getSaltLength()];
    (appRandom != null ? appRandom : new SecureRandom()).nextBytes(salt);
    byte[] padded = Encodings.pss(input, salt, pssBits(rsa), digest, Hash.digest(maskOf(pss)));
    byte[] block = new byte[rsa.size()];
    System.arraycopy(padded, 0, block, block.length - padded.length, padded.length);
    return rsa.sign(CKM_RSA_X_509, block);
  }

  /** Signs a digest, cut to the size of the order, since not every token cuts it. */
  private byte[] signEcdsa(TokenKey.Ec ec, byte[] input)
      throws PKCS11Exception, LoginException, SignatureException {
    if (input.length > LONGEST_DIGEST) {
      throw new SignatureException("%d bytes are no digest".formatted(input.length));
    }
    return ec.sign(CKM_ECDSA, Arrays.copyOf(input, Math.min(input.length, ec.size())));
  }
}
