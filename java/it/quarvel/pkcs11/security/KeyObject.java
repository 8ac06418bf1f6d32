// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.security.InvalidKeyException;
import java.security.PublicKey;
import java.security.cert.CertificateException;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.EdECPublicKey;
import java.security.interfaces.RSAPublicKey;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;

/**
 * A private key on the token.
 *
 * @param object it, good while the user stays logged in
 * @param id its {@code CKA_ID}, empty where it has none
 * @param label its {@code CKA_LABEL}, empty where it has none
 * @param publicKey its public half
 * @param alwaysAuthenticate whether it wants the PIN each time
 */
record KeyObject(NativePKCS11Object object, byte[] id, String label, PublicKey publicKey,
    boolean alwaysAuthenticate) {

  /**
   * Finds the private keys that have a public half that Java knows.
   *
   * @param id those with this {@code CKA_ID}, null for all
   */
  static List<KeyObject> find(NativePKCS11Session session, byte[] id) throws PKCS11Exception {
    List<KeyObject> keys = new ArrayList<>();
    PKCS11Template wanted = new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY);
    if (id != null) {
      wanted.put(CKA_ID, id);
    }
    for (NativePKCS11Object object : session.findAll(wanted)) {
      Map<Integer, Object> attributes =
          object.attributes(CKA_ID, CKA_LABEL, CKA_KEY_TYPE, CKA_ALWAYS_AUTHENTICATE);
      byte[] own = id(attributes);
      PublicKey publicKey = publicKey(session, object, (Integer) attributes.get(CKA_KEY_TYPE), own);
      if (publicKey != null) {
        keys.add(new KeyObject(object, own, label(attributes), publicKey,
            isSet(attributes, CKA_ALWAYS_AUTHENTICATE)));
      }
    }
    return keys;
  }

  static byte[] id(Map<Integer, Object> attributes) {
    return (byte[]) attributes.getOrDefault(CKA_ID, new byte[0]);
  }

  static String label(Map<Integer, Object> attributes) {
    return (String) attributes.getOrDefault(CKA_LABEL, "");
  }

  static boolean isSet(Map<Integer, Object> attributes, int type) {
    return attributes.get(type) instanceof byte[] value && value[0] != 0;
  }

  /** Tells whether two keys are one, whichever providers have made the objects. */
  static boolean same(PublicKey one, PublicKey other) {
    if (one instanceof RSAPublicKey rsa && other instanceof RSAPublicKey otherRsa) {
      return rsa.getModulus().equals(otherRsa.getModulus());
    }
    if (one instanceof ECPublicKey ec && other instanceof ECPublicKey otherEc) {
      return ec.getW().equals(otherEc.getW());
    }
    return Arrays.equals(one.getEncoded(), other.getEncoded());
  }

  /** Takes it from the key itself, else from the public key or a certificate of its id. */
  private static PublicKey publicKey(
      NativePKCS11Session session, NativePKCS11Object key, Integer type, byte[] id)
      throws PKCS11Exception {
    PublicKey found = publicKey(key);
    if (found != null || type == null) {
      return found;
    }
    for (NativePKCS11Object twin : session.findAll(new PKCS11Template()
        .put(CKA_CLASS, CKO_PUBLIC_KEY).put(CKA_KEY_TYPE, type).put(CKA_ID, id))) {
      found = found == null ? publicKey(twin) : found;
    }
    for (NativePKCS11Object holder : session.findAll(
        new PKCS11Template().put(CKA_CLASS, CKO_CERTIFICATE).put(CKA_ID, id))) {
      found = found == null ? certified(holder, type) : found;
    }
    return found;
  }

  private static PublicKey publicKey(NativePKCS11Object key) {
    try {
      return key.publicKey();
    } catch (PKCS11Exception | InvalidKeyException e) {
      return null;
    }
  }

  private static PublicKey certified(NativePKCS11Object certificate, int type) {
    try {
      PublicKey key = certificate.certificate().getPublicKey();
      return isOf(key, type) ? key : null;
    } catch (PKCS11Exception | CertificateException e) {
      return null;
    }
  }

  private static boolean isOf(PublicKey key, int type) {
    return switch (type) {
      case CKK_RSA -> key instanceof RSAPublicKey;
      case CKK_EC -> key instanceof ECPublicKey;
      case CKK_EC_EDWARDS -> key instanceof EdECPublicKey;
      default -> false;
    };
  }
}
