// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.io.NotSerializableException;
import java.math.BigInteger;
import java.security.InvalidKeyException;
import java.security.PrivateKey;
import java.security.PublicKey;
import java.security.interfaces.ECKey;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.EdECPrivateKey;
import java.security.interfaces.RSAKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.ECParameterSpec;
import java.security.spec.NamedParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Arrays;
import java.util.Optional;
import javax.crypto.BadPaddingException;
import javax.security.auth.login.LoginException;

/**
 * A private key that stays on its token. It is known by its id and its public half, by which it is
 * found again whenever its handle is of no more use.
 */
abstract class TokenKey implements PrivateKey {
  private static final long serialVersionUID = 1L;

  private record Located(NativePKCS11Object object, Connection connection) {}

  final transient Token token;
  final transient KeyKind kind;

  private final transient KeyObject found;
  private final transient PublicKey publicKey;
  private transient volatile Located located;

  private TokenKey(KeyKind kind, Token token, KeyObject found, PublicKey publicKey,
      Connection connection) {
    this.kind = kind;
    this.token = token;
    this.found = found;
    this.publicKey = publicKey;
    located = new Located(found.object(), connection);
  }

  /**
   * Makes Java's key of one on the token.
   *
   * @param publicKey its public half, as the certificate has it where there is one
   * @param connection in which it was found
   * @throws InvalidKeyException for a key of another kind than {@link KeyKind} has
   */
  static TokenKey of(Token token, KeyObject found, PublicKey publicKey,
      Connection connection) throws InvalidKeyException {
    KeyKind kind = KeyKind.of(publicKey);
    if (kind == KeyKind.EC && publicKey instanceof ECPublicKey ec) {
      return new Ec(token, found, ec, connection);
    }
    if (kind == KeyKind.ED25519) {
      return new Ed25519(token, found, publicKey, connection);
    }
    if (!(publicKey instanceof RSAPublicKey rsa)) {
      throw new InvalidKeyException("it is of none of the kinds RSA, EC and Ed25519");
    }
    return new Rsa(kind, token, found, rsa, connection);
  }

  /** Tells whether a key is one of ours that decrypts. */
  static boolean decrypts(Object key) {
    return key instanceof TokenKey own && own.kind == KeyKind.RSA;
  }

  /**
   * Signs ({@code C_SignInit}, {@code C_Sign}).
   *
   * @param mechanism a {@code CKM_} value
   * @throws LoginException when a PIN is needed and cannot be had
   */
  byte[] sign(int mechanism, byte[] data) throws PKCS11Exception, LoginException {
    return operate(null, mechanism, data);
  }

  /**
   * Decrypts ({@code C_DecryptInit}, {@code C_Decrypt}), as {@link #sign} signs. Modules answer bad
   * padding in many ways, and who sends it must not learn which: {@code C_Decrypt} is not tried again
   * unless the connection is seen to be gone.
   *
   * @throws BadPaddingException when {@code C_Decrypt} was called, without a cause
   */
  byte[] decrypt(int mechanism, byte[] data)
      throws PKCS11Exception, LoginException, BadPaddingException {
    boolean[] begun = {false};
    try {
      return operate(begun, mechanism, data);
    } catch (PKCS11Exception | LoginException e) {
      if (begun[0]) {
        throw new BadPaddingException("the token cannot decrypt this");
      }
      throw e;
    }
  }

  /** Decrypts, and notes when it has begun to; signs where {@code begun} is null. */
  private byte[] operate(boolean[] begun, int mechanism, byte[] data)
      throws PKCS11Exception, LoginException {
    return found.alwaysAuthenticate()
        ? token.runWithPin((session, connection, login) ->
            operate(begun, mechanism, data, session, connection, login))
        : token.run((session, connection) ->
            operate(begun, mechanism, data, session, connection, null));
  }

  private byte[] operate(boolean[] begun, int mechanism, byte[] data, NativePKCS11Session session,
      Connection connection, NativePKCS11Session.Login login) throws PKCS11Exception {
    NativePKCS11Object key = in(session, connection);
    if (begun == null) {
      return session.sign(mechanism, key, data, login);
    }
    try {
      return session.decrypt(mechanism, key, data, () -> {
        if (login != null) {
          login.run();
        }
        begun[0] = true;
      });
    } catch (PKCS11Exception e) {
      throw begun[0] && token.isLoggedIn(connection)
          ? new PKCS11Exception("the decryption has failed") : e;
    }
  }

  NativePKCS11Object in(NativePKCS11Session session, Connection connection)
      throws PKCS11Exception {
    Located last = located;
    if (last.connection != connection) {
      for (KeyObject key : KeyObject.find(session, found.id())) {
        if (KeyObject.same(key.publicKey(), publicKey)) {
          located = new Located(key.object(), connection);
          return key.object();
        }
      }
      throw new Gone(this);
    }
    return last.object;
  }

  /** The parameters; a method of its own, since interfaces of Java 22 have several of this name. */
  public abstract AlgorithmParameterSpec getParams();

  @Override
  public String getAlgorithm() {
    return kind.algorithm;
  }

  @Override
  public String getFormat() {
    return null;
  }

  @Override
  public byte[] getEncoded() {
    return null;
  }

  /** A key that was loaded twice is one; that of another provider is another. */
  @Override
  public boolean equals(Object other) {
    return other instanceof TokenKey key && key.token == token
        && Arrays.equals(key.found.id(), found.id()) && KeyObject.same(key.publicKey, publicKey);
  }

  @Override
  public int hashCode() {
    return Arrays.hashCode(found.id());
  }

  /** It is of use with its token alone. */
  protected Object writeReplace() throws NotSerializableException {
    throw new NotSerializableException("a key on a token");
  }

  @Override
  public String toString() {
    return getAlgorithm() + " key " + KeyObject.name(found.label(), found.id()) + " of the token \""
        + token.label() + "\"";
  }

  /** The token that has come back may be another, which says the same of itself. */
  private static final class Gone extends PKCS11Exception {
    private static final long serialVersionUID = 1L;

    private final String key;

    Gone(TokenKey key) {
      super(CKR_KEY_HANDLE_INVALID);
      this.key = key.toString();
    }

    @Override
    public String getMessage() {
      return "there is no such key any more: " + key;
    }
  }

  static final class Rsa extends TokenKey implements RSAKey {
    private static final long serialVersionUID = 1L;

    private final transient BigInteger modulus;
    private final transient PSSParameterSpec limits;

    private Rsa(KeyKind kind, Token token, KeyObject found, RSAPublicKey publicKey,
        Connection connection) throws InvalidKeyException {
      super(kind, token, found, publicKey, connection);
      modulus = publicKey.getModulus();
      limits = kind == KeyKind.RSASSA_PSS ? KeyKind.limits(publicKey) : null;
    }

    @Override
    public BigInteger getModulus() {
      return modulus;
    }

    /** The parameters that the certificate limits the key to, null where it does not. */
    @Override
    public PSSParameterSpec getParams() {
      return limits;
    }

    /** Bytes of the modulus. */
    int size() {
      return (getModulus().bitLength() + 7) / 8;
    }
  }

  static final class Ec extends TokenKey implements ECKey {
    private static final long serialVersionUID = 1L;

    private final transient ECParameterSpec curve;

    private Ec(Token token, KeyObject found, ECPublicKey publicKey, Connection connection) {
      super(KeyKind.EC, token, found, publicKey, connection);
      curve = publicKey.getParams();
    }

    @Override
    public ECParameterSpec getParams() {
      return curve;
    }

    /**
     * Agrees on a secret ({@code CKM_ECDH1_DERIVE}), which does not stay on the token.
     *
     * @param point the other side's, uncompressed
     */
    byte[] agree(byte[] point) throws PKCS11Exception, LoginException {
      return token.run((session, connection) -> {
        NativePKCS11Object secret = session.unwrapKey(CKM_ECDH1_DERIVE, in(session, connection),
            point, new PKCS11Template().put(CKA_CLASS, CKO_SECRET_KEY)
                .put(CKA_KEY_TYPE, CKK_GENERIC_SECRET).put(CKA_TOKEN, false)
                .put(CKA_SENSITIVE, false).put(CKA_EXTRACTABLE, true));
        try {
          return secret.getByteArrayAttributeValue(CKA_VALUE);
        } finally {
          secret.destroy();
        }
      });
    }

    /** Bytes of the order. */
    int size() {
      return (curve.getOrder().bitLength() + 7) / 8;
    }
  }

  /** An Edwards key of Java has bytes, if need be none: {@code jarsigner} asks for the class. */
  static final class Ed25519 extends TokenKey implements EdECPrivateKey {
    private static final long serialVersionUID = 1L;

    private Ed25519(
        Token token, KeyObject found, PublicKey publicKey, Connection connection) {
      super(KeyKind.ED25519, token, found, publicKey, connection);
    }

    @Override
    public NamedParameterSpec getParams() {
      return NamedParameterSpec.ED25519;
    }

    @Override
    public Optional<byte[]> getBytes() {
      return Optional.empty();
    }
  }
}
