import static sun.security.pkcs11.wrapper.PKCS11Constants.CKF_OS_LOCKING_OK;

import java.lang.reflect.Method;
import java.util.EnumMap;
import java.util.Map;
import sun.security.pkcs11.wrapper.CK_ATTRIBUTE;
import sun.security.pkcs11.wrapper.CK_C_INITIALIZE_ARGS;
import sun.security.pkcs11.wrapper.CK_INFO;
import sun.security.pkcs11.wrapper.CK_MECHANISM;
import sun.security.pkcs11.wrapper.CK_TOKEN_INFO;
import sun.security.pkcs11.wrapper.PKCS11;
import sun.security.pkcs11.wrapper.PKCS11Exception;

/** The operations through the wrapper that the JDK's own PKCS#11 provider is built on. */
final class JdkBinding {
  private static final long SESSION = 1;
  private static final long KEY = 1;

  private final PKCS11 p11;

  private JdkBinding(PKCS11 p11) {
    this.p11 = p11;
  }

  /**
   * Opens a module. The way in differs between Java versions, hence the reflection; the calls
   * themselves are direct.
   */
  static PKCS11 open(String module, boolean initialize) throws ReflectiveOperationException {
    CK_C_INITIALIZE_ARGS init = new CK_C_INITIALIZE_ARGS();
    init.flags = CKF_OS_LOCKING_OK; // without it the wrapper would add a lock of its own
    for (Method method : PKCS11.class.getDeclaredMethods()) {
      if (method.getName().equals("getInstance")) {
        Object[] arguments = new Object[method.getParameterCount()];
        Class<?>[] types = method.getParameterTypes();
        arguments[0] = module;
        for (int i = 1; i < types.length; i++) {
          arguments[i] = argument(types[i], init, initialize);
        }
        return (PKCS11) method.invoke(null, arguments);
      }
    }
    throw new NoSuchMethodException("PKCS11.getInstance");
  }

  private static Object argument(Class<?> type, CK_C_INITIALIZE_ARGS init, boolean initialize) {
    if (type == String.class) {
      return "C_GetFunctionList";
    }
    return type == boolean.class ? (Object) !initialize : type.isInstance(init) ? init : null;
  }

  static Map<Op, Operation> operations(String module) throws ReflectiveOperationException {
    JdkBinding binding = new JdkBinding(open(module, true));
    Map<Op, Operation> operations = new EnumMap<>(Op.class);
    operations.put(Op.MODULE_INFO, binding::moduleInfo);
    operations.put(Op.SLOT_LIST, binding::slotList);
    operations.put(Op.TOKEN_INFO, binding::tokenInfo);
    operations.put(Op.SESSION_INFO, binding::sessionInfo);
    operations.put(Op.MECHANISM_LIST, binding::mechanismList);
    operations.put(Op.LOGIN, binding::login);
    operations.put(Op.SIGN, binding::sign);
    Workload.DATA_SIZES.forEach((op, size) -> operations.put(op, binding.cipher(op, size)));
    Workload.SEARCHES.forEach(
        (op, objects) -> operations.put(op, calls -> binding.search(objects, calls)));
    Workload.TEMPLATE_SIZES.forEach((op, size) -> operations.put(op, binding.create(size)));
    Workload.ATTRIBUTES.forEach(
        (op, attr) -> operations.put(op, calls -> binding.read(op, attr, calls)));
    operations.put(Op.GENERATE_PAIR, binding::generatePair);
    operations.put(Op.WRAP_KEY, binding::wrapKey);
    operations.put(Op.FAILURE, binding::failure);
    return operations;
  }

  private long moduleInfo(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_INFO info = Sink.keep(p11.C_GetInfo());
      sum += info.cryptokiVersion.major + info.manufacturerID.length;
    }
    return sum;
  }

  private long slotList(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] slots = Sink.keep(p11.C_GetSlotList(true));
      sum += slots[slots.length - 1];
    }
    return sum;
  }

  private long tokenInfo(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_TOKEN_INFO info = Sink.keep(p11.C_GetTokenInfo(0));
      sum += info.ulMaxPinLen + info.label.length;
    }
    return sum;
  }

  private long sessionInfo(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += Sink.keep(p11.C_GetSessionInfo(SESSION)).state;
    }
    return sum;
  }

  private long mechanismList(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] mechanisms = Sink.keep(p11.C_GetMechanismList(0));
      sum += mechanisms[mechanisms.length - 1];
    }
    return sum;
  }

  private long login(int calls) throws PKCS11Exception {
    char[] pin = Workload.PIN.toCharArray();
    for (int i = 0; i < calls; i++) {
      p11.C_Login(SESSION, 1, pin);
      p11.C_Logout(SESSION);
    }
    return calls;
  }

  private long sign(int calls) throws PKCS11Exception {
    byte[] in = new byte[32];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      p11.C_SignInit(SESSION, new CK_MECHANISM(Workload.CKM_RSA_PKCS), KEY);
      byte[] signature = Sink.keep(p11.C_Sign(SESSION, in));
      sum += signature.length + signature[0];
    }
    return sum;
  }

  private Operation cipher(Op op, int size) {
    byte[] in = new byte[size];
    byte[] out = new byte[size];
    return op.name().startsWith("ENCRYPT")
        ? calls -> encrypt(in, out, calls)
        : calls -> decrypt(in, out, calls);
  }

  private long encrypt(byte[] in, byte[] out, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      p11.C_EncryptInit(SESSION, new CK_MECHANISM(Workload.CKM_AES_ECB), KEY);
      sum += p11.C_Encrypt(SESSION, 0, in, 0, in.length, 0, out, 0, out.length) + out[0];
    }
    return sum;
  }

  private long decrypt(byte[] in, byte[] out, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      p11.C_DecryptInit(SESSION, new CK_MECHANISM(Workload.CKM_AES_ECB), KEY);
      sum += p11.C_Decrypt(SESSION, 0, in, 0, in.length, 0, out, 0, out.length) + out[0];
    }
    return sum;
  }

  private long search(int objects, int calls) throws PKCS11Exception {
    CK_ATTRIBUTE[] template = attributes(Workload.template(1));
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += search(p11, objects, template);
    }
    return sum;
  }

  /** One search as the provider does it, some handles at a time. */
  static long search(PKCS11 p11, long session, CK_ATTRIBUTE[] template) throws PKCS11Exception {
    long sum = 0;
    p11.C_FindObjectsInit(session, template);
    long[] found;
    while ((found = Sink.keep(p11.C_FindObjects(session, Workload.FIND_BATCH))).length != 0) {
      for (long object : found) {
        sum += object;
      }
    }
    p11.C_FindObjectsFinal(session);
    return sum;
  }

  private Operation create(int size) {
    CK_ATTRIBUTE[] template = attributes(Workload.template(size));
    return calls -> create(template, calls);
  }

  private long create(CK_ATTRIBUTE[] template, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += p11.C_CreateObject(SESSION, template);
    }
    return sum;
  }

  private long read(Op op, int attr, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_ATTRIBUTE[] template = {new CK_ATTRIBUTE(attr)};
      p11.C_GetAttributeValue(SESSION, KEY, template);
      CK_ATTRIBUTE attribute = Sink.keep(template)[0]; // a new one, which the call has put there
      sum +=
          switch (op) {
            case GET_CLASS -> attribute.getLong();
            case GET_BOOLEAN -> attribute.getBoolean() ? 1 : 0;
            case GET_LABEL -> attribute.getCharArray().length;
            case GET_ID -> attribute.getByteArray()[0];
            case GET_MODULUS -> attribute.getBigInteger().signum();
            default -> attribute.pValue.hashCode();
          };
    }
    return sum;
  }

  private long generatePair(int calls) throws PKCS11Exception {
    CK_ATTRIBUTE[] pub = attributes(Workload.PAIR_PUBLIC);
    CK_ATTRIBUTE[] prv = attributes(Workload.PAIR_PRIVATE);
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_MECHANISM mechanism = new CK_MECHANISM(Workload.CKM_RSA_PKCS_KEY_PAIR_GEN);
      sum += Sink.keep(p11.C_GenerateKeyPair(SESSION, mechanism, pub, prv))[1];
    }
    return sum;
  }

  private long wrapKey(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_MECHANISM mechanism = new CK_MECHANISM(Workload.CKM_AES_ECB);
      byte[] wrapped = Sink.keep(p11.C_WrapKey(SESSION, mechanism, KEY, KEY));
      sum += wrapped.length + wrapped[0];
    }
    return sum;
  }

  private long failure(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      try {
        p11.C_Logout(0);
      } catch (PKCS11Exception e) {
        sum += Sink.keep(e).getErrorCode();
      }
    }
    if (sum == 0) {
      throw new IllegalStateException("nothing was refused");
    }
    return sum;
  }

  /** The same attributes in the wrapper's terms, made once: its constructors are not measured. */
  static CK_ATTRIBUTE[] attributes(Workload.Attributes attributes) {
    CK_ATTRIBUTE[] result = new CK_ATTRIBUTE[attributes.types().length];
    for (int i = 0; i < result.length; i++) {
      int type = attributes.types()[i];
      Object value = attributes.values()[i];
      Object converted = value instanceof Integer number ? (Object) number.longValue() : value;
      result[i] = new CK_ATTRIBUTE(type, converted);
    }
    return result;
  }
}
