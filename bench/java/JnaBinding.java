import com.sun.jna.Memory;
import com.sun.jna.Pointer;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.time.LocalDate;
import java.time.format.DateTimeFormatter;
import java.util.EnumMap;
import java.util.Map;

/** The operations as a binding written in Java alone would make them, on JNA. */
final class JnaBinding {
  private static final long SESSION = 1;
  private static final long KEY = 1;
  private static final int ENTRY = 24;

  private JnaBinding() {}

  private record Info(int version, String manufacturer, long flags, String library, int level) {}

  private record TokenInfo(String[] texts, long[] numbers) {}

  static Map<Op, Operation> operations(String module) {
    JnaModule.open(module);
    Map<Op, Operation> operations = new EnumMap<>(Op.class);
    operations.put(Op.MODULE_INFO, JnaBinding::moduleInfo);
    operations.put(Op.SLOT_LIST, JnaBinding::slotList);
    operations.put(Op.TOKEN_INFO, JnaBinding::tokenInfo);
    operations.put(Op.SESSION_INFO, JnaBinding::sessionInfo);
    operations.put(Op.MECHANISM_LIST, JnaBinding::mechanismList);
    operations.put(Op.LOGIN, JnaBinding::login);
    operations.put(Op.SIGN, JnaBinding::sign);
    Workload.DATA_SIZES.forEach((op, size) -> operations.put(op, cipher(op, size)));
    Workload.SEARCHES.forEach((op, objects) -> operations.put(op, n -> search(objects, n)));
    Workload.TEMPLATE_SIZES.forEach((op, size) -> operations.put(op, create(size)));
    Workload.ATTRIBUTES.forEach((op, attr) -> operations.put(op, n -> read(op, attr, n)));
    operations.put(Op.GENERATE_PAIR, JnaBinding::generatePair);
    operations.put(Op.WRAP_KEY, JnaBinding::wrapKey);
    operations.put(Op.FAILURE, JnaBinding::failure);
    return operations;
  }

  private static String text(byte[] structure, int offset, int size) {
    return new String(structure, offset, size, StandardCharsets.UTF_8);
  }

  private static int version(byte[] structure, int offset) {
    return structure[offset] * 256 + structure[offset + 1];
  }

  private static long moduleInfo(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      byte[] raw = new byte[88];
      JnaModule.check(JnaModule.C_GetInfo(raw));
      long flags = ByteBuffer.wrap(raw).order(ByteOrder.nativeOrder()).getLong(40);
      Info info =
          new Info(version(raw, 0), text(raw, 2, 32), flags, text(raw, 48, 32), version(raw, 80));
      sum += Sink.keep(info).version + info.manufacturer.length();
    }
    return sum;
  }

  private static long slotList(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] count = new long[1];
      JnaModule.check(JnaModule.C_GetSlotList((byte) 1, null, count));
      long[] slots = new long[(int) count[0]];
      JnaModule.check(JnaModule.C_GetSlotList((byte) 1, slots, count));
      sum += Sink.keep(slots)[slots.length - 1];
    }
    return sum;
  }

  private static long tokenInfo(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      byte[] raw = new byte[208];
      JnaModule.check(JnaModule.C_GetTokenInfo(0, raw));
      ByteBuffer buffer = ByteBuffer.wrap(raw).order(ByteOrder.nativeOrder());
      long[] numbers = new long[11];
      for (int n = 0; n < numbers.length; n++) {
        numbers[n] = buffer.getLong(96 + 8 * n);
      }
      String[] texts = {
        text(raw, 0, 32), text(raw, 32, 32), text(raw, 64, 16), text(raw, 80, 16),
        text(raw, 188, 16)
      };
      TokenInfo info = new TokenInfo(texts, numbers);
      sum += Sink.keep(info).numbers[5] + info.texts[0].length();
    }
    return sum;
  }

  private static long sessionInfo(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] info = new long[4];
      JnaModule.check(JnaModule.C_GetSessionInfo(SESSION, info));
      sum += Sink.keep(info)[1];
    }
    return sum;
  }

  private static long mechanismList(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] count = new long[1];
      JnaModule.check(JnaModule.C_GetMechanismList(0, null, count));
      long[] mechanisms = new long[(int) count[0]];
      JnaModule.check(JnaModule.C_GetMechanismList(0, mechanisms, count));
      sum += Sink.keep(mechanisms)[mechanisms.length - 1];
    }
    return sum;
  }

  private static long login(int calls) {
    for (int i = 0; i < calls; i++) {
      byte[] pin = Workload.PIN.getBytes(StandardCharsets.UTF_8);
      JnaModule.check(JnaModule.C_Login(SESSION, 1, pin, pin.length));
      JnaModule.check(JnaModule.C_Logout(SESSION));
    }
    return calls;
  }

  private static long[] mechanism(long type) {
    return new long[] {type, 0, 0};
  }

  private static long sign(int calls) {
    byte[] in = new byte[32];
    byte[] out = new byte[Workload.SIGNATURE_SIZE];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      JnaModule.check(JnaModule.C_SignInit(SESSION, mechanism(Workload.CKM_RSA_PKCS), KEY));
      long[] outLen = {out.length};
      JnaModule.check(JnaModule.C_Sign(SESSION, in, in.length, out, outLen));
      sum += outLen[0] + out[0];
    }
    return sum;
  }

  private static Operation cipher(Op op, int size) {
    byte[] in = new byte[size];
    byte[] out = new byte[size];
    return op.name().startsWith("ENCRYPT")
        ? calls -> encrypt(in, out, calls)
        : calls -> decrypt(in, out, calls);
  }

  private static long encrypt(byte[] in, byte[] out, int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      JnaModule.check(JnaModule.C_EncryptInit(SESSION, mechanism(Workload.CKM_AES_ECB), KEY));
      long[] outLen = {out.length};
      JnaModule.check(JnaModule.C_Encrypt(SESSION, in, in.length, out, outLen));
      sum += outLen[0] + out[0];
    }
    return sum;
  }

  private static long decrypt(byte[] in, byte[] out, int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      JnaModule.check(JnaModule.C_DecryptInit(SESSION, mechanism(Workload.CKM_AES_ECB), KEY));
      long[] outLen = {out.length};
      JnaModule.check(JnaModule.C_Decrypt(SESSION, in, in.length, out, outLen));
      sum += outLen[0] + out[0];
    }
    return sum;
  }

  private static long search(int objects, int calls) {
    Workload.Attributes template = Workload.template(1);
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      JnaModule.check(JnaModule.C_FindObjectsInit(objects, memory(template), 1));
      long[] found = new long[Workload.FIND_BATCH];
      long[] count = new long[1];
      do {
        JnaModule.check(JnaModule.C_FindObjects(objects, found, found.length, count));
        for (int n = 0; n < count[0]; n++) {
          sum += found[n];
        }
      } while (count[0] != 0);
      JnaModule.check(JnaModule.C_FindObjectsFinal(objects));
    }
    return sum;
  }

  private static Operation create(int size) {
    Workload.Attributes template = Workload.template(size);
    return calls -> create(template, calls);
  }

  private static long create(Workload.Attributes template, int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] object = new long[1];
      int size = template.types().length;
      JnaModule.check(JnaModule.C_CreateObject(SESSION, memory(template), size, object));
      sum += object[0];
    }
    return sum;
  }

  private static long read(Op op, int attr, int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      Memory entry = new Memory(ENTRY);
      entry.setLong(0, attr);
      entry.setPointer(8, null);
      entry.setLong(16, 0);
      JnaModule.check(JnaModule.C_GetAttributeValue(SESSION, KEY, entry, 1));
      Memory value = new Memory(entry.getLong(16));
      entry.setPointer(8, value);
      JnaModule.check(JnaModule.C_GetAttributeValue(SESSION, KEY, entry, 1));
      sum += consume(op, value, (int) entry.getLong(16));
    }
    return sum;
  }

  private static long consume(Op op, Pointer value, int size) {
    if (op == Op.GET_CLASS) {
      return value.getLong(0);
    }
    if (op == Op.GET_BOOLEAN) {
      return value.getByte(0) != 0 ? 1 : 0;
    }
    byte[] bytes = value.getByteArray(0, size);
    return switch (op) {
      case GET_LABEL -> Sink.keep(text(bytes, 0, size)).length();
      case GET_MODULUS -> Sink.keep(new BigInteger(1, bytes)).signum();
      case GET_DATE ->
          LocalDate.parse(text(bytes, 0, size), DateTimeFormatter.BASIC_ISO_DATE).getYear();
      default -> bytes[0];
    };
  }

  private static long generatePair(int calls) {
    Workload.Attributes pub = Workload.PAIR_PUBLIC;
    Workload.Attributes prv = Workload.PAIR_PRIVATE;
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] pubKey = new long[1];
      long[] prvKey = new long[1];
      JnaModule.check(
          JnaModule.C_GenerateKeyPair(
              SESSION,
              mechanism(Workload.CKM_RSA_PKCS_KEY_PAIR_GEN),
              memory(pub),
              pub.types().length,
              memory(prv),
              prv.types().length,
              pubKey,
              prvKey));
      sum += prvKey[0];
    }
    return sum;
  }

  private static long wrapKey(int calls) {
    byte[] out = new byte[Workload.WRAP_ROOM];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      long[] outLen = {out.length};
      long[] mechanism = mechanism(Workload.CKM_AES_ECB);
      JnaModule.check(JnaModule.C_WrapKey(SESSION, mechanism, KEY, KEY, out, outLen));
      sum += outLen[0] + out[0];
    }
    return sum;
  }

  private static long failure(int calls) {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      try {
        JnaModule.check(JnaModule.C_Logout(0));
      } catch (JnaModule.JnaException e) {
        sum += Sink.keep(e).code;
      }
    }
    if (sum == 0) {
      throw new IllegalStateException("nothing was refused");
    }
    return sum;
  }

  /** A template in one block: the entries, then their values. */
  private static Memory memory(Workload.Attributes attributes) {
    int count = attributes.types().length;
    byte[][] values = new byte[count][];
    long size = (long) count * ENTRY;
    for (int i = 0; i < count; i++) {
      values[i] = bytes(attributes.values()[i]);
      size += values[i].length;
    }
    Memory block = new Memory(size);
    long place = (long) count * ENTRY;
    for (int i = 0; i < count; i++) {
      long entry = (long) i * ENTRY;
      block.setLong(entry, attributes.types()[i]);
      block.setPointer(entry + 8, block.share(place));
      block.setLong(entry + 16, values[i].length);
      block.write(place, values[i], 0, values[i].length);
      place += values[i].length;
    }
    return block;
  }

  private static byte[] bytes(Object value) {
    if (value instanceof Integer number) {
      return ByteBuffer.allocate(8).order(ByteOrder.nativeOrder()).putLong(0, number).array();
    }
    if (value instanceof Boolean truth) {
      return new byte[] {(byte) (truth ? 1 : 0)};
    }
    return value instanceof String string
        ? string.getBytes(StandardCharsets.UTF_8)
        : (byte[]) value;
  }
}
