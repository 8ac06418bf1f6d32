import java.util.Map;

/** The inputs that all subjects share. */
public final class Workload {
  public static final int CKO_PRIVATE_KEY = 3;
  public static final int CKA_CLASS = 0x000;
  public static final int CKA_TOKEN = 0x001;
  public static final int CKA_PRIVATE = 0x002;
  public static final int CKA_LABEL = 0x003;
  public static final int CKA_KEY_TYPE = 0x100;
  public static final int CKA_ID = 0x102;
  public static final int CKA_SENSITIVE = 0x103;
  public static final int CKA_SIGN = 0x108;
  public static final int CKA_END_DATE = 0x111;
  public static final int CKA_MODULUS = 0x120;
  public static final int CKA_MODULUS_BITS = 0x121;
  public static final int CKA_PUBLIC_EXPONENT = 0x122;
  public static final int CKM_RSA_PKCS_KEY_PAIR_GEN = 0x0;
  public static final int CKM_RSA_PKCS = 0x1;
  public static final int CKM_AES_ECB = 0x1081;

  public static final String PIN = "1234";
  public static final String LABEL = "signing key 2048";
  public static final int SIGNATURE_SIZE = 256;

  /** More than the wrapped key of the instant module. */
  public static final int WRAP_ROOM = 64;

  /** How many handles a search asks for at once where its interface takes more than one. */
  public static final int FIND_BATCH = 100;

  /** The sizes of what is encrypted and decrypted. */
  public static final Map<Op, Integer> DATA_SIZES =
      Map.of(
          Op.ENCRYPT_16, 16,
          Op.ENCRYPT_1K, 1 << 10,
          Op.ENCRYPT_64K, 64 << 10,
          Op.ENCRYPT_1M, 1 << 20,
          Op.DECRYPT_16, 16,
          Op.DECRYPT_1K, 1 << 10,
          Op.DECRYPT_64K, 64 << 10,
          Op.DECRYPT_1M, 1 << 20);

  /** The numbers of objects found; on the instant module also the session that finds them. */
  public static final Map<Op, Integer> SEARCHES =
      Map.of(Op.FIND_1, 1, Op.FIND_100, 100, Op.FIND_10000, 10_000);

  public static final Map<Op, Integer> TEMPLATE_SIZES =
      Map.of(Op.CREATE_1, 1, Op.CREATE_8, 8, Op.CREATE_64, 64);

  /** The attributes that are read. */
  public static final Map<Op, Integer> ATTRIBUTES =
      Map.of(
          Op.GET_CLASS, CKA_CLASS,
          Op.GET_BOOLEAN, CKA_TOKEN,
          Op.GET_LABEL, CKA_LABEL,
          Op.GET_ID, CKA_ID,
          Op.GET_MODULUS, CKA_MODULUS,
          Op.GET_DATE, CKA_END_DATE);

  /** Attributes as this library takes them: types and values side by side. */
  public record Attributes(int[] types, Object[] values) {}

  private static final Attributes PRIVATE_KEY =
      new Attributes(
          new int[] {
            CKA_CLASS, CKA_KEY_TYPE, CKA_TOKEN, CKA_PRIVATE, CKA_SENSITIVE, CKA_SIGN, CKA_LABEL,
            CKA_ID
          },
          new Object[] {CKO_PRIVATE_KEY, 0, true, true, true, true, LABEL, new byte[20]});

  public static final Attributes PAIR_PUBLIC =
      new Attributes(
          new int[] {CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_TOKEN, CKA_LABEL},
          new Object[] {2048, new byte[] {1, 0, 1}, true, LABEL});

  public static final Attributes PAIR_PRIVATE =
      new Attributes(
          new int[] {CKA_TOKEN, CKA_SIGN, CKA_LABEL, CKA_ID},
          new Object[] {true, true, LABEL, new byte[20]});

  private Workload() {}

  /** The attributes of a private key, over and over until there are `size` of them. */
  public static Attributes template(int size) {
    int period = PRIVATE_KEY.types.length;
    Attributes result = new Attributes(new int[size], new Object[size]);
    for (int i = 0; i < size; i++) {
      result.types[i] = PRIVATE_KEY.types[i % period];
      result.values[i] = PRIVATE_KEY.values[i % period];
    }
    return result;
  }
}
