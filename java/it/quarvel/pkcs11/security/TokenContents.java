// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.lang.System.Logger.Level;
import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.PublicKey;
import java.security.cert.CertificateException;
import java.security.cert.CertificateExpiredException;
import java.security.cert.CertificateNotYetValidException;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HexFormat;
import java.util.IdentityHashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;

/** The keys and certificates that a token held at one time. */
final class TokenContents {
  /**
   * A certificate on the token.
   *
   * @param object the handle, good within its connection
   * @param id the {@code CKA_ID}, empty if the certificate has none
   * @param label the bytes of the {@code CKA_LABEL}, empty if the certificate has none
   * @param trusted the {@code CKA_TRUSTED}
   * @param certificate the certificate itself
   */
  record Stored(NativePKCS11Object object, byte[] id, byte[] label, boolean trusted,
      X509Certificate certificate) {
    /** Tells whether the certificate is a key's: id and public key are the same. */
    boolean isOf(KeyObject key) {
      return Arrays.equals(id, key.id())
          && KeyObject.same(certificate.getPublicKey(), key.publicKey());
    }

    /**
     * Tells whether this certificate counts rather than another one: valid before not valid today,
     * then newer before older.
     *
     * @param other the other one; null comes last
     */
    boolean comesBefore(Stored other) {
      return other == null || (isValid(certificate) != isValid(other.certificate)
          ? isValid(certificate)
          : certificate.getNotBefore().after(other.certificate.getNotBefore()));
    }
  }

  /**
   * An entry of the key store: a key, or a certificate that the token trusts.
   *
   * @param label the label of the certificate, else of the key, as text; empty if both have none
   * @param id the {@code CKA_ID} of the key or the trusted certificate
   * @param found the key on the token, null for a trusted certificate
   * @param key the key for Java, null for a trusted certificate
   * @param own the trusted certificate, or that of the key; null for a key without one
   */
  record Entry(String label, byte[] id, KeyObject found, TokenKey key, Stored own) {}

  /** The warnings logged so far: each is logged once in a process. */
  private static final Set<String> TOLD = ConcurrentHashMap.newKeySet();

  /** All certificates that Java can read, those of issuers included. */
  final List<Stored> certificates = new ArrayList<>();

  /** The keys, then the trusted certificates. */
  final List<Entry> entries = new ArrayList<>();

  /**
   * The chains found so far. The map compares by identity: the first hash of a record slows a
   * start.
   */
  private final Map<Entry, List<Stored>> chains =
      Collections.synchronizedMap(new IdentityHashMap<>());

  /**
   * Reads the keys and certificates that are visible in a session ({@code C_FindObjects}, {@code
   * C_GetAttributeValue}). The log of this package gets one warning for each object that is left
   * out.
   *
   * @param connection the connection of the session
   * @throws PKCS11Exception when the module refuses
   */
  TokenContents(Token token, NativePKCS11Session session, Connection connection)
      throws PKCS11Exception {
    List<String> leftOut = new ArrayList<>();
    readCertificates(session, leftOut);
    for (KeyObject found : KeyObject.find(session, null, leftOut)) {
      Stored own = null;
      for (Stored other : certificates) {
        if (other.isOf(found) && other.comesBefore(own)) {
          own = other;
        }
      }
      PublicKey publicKey = own == null ? found.publicKey() : own.certificate.getPublicKey();
      try {
        TokenKey key = TokenKey.of(token, found, publicKey, connection);
        byte[] label = own == null || own.label.length == 0 ? found.label() : own.label;
        entries.add(new Entry(KeyObject.text(label), found.id(), found, key, own));
      } catch (InvalidKeyException e) {
        leftOut.add(KeyObject.name(found.label(), found.id()) + ": " + e.getMessage());
      }
    }
    for (Stored other : certificates) {
      if (other.trusted) {
        entries.add(new Entry(KeyObject.text(other.label), other.id, null, null, other));
      }
    }
    for (String text : leftOut) {
      if (TOLD.add(text)) {
        System.getLogger(TokenContents.class.getPackageName()).log(Level.WARNING,
            "left out of the key store of the token \"" + token.label() + "\": " + text);
      }
    }
  }

  /** Reads the certificates; {@code leftOut} gets a text on each that Java cannot read. */
  private void readCertificates(NativePKCS11Session session, List<String> leftOut)
      throws PKCS11Exception {
    for (NativePKCS11Object object :
        session.findAll(new PKCS11Template().put(CKA_CLASS, CKO_CERTIFICATE))) {
      Map<Integer, Object> attributes = object.attributes(CKA_ID, CKA_TRUSTED);
      byte[] id = KeyObject.id(attributes);
      byte[] label = KeyObject.label(object);
      try {
        certificates.add(new Stored(object, id, label, KeyObject.isSet(attributes, CKA_TRUSTED),
            object.certificate()));
      } catch (CertificateException e) {
        leftOut.add(KeyObject.name(label, id) + ": " + e.getMessage());
      } catch (PKCS11Exception e) {
        if (e.errorCode() != CKR_ATTRIBUTE_TYPE_INVALID) {
          throw e;
        }
        leftOut.add(KeyObject.name(label, id) + ": the token has not the certificate itself");
      }
    }
  }

  /**
   * Returns the entries that the URI names, by their aliases. An alias is the label. Entries with
   * the same label, or none, add their id in hex; entries that still share an alias are numbered
   * from 2.
   */
  Map<String, Entry> named(PKCS11Uri uri) {
    List<Entry> wanted = new ArrayList<>();
    for (Entry entry : entries) {
      if (isWanted(uri, entry)) {
        wanted.add(entry);
      }
    }
    Map<String, Entry> named = new LinkedHashMap<>();
    for (Entry entry : wanted) {
      int alike = 0;
      for (Entry other : wanted) {
        alike += other.label.equals(entry.label) ? 1 : 0;
      }
      String name = !entry.label.isEmpty() && alike == 1 ? entry.label
          : (entry.label + " " + HexFormat.of().formatHex(entry.id)).strip();
      String alias = name;
      for (int i = 2; named.containsKey(alias); i++) {
        alias = name + " " + i;
      }
      named.put(alias, entry);
    }
    return named;
  }

  /**
   * Tells whether the URI names an entry. Its {@code object} is the label of the key or that of the
   * certificate; with a {@code type}, that of the one only. Trusted certificates always count.
   */
  private static boolean isWanted(PKCS11Uri uri, Entry entry) {
    if (entry.key == null) {
      return true;
    }
    byte[] label = uri.object();
    Integer type = uri.objectClass();
    boolean byKey = (type == null || type == CKO_PRIVATE_KEY)
        && (label == null || Arrays.equals(label, entry.found.label()));
    boolean byCertificate = (type == null || type == CKO_CERTIFICATE) && entry.own != null
        && (label == null || Arrays.equals(label, entry.own.label));
    return (byKey || byCertificate) && (uri.id() == null || Arrays.equals(uri.id(), entry.id));
  }

  private static boolean isValid(X509Certificate certificate) {
    try {
      certificate.checkValidity();
      return true;
    } catch (CertificateExpiredException | CertificateNotYetValidException e) {
      return false;
    }
  }

  /** Returns an entry's certificates, from its own up to the last issuer on the token, or none. */
  List<Stored> chain(Entry entry) {
    List<Stored> chain = chains.get(entry);
    if (chain == null) {
      chain = findChain(entry);
      chains.put(entry, chain);
    }
    return chain;
  }

  private List<Stored> findChain(Entry entry) {
    List<Stored> chain = new ArrayList<>();
    Set<Stored> seen = Collections.newSetFromMap(new IdentityHashMap<>());
    for (Stored next = entry.own; next != null && seen.add(next); next = issuer(next)) {
      chain.add(next);
    }
    return chain;
  }

  /** Returns the certificate on the token that has signed another one, null if there is none. */
  private Stored issuer(Stored issued) {
    List<Stored> named = new ArrayList<>();
    for (Stored other : certificates) {
      if (other.certificate.getSubjectX500Principal()
          .equals(issued.certificate.getIssuerX500Principal())) {
        named.add(other);
      }
    }
    if (named.size() == 1 && named.get(0) == issued) {
      return null; // The chain ends here either way; to verify the signature would take long.
    }
    Stored issuer = null;
    for (Stored other : named) {
      if (other.comesBefore(issuer) && hasSigned(other.certificate, issued.certificate)) {
        issuer = other;
      }
    }
    return issuer;
  }

  static boolean hasSigned(X509Certificate issuer, X509Certificate issued) {
    try {
      issued.verify(issuer.getPublicKey());
      return true;
    } catch (GeneralSecurityException e) {
      return false;
    }
  }
}
