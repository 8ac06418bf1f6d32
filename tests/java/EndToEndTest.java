// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.security.*;
import java.text.ParseException;
import java.util.*;
import javax.crypto.Cipher;
import javax.crypto.spec.SecretKeySpec;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.*;

/** Drives {@link TestToken}, and has the JDK judge what comes of it. */
class EndToEndTest {
  static final String PIN = TestToken.PIN;
  static final byte[] DATA = TestToken.DATA;
  static final Date END = TestToken.END;
  static final SecretKeySpec AES = new SecretKeySpec("0123456789abcdef".getBytes(UTF_8), "AES");

  @RegisterExtension static final TestToken token = new TestToken();

  final Locale locale = Locale.getDefault();
  TestToken.Pair rsa;
  NativePKCS11Session session;
  NativePKCS11Object key;
  NativePKCS11Object aes;

  @BeforeEach
  void logInWithKeys() throws Exception {
    rsa = TestToken.pair();
    session = token.logIn();
    key = session.createObject(rsa.privateKey());
    aes = session.createObject(new PKCS11Template().put(CKA_CLASS, CKO_SECRET_KEY)
        .put(CKA_KEY_TYPE, CKK_AES).put(CKA_VALUE, AES.getEncoded()).put(CKA_EXTRACTABLE, true)
        .put(CKA_ENCRYPT, true).put(CKA_DECRYPT, true).put(CKA_WRAP, true).put(CKA_UNWRAP, true));
  }

  @AfterEach
  void resetLocale() {
    Locale.setDefault(locale);
  }

  @Test
  void logsInAndOutAndRefusesTheRest() throws Exception {
    assertEquals(new PKCS11SessionInfo(CKS_RW_USER_FUNCTIONS, 6, 0), session.getInfo());
    PKCS11TokenInfo token = session.slot().getTokenInfo();
    assertFalse(token.hasFlag(CKF_TOKEN_INITIALIZED | CKF_USER_PIN_LOCKED));
    String other = "0\u00e0\u00e99";
    session.setPIN(PIN, other);
    session.logout();
    session.login(other.toCharArray());
    session.setPINellips(other.getBytes(UTF_8), PIN.getBytes(UTF_8));
    session.logout();
    TestToken.assertFails("CKR_PIN_INCORRECT (0xA0)",
        () -> session.loginellips(false, (PIN + "\0").getBytes(UTF_8)));
    TestToken.assertFails("CKR_ARGUMENTS_BAD (0x7)", () -> session.login(null));
    TestToken.assertFails("CKR_ARGUMENTS_BAD (0x7)", () -> session.login("12\ud83d4".toCharArray()));
  }

  @Test
  void findsWhatMatches() throws Exception {
    assertEquals(List.of(), session.findAll(new PKCS11Template().put(CKA_LABEL, "cl")));
    NativePKCS11Object found = session.findFirst(new PKCS11Template()
        .put(CKA_MODULUS, rsa.key().getModulus()).put(CKA_SIGN, true).put(CKA_END_DATE, END)
        .put(CKA_ID, TestToken.ID).put(CKA_CLASS, CKO_DATA).put(CKA_CLASS, CKO_PRIVATE_KEY))
        .orElseThrow();
    assertEquals(key, found);
    NativePKCS11Session other =
        new NativePKCS11Slot(new NativePKCS11(), session.slot().slotID()).openSession();
    assertNotEquals(session, other);
    assertEquals(Set.of(key, aes), Set.copyOf(other.findAll(null)));
    TestToken.assertFails("CKR_SESSION_READ_ONLY (0xB5)", () -> other.createObject(rsa.x509()));
  }

  @Test
  void readsAttributesAsTheJdkKnowsThem() throws Exception {
    NativePKCS11Object stored = session.createObject(rsa.x509());
    assertAttributes(stored, rsa.x509());
    assertEquals(rsa.certificate(), stored.certificate());
    stored.destroy();
    TestToken.assertFails("CKR_OBJECT_HANDLE_INVALID (0x82)", () -> stored.attributes(CKA_CLASS));
    assertAttributes(key, rsa.privateKey());
    assertEquals(rsa.certificate().getPublicKey(), key.publicKey());
    assertThrows(InvalidKeyException.class, aes::publicKey);
    assertThrows(IllegalArgumentException.class,
        () -> rsa.x509().put(CKA_SERIAL_NUMBER, rsa.certificate().getSerialNumber()));
    // SoftHSM2 does not know sizes.
    assertEquals(-1, key.size());
    key.setAttributeValue(CKA_START_DATE, new byte[0]);
    Map<Integer, Object> values = key.attributes(CKA_END_DATE, CKA_START_DATE, CKA_MODULUS_BITS,
        CKA_VALUE, CKA_ALWAYS_AUTHENTICATE);
    assertArrayEquals(new byte[] {0}, (byte[]) values.remove(CKA_ALWAYS_AUTHENTICATE));
    assertEquals(Map.of(CKA_END_DATE, END), values);
    NativePKCS11Object secret = session.generateKey(CKM_AES_KEY_GEN,
        new PKCS11Template().put(CKA_VALUE_LEN, 16).put(CKA_SENSITIVE, true));
    assertEquals(Map.of(CKA_SIGN, true), secret.attributes(CKA_VALUE, CKA_SIGN));
    new NativePKCS11().libFinalize();
    TestToken.assertFails("Internal error", () -> key.attributes(CKA_MODULUS_BITS));
  }

  /** The curves as CKA_EC_PARAMS names them: P-256, P-521, edwards25519, edwards448. */
  @ParameterizedTest
  @CsvSource({"06082a8648ce3d030107, NONEwithECDSAinP1363Format",
      "06052b81040023, NONEwithECDSAinP1363Format", "130c656477617264733235353139, Ed25519",
      "130a65647761726473343438, Ed448"})
  void makesPublicKeysThatVerify(String curve, String algorithm) throws Exception {
    boolean edwards = algorithm.startsWith("Ed");
    NativePKCS11Session.KeyPair pair = session.generateKeyPair(
        edwards ? CKM_EC_EDWARDS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN,
        new PKCS11Template().put(CKA_EC_PARAMS, HexFormat.of().parseHex(curve)),
        new PKCS11Template().put(CKA_SIGN, true));
    byte[] signature = session.sign(edwards ? CKM_EDDSA : CKM_ECDSA, pair.privateKey(), DATA);
    TestToken.assertVerifies(algorithm, pair.publicKey().publicKey(), signature);
  }

  @ParameterizedTest
  @ValueSource(strings = {"th-TH-u-ca-buddhist-nu-thai", "ja-JP-u-ca-japanese", "ar-EG-u-nu-arab"})
  void changesAttributesInEveryLocale(String tag) throws Exception {
    Locale.setDefault(Locale.forLanguageTag(tag));
    PKCS11Template changes = new PKCS11Template().put(CKA_START_DATE, END)
        .put(CKA_LABEL, "chang\u00e9e").put(CKA_ID, DATA);
    assertArrayEquals(new int[] {CKA_START_DATE, CKA_LABEL, CKA_ID}, changes.types());
    key.setAttributeValues(changes);
    assertArrayEquals("20310228".getBytes(UTF_8), key.getByteArrayAttributeValue(CKA_START_DATE));
    assertAttributes(key, changes);
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
  void refusesNullBeforeAnOperationBegins() throws Exception {
    PKCS11Template secret = new PKCS11Template();
    for (Executable call : List.<Executable>of(
        () -> session.sign(CKM_RSA_PKCS, key, null), () -> session.decrypt(CKM_RSA_PKCS, key, null),
        () -> session.encrypt(CKM_AES_ECB, aes, null),
        () -> session.unwrapKey(CKM_AES_KEY_WRAP, aes, null, secret))) {
      TestToken.assertFails("CKR_ARGUMENTS_BAD (0x7)", call);
    }
    // No operation was left active.
    TestToken.assertVerifies("SHA512withRSA", rsa.certificate().getPublicKey(),
        session.sign(CKM_SHA512_RSA_PKCS, key, DATA));
  }

  @Test
  void encryptsAndWrapsAsTheJdkDoes() throws Exception {
    Cipher jdk = Cipher.getInstance("AES/ECB/NoPadding");
    jdk.init(Cipher.ENCRYPT_MODE, AES);
    assertArrayEquals(jdk.doFinal(DATA), session.encrypt(CKM_AES_ECB, aes, DATA));
    jdk = Cipher.getInstance("AESWrap");
    jdk.init(Cipher.WRAP_MODE, AES);
    assertArrayEquals(jdk.wrap(AES), session.wrapKey(CKM_AES_KEY_WRAP, aes, aes));
  }

  static void assertAttributes(NativePKCS11Object object, PKCS11Template template)
      throws Exception {
    Object[] values = template.values();
    Arrays.asList(values).replaceAll(value -> value.equals("20310228") ? END : value);
    assertArrayEquals(values, object.attributes(template.types()).values().toArray());
  }
}
