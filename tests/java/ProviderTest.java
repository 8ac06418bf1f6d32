import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.io.*;
import java.net.Socket;
import java.nio.file.*;
import java.security.*;
import java.security.cert.*;
import java.security.spec.*;
import java.util.*;
import java.util.concurrent.*;
import javax.crypto.*;
import javax.crypto.spec.SecretKeySpec;
import javax.net.ssl.*;
import javax.security.auth.callback.*;
import javax.security.auth.login.FailedLoginException;
import javax.xml.crypto.KeySelector;
import javax.xml.crypto.dsig.*;
import javax.xml.crypto.dsig.dom.*;
import javax.xml.crypto.dsig.spec.*;
import javax.xml.parsers.DocumentBuilderFactory;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.*;
import org.w3c.dom.Document;

/**
 * Has the JDK judge the provider, with keys of OpenSSL that both the token and software hold, on
 * the token of {@link EndToEndTest}; it leaves that as empty as it was.
 */
class ProviderTest {
  static final String URI = "pkcs11:token=%s?module-path=%s"
      .formatted(System.getenv("QUARVEL_TOKEN"), EndToEndTest.MODULE);
  static final char[] PIN = EndToEndTest.PIN.toCharArray();
  static final byte[] DATA = "to be signed".getBytes(UTF_8);
  static final List<String> NAMES =
      List.of("rsa2048", "rsa1025", "prime256v1", "secp521r1", "ed25519", "bare");

  static final Map<String, PrivateKey> software = new HashMap<>();
  static final Map<String, X509Certificate> certificates = new HashMap<>();
  @TempDir static Path dir;

  final QuarvelProvider provider = configured(URI);
  KeyStore store;

  static QuarvelProvider configured(String uri) {
    return (QuarvelProvider) new QuarvelProvider().configure(uri);
  }

  // ---- The token ----

  static String run(String command, Object... arguments) throws Exception {
    return EndToEndTest.output(command.formatted(arguments));
  }

  @BeforeAll
  static void fillToken() throws Exception {
    String ca = "%s/ca".formatted(dir);
    run("openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=ca -keyout %s.key -out %1$s.pem", ca);
    for (String name : NAMES) {
      String file = dir.resolve(name).toString();
      String kind = name.startsWith("ed") ? name : name.equals("bare") ? "rsa:2048"
          : name.startsWith("rsa") ? name.replace("rsa", "rsa:")
          : "ec -pkeyopt ec_paramgen_curve:" + name;
      run("openssl req -x509 -newkey %s -nodes -subj /CN=%s -CA %s.pem -CAkey %3$s.key"
          + " -keyout %s.key -out %4$s.pem", kind, name, ca, file);
      run("openssl pkcs8 -topk8 -nocrypt -in %s.key -out %1$s.p8 -outform DER", file);
      run("softhsm2-util --import %s.key --token %s --pin %s --label %s-key --id %s", file,
          System.getenv("QUARVEL_TOKEN"), EndToEndTest.PIN, name, id(name));
      String algorithm = kind.startsWith("rsa") ? "RSA" : kind.startsWith("ec") ? "EC" : "EdDSA";
      software.put(name, KeyFactory.getInstance(algorithm).generatePrivate(
          new PKCS8EncodedKeySpec(Files.readAllBytes(Path.of(file + ".p8")))));
      certificates.put(name, read(file + ".pem"));
    }
    certificates.put("ca", read(ca + ".pem"));
    run("openssl pkcs12 -export -in %s.pem -inkey %1$s.key -out %1$s.p12"
        + " -passout pass:changeit", ca);
    run("openssl req -new -key %s/rsa2048.key -subj /CN=expired -out %1$s/expired.csr", dir);
    run("keytool -gencert -startdate -9d -validity 3 -alias 1 -keystore %s.p12 -storepass changeit"
        + " -infile %s/expired.csr -outfile %2$s/expired.pem", ca, dir);
    certificates.put("expired", read(dir + "/expired.pem"));
    // Always authenticates, and is named like another one.
    EndToEndTest.openSc("--login --pin %s --write-object %s/rsa2048.p8 --type privkey --id aa"
        .formatted(EndToEndTest.PIN, dir) + " --label bare-key --always-auth");
    try (PKCS11Module module = PKCS11Module.open(EndToEndTest.MODULE);
        NativePKCS11Session session = module.tokens().get(0).openSession(true)) {
      session.login(true, EndToEndTest.SO_PIN);
      storeCertificate(session, "ca", "CA", "ca", true);
      session.logout();
      session.login(PIN);
      for (String name : NAMES.subList(0, 5)) {
        storeCertificate(session, name, name, id(name), false);
      }
      storeCertificate(session, "expired", "expired", id("rsa2048"), false);
      storeCertificate(session, "ed25519", "of another key", id("rsa2048"), false);
      storeCertificate(session, "secp521r1", "without key", "bb", false);
    }
  }

  static String id(String name) {
    return "0" + NAMES.indexOf(name);
  }

  static X509Certificate read(String file) throws Exception {
    try (InputStream in = new FileInputStream(file)) {
      return (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(in);
    }
  }

  static void storeCertificate(NativePKCS11Session session, String name, String label, String id,
      boolean trusted) throws Exception {
    PKCS11Template template = PKCS11Template.of(certificates.get(name)).put(CKA_TOKEN, true)
        .put(CKA_PRIVATE, false).put(CKA_LABEL, label).put(CKA_ID, HexFormat.of().parseHex(id));
    session.createObject(trusted ? template.put(CKA_TRUSTED, true) : template);
  }

  @AfterAll
  static void emptyToken() throws Exception {
    try (PKCS11Module module = PKCS11Module.open(EndToEndTest.MODULE);
        NativePKCS11Session session = module.tokens().get(0).openSession(true)) {
      session.login(PIN);
      for (NativePKCS11Object object : session.findAll(null)) {
        object.destroy();
      }
    }
  }

  @BeforeEach
  void load() throws Exception {
    Security.insertProviderAt(provider, 1);
    store = KeyStore.getInstance("PKCS11", provider);
    store.load(null, PIN);
  }

  @AfterEach
  void unload() throws Exception {
    Security.removeProvider(provider.getName());
    provider.logout();
  }

  PrivateKey key(String name) throws Exception {
    return (PrivateKey) store.getKey(name, null);
  }

  // ---- Signatures ----

  static PSSParameterSpec pss(String digest, String mask, int salt) {
    return new PSSParameterSpec(digest, "MGF1", new MGF1ParameterSpec(mask), salt, 1);
  }

  static List<Arguments> signatures() {
    List<Arguments> all = new ArrayList<>();
    for (String rsa : List.of("rsa2048", "rsa1025")) {
      all.add(Arguments.of(rsa, "NONEwithRSA", "NONEwithRSA", null));
      all.add(Arguments.of(rsa, "1.2.840.113549.1.1.11", "SHA256withRSA", null));
      for (int bits : List.of(1, 224, 256, 384, 512)) {
        int salt = bits == 1 ? 20 : bits / 8;
        PSSParameterSpec usual = pss("SHA-" + bits, "SHA-" + bits, salt);
        all.add(Arguments.of(rsa, "SHA" + bits + "withRSA", "SHA" + bits + "withRSA", null));
        if (rsa.equals("rsa2048") || bits < 512) {
          all.add(Arguments.of(rsa, "SHA" + bits + "withRSAandMGF1", "RSASSA-PSS", usual));
          all.add(Arguments.of(rsa, "SHA" + bits + "withRSASSA-PSS", "RSASSA-PSS", usual));
          all.add(Arguments.of(rsa, "RSASSA-PSS", "RSASSA-PSS", usual));
        }
      }
      int most = (rsa.equals("rsa2048") ? 256 : 128) - 32 - 2;
      for (int salt : List.of(0, 17, most)) {
        all.add(Arguments.of(rsa, "RSASSA-PSS", "RSASSA-PSS", pss("SHA-256", "SHA-1", salt)));
      }
      all.add(Arguments.of(rsa, "RSASSA-PSS", "RSASSA-PSS", pss("SHA-512/256", "SHA-384", 20)));
    }
    for (String ec : List.of("prime256v1", "secp521r1")) {
      for (String algorithm : List.of("NONEwithECDSA", "SHA1withECDSA", "SHA224withECDSA",
          "SHA256withECDSA", "SHA384withECDSA", "SHA512withECDSA")) {
        all.add(Arguments.of(ec, algorithm, algorithm, null));
        String numbers = algorithm + "inP1363Format";
        all.add(Arguments.of(ec, numbers, numbers, null));
      }
      all.add(Arguments.of(ec, "1.2.840.10045.4.3.4", "SHA512withECDSA", null));
    }
    for (String name : List.of("Ed25519", "EdDSA", "OID.1.3.101.112")) {
      all.add(Arguments.of("ed25519", name, "Ed25519", null));
    }
    return all;
  }

  /** Both ways, with the provider first and last; parameters come before the key and after it. */
  @ParameterizedTest
  @MethodSource("signatures")
  void signsAndVerifiesAsTheJdkDoes(
      String name, String ours, String jdks, AlgorithmParameterSpec parameters) throws Exception {
    PublicKey publicKey = certificates.get(name).getPublicKey();
    boolean isFixed = !ours.equals(jdks);
    for (PrivateKey key : List.of(key(name), software.get(name))) {
      Signature signer = Signature.getInstance(ours);
      if (parameters != null && !isFixed) {
        signer.setParameter(parameters);
      }
      signer.initSign(key);
      byte[] signature = signed(signer);
      assertArrayEquals(new boolean[] {true, false}, verified(jdks, "Sun.*", publicKey, parameters,
          signature), key.toString());
      assertArrayEquals(new boolean[] {true, false}, verified(ours, provider.getName(), publicKey,
          isFixed ? null : parameters, signature), key.toString());
      if (jdks.startsWith("SHA") && jdks.endsWith("RSA") || jdks.startsWith("Ed")) {
        assertArrayEquals(signature, signed(signer), "a second one");
      }
    }
    Security.removeProvider(provider.getName());
    Security.addProvider(provider);
    Signature late = Signature.getInstance(ours);
    late.initSign(key(name));
    if (parameters != null && !isFixed) {
      late.setParameter(parameters);
    }
    assertSame(provider, late.getProvider());
    assertArrayEquals(new boolean[] {true, false},
        verified(jdks, "", publicKey, parameters, signed(late)));
  }

  static byte[] signed(Signature signer) throws Exception {
    signer.update(DATA[0]);
    signer.update(DATA, 1, DATA.length - 1);
    return signer.sign();
  }

  /** What comes of a signature, and of one of other data. */
  static boolean[] verified(String algorithm, String by, PublicKey key,
      AlgorithmParameterSpec parameters, byte[] signature) throws Exception {
    Signature verifier = Signature.getInstance(algorithm);
    for (Provider each : Security.getProviders()) {
      if (each.getName().matches(by) && each.getService("Signature", algorithm) != null) {
        verifier = Signature.getInstance(algorithm, each);
      }
    }
    verifier.initVerify(key);
    if (parameters != null) {
      verifier.setParameter(parameters);
    }
    boolean[] results = new boolean[2];
    for (int i = 0; i < 2; i++) {
      verifier.update(DATA);
      verifier.update(new byte[i]);
      results[i] = verifier.verify(signature);
    }
    return results;
  }

  // ---- Decryption ----

  @Test
  void decryptsAndUnwrapsWhatTheJdkEncrypts() throws Exception {
    PublicKey publicKey = certificates.get("rsa2048").getPublicKey();
    SecretKeySpec secret = new SecretKeySpec(new byte[16], "AES");
    for (String name : List.of("RSA", "RSA/ECB/PKCS1Padding")) {
      for (PrivateKey key : List.of(key("rsa2048"), software.get("rsa2048"))) {
        Cipher cipher = Cipher.getInstance(name, provider);
        cipher.init(Cipher.WRAP_MODE, publicKey);
        byte[] wrapped = cipher.wrap(secret);
        cipher.init(Cipher.ENCRYPT_MODE, publicKey);
        byte[] encrypted = cipher.doFinal(DATA);
        cipher = Cipher.getInstance(name);
        cipher.init(Cipher.DECRYPT_MODE, key);
        assertEquals(0, cipher.update(encrypted, 0, 99).length);
        assertArrayEquals(DATA, cipher.doFinal(encrypted, 99, encrypted.length - 99));
        byte[] room = new byte[cipher.getOutputSize(encrypted.length)];
        assertEquals(DATA.length, cipher.doFinal(encrypted, 0, encrypted.length, room, 0));
        encrypted[5] ^= 1;
        Cipher failing = cipher;
        assertThrows(BadPaddingException.class, () -> failing.doFinal(encrypted));
        assertThrows(BadPaddingException.class, () -> failing.doFinal(new byte[256]));
        cipher.init(Cipher.UNWRAP_MODE, key);
        assertEquals(secret, cipher.unwrap(wrapped, "AES", Cipher.SECRET_KEY));
        wrapped[9] ^= 1;
        assertThrows(InvalidKeyException.class,
            () -> failing.unwrap(wrapped, "AES", Cipher.SECRET_KEY));
      }
    }
    assertThrows(UnsupportedOperationException.class, () -> Cipher.getInstance("RSA", provider)
        .init(Cipher.UNWRAP_MODE, key("rsa2048"), PSSParameterSpec.DEFAULT));
  }

  // ---- The key store ----

  @Test
  void pairsKeysAndCertificates() throws Exception {
    assertEquals(Set.of("rsa2048", "rsa1025", "prime256v1", "secp521r1", "ed25519",
        "bare-key 05", "bare-key aa", "CA"), Set.copyOf(Collections.list(store.aliases())));
    for (String name : NAMES.subList(0, 4)) {
      assertArrayEquals(new Object[] {certificates.get(name), certificates.get("ca")},
          store.getCertificateChain(name), name);
      assertEquals(name, store.getCertificateAlias(certificates.get(name)));
      KeyStore.PrivateKeyEntry entry = (KeyStore.PrivateKeyEntry) store.getEntry(name, null);
      assertSame(key(name), entry.getPrivateKey());
    }
    assertTrue(store.isCertificateEntry("CA") && store.isKeyEntry("bare-key 05"));
    assertNull(store.getCertificateChain("bare-key 05"));
    assertNull(store.getKey("none", null));
    assertNull(store.getCertificate("none"));
    assertNull(key("bare-key 05").getEncoded());
    assertThrows(NotSerializableException.class,
        () -> new ObjectOutputStream(OutputStream.nullOutputStream()).writeObject(key("rsa2048")));
    store.store(null, null);
    for (Executable write : List.<Executable>of(() -> store.deleteEntry("rsa2048"),
        () -> store.setCertificateEntry("x", certificates.get("ca")),
        () -> store.setKeyEntry("x", key("rsa2048"), null, store.getCertificateChain("rsa2048")))) {
      assertTrue(assertThrows(KeyStoreException.class, write).getMessage().contains("read-only"));
    }
  }

  @ParameterizedTest
  @CsvSource({";object=rsa2048-key,rsa2048", ";object=rsa2048,rsa2048", ";id=%02,prime256v1",
      ";id=%02;object=none,"})
  void offersTheKeysThatTheUriNames(String limits, String only) throws Exception {
    QuarvelProvider limited = configured(URI.replace("?", limits + "?"));
    KeyStore keys = KeyStore.getInstance("PKCS11", limited);
    keys.load(null, PIN);
    List<String> aliases = Collections.list(keys.aliases());
    aliases.remove("CA");
    assertEquals(only == null ? List.of() : List.of(only), aliases);
    limited.logout();
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
    Throwable cause =
        assertThrows(IOException.class, () -> store.load(null, "98765".toCharArray())).getCause();
    assertEquals(UnrecoverableKeyException.class, cause.getClass());
    assertThrows(FailedLoginException.class,
        () -> provider.login(null, answering(List.of("98765"), asked)));
    // Nothing was left open.
    PKCS11Module.open(EndToEndTest.MODULE).close();
  }

  @Test
  void keysLogInAgain() throws Exception {
    int[] asked = {0};
    provider.setCallbackHandler(answering(List.of(EndToEndTest.PIN), asked));
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
    Throwable cause = assertThrows(SignatureException.class, () -> signed(signer)).getCause();
    assertTrue(cause.getMessage().contains("wants a PIN"), cause.getMessage());
    QuarvelProvider withFile = configured(URI + "&pin-source=file:" + dir.resolve("pin"));
    Files.writeString(dir.resolve("pin"), EndToEndTest.PIN + "\n");
    KeyStore own = KeyStore.getInstance("PKCS11", withFile);
    own.load(null, null);
    signer.initSign((PrivateKey) own.getKey("ed25519", null));
    withFile.logout();
    Files.writeString(dir.resolve("pin"), "98765");
    assertThrows(SignatureException.class, () -> signed(signer));
    Files.writeString(dir.resolve("pin"), EndToEndTest.PIN);
    cause = assertThrows(SignatureException.class, () -> signed(signer)).getCause();
    assertTrue(cause.getMessage().contains("was refused"), cause.getMessage());
    own.load(null, null);
    assertArrayEquals(before, signed(signer));
    withFile.logout();
  }

  @Test
  void asksForEachUseOfSomeKeys() throws Exception {
    int[] asked = {0};
    provider.setCallbackHandler(
        answering(List.of(EndToEndTest.PIN, EndToEndTest.PIN, "98765", EndToEndTest.PIN), asked));
    Signature signer = Signature.getInstance("SHA256withRSA");
    signer.initSign(key("bare-key aa"));
    byte[] first = signed(signer);
    assertArrayEquals(first, signed(signer));
    PKCS11Exception refused = (PKCS11Exception)
        assertThrows(SignatureException.class, () -> signed(signer)).getCause();
    assertEquals(CKR_PIN_INCORRECT, refused.errorCode());
    assertArrayEquals(first, signed(signer));
    assertEquals(4, asked[0]);
  }

  @Test
  void manyThreadsLogInAndSign() throws Exception {
    provider.setCallbackHandler(answering(List.of(EndToEndTest.PIN), new int[1]));
    PrivateKey key = key("prime256v1");
    PublicKey publicKey = certificates.get("prime256v1").getPublicKey();
    ExecutorService threads = Executors.newFixedThreadPool(8);
    List<Callable<Boolean>> work = new ArrayList<>();
    for (int i = 0; i < 400; i++) {
      boolean logsOut = i == 200;
      work.add(() -> {
        if (logsOut) {
          provider.logout();
        }
        Signature signer = Signature.getInstance("SHA256withECDSA");
        signer.initSign(key);
        return verified("SHA256withECDSA", "SunEC", publicKey, null, signed(signer))[0];
      });
    }
    for (Future<Boolean> result : threads.invokeAll(work)) {
      assertTrue(result.get());
    }
    threads.shutdown();
  }

  // ---- Libraries of the JDK ----

  @ParameterizedTest
  @CsvSource({"TLSv1.3,rsa2048,RSASSA-PSS", "TLSv1.2,rsa2048,RSASSA-PSS",
      "TLSv1.3,prime256v1,ECDSA", "TLSv1.2,prime256v1,ECDSA", "TLSv1.3,ed25519,EdDSA"})
  void authenticatesBothEndsOfTls(String protocol, String name, String with) throws Exception {
    QuarvelProvider limited = configured(URI.replace("?", ";object=" + name + "?"));
    KeyStore keys = KeyStore.getInstance("PKCS11", limited);
    keys.load(null, PIN);
    KeyManagerFactory own = KeyManagerFactory.getInstance("PKIX");
    own.init(keys, null);
    TrustManagerFactory trusted = TrustManagerFactory.getInstance("PKIX");
    trusted.init(keys);
    SSLContext context = SSLContext.getInstance(protocol);
    context.init(own.getKeyManagers(), trusted.getTrustManagers(), null);
    try (SSLServerSocket listening =
            (SSLServerSocket) context.getServerSocketFactory().createServerSocket(0)) {
      listening.setNeedClientAuth(true);
      CompletableFuture<Object> server = CompletableFuture.supplyAsync(() -> {
        try (SSLSocket socket = (SSLSocket) listening.accept()) {
          socket.getOutputStream().write(socket.getInputStream().read() + 1);
          return socket.getSession().getPeerCertificates()[0];
        } catch (IOException e) {
          return e;
        }
      });
      try (Socket client = context.getSocketFactory().createSocket("localhost",
              listening.getLocalPort())) {
        client.getOutputStream().write(41);
        assertEquals(42, client.getInputStream().read(), () -> server.join().toString());
        assertEquals(certificates.get(name), server.get());
      }
    }
    limited.logout();
  }

  @ParameterizedTest
  @CsvSource({"rsa2048,2001/04/xmldsig-more#rsa-sha256",
      "rsa2048,2007/05/xmldsig-more#sha256-rsa-MGF1", "rsa2048,2007/05/xmldsig-more#rsa-pss",
      "prime256v1,2001/04/xmldsig-more#ecdsa-sha256"})
  void signsXml(String name, String method) throws Exception {
    XMLSignatureFactory xml = XMLSignatureFactory.getInstance("DOM");
    SignatureMethodParameterSpec parameters = !method.endsWith("rsa-pss") ? null
        : new RSAPSSParameterSpec(pss("SHA-256", "SHA-256", 32));
    for (PrivateKey key : List.of(key(name), software.get(name))) {
      Document document =
          DocumentBuilderFactory.newDefaultNSInstance().newDocumentBuilder().newDocument();
      document.appendChild(document.createElement("order"));
      Transform enveloped = xml.newTransform(Transform.ENVELOPED, (TransformParameterSpec) null);
      Reference whole = xml.newReference(
          "", xml.newDigestMethod(DigestMethod.SHA256, null), List.of(enveloped), null, null);
      XMLSignature signature = xml.newXMLSignature(xml.newSignedInfo(
          xml.newCanonicalizationMethod(CanonicalizationMethod.EXCLUSIVE,
              (C14NMethodParameterSpec) null),
          xml.newSignatureMethod("http://www.w3.org/" + method, parameters), List.of(whole)), null);
      signature.sign(new DOMSignContext(key, document.getDocumentElement()));
      DOMValidateContext judge = new DOMValidateContext(
          KeySelector.singletonKeySelector(certificates.get(name).getPublicKey()),
          document.getElementsByTagNameNS("*", "Signature").item(0));
      assertTrue(xml.unmarshalXMLSignature(judge).validate(judge));
    }
  }

  // ---- Bad input ----

  static List<Arguments> badUris() {
    return List.of(
        Arguments.of(URI.replace("token=", "token=no"), "there are: \"demo\""),
        Arguments.of(URI.replace("demo", "").replace("token=", "") + "-none", "-none"),
        Arguments.of("pkcs11:token=demo?module-path=/other.so", "there is one module at a time"));
  }

  @ParameterizedTest
  @MethodSource("badUris")
  void saysWhatIsWrongWithAToken(String uri, String why) throws Exception {
    if (!why.contains("one module")) {
      provider.logout();
    }
    KeyStore keys = KeyStore.getInstance("PKCS11", configured(uri));
    IOException failure = assertThrows(IOException.class, () -> keys.load(null, PIN));
    assertTrue(failure.getMessage().contains(why), failure.getMessage());
  }

  @Test
  void refusesWhatCannotBe() throws Exception {
    for (String uri : List.of("token=demo", "pkcs11:token=demo",
        URI + "&pin-value=1234", URI.replace("token", "colour"))) {
      assertThrows(InvalidParameterException.class, () -> configured(uri));
    }
    assertThrows(IOException.class,
        () -> KeyStore.getInstance("PKCS11", new QuarvelProvider()).load(null, PIN));
    Signature pss = Signature.getInstance("RSASSA-PSS", provider);
    pss.initSign(key("rsa1025"));
    assertThrows(SignatureException.class, () -> pss.update(DATA));
    assertThrows(InvalidAlgorithmParameterException.class,
        () -> pss.setParameter(pss("SHA-512", "SHA-512", 64)));
    pss.setParameter(pss("SHA-1", "SHA-1", 20));
    pss.update(DATA);
    assertThrows(ProviderException.class, () -> pss.setParameter(pss("SHA-1", "SHA-1", 20)));
    assertThrows(InvalidKeyException.class,
        () -> Signature.getInstance("SHA256withRSA", provider).initSign(key("ed25519")));
    for (String algorithm : List.of("NONEwithRSA", "NONEwithECDSA")) {
      Signature raw = Signature.getInstance(algorithm);
      raw.initSign(key(algorithm.endsWith("RSA") ? "rsa2048" : "prime256v1"));
      raw.update(new byte[246]);
      assertThrows(SignatureException.class, raw::sign);
    }
    Cipher cipher = Cipher.getInstance("RSA");
    cipher.init(Cipher.DECRYPT_MODE, key("rsa2048"));
    assertThrows(IllegalBlockSizeException.class, () -> cipher.doFinal(new byte[257]));
  }
}
