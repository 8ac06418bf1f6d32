// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.*;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.io.*;
import java.math.BigInteger;
import java.net.*;
import java.nio.file.*;
import java.security.*;
import java.security.cert.*;
import java.security.cert.Certificate;
import java.security.spec.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.concurrent.atomic.AtomicInteger;
import javax.crypto.*;
import javax.crypto.spec.*;
import javax.net.ssl.*;
import javax.security.auth.callback.*;
import javax.security.auth.login.FailedLoginException;
import javax.xml.crypto.dsig.*;
import javax.xml.crypto.dsig.dom.*;
import javax.xml.crypto.dsig.spec.*;
import javax.xml.parsers.DocumentBuilderFactory;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.*;
import org.w3c.dom.Document;

/**
 * Has the JDK judge the provider, with the keys of provider/keys.sh, which both {@link
 * TestToken} and software hold.
 */
class ProviderTest {
  static final Path DIR = TestToken.DIR;
  static final String URI = "pkcs11:token=%s?module-path=%s"
      .formatted(System.getenv("QUARVEL_TOKEN"), TestToken.SHIM);
  static final char[] PIN = TestToken.PIN.toCharArray();
  static final char[] PASSWORD = "changeit".toCharArray();
  static final byte[] DATA = TestToken.DATA;
  // Wrong padding would not do: a token may answer with other bytes rather than tell of it.
  static final byte[] BEYOND_MODULUS = HexFormat.of().parseHex("ff".repeat(256));

  static final Map<String, PrivateKey> software = new HashMap<>();
  static final Map<String, X509Certificate> certificates = new HashMap<>();
  static Provider copy;

  @RegisterExtension static final TestToken token = new TestToken();

  final QuarvelProvider provider = token.configured(URI);
  KeyStore store;

  // ---- The token ----

  @BeforeAll
  static void fillToken() throws Exception {
    URL jar = QuarvelProvider.class.getProtectionDomain().getCodeSource().getLocation();
    copy = (Provider) new URLClassLoader(new URL[] {jar}, null)
        .loadClass(QuarvelProvider.class.getName()).getConstructor().newInstance();
    TestToken.output(System.getenv("QUARVEL_KEYS"));
    for (String name : List.of("ca", "rsa2048", "rsa1025", "rsa512", "pss", "prime256v1",
        "secp521r1", "ed25519")) {
      KeyStore file = KeyStore.getInstance(DIR.resolve(name + ".p12").toFile(), PASSWORD);
      software.put(name, (PrivateKey) file.getKey("1", PASSWORD));
      certificates.put(name, (X509Certificate) file.getCertificate("1"));
    }
    try (PKCS11Module module = PKCS11Module.open(TestToken.MODULE);
        NativePKCS11Session session = module.tokens().get(0).openSession(true)) {
      session.login(true, TestToken.SO_PIN);
      session.createObject(PKCS11Template.of(certificates.get("ca")).put(CKA_TOKEN, true)
          .put(CKA_PRIVATE, false).put(CKA_LABEL, "CA").put(CKA_TRUSTED, true));
      session.logout();
      session.login(PIN);
      for (String label : List.of("rsa512 pay\0B", "pss \uFFFD")) {
        String[] words = label.split(" ");
        session.findFirst(new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY)
            .put(CKA_LABEL, words[0] + "-key")).orElseThrow()
            .setAttributeValue(CKA_LABEL, words[1].getBytes(UTF_8));
      }
    }
  }

  static PublicKey publicKey(String name) {
    return certificates.get(name).getPublicKey();
  }

  static KeyStore load(Provider provider, char[] pin) throws Exception {
    KeyStore keys = KeyStore.getInstance("PKCS11", provider);
    keys.load(InputStream.nullInputStream(), pin);
    return keys;
  }

  @BeforeEach
  void load() throws Exception {
    Security.insertProviderAt(provider, 1);
    // It comes from another copy of the jar: each web application of a server has its own.
    Security.insertProviderAt(copy, 2);
    store = load(provider, PIN);
  }

  @AfterEach
  void unload() {
    Security.removeProvider(provider.getName());
    Security.removeProvider(copy.getName());
  }

  PrivateKey key(String name) throws Exception {
    return (PrivateKey) store.getKey(name, null);
  }

  // ---- Signatures ----

  static PSSParameterSpec pss(String digest, String mask, int salt) {
    return new PSSParameterSpec(digest, "MGF1", new MGF1ParameterSpec(mask), salt, 1);
  }

  /** Returns all that the provider or the JDK has with a hash, and some more. */
  static List<Arguments> signatures() throws Exception {
    List<Arguments> all = new ArrayList<>(List.of(
        Arguments.of("ed25519", "Ed25519", "Ed25519", null),
        Arguments.of("ed25519", "EdDSA", "Ed25519", null),
        Arguments.of("pss", "RSASSA-PSS", "RSASSA-PSS", pss("SHA-256", "SHA-256", 32)),
        Arguments.of("rsa2048", "RSASSA-PSS", "RSASSA-PSS", pss("SHA-256", "SHA-1", 222)),
        Arguments.of("rsa1025", "RSASSA-PSS", "RSASSA-PSS", pss("SHA-256", "SHA-1", 94)),
        Arguments.of("rsa1025", "RSASSA-PSS", "RSASSA-PSS", pss("SHA-512/256", "SHA-384", 0))));
    Set<String> names = new TreeSet<>();
    for (Provider each : List.of(copy, Security.getProvider("SunRsaSign"), Security.getProvider("SunEC"))) {
      each.getServices().stream().map(Provider.Service::getAlgorithm)
          .filter(name -> name.matches("(SHA|NONE).*with.*")).forEach(names::add);
    }
    for (String ours : names) {
      String hash = ours.split("with")[0];
      if (ours.endsWith("withRSA")) {
        all.add(Arguments.of("rsa1025", ours, ours, null));
      } else if (ours.contains("withECDSA")) {
        all.add(Arguments.of("prime256v1", ours, ours, null));
        all.add(Arguments.of("secp521r1", ours, ours, null));
      } else {
        String digest = hash.replaceFirst("SHA(?!3-)", "SHA-");
        int salt = MessageDigest.getInstance(digest).getDigestLength();
        all.add(Arguments.of("rsa2048", ours, "RSASSA-PSS", pss(digest, digest, salt)));
      }
    }
    return all;
  }

  /** The provider stands first and last; parameters come before the key and after it. */
  @ParameterizedTest
  @MethodSource("signatures")
  void signsAndVerifiesAsTheJdkDoes(
      String name, String ours, String jdks, AlgorithmParameterSpec parameters) throws Exception {
    PublicKey publicKey = publicKey(name);
    AlgorithmParameterSpec own = ours.equals(jdks) ? parameters : null;
    for (boolean isFirst : new boolean[] {true, false}) {
      Security.removeProvider(provider.getName());
      Security.insertProviderAt(provider, isFirst ? 1 : 99);
      for (PrivateKey key : List.of(key(name), software.get(name))) {
        Signature signer = Signature.getInstance(ours);
        if (own != null && isFirst) {
          signer.setParameter(own);
        }
        signer.initSign(key);
        if (own != null && !isFirst) {
          signer.setParameter(own);
        }
        for (byte[] signature : List.of(signed(signer), signed(signer))) {
          TestToken.assertVerifies(Signature.getInstance(jdks), publicKey, parameters, signature);
          TestToken.assertVerifies(Signature.getInstance(ours, provider), publicKey, own, signature);
        }
      }
    }
  }

  @Test
  void hasTheObjectIdentifiersOfTheJdk() {
    assertEquals(identifiers(Security.getProvider("SunRsaSign"), Security.getProvider("SunEC")),
        identifiers(provider));
  }

  /**
   * Returns the object identifiers of our signatures, each with a name. For one the JDK knows another
   * too, which is out of use.
   */
  Map<Object, Object> identifiers(Provider... providers) {
    Map<Object, Object> names = new TreeMap<>();
    for (Provider each : providers) {
      names.putAll(each);
    }
    names.keySet().removeIf(
        key -> !((String) key).matches("Alg.Alias.Signature.(OID.)?[12].(?!3.14)[0-9.]+"));
    names.values().removeIf(name -> provider.getService("Signature", (String) name) == null);
    return names;
  }

  static byte[] signed(Signature signer) throws Exception {
    signer.update(DATA[0]);
    signer.update(DATA, 1, DATA.length - 1);
    return signer.sign();
  }

  /** The JDK refuses such a key of its own at the same time. */
  @ParameterizedTest
  @CsvSource({"ed25519,SHA256withRSA", "pss,SHA256withRSA", "pss,NONEwithRSA", "rsa512,SHA512withRSA",
      "pss,RSASSA-PSS SHA-1 SHA-256 32", "pss,RSASSA-PSS SHA-256 SHA-1 32",
      "pss,RSASSA-PSS SHA-256 SHA-256 19", "rsa512,RSASSA-PSS SHA-256 SHA-256 31"})
  void refusesKeysAtOnce(String name, String wanted) throws Exception {
    String[] words = wanted.split(" ");
    // The JDK's own raw signature does not look at what the key is for.
    PrivateKey other = wanted.equals("NONEwithRSA") ? key(name) : software.get(name);
    for (PrivateKey key : List.of(other, key(name))) {
      Signature signer = Signature.getInstance(words[0]);
      if (words.length > 1) {
        signer.setParameter(pss(words[1], words[2], Integer.parseInt(words[3])));
      }
      assertThrows(InvalidKeyException.class, () -> signer.initSign(key));
    }
  }

  // ---- Decryption ----

  @ParameterizedTest
  @ValueSource(strings = {"RSA", "RSA/ECB/OAEPPadding", "RSA/ECB/OAEPWithSHA1AndMGF1Padding"})
  void decryptsAndUnwrapsWhatTheJdkEncrypts(String transformation) throws Exception {
    PublicKey publicKey = publicKey("rsa2048");
    SecretKeySpec secret = new SecretKeySpec(new byte[16], "AES");
    for (PrivateKey key : List.of(key("rsa2048"), software.get("rsa2048"))) {
      Cipher cipher = Cipher.getInstance(transformation, provider);
      cipher.init(Cipher.WRAP_MODE, publicKey);
      byte[] wrapped = cipher.wrap(secret);
      cipher.init(Cipher.ENCRYPT_MODE, publicKey);
      byte[] encrypted = cipher.doFinal(DATA);
      Cipher own = Cipher.getInstance(transformation);
      own.init(Cipher.DECRYPT_MODE, key, cipher.getParameters());
      assertEquals(0, own.update(encrypted, 0, 99).length);
      assertArrayEquals(DATA, own.doFinal(encrypted, 99, encrypted.length - 99));
      byte[] room = new byte[own.getOutputSize(encrypted.length)];
      assertEquals(DATA.length, own.doFinal(encrypted, 0, encrypted.length, room, 0));
      assertThrows(BadPaddingException.class, () -> own.doFinal(BEYOND_MODULUS));
      own.init(Cipher.UNWRAP_MODE, key);
      assertEquals(secret, own.unwrap(wrapped, "AES", Cipher.SECRET_KEY));
      assertThrows(InvalidKeyException.class,
          () -> own.unwrap(BEYOND_MODULUS, "AES", Cipher.SECRET_KEY));
    }
    Cipher cipher = Cipher.getInstance("RSA/ECB/NoPadding");
    cipher.init(Cipher.DECRYPT_MODE, key("rsa2048"));
    byte[] raw = cipher.doFinal(DATA);
    cipher.init(Cipher.ENCRYPT_MODE, publicKey);
    assertEquals(new BigInteger(1, DATA), new BigInteger(1, cipher.doFinal(raw)));
  }

  /** What the module answers makes no difference. */
  @ParameterizedTest
  @ValueSource(strings = {"C_Decrypt=0x5", "C_Decrypt=0x30", "C_Decrypt=0x60", "C_Decrypt=0x101", ""})
  void decryptsOnceWhatFails(String answer) throws Throwable {
    Cipher cipher = Cipher.getInstance("RSA");
    cipher.init(Cipher.DECRYPT_MODE, key("rsa2048"));
    assertEquals(1, TestToken.calls("C_Decrypt", answer, () -> assertEquals(
        "javax.crypto.BadPaddingException: the token cannot decrypt this", assertThrows(
            Exception.class, () -> cipher.doFinal(BEYOND_MODULUS)).toString())));
  }

  // ---- The key store ----

  @Test
  void pairsKeysAndCertificates() throws Exception {
    List<String> paired =
        List.of("rsa2048", "rsa1025", "rsa512", "pss", "prime256v1", "secp521r1", "ed25519");
    Set<String> aliases = new HashSet<>(paired);
    aliases.addAll(List.of("bare-key 05", "bare-key aa", "CA"));
    assertEquals(aliases, Set.copyOf(Collections.list(store.aliases())));
    for (String name : paired) {
      assertArrayEquals(new Object[] {certificates.get(name), certificates.get("ca")},
          store.getCertificateChain(name), name);
      assertEquals(name, store.getCertificateAlias(certificates.get(name)));
      KeyStore.PrivateKeyEntry entry = (KeyStore.PrivateKeyEntry) store.getEntry(name, null);
      assertSame(key(name), entry.getPrivateKey());
    }
    assertTrue(store.isCertificateEntry("CA") && store.isKeyEntry("bare-key 05"));
    assertNull(store.getCertificateChain("bare-key 05"));
    assertNull(store.getKey("none", null));
    assertEquals(key("rsa2048"), load(provider, PIN).getKey("rsa2048", null));
    assertEquals(1, TestToken.logged.stream().filter(text -> text.contains("ed448-key")).count());
    assertTrue(key("rsa512").toString().contains("\"pay\\u0000B\""), key("rsa512")::toString);
    assertNotEquals(key("rsa2048"), key("bare-key 05"));
    assertNull(key("bare-key 05").getEncoded());
    assertThrows(NotSerializableException.class,
        () -> new ObjectOutputStream(OutputStream.nullOutputStream()).writeObject(key("rsa2048")));
    ByteArrayOutputStream stored = new ByteArrayOutputStream();
    store.store(stored, PIN);
    assertEquals(0, stored.size());
    for (Executable write : List.<Executable>of(() -> store.deleteEntry("rsa2048"),
        () -> store.setCertificateEntry("x", certificates.get("ca")),
        () -> store.setKeyEntry("x", key("rsa2048"), null, store.getCertificateChain("rsa2048")))) {
      TestToken.assertTells("read-only", KeyStoreException.class, write);
    }
  }

  /** A row names the certificate of a key, those beside it, and the chain that comes of them. */
  @Test
  void choosesTheNewestValidIssuer() throws Exception {
    TestToken.output(System.getenv("QUARVEL_KEYS").replace("keys.sh", "issuers.sh"));
    NativePKCS11Session session = new NativePKCS11().slots(true).get(0).openSession(true);
    for (String row : List.of("ofFirst, old new, ofFirst new", "ofFirst, new old, ofFirst new",
        "ofFirst, expired old, ofFirst old", "ofFirst, expired, ofFirst expired",
        "ofFirst, new same, ofFirst (new|same)", "ofFirst, rolled old, ofFirst old",
        "ofFirst, rolled, ofFirst", "ofSecond, rolled old new, ofSecond rolled new")) {
      String[] columns = row.split(", ");
      List<NativePKCS11Object> stored = new ArrayList<>();
      Map<Certificate, String> names = new HashMap<>();
      for (String name : (columns[0] + " " + columns[1]).split(" ")) {
        X509Certificate certificate = (X509Certificate) CertificateFactory.getInstance("X.509")
            .generateCertificate(Files.newInputStream(DIR.resolve(name + ".der")));
        names.put(certificate, name);
        stored.add(session.createObject(PKCS11Template.of(certificate).put(CKA_TOKEN, true)
            .put(CKA_ID, new byte[] {5}).put(CKA_LABEL, "issued")));
      }
      StringJoiner chain = new StringJoiner(" ");
      for (Certificate each : load(provider, PIN).getCertificateChain("issued")) {
        chain.add(names.get(each));
      }
      assertTrue(chain.toString().matches(columns[2]), row + ": " + chain);
      for (NativePKCS11Object object : stored) {
        object.destroy();
      }
    }
    session.close();
  }

  @ParameterizedTest
  @CsvSource({";object=rsa2048-key,rsa2048 CA", ";object=rsa2048,rsa2048 CA",
      ";id=%02,prime256v1 CA", ";id=%02;object=none,CA", ";object=%EF%BF%BD,pss CA",
      ";object=%FF,CA", ";object=pay,CA", ";object=pay%00B,rsa512 CA", ";object=rsa2048;type=private,CA",
      ";object=rsa2048;type=cert,rsa2048 CA", ";object=rsa2048-key;type=cert,CA"})
  void offersTheKeysThatTheUriNames(String limits, String aliases) throws Exception {
    KeyStore keys = load(token.configured(URI.replace("?", limits + "?")), PIN);
    assertEquals(aliases, String.join(" ", Collections.list(keys.aliases())));
  }

  // ---- Logins ----

  static CallbackHandler answering(List<String> pins, int[] asked) {
    return callbacks -> {
      String pin = pins.get(Math.min(asked[0]++, pins.size() - 1));
      ((PasswordCallback) callbacks[0]).setPassword(pin.toCharArray());
    };
  }

  @Test
  void triesAWrongPinOnce() throws Exception {
    provider.logout();
    int[] asked = {0};
    KeyStore.Builder builder = KeyStore.Builder.newInstance("PKCS11", provider,
        new KeyStore.CallbackHandlerProtection(answering(List.of("98765"), asked)));
    Throwable refused = assertThrows(KeyStoreException.class, builder::getKeyStore);
    assertEquals(1, asked[0]);
    while (!(refused instanceof PKCS11Exception)) {
      refused = refused.getCause();
    }
    assertEquals("CKR_PIN_INCORRECT (0xA0)", refused.getMessage());
    assertEquals(UnrecoverableKeyException.class, assertThrows(
        IOException.class, () -> store.load(null, "98765".toCharArray())).getCause().getClass());
    assertThrows(FailedLoginException.class,
        () -> provider.login(null, answering(List.of("98765"), asked)));
    assertThrows(IOException.class,
        () -> load(token.configured(URI + "&pin-source=file:/dev/zero"), null));
    // Nothing was left open.
    PKCS11Module.open(TestToken.MODULE).close();
  }

  static String pinSource(byte[] content) throws Exception {
    return "&pin-source=file:" + Files.write(DIR.resolve("pin"), content);
  }

  static void assertLogins(int tries, String kind, String changes, Executable use)
      throws Throwable {
    assertEquals(tries, TestToken.calls("C_Login:" + kind, changes, use));
  }

  /** They load by a provider each, use a key that logs in once, or one that logs in each time. */
  @ParameterizedTest
  @CsvSource({"file,1,", "file,1, C_Login:1=0x6", "password,1,", "rsa2048,1,", "bare-key aa,2,"})
  void eightThreadsTryAWrongPinOnce(String name, String kind, String changes) throws Throwable {
    String uri = URI + pinSource(TestToken.PIN.getBytes(UTF_8));
    QuarvelProvider withFile = token.configured(uri);
    PrivateKey key = (PrivateKey) load(withFile, null).getKey(name, null);
    pinSource("98765".getBytes(UTF_8));
    if (kind.equals("1")) {
      provider.logout();
      withFile.logout();
    }
    Callable<Exception> use = key == null ? () -> assertThrows(IOException.class, () ->
        load(token.configured(name.equals("file") ? uri : URI), "98765".toCharArray()))
        : () -> assertThrows(SignatureException.class, () -> {
          Signature signer = Signature.getInstance("SHA256withRSA");
          signer.initSign(key);
          signed(signer);
        });
    // All have begun before the module answers: a load after that is a try of its own.
    assertLogins(1, kind, "pause=1 " + changes, () -> TestToken.inEightThreads(Collections.nCopies(8, use)));
  }

  /** Then the password of load, which may be a program's default, is not the PIN. */
  @ParameterizedTest
  @CsvSource({"'1234\n# comment',1,", "'1234\r\n',1,", "\u00EF\u00BB\u00BF1234,1,",
      "'\n1234',0,is empty", "1234\u00FF,0,no UTF-8", "'12345\r',1,CKR_PIN_INCORRECT"})
  void takesThePinFromTheFirstLineOfAFile(String content, int tries, String why) throws Throwable {
    provider.logout();
    String uri = URI + pinSource(content.getBytes(ISO_8859_1));
    assertLogins(tries, "1", "", why != null ? () -> assertNotLoaded(uri, why)
        : () -> load(token.configured(uri), PASSWORD));
  }

  /** It changes before the next session, or between the session and its login. */
  @ParameterizedTest
  @ValueSource(strings = {"label=x", "serialNumber=x", "manufacturerID=x", "model=x",
      "slots=second", "slots=both"})
  void givesAnotherTokenNoPin(String change) throws Throwable {
    String slot = Integer.toUnsignedString(new NativePKCS11().slots(true).get(0).slotID());
    QuarvelProvider own = token.configured(
        change.equals("slots=second") ? URI.replace(":", ":slot-id=" + slot + ";") : URI);
    own.setCallbackHandler(answering(List.of(TestToken.PIN), new int[1]));
    Signature signer = Signature.getInstance("SHA256withRSA");
    signer.initSign((PrivateKey) load(own, null).getKey("rsa2048", null));
    provider.logout();
    for (String when : List.of("", " after=C_OpenSession")) {
      own.logout();
      assertLogins(0, "1", change + when,
          () -> assertThrows(SignatureException.class, () -> signed(signer)));
    }
  }

  @Test
  void keysLogInAgain() throws Throwable {
    int[] asked = {0};
    provider.setCallbackHandler(answering(List.of(TestToken.PIN), asked));
    Signature signer = Signature.getInstance("Ed25519");
    signer.initSign(key("ed25519"));
    byte[] before = signed(signer);
    for (int i = 1; i <= 2; i++) {
      provider.logout();
      assertArrayEquals(before, signed(signer));
      assertEquals(i, asked[0]);
    }
    provider.setCallbackHandler(null);
    provider.logout();
    assertNotSigned(signer, "wants a PIN");
    provider.setCallbackHandler(answering(List.of(""), asked));
    assertNotSigned(signer, "wants a PIN");
    provider.setCallbackHandler(callbacks -> { throw new IllegalStateException("no window"); });
    assertNotSigned(signer, "no window");
    provider.setCallbackHandler(null);
    provider.login(null, answering(List.of(TestToken.PIN), asked));
    assertThrows(SignatureException.class, signer::sign);
    provider.logout();
    Path pin = DIR.resolve("pin");
    Files.writeString(pin, TestToken.PIN + "\n");
    QuarvelProvider withFile = token.configured(URI + "&pin-source=file:" + pin);
    KeyStore own = load(withFile, null);
    signer.initSign((PrivateKey) own.getKey("ed25519", null));
    withFile.logout();
    Files.writeString(pin, "98765");
    assertNotSigned(signer, "CKR_PIN_INCORRECT");
    assertLogins(0, "1", "", () -> {
      Path away = Files.move(pin, DIR.resolve("away"));
      assertNotSigned(signer, "NoSuchFile");
      Files.move(away, pin);
      assertNotSigned(signer, "was refused");
      assertThrows(IOException.class, () -> own.load(null, null));
    });
    Files.writeString(pin, TestToken.PIN);
    assertLogins(1, "1", "C_Login:1=0x30", () -> {
      assertNotSigned(signer, "CKR_DEVICE_ERROR");
      assertNotSigned(signer, "has failed: CKR_DEVICE_ERROR");
    });
    own.load(null, null);
    assertArrayEquals(before, signed(signer));
  }

  @Test
  void asksForEachUseOfSomeKeys() throws Exception {
    int[] asked = {0};
    provider.setCallbackHandler(
        answering(List.of(TestToken.PIN, TestToken.PIN, "98765", TestToken.PIN), asked));
    Signature signer = Signature.getInstance("SHA256withRSA");
    signer.initSign(key("bare-key aa"));
    byte[] first = signed(signer);
    assertArrayEquals(first, signed(signer));
    assertNotSigned(signer, "CKR_PIN_INCORRECT");
    assertArrayEquals(first, signed(signer));
    assertEquals(4, asked[0]);
  }

  static void assertNotSigned(Signature signer, String why) {
    TestToken.assertTells(why, SignatureException.class, () -> signed(signer));
  }

  @Test
  void manyThreadsLogInAndSign() throws Exception {
    provider.setCallbackHandler(answering(List.of(TestToken.PIN), new int[1]));
    PrivateKey key = key("prime256v1");
    AtomicInteger uses = new AtomicInteger();
    Callable<byte[]> use = () -> {
      if (uses.incrementAndGet() % 50 == 0) {
        provider.logout();
        assertTrue(load(provider, PIN).isKeyEntry("rsa2048"));
      }
      Signature signer = Signature.getInstance("SHA256withECDSA");
      signer.initSign(key);
      return signed(signer);
    };
    for (byte[] signature : TestToken.inEightThreads(Collections.nCopies(400, use))) {
      TestToken.assertVerifies("SHA256withECDSA", publicKey("prime256v1"), signature);
    }
  }

  // ---- Libraries of the JDK ----

  /**
   * The token is at both ends, then OpenSSL at the other one. Some rows take mechanisms away from
   * the token; SoftHSM2 keeps the first one all the same.
   */
  @ParameterizedTest
  @CsvSource({"TLSv1.3,rsa2048,", "TLSv1.2,rsa2048,", "TLSv1.3,prime256v1,", "TLSv1.2,prime256v1,",
      "TLSv1.3,ed25519,", "TLSv1.3,rsa2048,RSA_X_509", "TLSv1.2,rsa2048,RSA_X_509 SHA1_RSA_PKCS_PSS"
          + " SHA224_RSA_PKCS_PSS SHA256_RSA_PKCS_PSS SHA384_RSA_PKCS_PSS SHA512_RSA_PKCS_PSS"})
  void authenticatesBothEndsOfTls(String protocol, String name, String lacking) throws Exception {
    provider.logout();
    Path configuration = Path.of(System.getenv("SOFTHSM2_CONF"));
    String before = Files.readString(configuration);
    KeyStore keys;
    try {
      if (lacking != null) {
        Files.writeString(configuration, before + "slots.mechanisms = -CKM_MD5,CKM_"
            + lacking.replace(" ", ",CKM_"));
      }
      keys = load(token.configured(URI.replace("?", ";object=" + name + "?")), PIN);
    } finally {
      Files.writeString(configuration, before);
    }
    KeyManagerFactory own = KeyManagerFactory.getInstance("PKIX");
    own.init(keys, null);
    TrustManagerFactory trusted = TrustManagerFactory.getInstance("PKIX");
    trusted.init(keys);
    SSLContext context = SSLContext.getInstance(protocol);
    context.init(own.getKeyManagers(), trusted.getTrustManagers(), null);
    try (SSLServerSocket listening =
            (SSLServerSocket) context.getServerSocketFactory().createServerSocket(0)) {
      listening.setNeedClientAuth(true);
      FutureTask<List<Object>> server = new FutureTask<>(() -> {
        List<Object> peers = new ArrayList<>();
        while (peers.size() < 2) {
          try (SSLSocket socket = (SSLSocket) listening.accept()) {
            socket.getOutputStream().write(42);
            peers.add(socket.getSession().getPeerCertificates()[0]);
          }
        }
        return peers;
      });
      new Thread(server).start();
      int port = listening.getLocalPort();
      try (Socket client = context.getSocketFactory().createSocket("localhost", port)) {
        assertEquals(42, client.getInputStream().read());
      }
      TestToken.output("openssl s_client -connect localhost:%d -CAstore %s/ca.der -cert %2$s/%s.der"
          .formatted(port, DIR, name) + " -verify_return_error -key %s/%s.key -%s".formatted(DIR, name,
              protocol.replace("TLSv1.", "tls1_")));
      assertEquals(Collections.nCopies(2, certificates.get(name)), server.get());
    }
  }

  @ParameterizedTest
  @CsvSource({"rsa2048,2001/04/xmldsig-more#rsa-sha256",
      "rsa2048,2007/05/xmldsig-more#sha256-rsa-MGF1", "rsa2048,2007/05/xmldsig-more#rsa-pss",
      "prime256v1,2001/04/xmldsig-more#ecdsa-sha256"})
  void signsXml(String name, String method) throws Exception {
    XMLSignatureFactory xml = XMLSignatureFactory.getInstance("DOM");
    SignatureMethodParameterSpec parameters = !method.endsWith("rsa-pss") ? null
        : new RSAPSSParameterSpec(pss("SHA-256", "SHA-256", 32));
    Document document =
        DocumentBuilderFactory.newDefaultNSInstance().newDocumentBuilder().newDocument();
    xml.newXMLSignature(
        xml.newSignedInfo(
            xml.newCanonicalizationMethod(CanonicalizationMethod.EXCLUSIVE,
                (C14NMethodParameterSpec) null),
            xml.newSignatureMethod("http://www.w3.org/" + method, parameters),
            List.of(xml.newReference("#order", xml.newDigestMethod(DigestMethod.SHA256, null)))),
        null, List.of(xml.newXMLObject(null, "order", null, null)), null, null)
        .sign(new DOMSignContext(key(name), document));
    DOMValidateContext judge =
        new DOMValidateContext(publicKey(name), document.getDocumentElement());
    assertTrue(xml.unmarshalXMLSignature(judge).validate(judge));
  }

  // ---- Bad input ----

  @Test
  void saysWhatIsWrongWithAToken() throws Throwable {
    String told = provider.toString();
    assertTrue(told.endsWith("token \"demo\" behind the module " + TestToken.SHIM), told);
    assertNotLoaded("pkcs11:token=demo?module-path=/other.so", "there is one module at a time");
    provider.logout();
    assertNotLoaded(URI.replace("token=", "token=no"), "there are: \"demo\"");
    TestToken.calls("C_Login", "label=\uFFFD\u001B", () -> assertNotLoaded(
        URI.replace("=demo", "=%FF%1B"), "no token found; there are: \"\uFFFD\\u001B\""));
    assertNotLoaded(URI.replace("token=demo", "") + "-none", "-none");
    assertThrows(IOException.class, () -> load(new QuarvelProvider(), PIN));
  }

  void assertNotLoaded(String uri, String why) {
    TestToken.assertTells(why, IOException.class, () -> load(token.configured(uri), PIN));
  }

  @Test
  void refusesWhatCannotBe() throws Exception {
    for (String uri : List.of("/etc/pkcs11.cfg", "pkcs11:token=demo")) {
      TestToken.assertTells("wanted is", InvalidParameterException.class, () -> token.configured(uri));
    }
    Signature pss = Signature.getInstance("RSASSA-PSS", provider);
    pss.initSign(key("rsa1025"));
    assertThrows(SignatureException.class, () -> pss.update(DATA));
    assertThrows(InvalidAlgorithmParameterException.class,
        () -> pss.setParameter(pss("SHA-256", "SHA-256", 95)));
    pss.setParameter(pss("SHA-1", "SHA-1", 20));
    pss.update(DATA);
    assertThrows(ProviderException.class, () -> pss.setParameter(pss("SHA-1", "SHA-1", 20)));
    for (String algorithm : List.of("NONEwithRSA", "NONEwithECDSA")) {
      Signature raw = Signature.getInstance(algorithm);
      raw.initSign(key(algorithm.endsWith("RSA") ? "rsa2048" : "prime256v1"));
      raw.update(new byte[246]);
      assertThrows(SignatureException.class, raw::sign);
    }
    Cipher oaep = Cipher.getInstance("RSA/ECB/OAEPWithSHA-256AndMGF1Padding", provider);
    assertThrows(InvalidAlgorithmParameterException.class, () -> oaep.init(Cipher.DECRYPT_MODE,
        key("rsa2048"), new OAEPParameterSpec("SHA-1", "MGF1", MGF1ParameterSpec.SHA1,
            new PSource.PSpecified(new byte[1]))));
    oaep.init(Cipher.DECRYPT_MODE, key("rsa2048")); // which SoftHSM2 has not
    assertThrows(ProviderException.class, () -> oaep.doFinal(new byte[256]));
    Cipher cipher = Cipher.getInstance("RSA", provider);
    assertThrows(InvalidKeyException.class, () -> cipher.init(Cipher.DECRYPT_MODE, key("pss")));
    assertThrows(UnsupportedOperationException.class,
        () -> cipher.init(Cipher.UNWRAP_MODE, key("rsa2048"), PSSParameterSpec.DEFAULT));
    cipher.init(Cipher.DECRYPT_MODE, key("rsa2048"));
    assertThrows(IllegalBlockSizeException.class, () -> cipher.doFinal(new byte[257]));
  }
}
