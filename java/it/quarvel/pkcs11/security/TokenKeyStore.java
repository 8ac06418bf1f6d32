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
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.util.Collections;
import java.util.Date;
import java.util.Enumeration;
import java.util.Map;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.login.FailedLoginException;
import javax.security.auth.login.LoginException;

/**
 * What the token held when it was loaded: keys with the chains of their certificates, and the
 * certificates that the token calls trusted.
 */
final class TokenKeyStore extends KeyStoreSpi {
  /** A key without a certificate: a {@code PrivateKeyEntry} cannot be one. */
  private record BareKey(TokenKey key) implements KeyStore.Entry {}

  private final Token token;
  private TokenContents contents;
  private Map<String, Entry> entries = Map.of();
  private Date loaded = new Date();

  TokenKeyStore(Token token) {
    this.token = token;
  }

  // ---- Loading ----

  /** What a stream holds is ignored: some programs always give one. */
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

  /** A wrong PIN has another cause here, or {@code KeyStore.Builder} tries it three times. */
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

  private void load(CallbackHandler asker) throws PKCS11Exception, LoginException {
    if (token == null) {
      throw new PKCS11Exception("the provider names no token: configure it with a PKCS#11 URI");
    }
    boolean wasOpen = token.isOpen();
    token.login(asker);
    try {
      contents = token.run(
          (session, connection) -> new TokenContents(token, session, connection), asker);
      entries = contents.named(token.uri);
      loaded = new Date();
      wasOpen = true;
    } finally {
      if (!wasOpen) {
        token.logout();
      }
    }
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
    return contents.chain(entry).stream().map(Stored::certificate).toArray(Certificate[]::new);
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

  /** No password is wanted beside the PIN. */
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

  /** A key without a certificate is a private key, and not a secret key for want of a chain. */
  @Override
  public boolean engineEntryInstanceOf(String alias, Class<? extends KeyStore.Entry> kind) {
    return kind == KeyStore.PrivateKeyEntry.class && engineIsKeyEntry(alias)
        || kind == KeyStore.TrustedCertificateEntry.class && engineIsCertificateEntry(alias);
  }

  // ---- Writing ----

  @Override
  public void engineStore(OutputStream stream, char[] password) {
    // The keys are on the token, and nowhere else.
  }

  @Override
  public void engineStore(KeyStore.LoadStoreParameter parameter) {
    // There is never a change to store.
  }

  @Override
  public void engineSetKeyEntry(String alias, Key key, char[] password, Certificate[] chain)
      throws KeyStoreException {
    throw readOnly();
  }

  @Override
  public void engineSetKeyEntry(String alias, byte[] key, Certificate[] chain)
      throws KeyStoreException {
    throw readOnly();
  }

  @Override
  public void engineSetCertificateEntry(String alias, Certificate certificate)
      throws KeyStoreException {
    throw readOnly();
  }

  @Override
  public void engineDeleteEntry(String alias) throws KeyStoreException {
    throw readOnly();
  }

  private static KeyStoreException readOnly() {
    return new KeyStoreException("the key store of a token is read-only");
  }
}
