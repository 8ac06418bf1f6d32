// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Exception.Reason;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.internal.Printable;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.nio.charset.StandardCharsets;
import java.security.InvalidKeyException;
import java.security.PublicKey;
import java.security.cert.CertificateException;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.RSAPublicKey;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;
import java.util.Map;

/**
 * A private key on the token.
 *
 * @param object the key's handle, good within the connection it was found in
 * @param id the {@code CKA_ID}, empty if the key has none
 * @param label the bytes of the {@code CKA_LABEL}, empty if the key has none
 * @param publicKey the public half as Java's own key
 * @param alwaysAuthenticate whether each use wants the PIN ({@code CKA_ALWAYS_AUTHENTICATE})
 */
record KeyObject(NativePKCS11Object object, byte[] id, byte[] label, PublicKey publicKey,
    boolean alwaysAuthenticate) {

  /**
   * Finds the private keys whose public half can be found and is of a kind that Java has.
   *
   * @param id the {@code CKA_ID} to look for, null for all keys
   */
  static List<KeyObject> find(NativePKCS11Session session, byte[] id) throws PKCS11Exception {
    return find(session, id, new ArrayList<>());
  }

  /**
   * Finds the private keys as {@link #find(NativePKCS11Session, byte[])} does.
   *
   * @param leftOut gets a text on each key that is left out: its name and the reason
   */
  static List<KeyObject> find(NativePKCS11Session session, byte[] id, List<String> leftOut)
      throws PKCS11Exception {
    List<KeyObject> keys = new ArrayList<>();
    PKCS11Template wanted = new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY);
    if (id != null) {
      wanted.put(CKA_ID, id);
    }
    for (NativePKCS11Object object : session.findAll(wanted)) {
      Map<Integer, Object> attributes =
          object.attributes(CKA_ID, CKA_KEY_TYPE, CKA_ALWAYS_AUTHENTICATE);
      byte[] own = id(attributes);
      byte[] label = label(object);
      try {
        keys.add(new KeyObject(object, own, label,
            publicKey(session, object, (Integer) attributes.get(CKA_KEY_TYPE), own),
            isSet(attributes, CKA_ALWAYS_AUTHENTICATE)));
      } catch (InvalidKeyException e) {
        leftOut.add(name(label, own) + ": " + e.getMessage());
      }
    }
    return keys;
  }

  /** Returns the {@code CKA_ID} among the attributes of an object, empty if it has none. */
  static byte[] id(Map<Integer, Object> attributes) {
    return (byte[]) attributes.getOrDefault(CKA_ID, new byte[0]);
  }

  /**
   * Reads the bytes of an object's {@code CKA_LABEL}. A String would not do: it ends at the first
   * zero, and may lose characters.
   *
   * @return the bytes, empty if the object has no label, or one that the library cannot read
   */
  static byte[] label(NativePKCS11Object object) throws PKCS11Exception {
    try {
      return object.getByteArrayAttributeValue(CKA_LABEL);
    } catch (PKCS11Exception e) {
      if (e.errorCode() != CKR_ATTRIBUTE_TYPE_INVALID && e.reason() != Reason.INTERNAL) {
        throw e;
      }
      return new byte[0];
    }
  }

  static String text(byte[] label) {
    return new String(label, StandardCharsets.UTF_8);
  }

  /** Names an object in messages, by its label and its id in hex. */
  static String name(byte[] label, byte[] id) {
    return "\"" + Printable.of(text(label)) + "\" (id " + HexFormat.of().formatHex(id) + ")";
  }

  static boolean isSet(Map<Integer, Object> attributes, int type) {
    return attributes.get(type) instanceof byte[] value && value[0] != 0;
  }

  /**
   * Tells whether two public keys are the same key, whatever classes they have. RSA keys compare by
   * the modulus, EC keys by the point, others by their encoding.
   *
   * @param one a key; null equals no key
   */
  static boolean same(PublicKey one, PublicKey other) {
    if (one instanceof RSAPublicKey rsa && other instanceof RSAPublicKey otherRsa) {
      return rsa.getModulus().equals(otherRsa.getModulus());
    }
    if (one instanceof ECPublicKey ec && other instanceof ECPublicKey otherEc) {
      return ec.getW().equals(otherEc.getW());
    }
    return one != null && Arrays.equals(one.getEncoded(), other.getEncoded());
  }

  /**
   * Returns the public half of a private key, as the key itself shows it, else a public key, else a
   * certificate, of the same id and type.
   *
   * @param type the {@code CKA_KEY_TYPE}; null if the key does not show it, and then nothing but
   *     the key itself is read
   * @throws InvalidKeyException when none of them shows it; the message says why
   */
  private static PublicKey publicKey(
      NativePKCS11Session session, NativePKCS11Object key, Integer type, byte[] id)
      throws PKCS11Exception, InvalidKeyException {
    String refusal = "neither a public key nor a certificate shows its public half";
    List<NativePKCS11Object> halves = new ArrayList<>(List.of(key));
    for (int i = 0; i < halves.size(); i++) {
      try {
        return halves.get(i).publicKey();
      } catch (InvalidKeyException e) {
        refusal = e.getMessage();
      } catch (PKCS11Exception e) {
        // Few private keys show their public half: look on.
      }
      if (i == 0 && type != null) {
        halves.addAll(session.findAll(new PKCS11Template()
            .put(CKA_CLASS, CKO_PUBLIC_KEY).put(CKA_KEY_TYPE, type).put(CKA_ID, id)));
      }
    }
    for (NativePKCS11Object holder : session.findAll(
        new PKCS11Template().put(CKA_CLASS, CKO_CERTIFICATE).put(CKA_ID, id))) {
      PublicKey certified = certified(holder);
      KeyKind kind = KeyKind.of(certified);
      if (kind != null && type != null && kind.type == type) {
        return certified;
      }
    }
    throw new InvalidKeyException(refusal);
  }

  /** Returns the public key of a certificate, null if the certificate cannot be read. */
  private static PublicKey certified(NativePKCS11Object certificate) {
    try {
      return certificate.certificate().getPublicKey();
    } catch (PKCS11Exception | CertificateException e) {
      return null;
    }
  }
}
