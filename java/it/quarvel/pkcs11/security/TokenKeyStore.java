// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.security.TokenContents.Entry;
import it.quarvel.pkcs11.security.TokenContents.Stored;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.KeyStoreSpi;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Date;
import java.util.Enumeration;
import java.util.List;
import java.util.Map;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.login.FailedLoginException;
import javax.security.auth.login.LoginException;

/**
 * The keys of a token with their chains of certificates, and the certificates that the token trusts
 * ({@code CKA_TRUSTED}), as they were at the last load or change.
 */
final class TokenKeyStore extends KeyStoreSpi {
  /** A key without a certificate, for which a {@code PrivateKeyEntry} would not do. */
  private record BareKey(TokenKey key) implements KeyStore.Entry {}

  private final Provider provider;

  /** The token, null in a provider that is not configured. */
  private final Token token;

  /** The contents of the token, null before the first load. */
  private TokenContents contents;

  /** The entries that the URI names, by their aliases. */
  private Map<String, Entry> entries = Map.of();

  /** The time of the last load or change, in place of the unknown dates of the entries. */
  private Date loaded = new Date();

  TokenKeyStore(Provider provider, Token token) {
    this.provider = provider;
    this.token = token;
  }

  // ---- Loading ----

  /**
   * Logs in and reads the token.
   *
   * @param stream not read: some programs always give one
   * @param pin the PIN, which a {@code pin-source} in the URI overrides; null for the callback
   *     handler of the provider, the {@code pin-source} or the PIN pad
   * @throws IOException when that fails; the cause is an {@code UnrecoverableKeyException} when the
   *     token refuses the PIN
   */
  @Override
  public void engineLoad(InputStream stream, char[] pin) throws IOException {
    try {
      load(pin == null ? null : answer(pin));
    } catch (FailedLoginException e) {
      throw new IOException(e.getMessage(),
          new UnrecoverableKeyException(e.getCause().getMessage()).initCause(e.getCause()));
    } catch (PKCS11Exception | LoginException e) {
      throw failure(e);
    }
  }

  /**
   * Logs in and reads the token.
   *
   * @param parameter holds the PIN, or a handler that asks for it; null as no PIN
   * @throws IOException when that fails; the cause is a {@code FailedLoginException} when the token
   *     refuses the PIN. After an {@code UnrecoverableKeyException}, {@code KeyStore.Builder} would
   *     try a handler's PIN three times
   */
  @Override
  public void engineLoad(KeyStore.LoadStoreParameter parameter) throws IOException {
    KeyStore.ProtectionParameter protection =
        parameter == null ? null : parameter.getProtectionParameter();
    try {
      if (protection == null) {
        load(null);
      } else if (protection instanceof KeyStore.CallbackHandlerProtection callback) {
        load(callback.getCallbackHandler());
      } else if (protection instanceof KeyStore.PasswordProtection password) {
        load(password.getPassword() == null ? null : answer(password.getPassword()));
      } else {
        throw new IllegalArgumentException("a PIN comes in a PasswordProtection or by a"
            + " CallbackHandlerProtection");
      }
    } catch (PKCS11Exception | LoginException e) {
      throw failure(e);
    }
  }

  private static CallbackHandler answer(char[] pin) {
    return questions -> {
      for (Callback question : questions) {
        ((PasswordCallback) question).setPassword(pin);
      }
    };
  }

  private static IOException failure(Exception cause) {
    return new IOException("the token cannot be loaded: " + cause.getMessage(), cause);
  }

  /**
   * Logs in and reads the token; a token that this call has opened is closed if the call fails.
   *
   * @param given asks for the PIN, null for none. A {@code pin-source} in the URI counts more: many
   *     a program gives every key store its default password
   */
  private void load(CallbackHandler given) throws PKCS11Exception, LoginException {
    if (token == null) {
      throw new PKCS11Exception("the provider names no token: configure it with a PKCS#11 URI");
    }
    CallbackHandler asker = token.uri.pinFile() == null ? given : null;
    boolean wasOpen = token.isOpen();
    token.login(asker);
    try {
      read(asker);
      wasOpen = true;
    } finally {
      if (!wasOpen) {
        token.logout();
      }
    }
  }

  private void read(CallbackHandler asker) throws PKCS11Exception, LoginException {
    contents = token.run(
        (session, connection) -> new TokenContents(token, session, connection), asker);
    entries = contents.named(token.uri);
    loaded = new Date();
  }

  // ---- Reading ----

  @Override
  public Key engineGetKey(String alias, char[] password) {
    Entry entry = entries.get(alias);
    return entry == null ? null : entry.key();
  }

  @Override
  public Certificate[] engineGetCertificateChain(String alias) {
    Entry entry = entries.get(alias);
    if (entry == null || entry.key() == null || entry.own() == null) {
      return null;
    }
    List<Stored> chain = contents.chain(entry);
    Certificate[] certificates = new Certificate[chain.size()];
    for (int i = 0; i < certificates.length; i++) {
      certificates[i] = chain.get(i).certificate();
    }
    return certificates;
  }

  @Override
  public Certificate engineGetCertificate(String alias) {
    Entry entry = entries.get(alias);
    return entry == null || entry.own() == null ? null : entry.own().certificate();
  }

  @Override
  public Date engineGetCreationDate(String alias) {
    return entries.containsKey(alias) ? new Date(loaded.getTime()) : null;
  }

  @Override
  public Enumeration<String> engineAliases() {
    return Collections.enumeration(entries.keySet());
  }

  @Override
  public boolean engineContainsAlias(String alias) {
    return entries.containsKey(alias);
  }

  @Override
  public int engineSize() {
    return entries.size();
  }

  @Override
  public boolean engineIsKeyEntry(String alias) {
    return engineGetKey(alias, null) != null;
  }

  @Override
  public boolean engineIsCertificateEntry(String alias) {
    return entries.containsKey(alias) && !engineIsKeyEntry(alias);
  }

  @Override
  public String engineGetCertificateAlias(Certificate certificate) {
    return entries.keySet().stream()
        .filter(alias -> certificate.equals(engineGetCertificate(alias))).findFirst().orElse(null);
  }

  /** Ignores the protection: the PIN of the token is enough. */
  @Override
  public KeyStore.Entry engineGetEntry(String alias, KeyStore.ProtectionParameter protection) {
    Entry entry = entries.get(alias);
    if (entry == null) {
      return null;
    }
    if (entry.key() == null) {
      return new KeyStore.TrustedCertificateEntry(entry.own().certificate());
    }
    return entry.own() == null ? new BareKey(entry.key())
        : new KeyStore.PrivateKeyEntry(entry.key(), engineGetCertificateChain(alias));
  }

  /** Calls every key a private key. The default takes one without a chain for a secret key. */
  @Override
  public boolean engineEntryInstanceOf(String alias, Class<? extends KeyStore.Entry> kind) {
    return kind == KeyStore.PrivateKeyEntry.class && engineIsKeyEntry(alias)
        || kind == KeyStore.TrustedCertificateEntry.class && engineIsCertificateEntry(alias);
  }

  // ---- Writing ----

  @Override
  public void engineStore(OutputStream stream, char[] password) {
    // The stream gets nothing: the keys are on the token, and nowhere else.
  }

  @Override
  public void engineStore(KeyStore.LoadStoreParameter parameter) {
    // Each change is on the token as soon as it is made.
  }

  /**
   * Gives a private key an alias and a chain. A key of this token stays; a key of software is
   * copied to the token.
   *
   * @param password not read: the PIN of the token is enough
   * @param chain the certificate of the key, then those of issuers in any order
   * @throws KeyStoreException when the URI lacks {@code x-writable=yes}, when the certificate is
   *     not the key's, and when the token does not store them; then nothing has changed, as far as
   *     the token could undo it
   */
  @Override
  public void engineSetKeyEntry(String alias, Key key, char[] password, Certificate[] chain)
      throws KeyStoreException {
    checkWritable();
    if (!(key instanceof PrivateKey privateKey)
        || key instanceof TokenKey other && other.token != token) {
      throw new KeyStoreException("a private key is wanted, of this token or of software");
    }
    List<X509Certificate> certificates = new ArrayList<>();
    for (Certificate certificate : chain == null ? new Certificate[0] : chain) {
      if (!(certificate instanceof X509Certificate x509)) {
        throw new KeyStoreException("certificates of X.509 are wanted");
      }
      certificates.add(x509);
    }
    if (certificates.isEmpty()) {
      throw new KeyStoreException("the key's certificate is wanted");
    }
    TokenWriter.prove(provider, privateKey, certificates.get(0));
    TokenWriter.checkIssuers(certificates);
    change(() -> TokenWriter.setKey(token, alias, privateKey, certificates));
  }

  @Override
  public void engineSetKeyEntry(String alias, byte[] key, Certificate[] chain)
      throws KeyStoreException {
    throw new KeyStoreException("a token takes no key that is encrypted by other means");
  }

  /**
   * Stores an entry, as the default does, but without a password; also gives another alias to a key
   * without a certificate, of which the default knows nothing.
   */
  @Override
  public void engineSetEntry(String alias, KeyStore.Entry entry,
      KeyStore.ProtectionParameter protection) throws KeyStoreException {
    if (entry instanceof KeyStore.PrivateKeyEntry pair) {
      engineSetKeyEntry(alias, pair.getPrivateKey(), null, pair.getCertificateChain());
    } else if (entry instanceof BareKey bare) {
      checkWritable();
      change(() -> TokenWriter.rename(token, alias, bare.key));
    } else if (entry instanceof KeyStore.TrustedCertificateEntry trusted) {
      engineSetCertificateEntry(alias, trusted.getTrustedCertificate());
    } else {
      throw new KeyStoreException("a private key is wanted, not " + entry);
    }
  }

  @Override
  public void engineSetCertificateEntry(String alias, Certificate certificate)
      throws KeyStoreException {
    checkWritable();
    throw new KeyStoreException("trusted certificates are the security officer's (CKA_TRUSTED):"
        + " the key store stores those of keys");
  }

  @Override
  public void engineDeleteEntry(String alias) throws KeyStoreException {
    checkWritable();
    change(() -> TokenWriter.delete(token, alias));
  }

  private interface Change {
    void run() throws PKCS11Exception, LoginException;
  }

  private void checkWritable() throws KeyStoreException {
    if (token == null || !token.uri.isWritable()) {
      throw new KeyStoreException("the key store of a token is read-only, unless the URI has"
          + " x-writable=yes");
    }
  }

  /**
   * Makes a change and reads the token again, also after a failure, since half of the change may be
   * done.
   */
  private void change(Change change) throws KeyStoreException {
    Exception failure = null;
    try {
      change.run();
    } catch (PKCS11Exception | LoginException e) {
      failure = e;
    }
    try {
      synchronized (Token.CHANGING) { // Some modules make no object while another thread reads.
        read(null);
      }
    } catch (PKCS11Exception | LoginException e) {
      failure = failure == null ? e : failure;
    }
    if (failure != null) {
      throw new KeyStoreException(failure.getMessage(), failure);
    }
  }
}
