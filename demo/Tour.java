import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.cert.X509Certificate;
import java.security.spec.RSAKeyGenParameterSpec;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import java.util.stream.Collectors;
import javax.crypto.Cipher;

/**
 * Makes keys, data and a certificate on a token, uses them, checks what comes of it, and destroys
 * them again, also when a step fails.
 */
class Tour implements AutoCloseable {
  private static final int RSA_BITS = 2048;
  private static final int AES_BYTES = 32;

  /** Without padding AES takes whole blocks only, and these are two. */
  private static final byte[] TEXT =
      "Two blocks of sixteen bytes each".getBytes(StandardCharsets.US_ASCII);

  private final NativePKCS11Session session;
  private final Set<Integer> before;
  private final Deque<NativePKCS11Object> made = new ArrayDeque<>();

  private Tour(NativePKCS11Session session) throws PKCS11Exception {
    this.session = session;
    before = handles();
  }

  /** Runs the tour in a read/write session of the user. */
  static void run(NativePKCS11Session session)
      throws PKCS11Exception, GeneralSecurityException, Demo.DemoException {
    try (Tour tour = new Tour(session)) {
      tour.decryptForJava(tour.generateRsaKeys());
      NativePKCS11Object aesKey = tour.generateAesKey();
      byte[] encrypted = tour.encryptAndDecrypt(aesKey);
      tour.wrapAndUnwrap(aesKey, encrypted);
      tour.rename(tour.storeData());
      tour.copyCertificate();
    }
  }

  private NativePKCS11Session.KeyPair generateRsaKeys()
      throws PKCS11Exception, Demo.DemoException {
    PKCS11Template publicKey =
        tokenObject("Tour RSA key", false)
            .put(CKA_MODULUS_BITS, RSA_BITS)
            .put(CKA_PUBLIC_EXPONENT, RSAKeyGenParameterSpec.F4)
            .put(CKA_ENCRYPT, true);
    PKCS11Template privateKey =
        tokenObject("Tour RSA key", true)
            .put(CKA_SENSITIVE, true)
            .put(CKA_EXTRACTABLE, false)
            .put(CKA_DECRYPT, true);
    NativePKCS11Session.KeyPair pair =
        session.generateKeyPair(CKM_RSA_PKCS_KEY_PAIR_GEN, publicKey, privateKey);
    keep(pair.publicKey());
    keep(pair.privateKey());

    BigInteger modulus = pair.publicKey().getBigInteger(CKA_MODULUS);
    check(modulus.bitLength() == RSA_BITS, "the modulus has %d bits", modulus.bitLength());
    check(
        modulus.equals(pair.privateKey().getBigInteger(CKA_MODULUS)),
        "the private key has another modulus than the public key");
    done("Generated an RSA key pair; both keys have the same modulus of %d bits", RSA_BITS);
    return pair;
  }

  /** Anyone encrypts with the public key; the private key decrypts and never leaves the token. */
  private void decryptForJava(NativePKCS11Session.KeyPair pair)
      throws PKCS11Exception, GeneralSecurityException, Demo.DemoException {
    Cipher cipher = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    cipher.init(Cipher.ENCRYPT_MODE, Demo.rsaKey(pair.publicKey()));
    byte[] encrypted = cipher.doFinal(TEXT);

    byte[] decrypted = session.decrypt(CKM_RSA_PKCS, pair.privateKey(), encrypted);
    check(Arrays.equals(TEXT, decrypted), "RSA decryption gives another text");
    done("Decrypted with the private key what Java encrypted; the text is the same");
  }

  private NativePKCS11Object generateAesKey() throws PKCS11Exception, Demo.DemoException {
    NativePKCS11Object key =
        keep(
            session.generateKey(
                CKM_AES_KEY_GEN,
                tokenObject("Tour AES key", true)
                    .put(CKA_VALUE_LEN, AES_BYTES)
                    .put(CKA_SENSITIVE, true)
                    .put(CKA_EXTRACTABLE, true)
                    .put(CKA_ENCRYPT, true)
                    .put(CKA_DECRYPT, true)));
    int length = key.getIntAttributeValue(CKA_VALUE_LEN);
    check(length == AES_BYTES, "the AES key has %d bytes", length);
    done("Generated an AES key; it has %d bytes", AES_BYTES);
    return key;
  }

  private byte[] encryptAndDecrypt(NativePKCS11Object key)
      throws PKCS11Exception, Demo.DemoException {
    byte[] encrypted = session.encrypt(CKM_AES_ECB, key, TEXT);
    check(encrypted.length == TEXT.length, "AES made %d bytes", encrypted.length);
    check(!Arrays.equals(TEXT, encrypted), "AES encryption leaves the text as it is");
    byte[] decrypted = session.decrypt(CKM_AES_ECB, key, encrypted);
    check(Arrays.equals(TEXT, decrypted), "AES decryption gives another text");
    done("Encrypted and decrypted %d bytes with AES; the text is the same", TEXT.length);
    return encrypted;
  }

  /** A key leaves the token only encrypted with another, and comes back as a new object. */
  private void wrapAndUnwrap(NativePKCS11Object key, byte[] encrypted)
      throws PKCS11Exception, Demo.DemoException {
    NativePKCS11Object wrappingKey =
        keep(
            session.generateKey(
                CKM_AES_KEY_GEN,
                tokenObject("Tour wrapping key", true)
                    .put(CKA_VALUE_LEN, AES_BYTES)
                    .put(CKA_WRAP, true)
                    .put(CKA_UNWRAP, true)));
    byte[] wrapped = session.wrapKey(CKM_AES_KEY_WRAP, wrappingKey, key);
    NativePKCS11Object unwrapped =
        keep(
            session.unwrapKey(
                CKM_AES_KEY_WRAP,
                wrappingKey,
                wrapped,
                tokenObject("Tour unwrapped key", true)
                    .put(CKA_CLASS, CKO_SECRET_KEY)
                    .put(CKA_KEY_TYPE, CKK_AES)
                    .put(CKA_DECRYPT, true)));
    byte[] decrypted = session.decrypt(CKM_AES_ECB, unwrapped, encrypted);
    check(Arrays.equals(TEXT, decrypted), "the unwrapped key is another key");
    done(
        "Wrapped the AES key into %d bytes and unwrapped it; the new key decrypts what the first"
            + " encrypted",
        wrapped.length);
  }

  private NativePKCS11Object storeData() throws PKCS11Exception, Demo.DemoException {
    NativePKCS11Object data =
        keep(
            session.createObject(
                tokenObject("Tour data", true)
                    .put(CKA_CLASS, CKO_DATA)
                    .put(CKA_APPLICATION, "Demo")
                    .put(CKA_VALUE, TEXT)));
    byte[] stored = data.getByteArrayAttributeValue(CKA_VALUE);
    check(Arrays.equals(TEXT, stored), "the data object holds other data");
    done("Created a data object; its value reads back the same");
    return data;
  }

  private void rename(NativePKCS11Object object) throws PKCS11Exception, Demo.DemoException {
    String label = "Tour data, renamed";
    object.setAttributeValue(CKA_LABEL, label);
    String stored = object.getStringAttributeValue(CKA_LABEL);
    check(label.equals(stored), "the new label reads back as \"%s\"", stored);
    done("Changed its label; it reads back as \"%s\"", stored);
  }

  private void copyCertificate()
      throws PKCS11Exception, GeneralSecurityException, Demo.DemoException {
    Optional<NativePKCS11Object> original =
        session.findFirst(
            new PKCS11Template()
                .put(CKA_CLASS, CKO_CERTIFICATE)
                .put(CKA_CERTIFICATE_TYPE, CKC_X_509));
    if (original.isEmpty()) {
      System.out.println("Created no certificate: there is none on the token to copy");
      return;
    }
    X509Certificate certificate =
        Demo.x509(original.get().getByteArrayAttributeValue(CKA_VALUE));
    byte[] subject = certificate.getSubjectX500Principal().getEncoded();
    NativePKCS11Object copy =
        keep(
            session.createObject(
                tokenObject("Tour certificate", false)
                    .put(CKA_CLASS, CKO_CERTIFICATE)
                    .put(CKA_CERTIFICATE_TYPE, CKC_X_509)
                    .put(CKA_SUBJECT, subject)
                    .put(CKA_ISSUER, certificate.getIssuerX500Principal().getEncoded())
                    .put(CKA_VALUE, certificate.getEncoded())));
    check(
        certificate.equals(Demo.x509(copy.getByteArrayAttributeValue(CKA_VALUE))),
        "the copy of the certificate is another certificate");
    check(
        session.findAll(new PKCS11Template().put(CKA_SUBJECT, subject)).stream()
            .anyMatch(found -> found.objectID() == copy.objectID()),
        "a search by subject does not find the copy of the certificate");
    done(
        "Created a copy of the certificate of %s; Java reads it and a search by subject finds it",
        certificate.getSubjectX500Principal());
  }

  /** Destroys what the tour has made, the last first, and has a search tell whether all is gone. */
  @Override
  public void close() throws PKCS11Exception, Demo.DemoException {
    List<String> refusals = new ArrayList<>();
    for (NativePKCS11Object object : made) {
      try {
        object.destroy();
      } catch (PKCS11Exception e) {
        refusals.add(e.getMessage());
      }
    }
    check(
        refusals.isEmpty(),
        "the token keeps objects labelled \"Tour ...\": %s",
        String.join(", ", refusals));
    Set<Integer> after = handles();
    check(
        after.equals(before),
        "a search finds %d objects after the tour, which are not the %d from before it",
        after.size(),
        before.size());
    done(
        "Destroyed all %d objects; a search finds the %d from before and no other",
        made.size(),
        after.size());
  }

  /** What all objects of the tour have in common. Private ones show only to who has logged in. */
  private static PKCS11Template tokenObject(String label, boolean isPrivate) {
    return new PKCS11Template()
        .put(CKA_TOKEN, true)
        .put(CKA_PRIVATE, isPrivate)
        .put(CKA_LABEL, label);
  }

  private NativePKCS11Object keep(NativePKCS11Object object) {
    made.push(object);
    return object;
  }

  private Set<Integer> handles() throws PKCS11Exception {
    return session.findAll(null).stream()
        .map(NativePKCS11Object::objectID)
        .collect(Collectors.toSet());
  }

  private static void check(boolean holds, String complaint, Object... arguments)
      throws Demo.DemoException {
    if (!holds) {
      throw new Demo.DemoException(complaint.formatted(arguments));
    }
  }

  private static void done(String what, Object... arguments) {
    System.out.println("Tour: " + what.formatted(arguments) + " (checked)");
  }
}
