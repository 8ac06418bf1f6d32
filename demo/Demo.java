import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Info;
import it.quarvel.pkcs11.PKCS11SlotInfo;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.MessageDigest;
import java.security.PublicKey;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.spec.RSAPublicKeySpec;
import java.util.Arrays;
import java.util.HashMap;
import java.util.HexFormat;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.stream.Collectors;

/**
 * Shows a token, signs with one of its RSA keys, and has Java's own cryptography verify it. Writes
 * nothing to the token; with {@code --write} a {@link Tour} does, which is meant for a token that
 * nobody needs.
 */
public class Demo {
  private static final String USAGE =
      "usage: java -cp quarvel-pkcs11.jar:CLASSES Demo"
          + " --module FILE --pin PIN [--label TOKEN] [--key LABEL] [--write]";

  /** The DER that PKCS #1 puts before a SHA-256 digest. */
  private static final byte[] SHA256_DIGEST_INFO =
      HexFormat.of().parseHex("3031300d060960864801650304020105000420");

  /** A failure that needs no return value to explain it. */
  static class DemoException extends Exception {
    private static final long serialVersionUID = 1L;

    DemoException(String message) {
      super(message);
    }
  }

  private final Map<String, String> options;

  private Demo(Map<String, String> options) {
    this.options = options;
  }

  public static void main(String[] args) {
    Map<String, String> options = parse(args);
    if (!options.keySet().containsAll(Set.of("--module", "--pin"))) {
      System.err.println(USAGE);
      System.exit(2);
    }
    try {
      System.out.println(new Demo(options).run());
    } catch (PKCS11Exception | GeneralSecurityException | DemoException | LinkageError e) {
      System.err.println("Demo: " + e.getMessage().replace("\n", "; ") + advice(e) + more(e));
      System.exit(1);
    }
  }

  /** Returns the options by name, none at all when there is anything wrong with them. */
  private static Map<String, String> parse(String[] args) {
    Set<String> withValue = Set.of("--module", "--pin", "--label", "--key");
    Map<String, String> options = new HashMap<>();
    for (int i = 0; i < args.length; i++) {
      String name = args[i];
      if (name.equals("--write")) {
        options.put(name, "");
      } else if (withValue.contains(name) && i + 1 < args.length) {
        options.put(name, args[++i]);
      } else {
        return Map.of();
      }
    }
    return options;
  }

  private static String advice(Throwable failure) {
    if (!(failure instanceof PKCS11Exception e)) {
      return "";
    }
    return switch (e.errorCode()) {
      case CKR_PIN_INCORRECT -> ": check --pin; most tokens lock after a few wrong ones";
      case CKR_PIN_LOCKED -> ": have the security officer set a new PIN";
      case CKR_MECHANISM_INVALID, CKR_KEY_FUNCTION_NOT_PERMITTED ->
          ": name a key that may sign with RSA by --key, or leave --write out";
      case CKR_TOKEN_WRITE_PROTECTED -> ": leave --write out";
      case CKR_TOKEN_NOT_PRESENT, CKR_DEVICE_REMOVED -> ": insert the token and start again";
      case CKR_SESSION_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID ->
          ": if the module has handles of 64 bits, put p11-kit-proxy in front of it";
      case 0 ->
          e.getMessage().startsWith("Internal error")
              ? ": check that --module names a PKCS#11 module and that it finds its configuration"
              : "";
      default -> ": check the token with the tools of its module";
    };
  }

  /** What went wrong on the way out, after the failure itself. */
  private static String more(Throwable failure) {
    return Arrays.stream(failure.getSuppressed())
        .map(suppressed -> "; then: " + suppressed.getMessage())
        .collect(Collectors.joining());
  }

  /** Does it all, and returns what the last line is to say. */
  private String run() throws PKCS11Exception, GeneralSecurityException, DemoException {
    NativePKCS11.loadPKCS11Library(options.get("--module"));
    NativePKCS11 module = new NativePKCS11();
    try {
      module.libInitialize();
      show(module.getInfo());
      NativePKCS11Slot slot = chooseSlot(module);
      showMechanisms(slot);
      boolean write = options.containsKey("--write");
      // Read-only is enough to sign. Closing the last session logs out as well, so that a failure
      // after the login leaves nobody logged in.
      int flags = write ? CKF_SERIAL_SESSION | CKF_RW_SESSION : CKF_SERIAL_SESSION;
      try (NativePKCS11Session session = slot.openSession(flags)) {
        login(session);
        String verified = signAndVerify(session);
        if (write) {
          Tour.run(session);
        }
        session.logout();
        return verified;
      }
    } finally {
      module.libFinalize();
    }
  }

  private static void show(PKCS11Info info) {
    System.out.printf(
        "Module: %s, %s %s, PKCS#11 %s%n",
        info.manufacturerID().strip(),
        info.libraryDescription().strip(),
        PKCS11Info.versionText(info.libraryVersion()),
        PKCS11Info.versionText(info.cryptokiVersion()));
  }

  /** Shows every slot, and returns the first one with the token that was asked for. */
  private NativePKCS11Slot chooseSlot(NativePKCS11 module) throws PKCS11Exception, DemoException {
    String label = options.get("--label");
    NativePKCS11Slot chosen = null;
    for (NativePKCS11Slot slot : module.slots(false)) {
      PKCS11SlotInfo info = slot.getInfo();
      System.out.printf("Slot %d: %s%n", slot.slotID(), info.slotDescription().strip());
      if (!info.hasFlag(CKF_TOKEN_PRESENT)) {
        continue;
      }
      PKCS11TokenInfo token = slot.getTokenInfo();
      show(token);
      boolean matches = label == null || label.equals(token.trimmedLabel());
      if (chosen == null && matches && token.hasFlag(CKF_TOKEN_INITIALIZED)) {
        chosen = slot;
      }
    }
    if (chosen == null) {
      throw new DemoException(
          "no initialised token" + (label == null ? "" : " labelled " + label)
              + ": insert or initialise one, or name another by --label");
    }
    System.out.println("Using slot " + chosen.slotID());
    return chosen;
  }

  private static void show(PKCS11TokenInfo token) {
    System.out.printf(
        "  Token \"%s\": %s %s, serial number %s, PIN of %d to %d bytes%s%n",
        token.trimmedLabel(),
        token.manufacturerID().strip(),
        token.model().strip(),
        token.serialNumber().strip(),
        token.minPinLen(),
        token.maxPinLen(),
        token.hasFlag(CKF_TOKEN_INITIALIZED) ? "" : ", not initialised");
  }

  private static void showMechanisms(NativePKCS11Slot slot) throws PKCS11Exception {
    System.out.println(
        Arrays.stream(slot.getMechanismList())
            .mapToObj(PKCS11Constants::mechanismName)
            .collect(Collectors.joining(" ", "Mechanisms: ", "")));
  }

  /** Bytes can be wiped, which a String cannot: a real program reads them from the user. */
  private void login(NativePKCS11Session session) throws PKCS11Exception {
    byte[] pin = options.get("--pin").getBytes(StandardCharsets.UTF_8);
    try {
      session.loginellips(false, pin);
    } finally {
      Arrays.fill(pin, (byte) 0);
    }
  }

  private String signAndVerify(NativePKCS11Session session)
      throws PKCS11Exception, GeneralSecurityException, DemoException {
    NativePKCS11Object key = findSigningKey(session);
    show(key);
    byte[] data = "Signed by a token, verified by Java.".getBytes(StandardCharsets.UTF_8);
    byte[] signature = sign(session, key, data);

    Signature verifier = Signature.getInstance("SHA256withRSA");
    verifier.initVerify(findPublicKey(session, key));
    verifier.update(data);
    if (!verifier.verify(signature)) {
      throw new DemoException("the signature does not verify: the public key with the same CKA_ID"
          + " belongs to another private key");
    }
    return "Verified: Java accepts the %d-byte SHA256withRSA signature made by key \"%s\""
        .formatted(signature.length, key.getStringAttributeValue(CKA_LABEL));
  }

  private NativePKCS11Object findSigningKey(NativePKCS11Session session)
      throws PKCS11Exception, DemoException {
    PKCS11Template template =
        new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY).put(CKA_KEY_TYPE, CKK_RSA);
    String label = options.get("--key");
    if (label == null) {
      template.put(CKA_SIGN, true);
    } else {
      template.put(CKA_LABEL, label);
    }
    return session
        .findFirst(template)
        .orElseThrow(
            () -> new DemoException(
                (label == null ? "no RSA key that signs" : "no private RSA key labelled " + label)
                    + " on the token: make one, or name another by --key"));
  }

  private static void show(NativePKCS11Object key) throws PKCS11Exception {
    System.out.printf(
        "Key \"%s\": id %s, %s, %s of %d bits, sensitive %b, extractable %b%n",
        key.getStringAttributeValue(CKA_LABEL),
        HexFormat.of().formatHex(key.getByteArrayAttributeValue(CKA_ID)),
        PKCS11Constants.objectClassName(key.getIntAttributeValue(CKA_CLASS)),
        PKCS11Constants.keyTypeName(key.getIntAttributeValue(CKA_KEY_TYPE)),
        key.getBigInteger(CKA_MODULUS).bitLength(),
        key.getBoolAttributeValue(CKA_SENSITIVE),
        key.getBoolAttributeValue(CKA_EXTRACTABLE));
  }

  /** Lets the token digest the data where it can, and digests it here where it cannot. */
  private static byte[] sign(NativePKCS11Session session, NativePKCS11Object key, byte[] data)
      throws PKCS11Exception, GeneralSecurityException {
    int[] mechanisms = session.slot().getMechanismList();
    if (Arrays.stream(mechanisms).anyMatch(m -> m == CKM_SHA256_RSA_PKCS)) {
      return session.sign(CKM_SHA256_RSA_PKCS, key, data);
    }
    ByteArrayOutputStream digestInfo = new ByteArrayOutputStream();
    digestInfo.writeBytes(SHA256_DIGEST_INFO);
    digestInfo.writeBytes(MessageDigest.getInstance("SHA-256").digest(data));
    return session.sign(CKM_RSA_PKCS, key, digestInfo.toByteArray());
  }

  /** Finds the public half: a public key or certificate with the same CKA_ID, or the key's own. */
  private static PublicKey findPublicKey(NativePKCS11Session session, NativePKCS11Object key)
      throws PKCS11Exception, GeneralSecurityException {
    byte[] id = key.getByteArrayAttributeValue(CKA_ID);
    if (id.length > 0) {
      Optional<NativePKCS11Object> publicKey = findById(session, CKO_PUBLIC_KEY, id);
      if (publicKey.isPresent()) {
        return rsaKey(publicKey.get());
      }
      Optional<NativePKCS11Object> certificate = findById(session, CKO_CERTIFICATE, id);
      if (certificate.isPresent()) {
        byte[] der = certificate.get().getByteArrayAttributeValue(CKA_VALUE);
        return x509(der).getPublicKey();
      }
    }
    return rsaKey(key);
  }

  private static Optional<NativePKCS11Object> findById(
      NativePKCS11Session session, int objectClass, byte[] id) throws PKCS11Exception {
    return session.findFirst(new PKCS11Template().put(CKA_CLASS, objectClass).put(CKA_ID, id));
  }

  /** Reads a certificate in DER. */
  static X509Certificate x509(byte[] der) throws GeneralSecurityException {
    return (X509Certificate)
        CertificateFactory.getInstance("X.509")
            .generateCertificate(new ByteArrayInputStream(der));
  }

  /** Makes Java's own key of the numbers of an RSA key on the token. */
  static PublicKey rsaKey(NativePKCS11Object key)
      throws PKCS11Exception, GeneralSecurityException {
    RSAPublicKeySpec numbers =
        new RSAPublicKeySpec(
            key.getBigInteger(CKA_MODULUS), key.getBigInteger(CKA_PUBLIC_EXPONENT));
    return KeyFactory.getInstance("RSA").generatePublic(numbers);
  }
}
