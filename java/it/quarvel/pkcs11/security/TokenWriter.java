// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.internal.Hash;
import it.quarvel.pkcs11.internal.Printable;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.security.TokenContents.Entry;
import it.quarvel.pkcs11.security.TokenContents.Stored;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.KeyStoreException;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.ProviderException;
import java.security.PublicKey;
import java.security.Signature;
import java.security.SignatureException;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collection;
import java.util.Deque;
import java.util.HashSet;
import java.util.Iterator;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import javax.crypto.Cipher;
import javax.security.auth.login.LoginException;

/**
 * Changes the keys and certificates on a token, with one read/write session for each change. When a
 * step fails, the writer undoes the steps before it, as far as the token still answers.
 */
final class TokenWriter {
  /** A step that undoes an earlier one. */
  private interface Step {
    void run() throws PKCS11Exception;
  }

  private interface Change {
    void by(TokenWriter writer) throws PKCS11Exception;
  }

  /** The data that a key signs or decrypts to prove that it belongs to a certificate. */
  private static final byte[] PROBE = "one pair".getBytes(StandardCharsets.UTF_8);

  private final Token token;
  private final NativePKCS11Session session;
  private final Connection connection;

  /** The contents of the token before the change. */
  private final TokenContents contents;

  /** The entries that the URI names, by their aliases. */
  private final Map<String, Entry> named;

  /** The steps that undo the change, the last one first. */
  private final Deque<Step> undoing = new ArrayDeque<>();

  private TokenWriter(Token token, NativePKCS11Session session, Connection connection)
      throws PKCS11Exception {
    this.token = token;
    this.session = session;
    this.connection = connection;
    contents = new TokenContents(token, session, connection);
    named = contents.named(token.uri);
  }

  /**
   * Proves that a key belongs to a certificate: the key signs, and the certificate's key verifies.
   * An RSA key on a token that may not sign ({@code CKR_KEY_FUNCTION_NOT_PERMITTED}) decrypts.
   *
   * @param provider this library's provider
   * @param key a key of a token or of software
   * @throws KeyStoreException when the certificate is another key's, and when the key can prove
   *     nothing
   */
  static void prove(Provider provider, PrivateKey key, X509Certificate certificate)
      throws KeyStoreException {
    try {
      if (!signs(provider, key, certificate.getPublicKey())) {
        throw new SignatureException("the certificate is another one's");
      }
    } catch (GeneralSecurityException | ProviderException e) {
      throw new KeyStoreException("the key is not proved to be the certificate's: "
          + e.getMessage(), e);
    }
  }

  /**
   * Tells whether a public key verifies a signature of a private key; for an RSA key on a token
   * that may not sign, whether the private key decrypts.
   */
  private static boolean signs(Provider provider, PrivateKey key, PublicKey publicKey)
      throws GeneralSecurityException {
    KeyKind kind = KeyKind.of(publicKey);
    if (kind == null) {
      throw new InvalidKeyException("it is of none of the kinds RSA, EC and Ed25519");
    }
    String algorithm = switch (kind) {
      case RSA -> "SHA256withRSA";
      case EC -> "SHA256withECDSA";
      case RSASSA_PSS, ED25519 -> kind.algorithm;
    };
    Signature signer = key instanceof TokenKey ? Signature.getInstance(algorithm, provider)
        : Signature.getInstance(algorithm);
    Signature verifier = Signature.getInstance(algorithm);
    if (kind == KeyKind.RSASSA_PSS) {
      PSSParameterSpec limits = KeyKind.limits(publicKey);
      signer.setParameter(limits == null ? Hash.SHA256.pss : limits);
      verifier.setParameter(limits == null ? Hash.SHA256.pss : limits);
    }
    signer.initSign(key);
    signer.update(PROBE);
    byte[] signature;
    try {
      signature = signer.sign();
    } catch (SignatureException e) {
      if (key instanceof TokenKey.Rsa && e.getCause() instanceof PKCS11Exception refusal
          && refusal.errorCode() == CKR_KEY_FUNCTION_NOT_PERMITTED) {
        return decrypts(provider, key, publicKey);
      }
      throw e;
    }
    verifier.initVerify(publicKey);
    verifier.update(PROBE);
    return verifier.verify(signature);
  }

  /** Tells whether a private key decrypts what a public key has encrypted (RSA PKCS #1). */
  private static boolean decrypts(Provider provider, PrivateKey key, PublicKey publicKey)
      throws GeneralSecurityException {
    Cipher cipher = Cipher.getInstance(TokenCipher.NAME, provider);
    cipher.init(Cipher.ENCRYPT_MODE, publicKey);
    byte[] encrypted = cipher.doFinal(PROBE);
    cipher.init(Cipher.DECRYPT_MODE, key);
    return Arrays.equals(PROBE, cipher.doFinal(encrypted));
  }

  /**
   * Refuses a chain with a certificate that issued none of the others: it would be in no chain that
   * the key store builds, and no deletion would remove it.
   */
  static void checkIssuers(List<X509Certificate> chain) throws KeyStoreException {
    for (X509Certificate issuer : chain) {
      if (!issuer.equals(chain.get(0)) && chain.stream().noneMatch(
          issued -> !issued.equals(issuer) && TokenContents.hasSigned(issuer, issued))) {
        throw new KeyStoreException("the chain has a certificate that issued none of the others: "
            + Printable.of(issuer.getSubjectX500Principal().getName()));
      }
    }
  }

  /**
   * Gives a key an alias and a chain. A key of the token stays, and loses its earlier certificates;
   * a key of software is copied to the token. The method adds the issuers that the token lacks.
   *
   * @param chain the certificate of the key, which the caller has proved, then those of issuers
   * @throws PKCS11Exception when the change fails; the writer has undone it then, as far as the
   *     token still answers
   * @throws LoginException when the token wants a PIN and there is none, or it is refused
   */
  static void setKey(Token token, String alias, PrivateKey key, List<X509Certificate> chain)
      throws PKCS11Exception, LoginException {
    change(token, writer -> {
      Entry entry = writer.entry(alias, key, chain.get(0).getPublicKey());
      writer.checkAlias(alias, entry);
      if (entry == null) {
        writer.importKey(alias, key, chain);
      } else {
        writer.certify(alias, entry.found(), chain);
      }
      writer.checkShown(alias, chain.get(0).getPublicKey(), chain.get(0));
    });
  }

  /**
   * Gives another alias to a key of the token that has no certificate.
   *
   * @throws PKCS11Exception as {@link #setKey}
   * @throws LoginException as {@link #setKey}
   */
  static void rename(Token token, String alias, TokenKey key)
      throws PKCS11Exception, LoginException {
    change(token, writer -> {
      Entry entry = writer.entry(alias, key, null);
      writer.checkAlias(alias, entry);
      writer.label(entry.found(), alias);
      writer.checkShown(alias, entry.found().publicKey(), null);
    });
  }

  /**
   * Removes a key with its public key, its certificates and those of issuers in no other chain. An
   * alias that names no entry changes nothing.
   *
   * @throws PKCS11Exception as {@link #setKey}; nothing can undo the loss of the private key
   * @throws LoginException as {@link #setKey}
   */
  static void delete(Token token, String alias) throws PKCS11Exception, LoginException {
    change(token, writer -> {
      Entry entry = writer.named.get(alias);
      if (entry != null) {
        writer.delete(entry);
      }
    });
  }

  /** Makes a change, and undoes it when it fails. */
  private static void change(Token token, Change change) throws PKCS11Exception, LoginException {
    token.change((session, connection) -> {
      TokenWriter writer = new TokenWriter(token, session, connection);
      boolean done = false;
      try {
        change.by(writer);
        done = true;
      } finally {
        if (!done) {
          writer.undo();
        }
      }
      return null;
    });
  }

  private void undo() {
    while (!undoing.isEmpty()) {
      try {
        undoing.pop().run();
      } catch (PKCS11Exception e) {
        // The caller gets the failure of the change, which matters more.
      }
    }
  }

  /**
   * Returns the entry of a key, null for a key of software that is not on the token.
   *
   * @param publicKey its public half; not read for a key of the token
   * @throws PKCS11Exception when a key of the token is gone, and when a key of software is on the
   *     token under another alias
   */
  private Entry entry(String alias, PrivateKey key, PublicKey publicKey) throws PKCS11Exception {
    Entry found = null;
    for (Entry entry : contents.entries) {
      if (entry.key() != null && (entry.key().equals(key) || !(key instanceof TokenKey)
          && KeyObject.same(entry.found().publicKey(), publicKey))) {
        found = entry;
      }
    }
    if (found == null && key instanceof TokenKey) {
      throw new PKCS11Exception("the token has no longer the " + key);
    }
    if (found != null && !(key instanceof TokenKey) && found != named.get(alias)) {
      throw new PKCS11Exception("the token has this key already: the " + found.key());
    }
    return found;
  }

  /**
   * Refuses an alias that UTF-8 cannot hold, that another entry has, or under which the URI would
   * not show the key.
   *
   * @param own the entry of the key, null for a new one
   */
  private void checkAlias(String alias, Entry own) throws PKCS11Exception {
    if (alias.isEmpty() || !alias.equals(new String(bytes(alias), StandardCharsets.UTF_8))) {
      throw new PKCS11Exception("the alias is no text that a label can be");
    }
    for (Entry other : contents.entries) {
      if (other != own && (alias.equals(other.label()) || other == named.get(alias))) {
        throw new PKCS11Exception("the alias \"" + Printable.of(alias) + "\" is that of another "
            + (other.key() == null ? "entry, a trusted certificate" : "key"));
      }
    }
    byte[] limit = token.uri.object();
    if (limit != null && !Arrays.equals(limit, bytes(alias))
        || own == null && token.uri.id() != null) {
      throw new PKCS11Exception("the URI names other keys: it would not show this one");
    }
  }

  /**
   * Reads the token again and refuses a change that it does not show. Some tokens cut labels off;
   * some that have no room left keep less than they say.
   *
   * @param certificate the certificate of the key, null for none
   */
  private void checkShown(String alias, PublicKey key, X509Certificate certificate)
      throws PKCS11Exception {
    Entry shown =
        new TokenContents(token, session, connection).named(token.uri).get(alias);
    X509Certificate own = shown == null || shown.own() == null ? null : shown.own().certificate();
    if (shown == null || shown.key() == null || !KeyObject.same(shown.found().publicKey(), key)
        || !Objects.equals(own, certificate)) {
      throw new PKCS11Exception("the token does not show what it was given to store");
    }
  }

  private static byte[] bytes(String alias) {
    return alias.getBytes(StandardCharsets.UTF_8);
  }

  /** Gives a key of the token an alias and a chain, in place of its earlier certificates. */
  private void certify(String alias, KeyObject key, List<X509Certificate> chain)
      throws PKCS11Exception {
    addIssuers(chain);
    Stored kept = null;
    List<Stored> earlier = new ArrayList<>();
    for (Stored stored : contents.certificates) {
      if (stored.isOf(key)) {
        earlier.add(stored);
        kept = stored.certificate().equals(chain.get(0)) ? stored : kept;
      }
    }
    if (kept == null) {
      renew(certificate(chain.get(0)).put(CKA_ID, key.id()).put(CKA_LABEL, bytes(alias)), earlier);
    } else {
      earlier.remove(kept);
      label(kept.object(), alias);
    }
    label(key, alias);
    destroy(earlier);
  }

  /**
   * Stores the certificate of a key. If the token refuses it, the method removes the earlier ones
   * and tries again: some cards have room for one certificate of a key.
   */
  private void renew(PKCS11Template certificate, List<Stored> earlier) throws PKCS11Exception {
    try {
      create(certificate);
    } catch (PKCS11Exception e) {
      if (earlier.isEmpty() || Token.isGone(e)) {
        throw e;
      }
      destroy(earlier);
      create(certificate);
    }
  }

  /** Copies a key of software with its chain to the token. */
  private void importKey(String alias, PrivateKey key, List<X509Certificate> chain)
      throws PKCS11Exception {
    byte[] id = NewKeys.id();
    try {
      create(NewKeys.copy(chain.get(0).getPublicKey(), id).put(CKA_LABEL, bytes(alias)));
      create(NewKeys.copy(key, id).put(CKA_LABEL, bytes(alias)));
    } catch (InvalidKeyException | PKCS11Exception e) {
      throw (PKCS11Exception) new PKCS11Exception(
          "the token does not take this key in: " + e.getMessage()).initCause(e);
    }
    create(certificate(chain.get(0)).put(CKA_ID, id).put(CKA_LABEL, bytes(alias)));
    addIssuers(chain);
  }

  /** Stores the certificates of issuers that the token lacks. */
  private void addIssuers(List<X509Certificate> chain) throws PKCS11Exception {
    Set<X509Certificate> there = new HashSet<>(chain.subList(0, 1));
    for (Stored stored : contents.certificates) {
      there.add(stored.certificate());
    }
    for (X509Certificate issuer : chain.subList(1, chain.size())) {
      if (there.add(issuer)) {
        create(certificate(issuer));
      }
    }
  }

  /** Makes the template of a certificate that everybody may read. */
  private static PKCS11Template certificate(X509Certificate certificate) throws PKCS11Exception {
    try {
      return PKCS11Template.of(certificate).put(CKA_TOKEN, true).put(CKA_PRIVATE, false);
    } catch (CertificateEncodingException e) {
      throw (PKCS11Exception) new PKCS11Exception(e.getMessage()).initCause(e);
    }
  }

  /** Makes an object ({@code C_CreateObject}). */
  private void create(PKCS11Template template) throws PKCS11Exception {
    Set<NativePKCS11Object> before = new HashSet<>(session.findAll(null));
    try {
      undoing.push(session.createObject(template)::destroy);
    } catch (PKCS11Exception e) {
      destroyRemains(before);
      throw e;
    }
  }

  /**
   * Destroys new objects that have no id: some tokens refuse to make an object and leave a part of
   * it behind.
   *
   * @param before the objects that were there before
   */
  private void destroyRemains(Set<NativePKCS11Object> before) throws PKCS11Exception {
    for (NativePKCS11Object object : session.findAll(null)) {
      if (!before.contains(object) && KeyObject.id(object.attributes(CKA_ID)).length == 0) {
        object.destroy();
      }
    }
  }

  /** Destroys certificates, and takes each off the collection. */
  private void destroy(Collection<Stored> certificates) throws PKCS11Exception {
    for (Iterator<Stored> each = certificates.iterator(); each.hasNext(); each.remove()) {
      Stored stored = each.next();
      PKCS11Template again = certificate(stored.certificate())
          .put(CKA_ID, stored.id()).put(CKA_LABEL, stored.label());
      stored.object().destroy();
      undoing.push(() -> session.createObject(again));
    }
  }

  /** Gives a private key and its public key the label of an alias. */
  private void label(KeyObject key, String alias) throws PKCS11Exception {
    label(key.object(), alias);
    for (NativePKCS11Object half : publicHalves(key)) {
      label(half, alias);
    }
  }

  private void label(NativePKCS11Object object, String alias) throws PKCS11Exception {
    byte[] label = object.getByteArrayAttributeValue(CKA_LABEL);
    if (!Arrays.equals(label, bytes(alias))) {
      object.setAttributeValue(CKA_LABEL, bytes(alias));
      undoing.push(() -> object.setAttributeValue(CKA_LABEL, label));
    }
  }

  /** Finds the public keys on the token with the id and the public half of a private key. */
  private List<NativePKCS11Object> publicHalves(KeyObject key) throws PKCS11Exception {
    List<NativePKCS11Object> halves = new ArrayList<>();
    for (NativePKCS11Object object : session.findAll(
        new PKCS11Template().put(CKA_CLASS, CKO_PUBLIC_KEY).put(CKA_ID, key.id()))) {
      try {
        if (KeyObject.same(object.publicKey(), key.publicKey())) {
          halves.add(object);
        }
      } catch (InvalidKeyException e) {
        // Java cannot read this key, so it belongs to another private key.
      }
    }
    return halves;
  }

  /**
   * Removes a key as {@link #delete(Token, String)} does. The method finds all objects before it
   * destroys any, and begins with the certificates, which it can make again when a later step
   * fails.
   */
  private void delete(Entry entry) throws PKCS11Exception {
    if (entry.key() == null) {
      throw new PKCS11Exception("trusted certificates are the security officer's");
    }
    Set<Stored> goes = certificates(entry);
    boolean isTwin = false;
    for (Entry other : contents.entries) {
      if (other != entry) {
        goes.removeAll(certificates(other));
        isTwin |= entry.key().equals(other.key());
      }
    }
    List<NativePKCS11Object> halves = isTwin ? List.of() : publicHalves(entry.found());
    destroy(goes);
    entry.found().object().destroy();
    undoing.clear();
    for (NativePKCS11Object half : halves) {
      try {
        half.destroy();
      } catch (PKCS11Exception e) {
        if (e.errorCode() != CKR_OBJECT_HANDLE_INVALID) {
          throw e;
        }
        // Some cards destroy the public key with the private one.
      }
    }
  }

  /** Returns the chain of an entry and, for a key, its other certificates. */
  private Set<Stored> certificates(Entry entry) {
    Set<Stored> all = new HashSet<>(contents.chain(entry));
    for (Stored stored : contents.certificates) {
      if (entry.key() != null && stored.isOf(entry.found())) {
        all.add(stored);
      }
    }
    return all;
  }
}
