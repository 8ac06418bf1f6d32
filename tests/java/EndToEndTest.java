import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.io.File;
import java.lang.reflect.*;
import java.math.BigInteger;
import java.nio.file.Path;
import java.security.*;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.security.spec.X509EncodedKeySpec;
import java.text.ParseException;
import java.util.*;
import java.util.stream.Stream;
import javax.crypto.Cipher;
import javax.crypto.spec.SecretKeySpec;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

/**
 * Drives a SoftHSM2 token that the caller has made, and has the JDK and OpenSC judge what comes of
 * it. The system properties quarvel.module, quarvel.pin and quarvel.soPin say where it is.
 */
class EndToEndTest {
  static final String MODULE = System.getProperty("quarvel.module");
  static final String PIN = System.getProperty("quarvel.pin");
  static final String SO_PIN = System.getProperty("quarvel.soPin");

  static final byte[] ID = {0, 'i', (byte) 0xFF};
  static final byte[] DATA = "data to sign or to hide".getBytes(UTF_8);
  static final SecretKeySpec AES = new SecretKeySpec("0123456789abcdef".getBytes(UTF_8), "AES");
  static final Date END = new GregorianCalendar(2031, Calendar.FEBRUARY, 28).getTime();

  /** What the methods that are never offered answer, by name; the others are offered. */
  static final Map<String, String> NEVER_OFFERED = new HashMap<>();

  static RSAPrivateCrtKey rsa;
  static X509Certificate certificate;
  static Map<Integer, Object> privateKey;
  static Map<Integer, Object> publicKey;

  NativePKCS11 module;
  NativePKCS11Slot slot;
  NativePKCS11Session session;
  NativePKCS11Object key;

  static {
    for (String name : ("waitForSlotEvent initToken copy getOperationState setOperationState"
        + " encryptUpdate encryptFinal decryptUpdate decryptFinal digestInit digest digestUpdate"
        + " digestKey digestFinal signRecoverInit signRecover verifyInit verify verifyUpdate"
        + " verifyFinal verifyRecoverInit verifyRecover digestEncryptUpdate decryptDigestUpdate"
        + " signEncryptUpdate decryptVerifyUpdate deriveKey seedRandom generateRandom"
        + " getFunctionStatus cancelFunction").split(" ")) {
      NEVER_OFFERED.put(name, "Not supported");
    }
    NEVER_OFFERED.put("signUpdate", "Not supported YET");
    NEVER_OFFERED.put("signFinal", "Not supported YET");
  }

  @BeforeAll
  static void makeKeyAndCertificate(@TempDir Path directory) throws Exception {
    File file = directory.resolve("rsa.p12").toFile();
    output(System.getProperty("java.home") + "/bin/keytool", "-genkeypair", "-alias", "rsa",
        "-keyalg", "RSA", "-keysize", "2048", "-dname", "CN=Test", "-storetype", "PKCS12",
        "-keystore", file.getPath(), "-storepass", "changeit");
    char[] password = "changeit".toCharArray();
    KeyStore store = KeyStore.getInstance(file, password);
    rsa = (RSAPrivateCrtKey) store.getKey("rsa", password);
    certificate = (X509Certificate) store.getCertificate("rsa");
    // Not private, although it should be: SoftHSM2 cannot read a private object's dates back.
    privateKey = Map.ofEntries(Map.entry(CKA_CLASS, CKO_PRIVATE_KEY), Map.entry(CKA_ID, ID),
        Map.entry(CKA_KEY_TYPE, CKK_RSA), Map.entry(CKA_LABEL, "clé privée"),
        Map.entry(CKA_END_DATE, END), Map.entry(CKA_PRIVATE, false), Map.entry(CKA_SIGN, true),
        Map.entry(CKA_DECRYPT, true), Map.entry(CKA_SENSITIVE, false),
        Map.entry(CKA_EXTRACTABLE, true), Map.entry(CKA_MODULUS, rsa.getModulus()),
        Map.entry(CKA_PUBLIC_EXPONENT, rsa.getPublicExponent()),
        Map.entry(CKA_PRIVATE_EXPONENT, rsa.getPrivateExponent()),
        Map.entry(CKA_PRIME_1, rsa.getPrimeP()), Map.entry(CKA_PRIME_2, rsa.getPrimeQ()),
        Map.entry(CKA_EXPONENT_1, rsa.getPrimeExponentP()),
        Map.entry(CKA_EXPONENT_2, rsa.getPrimeExponentQ()),
        Map.entry(CKA_COEFFICIENT, rsa.getCrtCoefficient()));
    publicKey = Map.of(CKA_CLASS, CKO_PUBLIC_KEY, CKA_KEY_TYPE, CKK_RSA, CKA_TOKEN, true,
        CKA_PRIVATE, false, CKA_LABEL, "listed", CKA_ID, ID, CKA_ENCRYPT, true,
        CKA_MODULUS, rsa.getModulus(), CKA_PUBLIC_EXPONENT, rsa.getPublicExponent());
  }

  @BeforeEach
  void logInWithKey() throws Exception {
    NativePKCS11.loadPKCS11Library(MODULE);
    module = new NativePKCS11();
    module.libInitialize();
    slot = module.slots(true).get(0);
    session = slot.openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    session.loginellips(false, PIN.getBytes(UTF_8));
    key = create(privateKey);
  }

  @AfterEach
  void stop() throws Exception {
    module.libFinalize();
  }

  @Test
  void describesTheTokenAsOpenScDoes() throws Exception {
    PKCS11Info info = module.getInfo();
    assertLines(output("pkcs11-tool", "--module", MODULE, "--show-info"),
        "Manufacturer +" + info.manufacturerID().strip(),
        "Cryptoki version " + PKCS11Info.versionText(info.cryptokiVersion()),
        "Library .*\\(ver " + PKCS11Info.versionText(info.libraryVersion()) + "\\)");
    PKCS11TokenInfo token = slot.getTokenInfo();
    assertLines(output("pkcs11-tool", "--module", MODULE, "--list-slots"),
        "Slot 0 .*: " + slot.getInfo().slotDescription().strip(),
        " *token label +: " + token.trimmedLabel(), " *token model +: " + token.model().strip(),
        " *serial num +: " + slot.getTokenSN().strip(),
        " *pin min/max +: " + token.minPinLen() + "/" + token.maxPinLen(),
        " *firmware version +: " + PKCS11Info.versionText(token.firmwareVersion()));
    assertTrue(token.hasFlag(CKF_LOGIN_REQUIRED | CKF_TOKEN_INITIALIZED));
    assertFalse(token.hasFlag(CKF_TOKEN_INITIALIZED | CKF_USER_PIN_LOCKED));
    PKCS11MechanismInfo pkcs1 = slot.getMechanismInfo(CKM_RSA_PKCS);
    assertLines(output("pkcs11-tool", "--module", MODULE, "--list-mechanisms"),
        " *RSA-PKCS, keySize=\\{%d,%d\\}.*".formatted(pkcs1.minKeySize(), pkcs1.maxKeySize()));
    assertTrue(Arrays.stream(slot.getMechanismList()).anyMatch(m -> m == CKM_RSA_PKCS));
    assertFails("CKR_MECHANISM_INVALID (0x70)", () -> slot.getMechanismInfo(0x7FFF));
  }

  @Test
  void logsInAndOut() throws Exception {
    assertEquals(new PKCS11SessionInfo(CKS_RW_USER_FUNCTIONS, 6, 0), session.getInfo());
    session.setPIN(PIN, "0àé9");
    session.setPINellips("0àé9".getBytes(UTF_8), PIN.getBytes(UTF_8));
    session.logout();
    assertFails("CKR_PIN_INCORRECT (0xA0)", () -> session.login(false, PIN + "0"));
    byte[] longer = (PIN + "\0").getBytes(UTF_8);
    assertFails("CKR_PIN_INCORRECT (0xA0)", () -> session.loginellips(false, longer));
    session.login(true, SO_PIN);
    assertEquals(CKS_RW_SO_FUNCTIONS, session.getInfo().state());
    session.initPIN(PIN);
    session.logout();
    NativePKCS11Session second = slot.openSession(CKF_SERIAL_SESSION);
    second.login(false, PIN);
    assertEquals(CKS_RO_USER_FUNCTIONS, second.getInfo().state());
    second.close();
    assertFails("CKR_SESSION_HANDLE_INVALID (0xB3)", second::getInfo);
    slot.closeAllSessions();
    assertFails("CKR_SESSION_HANDLE_INVALID (0xB3)", session::close);
    assertFails("CKR_SESSION_PARALLEL_NOT_SUPPORTED (0xB4)", () -> slot.openSession(0));
  }

  @Test
  void findsWhatMatches() throws Exception {
    int before = session.findAll(null).size();
    importAes();
    importAes();
    assertEquals(before + 2, session.findAll(null).size());
    assertEquals(before + 2, session.findAll(new PKCS11Template()).size());
    assertEquals(2, session.findAll(new PKCS11Template().put(CKA_LABEL, "aes")).size());
    assertEquals(List.of(), session.findAll(new PKCS11Template().put(CKA_LABEL, "ae")));
    NativePKCS11Object found = session.findFirst(new PKCS11Template()
        .put(CKA_MODULUS, rsa.getModulus()).put(CKA_SIGN, true).put(CKA_END_DATE, END)
        .put(CKA_ID, ID).put(CKA_CLASS, CKO_DATA).put(CKA_CLASS, CKO_PRIVATE_KEY)).orElseThrow();
    assertEquals(key.objectID(), found.objectID());
    assertSame(session, found.session());
    for (Object foreign : new Object[] {5L, null}) {
      session.findObjectsInit(new int[] {CKA_SIGN, CKA_CLASS}, new Object[] {true, foreign});
      assertFails("CKR_OPERATION_NOT_INITIALIZED (0x91)", session::findObject);
    }
    session.findObjectsInit(null, null);
    assertFails("CKR_OPERATION_ACTIVE (0x90)", () -> session.findFirst(null));
    session.findObjectsFinal();
  }

  @Test
  void readsAttributesAsTheJdkKnowsThem() throws Exception {
    Map<Integer, Object> x509 = Map.of(CKA_CLASS, CKO_CERTIFICATE, CKA_CERTIFICATE_TYPE, CKC_X_509,
        CKA_LABEL, "", CKA_SUBJECT, certificate.getSubjectX500Principal().getEncoded(),
        CKA_VALUE, certificate.getEncoded());
    NativePKCS11Object stored = create(x509);
    assertAttributes(stored, x509);
    assertAttributes(key, privateKey);
    assertArrayEquals("20310228".getBytes(UTF_8), key.getByteArrayAttributeValue(CKA_END_DATE));
    assertThrows(ParseException.class, () -> key.getDate(CKA_LABEL));
    assertFails("VOID Date field", () -> key.getDate(CKA_START_DATE));
    assertFails("VOID BigInteger field", () -> stored.getBigInteger(CKA_LABEL));
    assertFails("VOID boolean field", () -> stored.getBoolAttributeValue(CKA_LABEL));
    assertFails("VOID int field", () -> stored.getIntAttributeValue(CKA_LABEL));
    assertFails("Object type not valid", () -> key.getAttributeValue(CKA_START_DATE));
    assertFails("CKR_ATTRIBUTE_TYPE_INVALID (0x12)", () -> stored.getBigInteger(CKA_MODULUS));
  }

  @Test
  void changesAttributes() throws Exception {
    key.setAttributeValue(CKA_LABEL, "one");
    key.setAttributeValue(CKA_LABEL, 5L);
    assertEquals("one", key.getAttributeValue(CKA_LABEL));
    key.setAttributeValues(new int[] {CKA_LABEL, CKA_START_DATE}, new Object[] {"two", END});
    assertEquals("two", key.getAttributeValue(CKA_LABEL));
    assertEquals(END, key.getDate(CKA_START_DATE));
    key.setBoolAttributeValue(CKA_SIGN, false);
    assertFails("CKR_KEY_FUNCTION_NOT_PERMITTED (0x68)",
        () -> session.sign(CKM_RSA_PKCS, key, DATA));
    assertFails("CKR_ATTRIBUTE_READ_ONLY (0x10)",
        () -> key.setIntAttributeValue(CKA_KEY_TYPE, CKK_EC));
    key.destroy();
    assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", key::destroy);
    assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", key::size);
  }

  @Test
  void signsWhatTheJdkVerifies() throws Exception {
    Map<Integer, String> algorithms = Map.of(CKM_SHA1_RSA_PKCS, "SHA1withRSA",
        CKM_SHA256_RSA_PKCS, "SHA256withRSA", CKM_SHA512_RSA_PKCS, "SHA512withRSA");
    for (var entry : algorithms.entrySet()) {
      byte[] signature = session.sign(entry.getKey(), key, DATA);
      assertVerifies(entry.getValue(), certificate.getPublicKey(), signature);
    }
    byte[] secp256r1 = HexFormat.of().parseHex("06082a8648ce3d030107");
    NativePKCS11Session.KeyPair pair = session.generateKeyPair(CKM_EC_KEY_PAIR_GEN,
        new PKCS11Template().put(CKA_EC_PARAMS, secp256r1), new PKCS11Template());
    String point = HexFormat.of().formatHex(
        pair.publicKey().getByteArrayAttributeValue(CKA_EC_POINT));
    byte[] encoded = HexFormat.of().parseHex(
        "3059301306072a8648ce3d020106082a8648ce3d030107034200" + point.substring(4));
    PublicKey ec = KeyFactory.getInstance("EC").generatePublic(new X509EncodedKeySpec(encoded));
    byte[] digest = MessageDigest.getInstance("SHA-256").digest(DATA);
    assertVerifies("SHA256withECDSAinP1363Format", ec,
        session.sign(CKM_ECDSA, pair.privateKey(), digest));
  }

  @Test
  void keepsWithinTheRoomAndTheData() throws Exception {
    byte[] out = new byte[300];
    session.signInit(CKM_SHA256_RSA_PKCS, null, key);
    assertEquals(256, session.sign(DATA, 0, DATA.length, null, 0));
    assertEquals(256, session.sign(DATA, 0, DATA.length, new byte[0], 0));
    assertFails("CKR_BUFFER_TOO_SMALL (0x150)",
        () -> session.sign(DATA, 0, DATA.length, new byte[255], 0));
    for (int length : new int[] {-1, DATA.length + 1, Integer.MAX_VALUE, Integer.MIN_VALUE}) {
      assertFails("CKR_ARGUMENTS_BAD (0x7)", () -> session.sign(DATA, 0, length, out, 0));
    }
    assertEquals(256, session.sign(DATA, 5, DATA.length, out, 44));
    assertVerifies("SHA256withRSA", certificate.getPublicKey(), Arrays.copyOf(out, 256));
    assertArrayEquals(new byte[44], Arrays.copyOfRange(out, 256, 300));

    session.encryptInit(CKM_AES_ECB, null, session.generateKey(CKM_AES_KEY_GEN,
        new PKCS11Template().put(CKA_VALUE_LEN, 32).put(CKA_ENCRYPT, true)));
    assertFails("CKR_BUFFER_TOO_SMALL (0x150)",
        () -> session.encrypt(new byte[32], 0, 32, new byte[31], 0));
    assertEquals(16, session.encrypt(new byte[32], 0, 16, out, 0));
  }

  @Test
  void encryptsDecryptsAndWrapsAsTheJdkDoes() throws Exception {
    Cipher cipher = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    cipher.init(Cipher.ENCRYPT_MODE, certificate.getPublicKey());
    assertArrayEquals(DATA, session.decrypt(CKM_RSA_PKCS, key, cipher.doFinal(DATA)));
    NativePKCS11Object aes = importAes();
    cipher = Cipher.getInstance("AES/ECB/NoPadding");
    cipher.init(Cipher.ENCRYPT_MODE, AES);
    byte[] blocks = Arrays.copyOf(DATA, 32);
    byte[] hidden = session.encrypt(CKM_AES_ECB, aes, blocks);
    assertArrayEquals(cipher.doFinal(blocks), hidden);
    assertArrayEquals(blocks, session.decrypt(CKM_AES_ECB, aes, hidden));
    cipher = Cipher.getInstance("AESWrap");
    cipher.init(Cipher.WRAP_MODE, AES);
    byte[] wrapped = session.wrapKey(CKM_AES_KEY_WRAP, aes, aes);
    assertArrayEquals(cipher.wrap(AES), wrapped);
    NativePKCS11Object unwrapped = session.unwrapKey(CKM_AES_KEY_WRAP, aes, wrapped,
        new PKCS11Template().put(CKA_CLASS, CKO_SECRET_KEY).put(CKA_KEY_TYPE, CKK_AES)
            .put(CKA_SENSITIVE, false).put(CKA_EXTRACTABLE, true));
    assertArrayEquals(AES.getEncoded(), unwrapped.getByteArrayAttributeValue(CKA_VALUE));
  }

  @Test
  void storesObjectsThatOpenScLists() throws Exception {
    NativePKCS11Object stored = create(publicKey);
    String objects = output("pkcs11-tool", "--module", MODULE, "--list-objects");
    assertFails("CKR_BUFFER_TOO_SMALL (0x150)", () -> session.encrypt(CKM_RSA_PKCS, stored, DATA));
    stored.destroy();
    assertLines(objects, "Public Key Object; RSA 2048 bits", " *label: +listed", " *ID: +0069ff");
  }

  @Test
  void leavesCardSpecificCallsToTheirCards() throws Exception {
    assertEquals(0, session.getIdentrusObject().objectID());
    assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", session::getCardStatus);
    assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", () -> session.setCardStatus(8));
    assertFails("CKR_ATTRIBUTE_TYPE_INVALID (0x12)",
        () -> session.generateKeyPairOB(CKM_RSA_PKCS_KEY_PAIR_GEN, true));
    assertFails("CKR_ATTRIBUTE_TYPE_INVALID (0x12)", () -> session.installCertificate(
        5, certificate.getEncoded(), 0, "CN=Test", "1", "CN=Test", "label"));
    assertFails("vendor-defined 0xFFFFFFFF", () -> module.getRSAcredential("alias", 0, null));
  }

  @Test
  void refusesWhatItNeverOffersAndEverythingWithoutModule() throws Exception {
    assertFails("CKR_CRYPTOKI_ALREADY_INITIALIZED (0x191)", module::libInitialize);
    assertEquals(88, natives().count());
    natives().filter(m -> NEVER_OFFERED.containsKey(m.getName()))
        .forEach(m -> assertFails(NEVER_OFFERED.get(m.getName()), () -> call(m, -1)));
    module.libFinalize();
    module.libFinalize();
    assertFails("Internal error", module::libInitialize);
    assertFails("Internal error", () -> NativePKCS11.loadPKCS11Library("/no/module"));
    Set<String> others = Set.of("loadPKCS11Library", "libInitialize", "libFinalize",
        "getBridgeVersion", "getRSAcredential", "getIdentrusObject");
    for (int state = 0; state < 2; state++) {
      natives().filter(m -> !others.contains(m.getName())).forEach(m -> assertFails(
          NEVER_OFFERED.getOrDefault(m.getName(), "Internal error"), () -> call(m, -1)));
      NativePKCS11.loadPKCS11Library(MODULE);
    }
    assertEquals(-1, session.getIdentrusObject().objectID());
    assertEquals(NativePKCS11.BRIDGE_VERSION, module.getBridgeVersion());
    module.libInitialize();
    assertFails("CKR_SESSION_HANDLE_INVALID (0xB3)", session::getInfo);
  }

  @Test
  void refusesNullArguments() {
    Map<Class<?>, String> refusals = Map.of(String.class, "Internal error",
        byte[].class, "CKR_ARGUMENTS_BAD", NativePKCS11Object.class, "CKR_ARGUMENTS_BAD",
        int[].class, "Different array length", Object[].class, "Different array length");
    Set<String> mayBeNull = Set.of("sign 3", "decrypt 3", "getRSAcredential 2");
    natives().filter(m -> !NEVER_OFFERED.containsKey(m.getName())).forEach(m -> {
      for (int i = 0; i < m.getParameterCount(); i++) {
        int index = i;
        String refusal = refusals.get(m.getParameterTypes()[i]);
        if (refusal != null && !mayBeNull.contains(m.getName() + " " + i)) {
          var e = assertThrows(PKCS11Exception.class, () -> call(m, index), m.getName());
          assertTrue(e.getMessage().startsWith(refusal), m.getName() + ": " + e.getMessage());
        }
      }
    });
  }

  static Stream<Method> natives() {
    return Stream.of(NativePKCS11.class, NativePKCS11Slot.class, NativePKCS11Session.class,
            NativePKCS11Object.class)
        .flatMap(type -> Arrays.stream(type.getDeclaredMethods()))
        .filter(method -> Modifier.isNative(method.getModifiers()));
  }

  /** Calls a method with arguments that are all in order, but for the one that is to be null. */
  void call(Method method, int nullIndex) throws Throwable {
    Map<Class<?>, Object> values = Map.of(int.class, 1, long.class, 1L, boolean.class, false,
        String.class, "1", byte[].class, new byte[8], int[].class, new int[] {CKA_LABEL},
        Object[].class, new Object[] {"1"}, Object.class, "1", NativePKCS11Object.class, key);
    Object[] arguments = Arrays.stream(method.getParameterTypes()).map(values::get).toArray();
    if (nullIndex >= 0) {
      arguments[nullIndex] = null;
    }
    Object receiver = Stream.of(module, slot, session, key)
        .filter(method.getDeclaringClass()::isInstance).findFirst().orElseThrow();
    try {
      method.invoke(receiver, arguments);
    } catch (InvocationTargetException e) {
      throw e.getCause();
    }
  }

  NativePKCS11Object importAes() throws PKCS11Exception {
    return session.createObject(new PKCS11Template().put(CKA_CLASS, CKO_SECRET_KEY)
        .put(CKA_KEY_TYPE, CKK_AES).put(CKA_LABEL, "aes").put(CKA_VALUE, AES.getEncoded())
        .put(CKA_ENCRYPT, true).put(CKA_DECRYPT, true).put(CKA_WRAP, true).put(CKA_UNWRAP, true)
        .put(CKA_EXTRACTABLE, true));
  }

  NativePKCS11Object create(Map<Integer, Object> attributes) throws PKCS11Exception {
    return session.createObject(attributes.keySet().stream().mapToInt(i -> i).toArray(),
        attributes.values().toArray());
  }

  static void assertFails(String message, Executable call) {
    assertEquals(message, assertThrows(PKCS11Exception.class, call, message).getMessage());
  }

  static void assertLines(String text, String... patterns) {
    for (String pattern : patterns) {
      assertTrue(text.lines().anyMatch(line -> line.matches(pattern)), pattern + " in\n" + text);
    }
  }

  static void assertVerifies(String algorithm, PublicKey key, byte[] signature) throws Exception {
    Signature verifier = Signature.getInstance(algorithm);
    verifier.initVerify(key);
    verifier.update(DATA);
    assertTrue(verifier.verify(signature), algorithm);
  }

  /** Compares what the getter for any type and the getter for this type make of each attribute. */
  static void assertAttributes(NativePKCS11Object object, Map<Integer, Object> attributes)
      throws Exception {
    for (var entry : attributes.entrySet()) {
      int type = entry.getKey();
      Object expected = entry.getValue();
      Object typed = expected instanceof Integer ? object.getIntAttributeValue(type)
          : expected instanceof Boolean ? object.getBoolAttributeValue(type)
          : expected instanceof String ? object.getStringAttributeValue(type)
          : expected instanceof Date ? object.getDate(type)
          : expected instanceof BigInteger ? object.getBigInteger(type)
          : object.getByteArrayAttributeValue(type);
      Object[] both = {object.getAttributeValue(type), typed};
      assertArrayEquals(new Object[] {expected, expected}, both, attributeName(type));
    }
  }

  static String output(String... command) throws Exception {
    Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
    String text = new String(process.getInputStream().readAllBytes(), UTF_8);
    assertEquals(0, process.waitFor(), text);
    return text;
  }
}
