// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.io.ByteArrayInputStream;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.cert.*;
import java.security.spec.RSAKeyGenParameterSpec;
import java.util.*;
import java.util.concurrent.Callable;
import java.util.stream.Collectors;
import javax.crypto.Cipher;

/**
 * Makes keys, data and a certificate on a token, uses them, checks the results, and destroys them
 * again, also when a step fails.
 */
class Tour implements AutoCloseable {
  /** Two blocks: AES without padding takes whole blocks only. */
  private static final byte[] TEXT =
      "Two blocks of sixteen bytes each".getBytes(StandardCharsets.US_ASCII);

  private final NativePKCS11Session session;
  private final Set<Integer> before;
  private final Deque<NativePKCS11Object> made = new ArrayDeque<>();

  private Tour(NativePKCS11Session session) throws PKCS11Exception {
    this.session = session;
    before = handles();
  }

  /** Runs the tour in a read/write session of the user; the adapter in front completes OAEP. */
  static void run(NativePKCS11Session session) throws PKCS11Exception {
    try (Tour tour = new Tour(session)) {
      step("make an RSA key pair, which decrypts what Java encrypted", tour::useRsaKeys);
      step("make AES keys, wrap one, and have its copy decrypt for it", tour::useAesKeys);
      step("store data, and read back their value and a new label", tour::storeData);
      Optional<NativePKCS11Object> certificate = session.findFirst(new PKCS11Template()
          .put(CKA_CLASS, CKO_CERTIFICATE).put(CKA_CERTIFICATE_TYPE, CKC_X_509));
      if (certificate.isPresent()) {
        step("copy a certificate, and have Java read it and a search find it",
            () -> tour.copy(read(certificate.get())));
      }
    }
  }

  /** Runs a step, which returns whether its result is right. */
  private static void step(String what, Callable<Boolean> step) {
    boolean right;
    try {
      right = step.call();
    } catch (Exception e) {
      throw new IllegalStateException(e.getMessage() + ": " + what, e);
    }
    if (!right) {
      throw new IllegalStateException("wrong result: " + what);
    }
    System.out.println("Tour: " + what + ": done and checked");
  }

  /** Anyone encrypts with the public key; the private key decrypts and never leaves the token. */
  private boolean useRsaKeys() throws PKCS11Exception, GeneralSecurityException {
    NativePKCS11Session.KeyPair rsa = session.generateKeyPair(CKM_RSA_PKCS_KEY_PAIR_GEN,
        template("Tour RSA key", false).put(CKA_ENCRYPT, true)
            .put(CKA_MODULUS_BITS, 2048).put(CKA_PUBLIC_EXPONENT, RSAKeyGenParameterSpec.F4),
        template("Tour RSA key", true).put(CKA_DECRYPT, true)
            .put(CKA_SENSITIVE, true).put(CKA_EXTRACTABLE, false));
    keep(rsa.privateKey());
    Cipher cipher = Cipher.getInstance("RSA/ECB/OAEPWithSHA-1AndMGF1Padding");
    cipher.init(Cipher.ENCRYPT_MODE, keep(rsa.publicKey()).publicKey());
    return Arrays.equals(
        TEXT, session.decrypt(CKM_RSA_PKCS_OAEP, rsa.privateKey(), cipher.doFinal(TEXT)));
  }

  /** A key leaves the token only encrypted with another, and comes back as a new object. */
  private boolean useAesKeys() throws PKCS11Exception {
    NativePKCS11Object key = generate(template("Tour AES key", true)
        .put(CKA_EXTRACTABLE, true).put(CKA_ENCRYPT, true).put(CKA_DECRYPT, true));
    NativePKCS11Object wrapping = generate(
        template("Tour wrapping key", true).put(CKA_WRAP, true).put(CKA_UNWRAP, true));
    byte[] wrapped = session.wrapKey(CKM_AES_KEY_WRAP, wrapping, key);
    NativePKCS11Object copy = keep(session.unwrapKey(CKM_AES_KEY_WRAP, wrapping, wrapped,
        template("Tour unwrapped key", true).put(CKA_CLASS, CKO_SECRET_KEY)
            .put(CKA_KEY_TYPE, CKK_AES).put(CKA_DECRYPT, true)));
    byte[] encrypted = session.encrypt(CKM_AES_ECB, key, TEXT);
    return !Arrays.equals(TEXT, encrypted)
        && Arrays.equals(TEXT, session.decrypt(CKM_AES_ECB, key, encrypted))
        && Arrays.equals(TEXT, session.decrypt(CKM_AES_ECB, copy, encrypted));
  }

  private boolean storeData() throws PKCS11Exception {
    NativePKCS11Object data = keep(session.createObject(template("Tour data", true)
        .put(CKA_CLASS, CKO_DATA).put(CKA_APPLICATION, "Demo").put(CKA_VALUE, TEXT)));
    data.setAttributeValue(CKA_LABEL, "Tour data, renamed");
    return "Tour data, renamed".equals(data.getStringAttributeValue(CKA_LABEL))
        && Arrays.equals(TEXT, data.getByteArrayAttributeValue(CKA_VALUE));
  }

  private boolean copy(X509Certificate certificate)
      throws PKCS11Exception, GeneralSecurityException {
    byte[] subject = certificate.getSubjectX500Principal().getEncoded();
    NativePKCS11Object copy = keep(session.createObject(template("Tour certificate", false)
        .put(CKA_CLASS, CKO_CERTIFICATE).put(CKA_CERTIFICATE_TYPE, CKC_X_509)
        .put(CKA_SUBJECT, subject).put(CKA_VALUE, certificate.getEncoded())));
    return read(copy).equals(certificate)
        && session.findAll(new PKCS11Template().put(CKA_SUBJECT, subject)).stream()
            .anyMatch(found -> found.objectID() == copy.objectID());
  }

  private static X509Certificate read(NativePKCS11Object certificate)
      throws PKCS11Exception, GeneralSecurityException {
    return (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(
        new ByteArrayInputStream(certificate.getByteArrayAttributeValue(CKA_VALUE)));
  }

  /** Destroys the objects of the tour, the last first, and searches whether all are gone. */
  @Override
  public void close() {
    List<String> refused = new ArrayList<>();
    for (NativePKCS11Object object : made) {
      try {
        object.destroy();
      } catch (PKCS11Exception e) {
        refused.add(e.getMessage());
      }
    }
    step("destroy all %d objects %s".formatted(made.size(), refused.isEmpty() ? "again" : refused),
        () -> handles().equals(before));
  }

  /** Makes the template of a labelled token object. Private objects show after a login only. */
  private static PKCS11Template template(String label, boolean isPrivate) {
    return new PKCS11Template()
        .put(CKA_TOKEN, true).put(CKA_PRIVATE, isPrivate).put(CKA_LABEL, label);
  }

  private NativePKCS11Object generate(PKCS11Template aesKey) throws PKCS11Exception {
    return keep(session.generateKey(CKM_AES_KEY_GEN, aesKey.put(CKA_VALUE_LEN, 32)));
  }

  private NativePKCS11Object keep(NativePKCS11Object object) {
    made.push(object);
    return object;
  }

  private Set<Integer> handles() throws PKCS11Exception {
    return session.findAll(null).stream()
        .map(NativePKCS11Object::objectID).collect(Collectors.toSet());
  }
}
