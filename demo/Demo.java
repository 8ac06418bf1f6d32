// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.nio.charset.StandardCharsets;
import java.security.*;
import java.util.*;
import java.util.stream.*;

/**
 * Shows a token, signs with one of its RSA keys, and has Java's own cryptography verify the
 * signature. It writes nothing to the token, but with {@code --write} a {@link Tour} does, which is
 * meant for a token that nobody needs.
 *
 * @param options the words of the command line, each by the option before it
 * @param write whether to make the tour
 * @param direct whether to use the module without the adapter
 */
public record Demo(Map<String, String> options, boolean write, boolean direct) {
  private static final String USAGE = "usage: java -cp quarvel-pkcs11.jar:CLASSES Demo"
      + " --module FILE --pin PIN [--label TOKEN] [--key LABEL] [--write | --direct]";

  /** The DER that PKCS #1 puts before a SHA-256 digest, in hexadecimal digits. */
  private static final String SHA256_DIGEST_INFO = "3031300d060960864801650304020105000420";

  public static void main(String[] args) {
    List<String> words = new ArrayList<>(List.of(args));
    boolean write = words.remove("--write");
    boolean direct = words.remove("--direct");
    Map<String, String> options = new HashMap<>();
    for (int i = 0; i + 1 < words.size(); i += 2) {
      options.put(words.get(i), words.get(i + 1));
    }
    if (write && direct || words.size() % 2 != 0 || !options.keySet().containsAll(Set.of("--module", "--pin"))
        || !Set.of("--module", "--pin", "--label", "--key").containsAll(options.keySet())) {
      System.err.println(USAGE);
      System.exit(2);
    }
    try {
      System.out.println(new Demo(options, write, direct).run());
    } catch (PKCS11Exception | GeneralSecurityException | IllegalStateException | LinkageError e) {
      System.err.println(Stream.concat(Stream.of(e), Stream.of(e.getSuppressed()))
          .map(failure -> failure.getMessage().replace("\n", "; "))
          .collect(Collectors.joining("; then: ", "Demo: ",
              e instanceof IllegalStateException ? "" : "; see docs/troubleshooting.md")));
      System.exit(1);
    }
  }

  /** Does it all, and returns the last line of the output. */
  private String run() throws PKCS11Exception, GeneralSecurityException {
    String file = options.get("--module");
    try (PKCS11Module module = direct ? PKCS11Module.openDirect(file) : PKCS11Module.open(file)) {
      PKCS11Info info = module.info();
      System.out.printf("Module: %s, %s %s%n", info.manufacturerID().strip(),
          info.libraryDescription().strip(), PKCS11Info.versionText(info.libraryVersion()));
      NativePKCS11Slot slot = chooseSlot(module);
      // Read-only is enough to sign. Closing the last session logs out as well, so that a failure
      // after the login leaves nobody logged in.
      try (NativePKCS11Session session = slot.openSession(write)) {
        login(session);
        String verified = signAndVerify(session);
        if (write) {
          Tour.run(session);
        }
        session.logout();
        return verified;
      }
    }
  }

  /** Shows every token, and returns the slot of the one that --label names, else of the first. */
  private NativePKCS11Slot chooseSlot(PKCS11Module module) throws PKCS11Exception {
    List<NativePKCS11Slot> slots = module.tokens();
    for (NativePKCS11Slot slot : slots) {
      PKCS11TokenInfo token = slot.getTokenInfo();
      System.out.printf("Slot %s: token \"%s\", %s %s, serial number %s%n",
          Integer.toUnsignedString(slot.slotID()), token.trimmedLabel(),
          token.manufacturerID().strip(), token.model().strip(), token.serialNumber().strip());
    }
    if (slots.isEmpty()) {
      throw new IllegalStateException("no initialised token: insert or initialise one");
    }
    String label = options.get("--label");
    NativePKCS11Slot chosen = label == null ? slots.get(0) : module.token(label);
    System.out.println("Using slot " + Integer.toUnsignedString(chosen.slotID()));
    return chosen;
  }

  /** Logs in by bytes, which can be wiped as a String cannot. A real program asks the user. */
  private void login(NativePKCS11Session session) throws PKCS11Exception {
    byte[] pin = options.get("--pin").getBytes(StandardCharsets.UTF_8);
    try {
      session.loginellips(false, pin);
    } finally {
      Arrays.fill(pin, (byte) 0);
    }
  }

  private String signAndVerify(NativePKCS11Session session)
      throws PKCS11Exception, GeneralSecurityException {
    NativePKCS11Object key = findSigningKey(session);
    String label = key.getStringAttributeValue(CKA_LABEL);
    byte[] id = key.getByteArrayAttributeValue(CKA_ID);
    System.out.printf("Key \"%s\": id %s, RSA of %d bits%n", label,
        HexFormat.of().formatHex(id), key.getBigInteger(CKA_MODULUS).bitLength());
    byte[] data = "Signed by a token, verified by Java.".getBytes(StandardCharsets.UTF_8);
    byte[] signature = sign(session, key, data);

    Signature verifier = Signature.getInstance("SHA256withRSA");
    // The public key has the same id; most private RSA keys tell the public numbers as well.
    PKCS11Template half = new PKCS11Template().put(CKA_CLASS, CKO_PUBLIC_KEY).put(CKA_ID, id);
    verifier.initVerify((id.length == 0 ? key : session.findFirst(half).orElse(key)).publicKey());
    verifier.update(data);
    if (!verifier.verify(signature)) {
      throw new IllegalStateException("the public key with the same CKA_ID is another key's");
    }
    return "Verified: Java accepts the %d-byte SHA256withRSA signature made by key \"%s\""
        .formatted(signature.length, label);
  }

  private NativePKCS11Object findSigningKey(NativePKCS11Session session) throws PKCS11Exception {
    String label = options.get("--key");
    PKCS11Template key =
        new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY).put(CKA_KEY_TYPE, CKK_RSA);
    return session.findFirst(label == null ? key.put(CKA_SIGN, true) : key.put(CKA_LABEL, label))
        .orElseThrow(() -> new IllegalStateException("no private RSA key "
            + (label == null ? "that signs" : "labelled " + label) + ": name one by --key"));
  }

  /** Signs data, which the token digests if it can, else Java. */
  private static byte[] sign(NativePKCS11Session session, NativePKCS11Object key, byte[] data)
      throws PKCS11Exception, GeneralSecurityException {
    int[] mechanisms = session.slot().getMechanismList();
    if (Arrays.stream(mechanisms).anyMatch(mechanism -> mechanism == CKM_SHA256_RSA_PKCS)) {
      return session.sign(CKM_SHA256_RSA_PKCS, key, data);
    }
    String digest = HexFormat.of().formatHex(MessageDigest.getInstance("SHA-256").digest(data));
    return session.sign(CKM_RSA_PKCS, key, HexFormat.of().parseHex(SHA256_DIGEST_INFO + digest));
  }
}
