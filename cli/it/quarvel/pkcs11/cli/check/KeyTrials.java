// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.check.CheckTable.Result;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.internal.Hash;
import it.quarvel.pkcs11.nat.*;
import java.nio.charset.StandardCharsets;
import java.security.PublicKey;
import java.security.spec.RSAKeyGenParameterSpec;
import java.util.*;
import java.util.stream.*;
import javax.crypto.Cipher;

/** The operations of a check-up that use keys, or that make objects and remove them again. */
public final class KeyTrials {
  /** The labels of the objects that a check-up makes. */
  public static final List<String> LABELS =
      List.of("quarvel-pkcs11 check", "quarvel-pkcs11 check, changed");

  private static final String LABEL = LABELS.get(0);
  private static final int RSA_BITS = 2048;
  private static final int AES_BYTES = 16;
  private static final byte[] P_256 = HexFormat.of().parseHex("06082a8648ce3d030107");

  /** Data of two AES blocks, which is the size of a SHA-256 digest too. */
  private static final byte[] DATA =
      "Nobody needs what a check signs.".getBytes(StandardCharsets.US_ASCII);

  /** Makes a call with a mechanism. */
  private interface Trial {
    Result apply(int mechanism) throws Exception;
  }

  /** Makes a call with a key of a type, a {@code CKK_} value. */
  private interface KeyTrial {
    Result apply(NativePKCS11Object key, int type) throws Exception;
  }

  private final Connection connection;
  private final CheckTable table;
  private final Map<Integer, PKCS11MechanismInfo> mechanisms;
  private final NativePKCS11Session session;

  /** The objects that the check-up has made and not yet removed. */
  private final Set<NativePKCS11Object> made = new LinkedHashSet<>();

  private String doubt = "it cannot be told whether this token removes what is made for a session";
  private NativePKCS11Object aes;
  private NativePKCS11Session.KeyPair pair;
  private byte[] wrapped;

  public KeyTrials(
      Connection connection, CheckTable table, Map<Integer, PKCS11MechanismInfo> mechanisms) {
    this.connection = connection;
    this.table = table;
    this.mechanisms = mechanisms;
    this.session = connection.session();
  }

  public List<NativePKCS11Object> made() {
    return List.copyOf(made);
  }

  /**
   * Makes a data object, looks whether the token keeps it, removes it, and makes it anew.
   *
   * @return why keys could stay on this token, empty when they will not
   */
  public String createObject() throws Failure {
    table.attempt(Step.CREATE_OBJECT, () -> {
      NativePKCS11Object probe = keep(session.createObject(data()));
      boolean kept = probe.getBoolAttributeValue(CKA_TOKEN);
      doubt = kept ? "this token keeps what is made for a session"
          : "this token does not let what is made be removed";
      if (!kept) {
        remove(probe);
        doubt = "";
        keep(session.createObject(data()));
      }
      return Result.WORKS;
    });
    return doubt;
  }

  public void createKeys() throws Failure {
    with(Step.GENERATE_KEY, CKF_GENERATE, mechanism -> {
      aes = keep(session.generateKey(mechanism, secretKey().put(CKA_VALUE_LEN, AES_BYTES)));
      return Result.WORKS;
    }, CKM_AES_KEY_GEN);
    with(Step.GENERATE_KEY_PAIR, CKF_GENERATE_KEY_PAIR, mechanism -> {
      pair = session.generateKeyPair(mechanism, publicKey(mechanism), privateKey(mechanism));
      keep(pair.publicKey());
      keep(pair.privateKey());
      return Result.WORKS;
    }, CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_EC_KEY_PAIR_GEN);
  }

  public void setAttribute() throws Failure {
    table.each(Step.SET_ATTRIBUTE, made().subList(0, Math.min(1, made.size())), object -> {
      object.setAttributeValue(CKA_LABEL, LABELS.get(1));
      return expect(LABELS.get(1).equals(object.getStringAttributeValue(CKA_LABEL)));
    });
  }

  /** Signs, and has Java verify the signature if the token shows the public key. */
  public void sign(NativePKCS11Object named) throws Failure {
    use(Step.SIGN, named, CKA_SIGN, (key, type) -> switch (type) {
      case CKK_RSA -> sign(key, CKM_SHA256_RSA_PKCS, CKM_RSA_PKCS);
      case CKK_EC -> sign(key, CKM_ECDSA);
      default -> sign(key, CKM_EDDSA);
    });
  }

  /** Signs with the first candidate that the token has; all make the same signatures. */
  private Result sign(NativePKCS11Object key, int... candidates) throws Exception {
    return with(CKF_SIGN, mechanism -> {
      byte[] data = mechanism == CKM_RSA_PKCS ? Hash.input(candidates[0], DATA) : DATA;
      byte[] signature = connection.sign(mechanism, key, data);
      boolean right = false;
      Set<PublicKey> halves = connection.publicKeys(key);
      for (PublicKey half : halves) {
        right |= JavaSignature.verifies(half, candidates[0], false, DATA, signature);
      }
      return halves.isEmpty() && signature.length > 0 ? Result.NOT_VERIFIED : expect(right);
    }, candidates);
  }

  /** Decrypts data that Java has encrypted. */
  public void decrypt(NativePKCS11Object named) throws Failure {
    use(Step.DECRYPT, named, CKA_DECRYPT, (key, type) -> {
      if (type != CKK_RSA) {
        return table.nothing("EC keys do not decrypt");
      }
      Set<PublicKey> halves = connection.publicKeys(key);
      if (halves.isEmpty()) {
        return table.nothing("no public key to encrypt with");
      }
      Cipher java = Cipher.getInstance("RSA/ECB/PKCS1Padding");
      java.init(Cipher.ENCRYPT_MODE, halves.iterator().next());
      return with(CKF_DECRYPT, mechanism -> expect(Arrays.equals(
          DATA, connection.decrypt(mechanism, key, java.doFinal(DATA)))), CKM_RSA_PKCS);
    });
  }

  public void useSecretKey() throws Failure {
    if (aes == null) {
      table.skip(Result.NOTHING_TO_TRY, "no key was made", Step.ENCRYPT, Step.WRAP, Step.UNWRAP);
      return;
    }
    with(Step.ENCRYPT, CKF_ENCRYPT, mechanism -> {
      byte[] hidden = session.encrypt(mechanism, aes, DATA);
      return expect(!Arrays.equals(DATA, hidden)
          && Arrays.equals(DATA, session.decrypt(mechanism, aes, hidden)));
    }, CKM_AES_ECB);
    int[] candidates = {CKM_AES_KEY_WRAP, CKM_AES_KEY_WRAP_PAD, CKM_AES_ECB};
    with(Step.WRAP, CKF_WRAP, mechanism -> {
      wrapped = session.wrapKey(mechanism, aes, aes);
      return Result.WORKS;
    }, candidates);
    if (wrapped == null) {
      table.skip(Result.NOTHING_TO_TRY, "no wrapped key", Step.UNWRAP);
      return;
    }
    with(Step.UNWRAP, CKF_UNWRAP, mechanism -> {
      NativePKCS11Object key = keep(session.unwrapKey(mechanism, aes, wrapped, unwrappedKey()));
      return expect(!mechanisms.containsKey(CKM_AES_ECB) || Arrays.equals(
          session.encrypt(CKM_AES_ECB, aes, DATA), session.encrypt(CKM_AES_ECB, key, DATA)));
    }, candidates);
  }

  public void destroy() throws Failure {
    List<NativePKCS11Object> objects = made();
    table.each(Step.DESTROY, objects, object -> {
      remove(object);
      return Result.WORKS;
    });
    table.attempt(Step.SEARCH_AFTER,
        () -> expect(Collections.disjoint(session.findAll(null), objects)));
  }

  /** Removes the objects, as far as the token lets it, without a row. */
  public void abandon() {
    for (NativePKCS11Object object : made()) {
      try {
        remove(object);
      } catch (PKCS11Exception e) {
        // The check-up reports the objects that are left.
      }
    }
  }

  /** Returns a message about the objects that are left, empty when none is. */
  public String left() {
    return made.isEmpty() ? "" : "objects left behind, with the label \"%s\": %s; \"check --clean\""
        .formatted(LABEL, made.size()) + " removes them";
  }

  /** Uses the key that the user names, else the one that was made, else one of the token. */
  private void use(Step step, NativePKCS11Object named, int use, KeyTrial trial) throws Failure {
    table.attempt(step, () -> {
      NativePKCS11Object key = named != null ? named : pair != null ? pair.privateKey()
          : connection.find(new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY).put(use, true), 1)
              .stream().findFirst().orElse(null);
      if (key == null) {
        return table.nothing("no key was made, and the token has none for it: --label names one");
      }
      Attributes attributes = new Attributes(key);
      Object type = attributes.number(CKA_KEY_TYPE);
      if (!List.<Object>of(CKK_RSA, CKK_EC, CKK_EC_EDWARDS).contains(type)) {
        return table.nothing("no trial for this type of key");
      }
      return Boolean.TRUE.equals(attributes.truth(use)) ? trial.apply(key, (int) type)
          : table.nothing("the key is not made for it");
    });
  }

  private void with(Step step, int use, Trial trial, int... candidates) throws Failure {
    table.attempt(step, () -> with(use, trial, candidates));
  }

  /** Makes the call with the first candidate that the token has for this use. */
  private Result with(int use, Trial trial, int... candidates) throws Exception {
    for (int mechanism : candidates) {
      PKCS11MechanismInfo info = mechanisms.get(mechanism);
      if (info != null && info.hasFlag(use)) {
        table.tell(PKCS11Constants.mechanismName(mechanism));
        return trial.apply(mechanism);
      }
    }
    table.tell(IntStream.of(candidates).mapToObj(PKCS11Constants::mechanismName)
        .collect(Collectors.joining(" ")));
    return Result.NO_MECHANISM;
  }

  private NativePKCS11Object keep(NativePKCS11Object object) {
    made.add(object);
    return object;
  }

  private void remove(NativePKCS11Object object) throws PKCS11Exception {
    object.destroy();
    made.remove(object);
  }

  /** Asks for a public object without a login; after one, each token has rules of its own. */
  private PKCS11Template template() {
    PKCS11Template template = new PKCS11Template().put(CKA_TOKEN, false).put(CKA_LABEL, LABEL);
    return connection.isLoggedIn() ? template : template.put(CKA_PRIVATE, false);
  }

  private PKCS11Template data() {
    return template().put(CKA_CLASS, CKO_DATA).put(CKA_APPLICATION, LABEL).put(CKA_VALUE, DATA);
  }

  private PKCS11Template unwrappedKey() {
    return template().put(CKA_CLASS, CKO_SECRET_KEY).put(CKA_KEY_TYPE, CKK_AES)
        .put(CKA_ENCRYPT, true);
  }

  private PKCS11Template secretKey() {
    return unwrappedKey().put(CKA_DECRYPT, true).put(CKA_WRAP, true).put(CKA_UNWRAP, true)
        .put(CKA_EXTRACTABLE, true);
  }

  private PKCS11Template publicKey(int mechanism) {
    PKCS11Template template = new PKCS11Template().put(CKA_TOKEN, false).put(CKA_LABEL, LABEL);
    return mechanism == CKM_EC_KEY_PAIR_GEN ? template.put(CKA_EC_PARAMS, P_256)
        : template.put(CKA_MODULUS_BITS, RSA_BITS).put(CKA_PUBLIC_EXPONENT, RSAKeyGenParameterSpec.F4);
  }

  private PKCS11Template privateKey(int mechanism) {
    PKCS11Template template = template().put(CKA_SIGN, true);
    return mechanism == CKM_EC_KEY_PAIR_GEN ? template : template.put(CKA_DECRYPT, true);
  }

  private static Result expect(boolean right) throws Failure {
    if (!right) {
      throw new Failure("wrong result");
    }
    return Result.WORKS;
  }
}
