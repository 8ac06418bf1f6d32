// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.util.concurrent.Callable;
import java.util.function.Function;
import sun.security.pkcs11.wrapper.CK_ATTRIBUTE;
import sun.security.pkcs11.wrapper.CK_C_INITIALIZE_ARGS;
import sun.security.pkcs11.wrapper.CK_MECHANISM;
import sun.security.pkcs11.wrapper.PKCS11;
import sun.security.pkcs11.wrapper.PKCS11Constants;
import sun.security.pkcs11.wrapper.PKCS11Exception;

/** Runs the operations through the wrapper on which the JDK's own PKCS#11 provider is built. */
final class JdkWrapper implements Function<Operation, Callable<?>> {
  private static final CK_ATTRIBUTE[] WANTED = attributes(Operation.WANTED);

  private static final char[] PIN = Operation.PIN.toCharArray();

  final PKCS11 p11;

  JdkWrapper(String module, boolean initialize) throws Exception {
    CK_C_INITIALIZE_ARGS init = new CK_C_INITIALIZE_ARGS();
    init.flags = PKCS11Constants.CKF_OS_LOCKING_OK; // else the wrapper adds a lock of its own
    p11 = PKCS11.getInstance(module, "C_GetFunctionList", init, !initialize);
  }

  @Override
  public Callable<?> apply(Operation op) {
    long session = op.session();
    long key = op.key();
    long mech = op.mechanism();
    byte[] in = op.in();
    byte[] out = new byte[op.size()];
    // Made once: the constructors of attributes are not measured.
    CK_ATTRIBUTE[] template = attributes(Operation.Attributes.privateKey(op.size()));
    return switch (op.kind()) {
      case INFO -> p11::C_GetInfo;
      case SLOT_LIST -> () -> p11.C_GetSlotList(true);
      case TOKEN_INFO -> () -> p11.C_GetTokenInfo(0);
      case SESSION_INFO -> () -> p11.C_GetSessionInfo(session);
      case MECHANISM_LIST -> () -> p11.C_GetMechanismList(0);
      case LOGIN -> () -> {
        p11.C_Login(session, CKU_USER, PIN);
        p11.C_Logout(session);
        return null;
      };
      case SIGN, NEW_SIGNATURE -> () -> {
        p11.C_SignInit(session, new CK_MECHANISM(mech), key);
        return p11.C_Sign(session, in);
      };
      case ENCRYPT -> () -> {
        p11.C_EncryptInit(session, new CK_MECHANISM(mech), key);
        return p11.C_Encrypt(session, 0, in, 0, in.length, 0, out, 0, out.length);
      };
      case DECRYPT -> () -> {
        p11.C_DecryptInit(session, new CK_MECHANISM(mech), key);
        return p11.C_Decrypt(session, 0, in, 0, in.length, 0, out, 0, out.length);
      };
      case SEARCH -> () -> {
        p11.C_FindObjectsInit(session, WANTED);
        int found = 0;
        for (int more = 1; more != 0; found += more) {
          more = p11.C_FindObjects(session, Operation.BATCH).length;
        }
        p11.C_FindObjectsFinal(session);
        return found;
      };
      case CREATE -> () -> p11.C_CreateObject(session, template);
      case READ -> () -> {
        CK_ATTRIBUTE[] asked = {new CK_ATTRIBUTE(op.size())};
        p11.C_GetAttributeValue(session, key, asked);
        return value(asked[0]); // the call has put a new attribute there
      };
      case GENERATE_PAIR -> () ->
          p11.C_GenerateKeyPair(session, new CK_MECHANISM(mech), template, template);
      case WRAP_KEY, NEW_WRAPPED_KEY -> () ->
          p11.C_WrapKey(session, new CK_MECHANISM(mech), key, key);
      case REFUSED -> () -> {
        try {
          p11.C_Logout(0);
        } catch (PKCS11Exception e) {
          return e;
        }
        throw new IllegalStateException("nothing was refused");
      };
      case SLOT_INFO -> () -> p11.C_GetSlotInfo(0);
      case MECHANISM_INFO -> () -> p11.C_GetMechanismInfo(0, mech);
      case OPEN_SESSION -> () -> p11.C_OpenSession(0, CKF_SERIAL_SESSION, null, null);
      case FIND_ONE -> () -> {
        p11.C_FindObjectsInit(session, WANTED);
        return p11.C_FindObjects(session, 1);
      };
      case GENERATE_KEY -> () -> p11.C_GenerateKey(session, new CK_MECHANISM(mech), template);
      case UNWRAP_KEY -> () ->
          p11.C_UnwrapKey(session, new CK_MECHANISM(mech), key, in, template);
    };
  }

  private static Object value(CK_ATTRIBUTE attribute) {
    return switch ((int) attribute.type) {
      case CKA_CLASS -> attribute.getLong();
      case CKA_TOKEN -> attribute.getBoolean();
      case CKA_MODULUS -> attribute.getBigInteger();
      default -> attribute.pValue;
    };
  }

  private static CK_ATTRIBUTE[] attributes(Operation.Attributes from) {
    CK_ATTRIBUTE[] result = new CK_ATTRIBUTE[from.types().length];
    for (int i = 0; i < result.length; i++) {
      Object value = from.values()[i];
      Object converted = value instanceof Integer number ? (Object) number.longValue() : value;
      result[i] = new CK_ATTRIBUTE(from.types()[i], converted);
    }
    return result;
  }
}
