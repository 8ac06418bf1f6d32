// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.internal.Hash;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.security.TokenSignature.Scheme;
import java.security.AlgorithmParametersSpi;
import java.security.AuthProvider;
import java.security.InvalidKeyException;
import java.security.InvalidParameterException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.ProviderException;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.function.Predicate;
import java.util.function.Supplier;
import javax.security.auth.Subject;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.login.LoginException;

/**
 * Makes the keys of a PKCS#11 token usable by every library that takes a {@code PrivateKey}.
 *
 * <pre>{@code
 * Provider provider = new QuarvelProvider()
 *     .configure("pkcs11:token=demo?module-path=/usr/lib/softhsm/libsofthsm2.so");
 * Security.insertProviderAt(provider, 1);
 * KeyStore keys = KeyStore.getInstance("PKCS11", provider);
 * keys.load(null, pin);
 * PrivateKey key = (PrivateKey) keys.getKey("signing", null);
 * }</pre>
 *
 * <p><b>Key store</b> {@code PKCS11}, read-only unless the URI says otherwise: what the token holds at each {@code load}. A key's
 * alias is the label of its certificate, else its own; those that share one have their id behind
 * it. A certificate belongs to a key when both have one {@code CKA_ID} and one public key; the
 * newest valid one counts, and its chain is made of the token's certificates. Trusted are those
 * with {@code CKA_TRUSTED} only. A PIN is tried once.
 *
 * <p><b>With {@code x-writable=yes}</b> in the URI the key store stores keys of the token and of
 * software with their certificates, renames and deletes them, and there is a <b>KeyPairGenerator</b>
 * for {@code RSA}, {@code EC} and {@code Ed25519} (or {@code EdDSA}), whose keys are on the token at
 * once. Such a provider must not stand first: TLS would make its passing keys there. A <b>
 * MessageDigest</b> hands on to another provider.
 *
 * <p><b>Signatures</b> {@code NONEwithRSA}, {@code SHA1withRSA}, {@code RSASSA-PSS}, {@code
 * SHA1withRSASSA-PSS} (or {@code SHA1withRSAandMGF1}), {@code NONEwithECDSA} and {@code
 * SHA1withECDSA}, both also {@code inP1363Format}; with {@code SHA224}, {@code SHA256}, {@code
 * SHA384}, {@code SHA512} and {@code SHA3-224} to {@code SHA3-512} alike; {@code
 * SHA512/224withRSA} and {@code SHA512/256withRSA}; and {@code Ed25519} (or {@code EdDSA}). PSS takes any
 * parameters where the token has {@code CKM_RSA_X_509}, else those of the token's own {@code
 * CKM_SHA256_RSA_PKCS_PSS} and its like: a salt as long as the digest.
 *
 * <p><b>Cipher</b> {@code RSA/ECB/PKCS1Padding}, {@code OAEPPadding}, {@code
 * OAEPWithSHA-256AndMGF1Padding} and its like, and {@code NoPadding}, to decrypt and to unwrap secret
 * keys: by the token's own mechanisms, so that nobody can watch a padding being taken off.
 *
 * <p><b>KeyAgreement</b> {@code ECDH}, and by their object identifiers those of CMS, which derive a
 * key of the secret (RFC 5753, {@code dhSinglePass-stdDH}). The token has to give the secret away.
 *
 * <p>Whatever is to be verified or encrypted, and every key that is not a token's, goes on to
 * another provider, so that this one can stand first. It should: libraries that set parameters
 * before the key choose a provider before they have seen the key.
 *
 * <p>A key finds its token again, after a logout, after a card was pulled and put back, after a
 * server was started anew. The PIN is kept nowhere: it is asked for again, of the callback handler
 * or the {@code pin-source}, as it is at each use of a key with {@code CKA_ALWAYS_AUTHENTICATE}.
 *
 * <p>All providers of this class share one module, so they have to name the same one; every thread
 * may use them. {@link #logout} closes what a provider has open, and the module with the last one;
 * nothing is finalised when the process ends.
 */
public final class QuarvelProvider extends AuthProvider {
  private static final long serialVersionUID = 1L;

  private static final String NAME = "Quarvel";

  /** Null until it is configured. */
  private final transient Token token;

  /** Makes a provider that names no token yet; {@link #configure} makes one that does. */
  public QuarvelProvider() {
    this(NAME, null, "Keys of PKCS#11 tokens");
  }

  private QuarvelProvider(String name, PKCS11Uri uri, String info) {
    super(name, NativePKCS11.BRIDGE_VERSION, info);
    token = uri == null ? null : new Token(uri);
    putService(new TokenService(this, "KeyStore", "PKCS11", TokenKeyStore.class, List.of(),
        () -> new TokenKeyStore(this, token), any -> true));
    putService(new TokenService(this, "Cipher", TokenCipher.NAME, TokenCipher.class, List.of("RSA"),
        () -> new TokenCipher(this, "PKCS1Padding"), TokenKey::decrypts));
    putService(new TokenService(this, "Cipher", TokenCipher.OAEP_NAME, TokenCipher.class,
        aliases("1.2.840.113549.1.1.7"),
        () -> new TokenCipher(this, "OAEPPadding"), TokenKey::decrypts));
    putOaepParameters();
    putAgreement("ECDH", null);
    put("NONEwithRSA", Scheme.PKCS1, null);
    put("RSASSA-PSS", Scheme.PSS, null, "1.2.840.113549.1.1.10");
    put("NONEwithECDSA", Scheme.ECDSA_DER, null);
    put("NONEwithECDSAinP1363Format", Scheme.ECDSA_P1363, null);
    put("Ed25519", Scheme.EDDSA, null, "1.3.101.112");
    put("EdDSA", Scheme.EDDSA, null);
    for (Hash hash : Hash.values()) {
      String digest = hash.shortName;
      put(digest + "withRSA", Scheme.PKCS1, hash, hash.rsaId);
      if (hash.agreementId != null) {
        putAgreement(hash.agreementId, hash);
      }
      if (hash.ecdsaId == null) {
        continue;
      }
      put(digest + "withECDSA", Scheme.ECDSA_DER, hash, hash.ecdsaId);
      put(digest + "withECDSAinP1363Format", Scheme.ECDSA_P1363, hash);
      // No other provider of the JDK has these, so that they come here whatever the key is.
      putService(new TokenService(this, "Signature", digest + "withRSASSA-PSS", TokenSignature.class,
          List.of(digest + "withRSAandMGF1"),
          () -> new TokenSignature(this, "RSASSA-PSS", Scheme.PSS, hash), any -> true));
    }
    if (uri != null && uri.isWritable()) {
      putGenerator("RSA", TokenKeyPairGenerator.Kind.RSA);
      putGenerator("EC", TokenKeyPairGenerator.Kind.EC);
      putGenerator("Ed25519", TokenKeyPairGenerator.Kind.ED25519);
      putGenerator("EdDSA", TokenKeyPairGenerator.Kind.ED25519);
      for (Hash hash : Hash.values()) {
        putDigest(hash.algorithm, hash.shortName);
      }
    }
  }

  private void put(String name, Scheme scheme, Hash hash, String... ids) {
    putService(new TokenService(this, "Signature", name, TokenSignature.class, aliases(ids),
        () -> new TokenSignature(this, name, scheme, hash), scheme::takes));
  }

  private static List<String> aliases(String... ids) {
    List<String> aliases = new ArrayList<>();
    for (String id : ids) {
      aliases.add(id);
      aliases.add("OID." + id);
    }
    return aliases;
  }

  /** Hands on: it is there for those who name one provider for all that they do. */
  private void putDigest(String name, String otherName) {
    putService(new TokenService(this, "MessageDigest", name, MessageDigest.class,
        name.equals(otherName) ? List.of() : List.of(otherName),
        () -> handedOn(other -> MessageDigest.getInstance(name, other)), any -> false));
  }

  /** Without them whoever names one provider for all would decrypt as if there were none. */
  private void putOaepParameters() {
    putService(new TokenService(this, "AlgorithmParameters", "OAEP", AlgorithmParametersSpi.class,
        aliases("1.2.840.113549.1.1.7"), () -> handedOn(other -> {
          Service service = other.getService("AlgorithmParameters", "OAEP");
          if (service == null) {
            throw new NoSuchAlgorithmException();
          }
          return service.newInstance(null);
        }), any -> false));
  }

  private <T> T handedOn(OtherProviders.Attempt<T> attempt) {
    try {
      return OtherProviders.first(this, attempt);
    } catch (InvalidKeyException e) {
      throw new ProviderException(e);
    }
  }

  private void putAgreement(String name, Hash hash) {
    putService(new TokenService(this, "KeyAgreement", name, TokenKeyAgreement.class, List.of(),
        () -> new TokenKeyAgreement(this, name, hash), TokenKey.Ec.class::isInstance));
  }

  private void putGenerator(String name, TokenKeyPairGenerator.Kind kind) {
    putService(new TokenService(this, "KeyPairGenerator", name, TokenKeyPairGenerator.class,
        List.of(), () -> new TokenKeyPairGenerator(token, kind), any -> false));
  }

  /** Makes its objects without reflection, and tells which keys it is there for. */
  private static final class TokenService extends Provider.Service {
    private final Supplier<?> maker;
    private final Predicate<Object> keys;

    TokenService(Provider provider, String type, String algorithm, Class<?> made,
        List<String> aliases, Supplier<?> maker, Predicate<Object> keys) {
      super(provider, type, algorithm, made.getName(), aliases, Map.of());
      this.maker = maker;
      this.keys = keys;
    }

    @Override
    public Object newInstance(Object parameter) {
      return maker.get();
    }

    @Override
    public boolean supportsParameter(Object key) {
      return keys.test(key);
    }
  }

  /**
   * Makes a provider for a token. Only the text is read: the module is opened when a key store is
   * loaded.
   *
   * @param uri a PKCS#11 URI with {@code module-path}, and as much of {@code token}, {@code serial}
   *     and {@code slot-id} as it takes to name one token; {@code object}, {@code id} and {@code
   *     type} limit which keys are offered; {@code pin-source} names a file with the PIN in its first line
   * @return a new provider, named "Quarvel-" and the token, the serial number or the slot. Java
   *     keeps one provider of a name
   * @throws InvalidParameterException for a text that is no such URI, with the reason
   */
  @Override
  public Provider configure(String uri) {
    PKCS11Uri parsed;
    try {
      parsed = PKCS11Uri.parse(uri);
      Integer type = parsed.objectClass();
      if (parsed.modulePath() == null) {
        throw new IllegalArgumentException("the PKCS#11 URI has no module-path");
      }
      if (type != null && type != CKO_PRIVATE_KEY && type != CKO_CERTIFICATE) {
        throw new IllegalArgumentException("the PKCS#11 URI names no key by the type it has");
      }
    } catch (IllegalArgumentException e) {
      throw (InvalidParameterException) new InvalidParameterException("wanted is a PKCS#11 URI such"
          + " as \"pkcs11:token=demo?module-path=/usr/lib/softhsm/libsofthsm2.so\", and no"
          + " configuration file: " + e.getMessage()).initCause(e);
    }
    Object named = parsed.token() != null ? parsed.token()
        : parsed.serial() != null ? parsed.serial()
        : parsed.slotID() != null ? parsed.slotID() : "token";
    return new QuarvelProvider(NAME + "-" + named, parsed, "Keys of the token"
        + (parsed.token() == null ? "" : " \"" + parsed.token() + "\"")
        + (parsed.serial() == null ? "" : " with the serial number " + parsed.serial())
        + (parsed.slotID() == null ? "" : " in slot " + parsed.slotID())
        + " behind the module " + parsed.modulePath());
  }

  /** Names the token and the module too, which are the same for many a provider of this class. */
  @Override
  public String toString() {
    return super.toString() + ": " + getInfo();
  }

  /**
   * Tells whether there is a token.
   *
   * @return true for what {@link #configure} has made
   */
  @Override
  public boolean isConfigured() {
    return token != null;
  }

  /**
   * Opens the token and logs in ({@code C_Login}), unless that has been done.
   *
   * @param subject not read
   * @param handler asks for the PIN, in a {@code PasswordCallback}; null: the one that was set
   * @throws LoginException when the token cannot be had or refuses, with its reason as the cause
   */
  @Override
  public void login(Subject subject, CallbackHandler handler) throws LoginException {
    try {
      configured().login(handler);
    } catch (PKCS11Exception e) {
      throw (LoginException) new LoginException(e.getMessage()).initCause(e);
    }
  }

  /**
   * Closes the sessions of this provider, which logs out unless the process has others with the
   * token, and the module unless another provider uses it ({@code C_Finalize}). Keys stay of use:
   * they log in again.
   *
   * @throws LoginException when the provider is not configured
   */
  @Override
  public void logout() throws LoginException {
    configured().logout();
  }

  /**
   * Sets who asks for the PIN.
   *
   * @param handler gets a {@code PasswordCallback}; null: the {@code pin-source} of the URI alone
   */
  @Override
  public void setCallbackHandler(CallbackHandler handler) {
    if (token != null) {
      token.setHandler(handler);
    }
  }

  private Token configured() throws LoginException {
    if (token == null) {
      throw new LoginException("the provider names no token: configure it with a PKCS#11 URI");
    }
    return token;
  }
}
