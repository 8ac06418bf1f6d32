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
 * A private key that stays on its token. When a connection ends, so does the handle of the key: the
 * key finds itself again by its id and its public half.
 */
abstract class TokenKey implements PrivateKey {
  private static final long serialVersionUID = 1L;

  /** The key's handle, and the connection in which it is good. */
  private record Located(NativePKCS11Object object, Connection connection) {}

  final transient Token token;
  final transient KeyKind kind;

  /** The key as the token showed it first; its handle may be out of date. */
  private final transient KeyObject found;
  private final transient PublicKey publicKey;

  /** The handle that was used last. */
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
   * Makes Java's key for a private key on the token.
   *
   * @param found the key on the token
   * @param publicKey the public half, that of the certificate if there is one: it may limit the key
   * @param connection the connection in which the key was found
   * @throws InvalidKeyException for a key of none of the kinds of {@link KeyKind}, and for
   *     parameters of RSASSA-PSS that Java cannot read
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

  /** Tells whether a key is an RSA key of this provider that may decrypt: RSASSA-PSS may not. */
  static boolean decrypts(Object key) {
    return key instanceof TokenKey own && own.kind == KeyKind.RSA;
  }

  /**
   * Signs ({@code C_SignInit}, {@code C_Sign}).
   *
   * @param mechanism a {@code CKM_} value
   * @param data the input of the mechanism
   * @return the signature as {@code C_Sign} returns it
   * @throws PKCS11Exception when the module refuses, or the token no longer has the key
   * @throws LoginException when the token wants a PIN and there is none, or it is refused
   */
  byte[] sign(int mechanism, byte[] data) throws PKCS11Exception, LoginException {
    return operate(null, mechanism, data);
  }

  /**
   * Decrypts ({@code C_DecryptInit}, {@code C_Decrypt}). Modules answer bad padding in many ways,
   * and the sender of the data must not learn in which. So every failure of {@code C_Decrypt} looks
   * the same, and the method calls it again only if the connection is lost.
   *
   * @param mechanism a {@code CKM_} value
   * @param data the encrypted data
   * @return the decrypted data
   * @throws PKCS11Exception when the module refuses before {@code C_Decrypt}, or the token no
   *     longer has the key
   * @throws LoginException as {@link #sign}
   * @throws BadPaddingException for every failure once {@code C_Decrypt} was called; it has no
   *     cause
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

  /**
   * Signs or decrypts.
   *
   * @param begun null to sign; to decrypt, its one element becomes true before {@code C_Decrypt}
   */
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

  /**
   * Returns the key's handle in a connection, and looks for the key if it has none there yet.
   *
   * @param session any session of the connection
   * @throws PKCS11Exception with {@code CKR_KEY_HANDLE_INVALID} when the token no longer has the
   *     key
   */
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

  /**
   * Returns the parameters of the key, null if it has none. The class has to declare the method,
   * since it inherits several defaults of the same name from the interfaces of Java 22.
   */
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

  /**
   * A key equals itself when it is loaded twice by one provider, but not through another provider.
   */
  @Override
  public boolean equals(Object other) {
    return other instanceof TokenKey key && key.token == token
        && Arrays.equals(key.found.id(), found.id()) && KeyObject.same(key.publicKey, publicKey);
  }

  @Override
  public int hashCode() {
    return Arrays.hashCode(found.id());
  }

  /** Refuses to serialise the key: it is of no use without its token. */
  protected Object writeReplace() throws NotSerializableException {
    throw new NotSerializableException("a key on a token");
  }

  @Override
  public String toString() {
    return getAlgorithm() + " key " + KeyObject.name(found.label(), found.id()) + " of the token \""
        + token.label() + "\"";
  }

  /** The token has no such key: it may be another one that describes itself in the same way. */
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

    /** Returns the parameters to which the certificate limits the key, null for no limits. */
    @Override
    public PSSParameterSpec getParams() {
      return limits;
    }

    /** Returns the size of the modulus in bytes. */
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
     * Agrees on a secret ({@code C_DeriveKey} with {@code CKM_ECDH1_DERIVE}), reads it and destroys
     * it on the token.
     *
     * @param point the point of the other side's key, uncompressed
     * @return the secret, which the caller wipes
     * @throws PKCS11Exception when the module refuses to derive the secret or to show it
     * @throws LoginException as {@link TokenKey#sign}
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

    /** Returns the size of the order in bytes: half of a signature. */
    int size() {
      return (curve.getOrder().bitLength() + 7) / 8;
    }
  }

  /** Java's interface, which {@code jarsigner} asks for, lets a key have no bytes to show. */
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
