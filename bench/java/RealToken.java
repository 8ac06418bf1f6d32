// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.util.List;
import sun.security.pkcs11.wrapper.CK_ATTRIBUTE;
import sun.security.pkcs11.wrapper.CK_MECHANISM;
import sun.security.pkcs11.wrapper.PKCS11;
import sun.security.pkcs11.wrapper.PKCS11Exception;

/** The operations on a real token, in one session that all subjects share with its keys. */
final class RealToken {
  private static final int KEYS = 1_000;
  private static final byte[] P_256 = {6, 8, 0x2A, (byte) 0x86, 0x48, (byte) 0xCE, 0x3D, 3, 1, 7};

  private final PKCS11 p11;
  private final long slot;
  private final int session;

  RealToken(PKCS11 p11, String pin) throws PKCS11Exception {
    this.p11 = p11;
    slot = p11.C_GetSlotList(true)[0];
    session = openSession();
    p11.C_Login(session, CKU_USER, pin.toCharArray());
  }

  int openSession() throws PKCS11Exception {
    return (int) p11.C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, null, null);
  }

  List<Operation> operations() throws PKCS11Exception {
    long[] rsa = pair(CKM_RSA_PKCS_KEY_PAIR_GEN, new CK_ATTRIBUTE(CKA_MODULUS_BITS, 2048));
    long[] ec = pair(CKM_EC_KEY_PAIR_GEN, new CK_ATTRIBUTE(CKA_EC_PARAMS, P_256));
    CK_ATTRIBUTE[] secret = {
      new CK_ATTRIBUTE(CKA_CLASS, CKO_SECRET_KEY),
      new CK_ATTRIBUTE(CKA_KEY_TYPE, CKK_AES),
      new CK_ATTRIBUTE(CKA_ENCRYPT, true),
      new CK_ATTRIBUTE(CKA_VALUE, new byte[32])
    };
    for (int i = 1; i < KEYS; i++) {
      p11.C_CreateObject(session, secret);
    }
    long aes = p11.C_CreateObject(session, secret);
    byte[] digestInfo = new byte[51];
    byte[] encrypted = new byte[256];
    p11.C_EncryptInit(session, new CK_MECHANISM(CKM_RSA_PKCS), rsa[0]);
    p11.C_Encrypt(session, 0, digestInfo, 0, digestInfo.length, 0, encrypted, 0, 256);
    return List.of(
        of("RSA 2048 signature", Operation.Kind.SIGN, rsa[1], CKM_RSA_PKCS, digestInfo, 256),
        of("EC P-256 signature", Operation.Kind.SIGN, ec[1], CKM_ECDSA, new byte[32], 64),
        of("RSA 2048 decryption", Operation.Kind.DECRYPT, rsa[1], CKM_RSA_PKCS, encrypted, 256),
        aes("AES encryption of 1 KiB", aes, 1 << 10),
        aes("AES encryption of 32 KiB", aes, 32 << 10),
        aes("AES encryption of 64 KiB", aes, 64 << 10),
        aes("AES encryption of 1 MiB", aes, 1 << 20),
        of("search over 1,000 keys", Operation.Kind.SEARCH, 0, 0, new byte[0], 0));
  }

  private long[] pair(int mechanism, CK_ATTRIBUTE size) throws PKCS11Exception {
    CK_ATTRIBUTE[] pub = {size};
    CK_ATTRIBUTE[] prv = {new CK_ATTRIBUTE(CKA_SIGN, true), new CK_ATTRIBUTE(CKA_DECRYPT, true)};
    return p11.C_GenerateKeyPair(session, new CK_MECHANISM(mechanism), pub, prv);
  }

  private Operation aes(String label, long key, int size) {
    return of(label, Operation.Kind.ENCRYPT, key, CKM_AES_ECB, new byte[size], size);
  }

  private Operation of(
      String label, Operation.Kind kind, long key, int mechanism, byte[] in, int size) {
    return new Operation(label, kind, session, (int) key, mechanism, in, size);
  }
}
