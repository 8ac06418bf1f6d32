import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Info;
import it.quarvel.pkcs11.PKCS11SessionInfo;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.math.BigInteger;
import java.util.Date;
import java.util.EnumMap;
import java.util.Map;
import java.util.function.Function;

/**
 * The operations through this library's Java half. Compiled against it and loaded once for each
 * native library under it, with Java classes of its own.
 */
public final class Binding implements Function<String, Map<Op, Operation>> {
  private final NativePKCS11 module = new NativePKCS11();
  private final NativePKCS11Slot slot = new NativePKCS11Slot(module, 0);
  private final NativePKCS11Session session = new NativePKCS11Session(slot, 1);
  private final NativePKCS11Session noSession = new NativePKCS11Session(slot, 0);
  private final NativePKCS11Object key = new NativePKCS11Object(session, 1);

  @Override
  public Map<Op, Operation> apply(String modulePath) {
    try {
      NativePKCS11.loadPKCS11Library(modulePath);
      module.libInitialize();
    } catch (PKCS11Exception e) {
      throw new IllegalStateException(e);
    }
    Map<Op, Operation> operations = new EnumMap<>(Op.class);
    operations.put(Op.MODULE_INFO, this::moduleInfo);
    operations.put(Op.SLOT_LIST, this::slotList);
    operations.put(Op.TOKEN_INFO, this::tokenInfo);
    operations.put(Op.SESSION_INFO, this::sessionInfo);
    operations.put(Op.MECHANISM_LIST, this::mechanismList);
    operations.put(Op.LOGIN, this::login);
    operations.put(Op.SIGN, this::sign);
    Workload.DATA_SIZES.forEach((op, size) -> operations.put(op, cipher(op, size)));
    Workload.SEARCHES.forEach((op, objects) -> operations.put(op, search(objects)));
    Workload.TEMPLATE_SIZES.forEach((op, size) -> operations.put(op, create(size)));
    Workload.ATTRIBUTES.forEach((op, attr) -> operations.put(op, calls -> read(op, attr, calls)));
    operations.put(Op.GENERATE_PAIR, this::generatePair);
    operations.put(Op.WRAP_KEY, this::wrapKey);
    operations.put(Op.FAILURE, this::failure);
    return operations;
  }

  private long moduleInfo(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      PKCS11Info info = Sink.keep(module.getInfo());
      sum += info.cryptokiVersion() + info.manufacturerID().length();
    }
    return sum;
  }

  private long slotList(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      NativePKCS11Slot[] slots = Sink.keep(module.getSlotList(true));
      sum += slots[slots.length - 1].slotID();
    }
    return sum;
  }

  private long tokenInfo(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      PKCS11TokenInfo info = Sink.keep(slot.getTokenInfo());
      sum += info.maxPinLen() + info.label().length();
    }
    return sum;
  }

  private long sessionInfo(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      PKCS11SessionInfo info = Sink.keep(session.getInfo());
      sum += info.state();
    }
    return sum;
  }

  private long mechanismList(int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      int[] mechanisms = Sink.keep(slot.getMechanismList());
      sum += mechanisms[mechanisms.length - 1];
    }
    return sum;
  }

  private long login(int calls) throws PKCS11Exception {
    for (int i = 0; i < calls; i++) {
      session.login(false, Workload.PIN);
      session.logout();
    }
    return calls;
  }

  private long sign(int calls) throws PKCS11Exception {
    byte[] in = new byte[32];
    byte[] out = new byte[Workload.SIGNATURE_SIZE];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      session.signInit(Workload.CKM_RSA_PKCS, null, key);
      sum += session.sign(in, 0, in.length, out, 0) + out[0];
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
      session.encryptInit(Workload.CKM_AES_ECB, null, key);
      sum += session.encrypt(in, 0, in.length, out, 0) + out[0];
    }
    return sum;
  }

  private long decrypt(byte[] in, byte[] out, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      session.decryptInit(Workload.CKM_AES_ECB, null, key);
      sum += session.decrypt(in, 0, in.length, out, 0) + out[0];
    }
    return sum;
  }

  /** A search by one attribute, in the session that finds as many objects. */
  Operation search(int objects) {
    NativePKCS11Session finder = new NativePKCS11Session(slot, objects);
    Workload.Attributes template = Workload.template(1);
    return calls -> search(finder, template, calls);
  }

  private static long search(
      NativePKCS11Session finder, Workload.Attributes template, int calls)
      throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      finder.findObjectsInit(template.types(), template.values());
      NativePKCS11Object object;
      while ((object = finder.findObject()) != null) {
        sum += Sink.keep(object).objectID();
      }
      finder.findObjectsFinal();
    }
    return sum;
  }

  Operation create(int size) {
    Workload.Attributes template = Workload.template(size);
    return calls -> create(template, calls);
  }

  private long create(Workload.Attributes template, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += Sink.keep(session.createObject(template.types(), template.values())).objectID();
    }
    return sum;
  }

  private long read(Op op, int attr, int calls) throws Exception {
    return switch (op) {
      case GET_CLASS -> readClass(attr, calls);
      case GET_BOOLEAN -> readBoolean(attr, calls);
      case GET_LABEL -> readLabel(attr, calls);
      case GET_ID -> readId(attr, calls);
      case GET_MODULUS -> readModulus(attr, calls);
      default -> readDate(attr, calls);
    };
  }

  private long readClass(int attr, int calls) throws Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += (Integer) Sink.keep(key.getAttributeValue(attr));
    }
    return sum;
  }

  private long readBoolean(int attr, int calls) throws Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += (Boolean) Sink.keep(key.getAttributeValue(attr)) ? 1 : 0;
    }
    return sum;
  }

  private long readLabel(int attr, int calls) throws Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += ((String) Sink.keep(key.getAttributeValue(attr))).length();
    }
    return sum;
  }

  private long readId(int attr, int calls) throws Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += ((byte[]) Sink.keep(key.getAttributeValue(attr)))[0];
    }
    return sum;
  }

  private long readModulus(int attr, int calls) throws Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += ((BigInteger) Sink.keep(key.getAttributeValue(attr))).signum();
    }
    return sum;
  }

  private long readDate(int attr, int calls) throws Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += ((Date) Sink.keep(key.getAttributeValue(attr))).getTime();
    }
    return sum;
  }

  private long generatePair(int calls) throws PKCS11Exception {
    Workload.Attributes pub = Workload.PAIR_PUBLIC;
    Workload.Attributes prv = Workload.PAIR_PRIVATE;
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      Object[] pair =
          Sink.keep(
              session.generateKeyPair(
                  Workload.CKM_RSA_PKCS_KEY_PAIR_GEN,
                  null,
                  pub.types(),
                  pub.values(),
                  prv.types(),
                  prv.values()));
      sum += ((NativePKCS11Object) pair[1]).objectID();
    }
    return sum;
  }

  private long wrapKey(int calls) throws PKCS11Exception {
    byte[] out = new byte[Workload.WRAP_ROOM];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += session.wrapKey(Workload.CKM_AES_ECB, null, key, key, out, 0) + out[0];
    }
    return sum;
  }

  private long failure(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      try {
        noSession.logout();
      } catch (PKCS11Exception e) {
        sum += Sink.keep(e).errorCode();
      }
    }
    if (sum == 0) {
      throw new IllegalStateException("nothing was refused");
    }
    return sum;
  }
}
