import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.math.BigInteger;
import java.nio.file.Path;
import java.security.*;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.security.spec.*;
import java.text.ParseException;
import java.util.*;
import javax.crypto.Cipher;
import javax.crypto.spec.SecretKeySpec;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Drives a SoftHSM2 token that the caller has made, and has the JDK and OpenSC judge what comes of
 * it. The system properties quarvel.module, quarvel.pin and quarvel.soPin say where it is.
 */
class EndToEndTest {
  static final String MODULE = System.getProperty("quarvel.module");
  static final String PIN = System.getProperty("quarvel.pin");
  static final String SO_PIN = System.getProperty("quarvel.soPin");

  static final byte[] ID = {0, 'i', (byte) 0xFF};
  static final byte[] DATA = "Whole blocks, to sign or to hide".getBytes(UTF_8);
  static final SecretKeySpec AES = new SecretKeySpec("0123456789abcdef".getBytes(UTF_8), "AES");
  static final Date END = new GregorianCalendar(2031, Calendar.FEBRUARY, 28).getTime();
  static final BigInteger F4 = RSAKeyGenParameterSpec.F4;

  static RSAPrivateCrtKey rsa;
  static X509Certificate certificate;
  static PKCS11Template privateKey;
  static PKCS11Template x509;

  final Locale locale = Locale.getDefault();
  final NativePKCS11 module = new NativePKCS11();
  NativePKCS11Session session;
  NativePKCS11Object key;
  NativePKCS11Object aes;

  @BeforeAll
  static void makeKeyAndCertificate(@TempDir Path directory) throws Exception {
    Path file = directory.resolve("rsa.p12");
    output(System.getProperty("java.home") + "/bin/keytool -genkeypair -alias rsa -keyalg RSA"
        + " -keysize 2048 -dname CN=Test -storetype PKCS12 -storepass changeit -keystore " + file);
    char[] password = "changeit".toCharArray();
    KeyStore store = KeyStore.getInstance(file.toFile(), password);
    rsa = (RSAPrivateCrtKey) store.getKey("rsa", password);
    certificate = (X509Certificate) store.getCertificate("rsa");
    // Not private, although it should be: SoftHSM2 cannot read a private object's dates back.
    privateKey = new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY).put(CKA_KEY_TYPE, CKK_RSA)
        .put(CKA_LABEL, "cl\u00e9 priv\u00e9e").put(CKA_ID, ID).put(CKA_END_DATE, END)
        .put(CKA_PRIVATE, false).put(CKA_SENSITIVE, false).put(CKA_EXTRACTABLE, true)
        .put(CKA_SIGN, true).put(CKA_DECRYPT, true).put(CKA_MODULUS, rsa.getModulus())
        .put(CKA_PUBLIC_EXPONENT, F4).put(CKA_PRIVATE_EXPONENT, rsa.getPrivateExponent())
        .put(CKA_PRIME_1, rsa.getPrimeP()).put(CKA_PRIME_2, rsa.getPrimeQ())
        .put(CKA_EXPONENT_1, rsa.getPrimeExponentP()).put(CKA_EXPONENT_2, rsa.getPrimeExponentQ())
        .put(CKA_COEFFICIENT, rsa.getCrtCoefficient());
    x509 = PKCS11Template.of(certificate).put(CKA_TOKEN, true).put(CKA_LABEL, "");
  }

  @BeforeEach
  void logInWithKeys() throws Exception {
    NativePKCS11.loadPKCS11Library(MODULE);
    module.libInitialize();
    session = module.slots(true).get(0).openSession(true);
    session.loginellips(false, PIN.getBytes(UTF_8));
    key = session.createObject(privateKey);
    aes = session.createObject(new PKCS11Template().put(CKA_CLASS, CKO_SECRET_KEY)
        .put(CKA_KEY_TYPE, CKK_AES).put(CKA_VALUE, AES.getEncoded()).put(CKA_EXTRACTABLE, true)
        .put(CKA_ENCRYPT, true).put(CKA_DECRYPT, true).put(CKA_WRAP, true).put(CKA_UNWRAP, true));
  }

  @AfterEach
  void stop() throws Exception {
    Locale.setDefault(locale);
    module.libFinalize();
  }

  @Test
  void describesTheTokenAsOpenScDoes() throws Exception {
    NativePKCS11Slot slot = session.slot();
    PKCS11TokenInfo token = slot.getTokenInfo();
    PKCS11MechanismInfo pkcs1 = slot.getMechanismInfo(CKM_RSA_PKCS);
    assertLines(openSc("--show-info --list-slots --list-mechanisms"),
        "Library .*\\(ver " + PKCS11Info.versionText(module.getInfo().libraryVersion()) + "\\)",
        "Slot 0 .*: " + slot.getInfo().slotDescription().strip(),
        " *token label +: " + token.trimmedLabel(), " *serial num +: " + slot.getTokenSN().strip(),
        " *pin min/max +: " + token.minPinLen() + "/" + token.maxPinLen(),
        " *RSA-PKCS, keySize=\\{%d,%d\\}.*".formatted(pkcs1.minKeySize(), pkcs1.maxKeySize()));
    assertFalse(token.hasFlag(CKF_TOKEN_INITIALIZED | CKF_USER_PIN_LOCKED));
    assertTrue(Arrays.stream(slot.getMechanismList()).anyMatch(m -> m == CKM_RSA_PKCS));
  }

  @Test
  void logsInAndOutAndRefusesTheRest() throws Exception {
    assertEquals(new PKCS11SessionInfo(CKS_RW_USER_FUNCTIONS, 6, 0), session.getInfo());
    session.setPIN(PIN, "0\u00e0\u00e99");
    session.logout();
    char[] pin = "0\u00e0\u00e99".toCharArray();
    session.login(pin);
    session.setPINellips(new String(pin).getBytes(UTF_8), PIN.getBytes(UTF_8));
    session.logout();
    assertFails("CKR_PIN_INCORRECT (0xA0)",
        () -> session.loginellips(false, (PIN + "\0").getBytes(UTF_8)));
    assertFails("CKR_ARGUMENTS_BAD (0x7)", () -> session.login(null));
    assertFails("CKR_ARGUMENTS_BAD (0x7)", () -> session.login("12\ud83d4".toCharArray()));
    session.login(true, SO_PIN);
    session.initPIN("56789");
    session.logout();
    assertFails("CKR_PIN_INCORRECT (0xA0)", () -> session.login(false, PIN));
    session.login(false, "56789");
    session.setPIN("56789", PIN);
    session.slot().closeAllSessions();
    assertFails("CKR_SESSION_HANDLE_INVALID (0xB3)", session::close);
  }

  @Test
  void findsWhatMatches() throws Exception {
    assertEquals(2, session.findAll(null).size());
    assertEquals(List.of(), session.findAll(new PKCS11Template().put(CKA_LABEL, "cl")));
    NativePKCS11Object found = session.findFirst(new PKCS11Template()
        .put(CKA_MODULUS, rsa.getModulus()).put(CKA_SIGN, true).put(CKA_END_DATE, END)
        .put(CKA_ID, ID).put(CKA_CLASS, CKO_DATA).put(CKA_CLASS, CKO_PRIVATE_KEY)).orElseThrow();
    assertEquals(key, found);
    assertNotEquals(aes, found);
    NativePKCS11Session other = new NativePKCS11Slot(module, session.slot().slotID()).openSession();
    assertNotEquals(session, other);
    assertEquals(Set.of(key, aes), Set.copyOf(other.findAll(null)));
    assertFails("CKR_SESSION_READ_ONLY (0xB5)", () -> other.createObject(x509));
  }

  @Test
  void readsAttributesAsTheJdkKnowsThem() throws Exception {
    NativePKCS11Object stored = session.createObject(x509);
    assertAttributes(stored, x509);
    assertEquals(certificate, stored.certificate());
    stored.destroy();
    assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", stored::destroy);
    assertAttributes(key, privateKey);
    assertEquals(certificate.getPublicKey(), key.publicKey());
    assertThrows(InvalidKeyException.class, aes::publicKey);
    assertThrows(IllegalArgumentException.class,
        () -> x509.put(CKA_SERIAL_NUMBER, certificate.getSerialNumber()));
    // SoftHSM2 does not know sizes.
    assertEquals(-1, key.size());
  }

  @Test
  void readsTheAttributesThatThereAre() throws Exception {
    key.setAttributeValue(CKA_START_DATE, new byte[0]);
    NativePKCS11Object secret = session.generateKey(CKM_AES_KEY_GEN,
        new PKCS11Template().put(CKA_VALUE_LEN, 16).put(CKA_SENSITIVE, true));
    int[] types = {CKA_END_DATE, CKA_START_DATE, CKA_MODULUS_BITS, CKA_VALUE,
        CKA_ALWAYS_AUTHENTICATE, CKA_CLASS, CKA_MODULUS, CKA_SIGN};
    Map<Integer, Object> values = key.attributes(types);
    assertArrayEquals(new byte[] {0}, (byte[]) values.remove(CKA_ALWAYS_AUTHENTICATE));
    assertEquals(Map.of(CKA_END_DATE, END, CKA_CLASS, CKO_PRIVATE_KEY,
        CKA_MODULUS, rsa.getModulus(), CKA_SIGN, true), values);
    assertEquals(Set.of(CKA_CLASS, CKA_SIGN), secret.attributes(types).keySet());
    secret.destroy();
    assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", () -> secret.attributes(types));
    module.libFinalize();
    assertFails("Internal error", () -> key.attributes(types));
  }

  @ParameterizedTest
  @ValueSource(strings = {"secp256r1", "secp521r1", "Ed25519", "Ed448"})
  void makesPublicKeysThatVerify(String curve) throws Exception {
    boolean edwards = curve.startsWith("Ed");
    AlgorithmParameters ec = AlgorithmParameters.getInstance("EC");
    ec.init(new ECGenParameterSpec(edwards ? "secp256r1" : curve));
    String name = curve.replace("Ed", "edwards");
    byte[] parameters =
        edwards ? ("\23" + (char) name.length() + name).getBytes(UTF_8) : ec.getEncoded();
    NativePKCS11Session.KeyPair pair = session.generateKeyPair(
        edwards ? CKM_EC_EDWARDS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN,
        new PKCS11Template().put(CKA_EC_PARAMS, parameters),
        new PKCS11Template().put(CKA_SIGN, true));
    byte[] signature = session.sign(edwards ? CKM_EDDSA : CKM_ECDSA, pair.privateKey(), DATA);
    assertVerifies(edwards ? curve : "NONEwithECDSAinP1363Format", pair.publicKey().publicKey(),
        signature);
  }

  @Test
  void changesAttributes() throws Exception {
    key.setAttributeValue(CKA_START_DATE, END);
    assertArrayEquals("20310228".getBytes(UTF_8), key.getByteArrayAttributeValue(CKA_START_DATE));
    PKCS11Template changes = new PKCS11Template().put(CKA_LABEL, "chang\u00e9e").put(CKA_ID, DATA);
    key.setAttributeValues(changes);
    assertAttributes(key, changes);
    key.setIntAttributeValue(CKA_ID, -2);
    assertArrayEquals(new byte[] {-2, -1, -1, -1, -1, -1, -1, -1},
        key.getByteArrayAttributeValue(CKA_ID));
    key.setBoolAttributeValue(CKA_SIGN, false);
    assertFails("CKR_KEY_FUNCTION_NOT_PERMITTED (0x68)",
        () -> session.sign(CKM_RSA_PKCS, key, DATA));
  }

  @ParameterizedTest
  @ValueSource(strings = {"th-TH-u-ca-buddhist-nu-thai", "ja-JP-u-ca-japanese", "ar-EG-u-nu-arab"})
  void keepsDatesInEveryLocale(String tag) throws Exception {
    Locale.setDefault(Locale.forLanguageTag(tag));
    key.setAttributeValues(new PKCS11Template().put(CKA_START_DATE, END));
    assertArrayEquals("20310228".getBytes(UTF_8), key.getByteArrayAttributeValue(CKA_START_DATE));
    assertEquals(END, key.getDate(CKA_START_DATE));
  }

  @Test
  void takesDaysOnlyForDates() throws Exception {
    key.setAttributeValue(CKA_ID, new byte[] {2, 0, 3, 1, 0, 2, 2, 8});
    assertEquals(END, key.getDate(CKA_ID));
    for (String value : List.of("20260230", "2026-1-1", "202602281", "+0260228", "\2\0\2\6011.1")) {
      key.setAttributeValue(CKA_ID, value.getBytes(UTF_8));
      assertThrows(ParseException.class, () -> key.getDate(CKA_ID), value);
    }
  }

  @Test
  void refusesNullBytesBeforeTheModuleIsCalled() throws Exception {
    PKCS11Template secret = new PKCS11Template();
    for (Executable call : List.<Executable>of(
        () -> session.sign(CKM_RSA_PKCS, key, null), () -> session.decrypt(CKM_RSA_PKCS, key, null),
        () -> session.encrypt(CKM_AES_ECB, aes, null),
        () -> session.unwrapKey(CKM_AES_KEY_WRAP, aes, null, secret))) {
      assertFails("CKR_ARGUMENTS_BAD (0x7)", call);
    }
    // No operation was left active.
    assertEquals(256, session.sign(CKM_RSA_PKCS, key, DATA).length);
  }

  @Test
  void signsAndDecryptsForTheJdk() throws Exception {
    Cipher jdk = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    jdk.init(Cipher.ENCRYPT_MODE, certificate.getPublicKey());
    assertArrayEquals(DATA, session.decrypt(CKM_RSA_PKCS, key, jdk.doFinal(DATA)));
    byte[] out = new byte[300];
    session.signInit(CKM_SHA512_RSA_PKCS, null, key);
    assertEquals(256, session.sign(DATA, 0, DATA.length, null, 0));
    assertEquals(256, session.sign(DATA, 5, DATA.length, out, 44));
    assertVerifies("SHA512withRSA", certificate.getPublicKey(), Arrays.copyOf(out, 256));
  }

  @Test
  void generatesKeysThatTheJdkTakes() throws Exception {
    Object[] pair = session.generateKeyPair(CKM_RSA_PKCS_KEY_PAIR_GEN, "not read",
        new int[] {CKA_PUBLIC_EXPONENT, CKA_MODULUS_BITS}, new Object[] {F4, 1024},
        new int[] {CKA_SIGN}, new Object[] {true});
    BigInteger modulus = ((NativePKCS11Object) pair[0]).getBigInteger(CKA_MODULUS);
    assertEquals(1024, modulus.bitLength());
    assertVerifies("SHA256withRSA",
        KeyFactory.getInstance("RSA").generatePublic(new RSAPublicKeySpec(modulus, F4)),
        session.sign(CKM_SHA256_RSA_PKCS, (NativePKCS11Object) pair[1], DATA));

    NativePKCS11Object generated = session.generateKey(CKM_AES_KEY_GEN, null,
        new int[] {CKA_VALUE_LEN, CKA_EXTRACTABLE}, new Object[] {32, true, "surplus"});
    byte[] value = generated.getByteArrayAttributeValue(CKA_VALUE);
    assertEquals(32, value.length);
    Cipher jdk = Cipher.getInstance("AES/ECB/NoPadding");
    jdk.init(Cipher.ENCRYPT_MODE, new SecretKeySpec(value, "AES"));
    assertArrayEquals(jdk.doFinal(DATA), session.encrypt(CKM_AES_ECB, generated, DATA));
    // Padding makes more bytes than go in, and encrypt announces no more room than that.
    assertFails("CKR_BUFFER_TOO_SMALL (0x150)",
        () -> session.encrypt(CKM_RSA_PKCS, (NativePKCS11Object) pair[0], DATA));
  }

  @Test
  void wrapsAndUnwrapsAsTheJdkDoes() throws Exception {
    Cipher jdk = Cipher.getInstance("AESWrap");
    jdk.init(Cipher.WRAP_MODE, AES);
    byte[] wrapped = jdk.wrap(AES);
    assertArrayEquals(wrapped, session.wrapKey(CKM_AES_KEY_WRAP, aes, aes));
    byte[] room = new byte[30];
    assertEquals(24, session.wrapKey(CKM_AES_KEY_WRAP, null, aes, aes, room, 6));
    assertArrayEquals(Arrays.copyOf(wrapped, 30), room);
    int length = session.wrapKey(CKM_AES_KEY_WRAP_PAD, aes, key).length;
    assertFails("CKR_BUFFER_TOO_SMALL (0x150)",
        () -> session.wrapKey(CKM_AES_KEY_WRAP_PAD, null, aes, key, new byte[length - 1], 0));

    PKCS11Template secret = new PKCS11Template().put(CKA_CLASS, CKO_SECRET_KEY)
        .put(CKA_KEY_TYPE, CKK_AES).put(CKA_SENSITIVE, false).put(CKA_EXTRACTABLE, true);
    NativePKCS11Object unwrapped = session.unwrapKey(CKM_AES_KEY_WRAP, aes, wrapped, secret);
    assertArrayEquals(AES.getEncoded(), unwrapped.getByteArrayAttributeValue(CKA_VALUE));
    unwrapped = session.unwrapKey(CKM_AES_KEY_WRAP, null, aes, room, 6, 24, secret.types(),
        new Object[] {CKO_SECRET_KEY, CKK_AES, true, false, "surplus"});
    assertArrayEquals(DATA, session.decrypt(CKM_AES_ECB, unwrapped,
        session.encrypt(CKM_AES_ECB, aes, DATA)));
  }

  @Test
  void storesObjectsThatOpenScLists() throws Exception {
    PKCS11Template token = new PKCS11Template().put(CKA_TOKEN, true).put(CKA_LABEL, "\u00e9");
    NativePKCS11Session.KeyPair pair = session.generateKeyPair(CKM_RSA_PKCS_KEY_PAIR_GEN,
        new PKCS11Template().put(CKA_TOKEN, true).put(CKA_MODULUS_BITS, 1024), token);
    assertEquals("\u00e9", pair.privateKey().getAttributeValue(CKA_LABEL));
    List<NativePKCS11Object> stored = List.of(session.createObject(x509), pair.publicKey(),
        pair.privateKey(), session.createObject(new PKCS11Template().put(CKA_CLASS, CKO_DATA)
            .put(CKA_TOKEN, true).put(CKA_APPLICATION, "listing")),
        session.generateKey(CKM_AES_KEY_GEN, token.put(CKA_VALUE_LEN, 32)));
    String listing = "--list-objects --login --pin " + PIN;
    String objects = openSc(listing);
    for (NativePKCS11Object object : stored) {
      object.destroy();
    }
    assertLines(objects, "Public Key Object; RSA 1024 bits", "Private Key Object; RSA *",
        "Certificate Object; type = X.509 cert", " *subject: +DN: CN=Test",
        " *serial: +0*%X".formatted(certificate.getSerialNumber()), "Data object .*",
        " *application: +'listing'", "Secret Key Object; AES length 32", " *label: +\u00e9");
    assertFalse(openSc(listing).contains("label"));
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
  static void assertAttributes(NativePKCS11Object object, PKCS11Template template)
      throws Exception {
    for (int i = 0; i < template.types().length; i++) {
      int type = template.types()[i];
      Object expected = type == CKA_END_DATE ? END : template.values()[i];
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

  static String openSc(String arguments) throws Exception {
    return output("pkcs11-tool --module " + MODULE + " " + arguments);
  }

  static String output(String command) throws Exception {
    Process process = new ProcessBuilder(command.split(" ")).redirectErrorStream(true).start();
    String text = new String(process.getInputStream().readAllBytes(), UTF_8);
    assertEquals(0, process.waitFor(), text);
    return text;
  }
}
