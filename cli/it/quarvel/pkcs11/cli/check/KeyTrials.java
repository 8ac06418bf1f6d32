package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11MechanismInfo;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Attributes;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.PublicKey;
import java.security.Signature;
import java.security.spec.RSAKeyGenParameterSpec;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import javax.crypto.Cipher;

/** The operations of a check-up that use keys, or that make objects and remove them again. */
public final class KeyTrials {
  private static final String LABEL = "quarvel-pkcs11 check";
  private static final int RSA_BITS = 2048;
  private static final int AES_BYTES = 16;

  /** Two blocks of AES, and as long as a digest of SHA-256. */
  private static final byte[] DATA =
      "Nobody needs what a check signs.".getBytes(StandardCharsets.US_ASCII);

  private static final List<String> WRITING = List.of(
      "create object", "generate key", "generate key pair", "set attribute", "encrypt", "wrap",
      "unwrap", "destroy", "search after");

  /** A call that needs a mechanism. */
  private interface Trial<T> {
    T apply(int mechanism) throws PKCS11Exception, GeneralSecurityException, Failure;
  }

  private final Connection connection;
  private final CheckTable table;
  private final Map<Integer, PKCS11MechanismInfo> mechanisms;
  private final NativePKCS11Session session;
  private final List<NativePKCS11Object> created = new ArrayList<>();

  private NativePKCS11Object aes;
  private NativePKCS11Session.KeyPair rsa;

  public KeyTrials(
      Connection connection, CheckTable table, Map<Integer, PKCS11MechanismInfo> mechanisms) {
    this.connection = connection;
    this.table = table;
    this.mechanisms = mechanisms;
    this.session = connection.session();
  }

  public List<NativePKCS11Object> created() {
    return List.copyOf(created);
  }

  /** Makes one object of each kind; all of them go with the session, whatever happens. */
  public void create() {
    keep(table.attempt("create object", () -> session.createObject(template()
        .put(CKA_CLASS, CKO_DATA).put(CKA_APPLICATION, LABEL)
        .put(CKA_VALUE, DATA))));
    aes = keep(with("generate key", CKF_GENERATE, mechanism ->
        session.generateKey(mechanism, secretKey().put(CKA_VALUE_LEN, AES_BYTES)),
        CKM_AES_KEY_GEN));
    rsa = with("generate key pair", CKF_GENERATE_KEY_PAIR, this::generateRsa,
        CKM_RSA_PKCS_KEY_PAIR_GEN);
    if (rsa != null) {
      keep(rsa.publicKey());
      keep(rsa.privateKey());
    }
  }

  /** Tries the operations of the objects that {@link #create} has made. */
  public void useCreated() {
    if (created.isEmpty()) {
      table.note("set attribute", CheckTable.Result.NOTHING, "no object was made");
    } else {
      table.attempt("set attribute", () -> relabel(created.get(0)));
    }
    NativePKCS11Object signing = rsa == null ? null : rsa.privateKey();
    sign(signing);
    decrypt(signing);
    encrypt();
    wrapAndUnwrap();
  }

  /** Signs, and has Java verify what RSA keys make. */
  public void sign(NativePKCS11Object key) {
    switch (usableType("sign", key, CKA_SIGN)) {
      case CKK_RSA -> with("sign", CKF_SIGN, mechanism ->
          expect(verifies(mechanism, key.publicKey(), session.sign(mechanism, key, DATA))),
          CKM_SHA256_RSA_PKCS, CKM_RSA_PKCS);
      case CKK_EC -> with("sign", CKF_SIGN, mechanism ->
          expect(session.sign(mechanism, key, DATA).length > 0), CKM_ECDSA);
      default -> { }
    }
  }

  /** Decrypts what Java has encrypted. */
  public void decrypt(NativePKCS11Object key) {
    switch (usableType("decrypt", key, CKA_DECRYPT)) {
      case CKK_RSA -> with("decrypt", CKF_DECRYPT, mechanism -> {
        Cipher java = cipher(Cipher.ENCRYPT_MODE, key.publicKey());
        return expect(Arrays.equals(DATA, session.decrypt(mechanism, key, java.doFinal(DATA))));
      }, CKM_RSA_PKCS);
      case CKK_EC ->
          table.note("decrypt", CheckTable.Result.NO_MECHANISM, "EC keys do not decrypt");
      default -> { }
    }
  }

  public void destroy() {
    for (NativePKCS11Object object : created) {
      table.attempt("destroy", () -> {
        object.destroy();
        return null;
      });
    }
    if (created.isEmpty()) {
      table.note("destroy", CheckTable.Result.NOTHING, "no object was made");
    }
    table.attempt("search after", this::findNothingLeft);
  }

  /** Says why there is no attempt at what needs --write, or a key. */
  public void skipTheRest() {
    for (String operation : WRITING) {
      table.note(operation, CheckTable.Result.NOT_ASKED, "--write");
    }
    for (String operation : List.of("sign", "decrypt")) {
      table.noteAbsent(operation, CheckTable.Result.NOT_ASKED, "--write, or a key by --label");
    }
  }

  private void encrypt() {
    if (needs("encrypt", aes)) {
      with("encrypt", CKF_ENCRYPT, mechanism -> {
        byte[] hidden = session.encrypt(mechanism, aes, DATA);
        return expect(!Arrays.equals(DATA, hidden)
            && Arrays.equals(DATA, session.decrypt(mechanism, aes, hidden)));
      }, CKM_AES_ECB);
    }
  }

  private void wrapAndUnwrap() {
    if (!needs("wrap", aes)) {
      needs("unwrap", null);
      return;
    }
    int[] candidates = {CKM_AES_KEY_WRAP, CKM_AES_KEY_WRAP_PAD, CKM_AES_ECB};
    byte[] wrapped =
        with("wrap", CKF_WRAP, mechanism -> session.wrapKey(mechanism, aes, aes), candidates);
    if (wrapped == null) {
      table.note("unwrap", CheckTable.Result.NOTHING, "no wrapped key");
      return;
    }
    with("unwrap", CKF_UNWRAP, mechanism -> {
      NativePKCS11Object key = keep(session.unwrapKey(mechanism, aes, wrapped, unwrappedKey()));
      return expect(!mechanisms.containsKey(CKM_AES_ECB) || Arrays.equals(
          session.encrypt(CKM_AES_ECB, aes, DATA), session.encrypt(CKM_AES_ECB, key, DATA)));
    }, candidates);
  }

  /** Calls with the first mechanism that the token has for this use. */
  private <T> T with(String operation, int use, Trial<T> trial, int... candidates) {
    for (int mechanism : candidates) {
      PKCS11MechanismInfo info = mechanisms.get(mechanism);
      if (info != null && info.hasFlag(use)) {
        T result = table.attempt(operation, () -> trial.apply(mechanism));
        table.note(operation, CheckTable.Result.WORKS, PKCS11Constants.mechanismName(mechanism));
        return result;
      }
    }
    table.note(operation, CheckTable.Result.NO_MECHANISM, IntStream.of(candidates)
        .mapToObj(PKCS11Constants::mechanismName).collect(Collectors.joining(" ")));
    return null;
  }

  private boolean needs(String operation, Object key) {
    if (key == null) {
      table.note(operation, CheckTable.Result.NOTHING, "no key was made");
    }
    return key != null;
  }

  /** Returns the type of a key that may be used like this, -1 when there is nothing to try. */
  private int usableType(String operation, NativePKCS11Object key, int use) {
    if (!needs(operation, key)) {
      return -1;
    }
    Attributes attributes = new Attributes(key);
    Boolean usable =
        table.attempt(operation, () -> attributes.read(use, key::getBoolAttributeValue));
    Integer type =
        table.attempt(operation, () -> attributes.read(CKA_KEY_TYPE, key::getIntAttributeValue));
    boolean known = type != null && (type == CKK_RSA || type == CKK_EC);
    if (known && Boolean.TRUE.equals(usable)) {
      return type;
    }
    table.note(operation, CheckTable.Result.NOTHING, known || type == null
        ? "the key is not made for it" : "no trial for " + PKCS11Constants.keyTypeName(type));
    return -1;
  }

  private NativePKCS11Object keep(NativePKCS11Object object) {
    if (object != null) {
      table.checkHandle("object", object.objectID());
      created.add(object);
    }
    return object;
  }

  /** Without a login there are no private objects; with one, each token has its own rules. */
  private PKCS11Template template() {
    PKCS11Template template = new PKCS11Template().put(CKA_TOKEN, false).put(CKA_LABEL, LABEL);
    return connection.isLoggedIn() ? template : template.put(CKA_PRIVATE, false);
  }

  private PKCS11Template unwrappedKey() {
    return template().put(CKA_CLASS, CKO_SECRET_KEY).put(CKA_KEY_TYPE, CKK_AES)
        .put(CKA_ENCRYPT, true);
  }

  private PKCS11Template secretKey() {
    return unwrappedKey().put(CKA_DECRYPT, true).put(CKA_WRAP, true).put(CKA_UNWRAP, true)
        .put(CKA_EXTRACTABLE, true);
  }

  private NativePKCS11Session.KeyPair generateRsa(int mechanism) throws PKCS11Exception {
    PKCS11Template publicKey = new PKCS11Template().put(CKA_TOKEN, false).put(CKA_LABEL, LABEL)
        .put(CKA_MODULUS_BITS, RSA_BITS).put(CKA_PUBLIC_EXPONENT, RSAKeyGenParameterSpec.F4);
    return session.generateKeyPair(
        mechanism, publicKey, template().put(CKA_SIGN, true).put(CKA_DECRYPT, true));
  }

  private static Void relabel(NativePKCS11Object object) throws PKCS11Exception, Failure {
    String changed = LABEL + ", changed";
    object.setAttributeValue(CKA_LABEL, changed);
    return expect(changed.equals(object.getStringAttributeValue(CKA_LABEL)));
  }

  private Void findNothingLeft() throws Failure {
    List<Integer> handles = created.stream().map(NativePKCS11Object::objectID).toList();
    int[] left = {0};
    connection.search(
        new PKCS11Template(),
        object -> {
          left[0] += handles.contains(object.objectID()) ? 1 : 0;
          return true;
        });
    return expect(left[0] == 0);
  }

  private static boolean verifies(int mechanism, PublicKey key, byte[] signature)
      throws GeneralSecurityException {
    if (mechanism == CKM_RSA_PKCS) {
      return Arrays.equals(DATA, cipher(Cipher.DECRYPT_MODE, key).doFinal(signature));
    }
    Signature java = Signature.getInstance("SHA256withRSA");
    java.initVerify(key);
    java.update(DATA);
    return java.verify(signature);
  }

  private static Cipher cipher(int mode, PublicKey key) throws GeneralSecurityException {
    Cipher cipher = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    cipher.init(mode, key);
    return cipher;
  }

  private static Void expect(boolean right) throws Failure {
    if (!right) {
      throw new Failure("wrong result");
    }
    return null;
  }
}
