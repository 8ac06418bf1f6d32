import com.sun.jna.Memory;
import com.sun.jna.Native;
import com.sun.jna.NativeLibrary;
import com.sun.jna.Pointer;

/** A module's functions by JNA's direct mapping. CK_ULONG is a long on 64-bit Linux. */
final class JnaModule {
  private JnaModule() {}

  static void open(String module) {
    Native.register(JnaModule.class, NativeLibrary.getInstance(module));
    check(C_Initialize(null));
  }

  static void check(long rv) {
    if (rv != 0) {
      throw new JnaException(rv);
    }
  }

  /** What a JNA binding would raise. */
  static final class JnaException extends RuntimeException {
    private static final long serialVersionUID = 1L;
    final long code;

    JnaException(long code) {
      super("0x%X".formatted(code));
      this.code = code;
    }
  }

  static native long C_Initialize(Pointer arguments);

  static native long C_GetInfo(byte[] info);

  static native long C_GetSlotList(byte tokenPresent, long[] slots, long[] count);

  static native long C_GetTokenInfo(long slot, byte[] info);

  static native long C_GetSessionInfo(long session, long[] info);

  static native long C_GetMechanismList(long slot, long[] mechanisms, long[] count);

  static native long C_Login(long session, long user, byte[] pin, long length);

  static native long C_Logout(long session);

  static native long C_SignInit(long session, long[] mechanism, long key);

  static native long C_Sign(long session, byte[] in, long inLen, byte[] out, long[] outLen);

  static native long C_EncryptInit(long session, long[] mechanism, long key);

  static native long C_Encrypt(long session, byte[] in, long inLen, byte[] out, long[] outLen);

  static native long C_DecryptInit(long session, long[] mechanism, long key);

  static native long C_Decrypt(long session, byte[] in, long inLen, byte[] out, long[] outLen);

  static native long C_FindObjectsInit(long session, Memory template, long count);

  static native long C_FindObjects(long session, long[] objects, long max, long[] count);

  static native long C_FindObjectsFinal(long session);

  static native long C_CreateObject(long session, Memory template, long count, long[] object);

  static native long C_GetAttributeValue(long session, long object, Memory template, long count);

  static native long C_GenerateKeyPair(
      long session,
      long[] mechanism,
      Memory pub,
      long pubLen,
      Memory prv,
      long prvLen,
      long[] pubKey,
      long[] prvKey);

  static native long C_WrapKey(
      long session, long[] mechanism, long wrappingKey, long key, byte[] out, long[] outLen);
}
