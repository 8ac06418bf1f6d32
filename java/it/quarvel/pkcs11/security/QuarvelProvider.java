// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.internal.Hash;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.security.TokenSignature.Scheme;
import java.security.AuthProvider;
import java.security.InvalidKeyException;
import java.security.InvalidParameterException;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.ProviderException;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
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
  private static final String OAEP_ID = "1.2.840.113549.1.1.7";

  /** The end of the names of RSASSA-PSS with a hash. */
  private static final String PSS = "withRSASSA-PSS";

  /** Null until it is configured. */
  private final transient Token token;

  /** Makes a provider that names no token yet; {@link #configure} makes one that does. */
  public QuarvelProvider() {
    this(NAME, null, "Keys of PKCS#11 tokens");
  }

  private QuarvelProvider(String name, PKCS11Uri uri, String info) {
    super(name, NativePKCS11.BRIDGE_VERSION, info);
    token = uri == null ? null : new Token(uri);
    offer("KeyStore", "PKCS11");
    offer("Cipher", TokenCipher.NAME, "RSA");
    putService(new TokenService("Cipher", TokenCipher.OAEP_NAME, aliases(OAEP_ID), null, null));
    // Without them whoever names one provider for all would decrypt as if there were none.
    putService(new HandedOn(this, "AlgorithmParameters", "OAEP", aliases(OAEP_ID)));
    offer("KeyAgreement", "ECDH");
    offerSignature("NONEwithRSA", Scheme.PKCS1, null);
    offerSignature("RSASSA-PSS", Scheme.PSS, null, "1.2.840.113549.1.1.10");
    offerSignature("NONEwithECDSA", Scheme.ECDSA_DER, null);
    offerSignature("NONEwithECDSAinP1363Format", Scheme.ECDSA_P1363, null);
    offerSignature("Ed25519", Scheme.EDDSA, null, "1.3.101.112");
    offerSignature("EdDSA", Scheme.EDDSA, null);
    for (Hash hash : Hash.values()) {
      String digest = hash.shortName;
      offerSignature(digest + "withRSA", Scheme.PKCS1, hash, hash.rsaId);
      if (hash.agreementId != null) {
        putService(new TokenService("KeyAgreement", hash.agreementId, List.of(), null, hash));
      }
      if (hash.ecdsaId == null) {
        continue;
      }
      offerSignature(digest + "withECDSA", Scheme.ECDSA_DER, hash, hash.ecdsaId);
      offerSignature(digest + "withECDSAinP1363Format", Scheme.ECDSA_P1363, hash);
      putService(new TokenService("Signature", digest + PSS, List.of(digest + "withRSAandMGF1"),
          Scheme.PSS, hash));
    }
    if (uri != null && uri.isWritable()) {
      offer("KeyPairGenerator", "RSA");
      offer("KeyPairGenerator", "EC");
      offer("KeyPairGenerator", "Ed25519");
      offer("KeyPairGenerator", "EdDSA");
      // Those who name one provider for all that they do want digests of it too.
      for (Hash hash : Hash.values()) {
        putService(new HandedOn(this, "MessageDigest", hash.algorithm,
            hash.algorithm.equals(hash.shortName) ? List.of() : List.of(hash.shortName)));
      }
    }
  }

  private void offer(String type, String name, String... aliases) {
    putService(new TokenService(type, name, List.of(aliases), null, null));
  }

  private void offerSignature(String name, Scheme scheme, Hash hash, String... ids) {
    putService(new TokenService("Signature", name, aliases(ids), scheme, hash));
  }

  private static List<String> aliases(String... ids) {
    List<String> aliases = new ArrayList<>();
    for (String id : ids) {
      aliases.add(id);
      aliases.add("OID." + id);
    }
    return aliases;
  }

  /**
   * Makes the objects of one algorithm, and tells which keys it is there for. It names their class
   * without loading it: most programs use one algorithm of all these.
   */
  private final class TokenService extends Provider.Service {
    /** Null unless it is a signature. */
    private final Scheme scheme;

    /** Null where the algorithm has none. */
    private final Hash hash;

    TokenService(String type, String algorithm, List<String> aliases, Scheme scheme, Hash hash) {
      super(QuarvelProvider.this, type, algorithm,
          QuarvelProvider.class.getPackageName() + ".Token" + type, aliases, Map.of());
      this.scheme = scheme;
      this.hash = hash;
    }

    @Override
    public Object newInstance(Object parameter) {
      Provider provider = getProvider();
      String name = getAlgorithm();
      return switch (getType()) {
        case "KeyStore" -> new TokenKeyStore(provider, token);
        case "Signature" ->
            new TokenSignature(provider, name.endsWith(PSS) ? "RSASSA-PSS" : name, scheme, hash);
        case "Cipher" -> new TokenCipher(provider, name.substring(name.lastIndexOf('/') + 1));
        case "KeyAgreement" -> new TokenKeyAgreement(provider, name, hash);
        case "KeyPairGenerator" -> new TokenKeyPairGenerator(token, name);
        default -> throw new AssertionError(this);
      };
    }

    @Override
    public boolean supportsParameter(Object key) {
      return switch (getType()) {
        // No other provider of the JDK has PSS by the name of a hash, so that it takes every key.
        case "Signature" -> scheme == Scheme.PSS && hash != null || scheme.takes(key);
        case "Cipher" -> TokenKey.decrypts(key);
        case "KeyAgreement" -> key instanceof TokenKey.Ec;
        default -> super.supportsParameter(key);
      };
    }
  }

  /** Has the objects of one algorithm from another provider. */
  private static final class HandedOn extends Provider.Service {
    HandedOn(Provider provider, String type, String algorithm, List<String> aliases) {
      super(provider, type, algorithm, "java.security." + type + "Spi", aliases, Map.of());
    }

    @Override
    public Object newInstance(Object parameter) {
      try {
        return OtherProviders.first(getProvider(), other -> {
          Service service = other.getService(getType(), getAlgorithm());
          if (service == null) {
            throw new NoSuchAlgorithmException();
          }
          return service.newInstance(parameter);
        });
      } catch (InvalidKeyException e) {
        throw new ProviderException(e);
      }
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
