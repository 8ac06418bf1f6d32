import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.util.EnumMap;
import java.util.Map;

/** This library on a real token; all keys live in the session. */
public final class TokenBinding implements TokenSubject {
  private static final int CKM_RSA_PKCS_KEY_PAIR_GEN = 0x0;
  private static final int CKM_EC_KEY_PAIR_GEN = 0x1040;
  private static final int CKM_AES_KEY_GEN = 0x1080;
  private static final int CKK_AES = 0x1F;
  private static final int CKA_VALUE = 0x11;
  private static final int CKA_ENCRYPT = 0x104;
  private static final int CKA_DECRYPT = 0x105;
  private static final int CKA_VALUE_LEN = 0x161;
  private static final int CKA_EC_PARAMS = 0x180;
  private static final byte[] P_256 = {6, 8, 0x2A, (byte) 0x86, 0x48, (byte) 0xCE, 0x3D, 3, 1, 7};

  private NativePKCS11Session session;
  private NativePKCS11Session.KeyPair rsa;
  private NativePKCS11Session.KeyPair ec;
  private NativePKCS11Object aes;

  @Override
  public Keys prepare(String modulePath, String pin) throws PKCS11Exception {
    NativePKCS11.loadPKCS11Library(modulePath);
    NativePKCS11 module = new NativePKCS11();
    module.libInitialize();
    session = module.slots(true).get(0).openSession(6);
    session.login(false, pin);
    makeKeys();
    return new Keys(
        session.sessionID(),
        rsa.publicKey().objectID(),
        rsa.privateKey().objectID(),
        ec.privateKey().objectID(),
        aes.objectID());
  }

  private void makeKeys() throws PKCS11Exception {
    PKCS11Template own =
        new PKCS11Template().put(Workload.CKA_SIGN, true).put(CKA_DECRYPT, true);
    rsa =
        session.generateKeyPair(
            CKM_RSA_PKCS_KEY_PAIR_GEN,
            new PKCS11Template()
                .put(Workload.CKA_MODULUS_BITS, 2048)
                .put(Workload.CKA_PUBLIC_EXPONENT, new byte[] {1, 0, 1})
                .put(CKA_ENCRYPT, true),
            own);
    ec =
        session.generateKeyPair(
            CKM_EC_KEY_PAIR_GEN,
            new PKCS11Template().put(CKA_EC_PARAMS, P_256),
            new PKCS11Template().put(Workload.CKA_SIGN, true));
    aes =
        session.generateKey(
            CKM_AES_KEY_GEN,
            new PKCS11Template().put(CKA_VALUE_LEN, 32).put(CKA_ENCRYPT, true));
    for (int i = 1; i < TokenInputs.KEYS; i++) {
      session.createObject(
          new PKCS11Template()
              .put(Workload.CKA_CLASS, TokenInputs.CKO_SECRET_KEY)
              .put(Workload.CKA_KEY_TYPE, CKK_AES)
              .put(Workload.CKA_LABEL, "key " + i)
              .put(CKA_VALUE, new byte[32]));
    }
  }

  @Override
  public Map<TokenOp, Operation> operations(TokenInputs inputs) {
    Map<TokenOp, Operation> operations = new EnumMap<>(TokenOp.class);
    byte[] signature = new byte[TokenInputs.RSA_SIZE];
    operations.put(
        TokenOp.RSA_SIGN,
        n -> sign(TokenInputs.CKM_RSA_PKCS, rsa.privateKey(), inputs.digestInfo(), signature, n));
    byte[] ecSignature = new byte[TokenInputs.EC_SIZE];
    operations.put(
        TokenOp.EC_SIGN,
        n -> sign(TokenInputs.CKM_ECDSA, ec.privateKey(), inputs.hash(), ecSignature, n));
    operations.put(TokenOp.RSA_DECRYPT, n -> decrypt(inputs.ciphertext(), n));
    TokenInputs.AES_SIZES.forEach((op, size) -> operations.put(op, aes(size)));
    operations.put(TokenOp.SEARCH, this::search);
    return operations;
  }

  private long sign(int mech, NativePKCS11Object key, byte[] in, byte[] out, int calls)
      throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      session.signInit(mech, null, key);
      sum += session.sign(in, 0, in.length, out, 0) + out[0];
    }
    return sum;
  }

  private long decrypt(byte[] in, int calls) throws PKCS11Exception {
    byte[] out = new byte[TokenInputs.RSA_SIZE];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      session.decryptInit(TokenInputs.CKM_RSA_PKCS, null, rsa.privateKey());
      sum += session.decrypt(in, 0, in.length, out, 0) + out[0];
    }
    return sum;
  }

  private Operation aes(int size) {
    byte[] in = new byte[size];
    byte[] out = new byte[size];
    return n -> encrypt(in, out, n);
  }

  private long encrypt(byte[] in, byte[] out, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      session.encryptInit(TokenInputs.CKM_AES_ECB, null, aes);
      sum += session.encrypt(in, 0, in.length, out, 0) + out[0];
    }
    return sum;
  }

  private long search(int calls) throws PKCS11Exception {
    PKCS11Template template =
        new PKCS11Template().put(Workload.CKA_CLASS, TokenInputs.CKO_SECRET_KEY);
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += session.findAll(template).size();
    }
    return sum;
  }
}
