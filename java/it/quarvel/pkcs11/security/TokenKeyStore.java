package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.KeyStoreSpi;
import java.security.PublicKey;
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.security.cert.CertificateException;
import java.security.cert.CertificateExpiredException;
import java.security.cert.CertificateNotYetValidException;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.Comparator;
import java.util.Date;
import java.util.Enumeration;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.List;
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
  private record Stored(byte[] id, String label, boolean trusted, X509Certificate certificate) {}

  /** A key with its chain, which may be empty; or no key, and a trusted certificate. */
  private record Entry(String label, byte[] id, TokenKey key, List<X509Certificate> chain) {}

  /** A key without a certificate: a {@code PrivateKeyEntry} cannot be one. */
  private record BareKey(TokenKey key) implements KeyStore.Entry {}

  private static final Comparator<X509Certificate> NEWEST_VALID =
      Comparator.comparing(TokenKeyStore::isValid).thenComparing(X509Certificate::getNotBefore);

  private final Token token;
  private Map<String, Entry> entries = Map.of();
  private Date loaded = new Date();

  TokenKeyStore(Token token) {
    this.token = token;
  }

  // ---- Loading ----

  @Override
  public void engineLoad(InputStream stream, char[] pin) throws IOException {
    if (stream != null) {
      throw new IOException("a token is not read from a stream: give null");
    }
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
      entries = token.run(this::read, asker);
      loaded = new Date();
      wasOpen = true;
    } finally {
      if (!wasOpen) {
        token.logout();
      }
    }
  }

  private Map<String, Entry> read(NativePKCS11Session session, Token.Connection connection)
      throws PKCS11Exception {
    List<Stored> stored = certificates(session);
    List<Entry> read = new ArrayList<>();
    for (KeyObject found : KeyObject.find(session, null)) {
      Stored own = stored.stream()
          .filter(other -> Arrays.equals(other.id, found.id())
              && KeyObject.same(other.certificate.getPublicKey(), found.publicKey()))
          .max(Comparator.comparing(Stored::certificate, NEWEST_VALID)).orElse(null);
      PublicKey publicKey = own == null ? found.publicKey() : own.certificate.getPublicKey();
      TokenKey key = TokenKey.of(token, found, publicKey, connection);
      if (key != null && isWanted(found, own)) {
        read.add(own == null ? new Entry(found.label(), found.id(), key, List.of())
            : new Entry(own.label.isEmpty() ? found.label() : own.label, found.id(), key,
                chain(own.certificate, stored)));
      }
    }
    for (Stored other : stored) {
      if (other.trusted) {
        read.add(new Entry(other.label, other.id, null, List.of(other.certificate)));
      }
    }
    return named(read);
  }

  private static List<Stored> certificates(NativePKCS11Session session) throws PKCS11Exception {
    List<Stored> stored = new ArrayList<>();
    for (NativePKCS11Object object :
        session.findAll(new PKCS11Template().put(CKA_CLASS, CKO_CERTIFICATE))) {
      try {
        Map<Integer, Object> attributes = object.attributes(CKA_ID, CKA_LABEL, CKA_TRUSTED);
        stored.add(new Stored(KeyObject.id(attributes), KeyObject.label(attributes),
            KeyObject.isSet(attributes, CKA_TRUSTED), object.certificate()));
      } catch (CertificateException e) {
        // Of another kind than X.509.
      }
    }
    return stored;
  }

  /** The URI may name a key by its own label or by its certificate's. */
  private boolean isWanted(KeyObject key, Stored certificate) {
    if (token.uri.id() != null && !Arrays.equals(token.uri.id(), key.id())) {
      return false;
    }
    if (token.uri.object() == null) {
      return true;
    }
    String label = new String(token.uri.object(), StandardCharsets.UTF_8);
    return label.equals(key.label()) || certificate != null && label.equals(certificate.label);
  }

  private static boolean isValid(X509Certificate certificate) {
    try {
      certificate.checkValidity();
      return true;
    } catch (CertificateExpiredException | CertificateNotYetValidException e) {
      return false;
    }
  }

  /** From the certificate up to the last issuer that the token has. */
  private static List<X509Certificate> chain(X509Certificate first, List<Stored> stored) {
    List<X509Certificate> chain = new ArrayList<>();
    for (X509Certificate next = first; next != null && !chain.contains(next);) {
      chain.add(next);
      X509Certificate issued = next;
      next = stored.stream().map(Stored::certificate).filter(issuer -> isIssuer(issuer, issued))
          .max(NEWEST_VALID).orElse(null);
    }
    return chain;
  }

  private static boolean isIssuer(X509Certificate issuer, X509Certificate issued) {
    if (!issuer.getSubjectX500Principal().equals(issued.getIssuerX500Principal())) {
      return false;
    }
    try {
      issued.verify(issuer.getPublicKey());
      return true;
    } catch (GeneralSecurityException e) {
      return false;
    }
  }

  /** Names entries by their labels; of those with the same one each gets its id too. */
  private static Map<String, Entry> named(List<Entry> read) {
    Map<String, Entry> named = new LinkedHashMap<>();
    for (Entry entry : read) {
      boolean isOnly = !entry.label.isEmpty()
          && read.stream().filter(other -> other.label.equals(entry.label)).count() == 1;
      String name = isOnly ? entry.label
          : (entry.label + " " + HexFormat.of().formatHex(entry.id)).strip();
      String alias = name;
      for (int i = 2; named.containsKey(alias); i++) {
        alias = name + " " + i;
      }
      named.put(alias, entry);
    }
    return named;
  }

  // ---- Reading ----

  @Override
  public Key engineGetKey(String alias, char[] password) {
    Entry entry = entries.get(alias);
    return entry == null ? null : entry.key;
  }

  @Override
  public Certificate[] engineGetCertificateChain(String alias) {
    Entry entry = entries.get(alias);
    return entry == null || entry.key == null || entry.chain.isEmpty() ? null
        : entry.chain.toArray(Certificate[]::new);
  }

  @Override
  public Certificate engineGetCertificate(String alias) {
    Entry entry = entries.get(alias);
    return entry == null || entry.chain.isEmpty() ? null : entry.chain.get(0);
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
    if (entry.key == null) {
      return new KeyStore.TrustedCertificateEntry(entry.chain.get(0));
    }
    return entry.chain.isEmpty() ? new BareKey(entry.key)
        : new KeyStore.PrivateKeyEntry(entry.key, engineGetCertificateChain(alias));
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
    if (stream != null) {
      throw new UnsupportedOperationException("a token's keys cannot be written to a stream");
    }
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
