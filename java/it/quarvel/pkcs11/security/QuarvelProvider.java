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
 * <p><b>Key store</b> {@code PKCS11}. Each {@code load} reads the keys and certificates of the
 * token; the key store is read-only unless the URI says otherwise. The alias of a key is the label
 * of its certificate, else the key's own; keys with the same label have their id behind it. A
 * certificate belongs to a key when both have the same {@code CKA_ID} and the same public key. Of
 * several, the newest valid one counts. The key store builds its chain from the token's
 * certificates, and trusts only certificates with {@code CKA_TRUSTED}. A load tries a PIN once.
 *
 * <p><b>With {@code x-writable=yes}</b> in the URI the key store stores keys, of the token and of
 * software, with their certificates; it also renames and deletes them. A <b>KeyPairGenerator</b>
 * for {@code RSA}, {@code EC} and {@code Ed25519} (or {@code EdDSA}) makes keys on the token at
 * once. Such a provider must not stand first: TLS would make the key of each handshake on the
 * token. A <b>MessageDigest</b> hands its work on to another provider.
 *
 * <p><b>Signature</b> {@code NONEwithRSA}, {@code SHA1withRSA}, {@code RSASSA-PSS}, {@code
 * SHA1withRSASSA-PSS} (or {@code SHA1withRSAandMGF1}), {@code NONEwithECDSA} and {@code
 * SHA1withECDSA}, the last two also {@code inP1363Format}; the same with {@code SHA224}, {@code
 * SHA256}, {@code SHA384}, {@code SHA512} and {@code SHA3-224} to {@code SHA3-512}; {@code
 * SHA512/224withRSA} and {@code SHA512/256withRSA}; {@code Ed25519} (or {@code EdDSA}). If the
 * token has {@code CKM_RSA_X_509}, PSS takes any parameters. Otherwise it takes those of the
 * token's own {@code CKM_SHA256_RSA_PKCS_PSS} and its like: a salt as long as the digest.
 *
 * <p><b>Cipher</b> {@code RSA/ECB/PKCS1Padding}, {@code OAEPPadding}, {@code
 * OAEPWithSHA-256AndMGF1Padding} and its like, and {@code NoPadding}, to decrypt and to unwrap
 * secret keys. The token takes the padding off by its own mechanism, so that nobody can watch it.
 *
 * <p><b>KeyAgreement</b> {@code ECDH}, and under their object identifiers those of CMS, which
 * derive a key from the secret (RFC 5753, {@code dhSinglePass-stdDH}). The token has to give the
 * secret away.
 *
 * <p>The provider hands verification, encryption and every key that is not a token's on to another
 * provider, so that it can stand first. It should: a library that sets parameters before the key
 * makes Java choose a provider before Java has seen the key.
 *
 * <p>A key finds its token again: after a logout, after a card was pulled and put back, after a
 * server was started anew. The provider keeps no PIN. It asks the callback handler or the {@code
 * pin-source} again, and for each signature or decryption by a key with {@code
 * CKA_ALWAYS_AUTHENTICATE} too.
 *
 * <p>Any thread may use a provider. All providers of this class share one module, so their URIs
 * have to name the same one. {@link #logout} closes the sessions of a provider, and the module
 * with the last provider. When the process ends, nobody calls {@code C_Finalize}.
 */
public final class QuarvelProvider extends AuthProvider {
  private static final long serialVersionUID = 1L;

  private static final String NAME = "Quarvel";
  private static final String OAEP_ID = "1.2.840.113549.1.1.7";

  /** The end of the names of RSASSA-PSS with a hash, {@code SHA256withRSASSA-PSS} for instance. */
  private static final String PSS = "withRSASSA-PSS";

  /** The token, null in a provider that is not configured. */
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
    // A caller that names this provider for all its work gets the parameters from it too. Without
    // them it would decrypt as if there were none.
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
      // A caller that names this provider for all its work wants digests from it too.
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
   * Makes the objects of one algorithm, and tells which keys they take. The service names their
   * class without loading it: most programs use one algorithm of all these.
   */
  private final class TokenService extends Provider.Service {
    /** The scheme of a signature, null for another type. */
    private final Scheme scheme;

    /** The algorithm's hash, null if it has none. */
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
        // The JDK has no PSS under the name of a hash, so these services take every key.
        case "Signature" -> scheme == Scheme.PSS && hash != null || scheme.takes(key);
        case "Cipher" -> TokenKey.decrypts(key);
        case "KeyAgreement" -> key instanceof TokenKey.Ec;
        default -> super.supportsParameter(key);
      };
    }
  }

  /** Gets the objects of one algorithm from the first other provider that has it. */
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
   * Makes a provider for a token. The method only reads the text: the first load of a key store, or
   * {@link #login}, opens the module.
   *
   * @param uri a PKCS#11 URI with {@code module-path}, and as much of {@code token}, {@code serial}
   *     and {@code slot-id} as it takes to name one token. The key store offers only the keys of
   *     {@code object}, {@code id} and {@code type}; {@code pin-source} names a file with the PIN
   *     in its first line; with {@code x-writable=yes} the key store stores keys
   * @return a new provider, named "Quarvel-" and the token, else the serial number, else the slot,
   *     else "token". Java keeps only one provider of each name
   * @throws InvalidParameterException when {@code uri} is no such URI; the message says why
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

  /** Adds the token and the module, since providers for different ones may have the same name. */
  @Override
  public String toString() {
    return super.toString() + ": " + getInfo();
  }

  /**
   * Tells whether the provider names a token.
   *
   * @return true if {@link #configure} has made this provider
   */
  @Override
  public boolean isConfigured() {
    return token != null;
  }

  /**
   * Opens the module and logs in to the token ({@code C_Login}), unless somebody has logged in.
   *
   * @param subject not read
   * @param handler asks for the PIN, in a {@code PasswordCallback}; null for the handler that was
   *     set, else the {@code pin-source}
   * @throws LoginException when there is no PIN, when the token cannot be found, or when the module
   *     refuses, then with its {@code PKCS11Exception} as the cause; a {@code FailedLoginException}
   *     when the token refuses the PIN
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
   * Closes the sessions of this provider. The token ends the login with the last session that the
   * process has with it. Unless another provider uses the module, the method closes that too
   * ({@code C_Finalize}). Keys may be used afterwards: they log in again.
   *
   * @throws LoginException when the provider is not configured
   */
  @Override
  public void logout() throws LoginException {
    configured().logout();
  }

  /**
   * Sets the handler that asks for the PIN, in place of the URI's {@code pin-source}. A provider
   * that names no token ignores the call.
   *
   * @param handler gets a {@code PasswordCallback}; null for the {@code pin-source}
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
