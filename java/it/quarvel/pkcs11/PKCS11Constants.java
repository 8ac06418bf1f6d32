package it.quarvel.pkcs11;

import java.lang.reflect.Field;
import java.util.HashMap;
import java.util.Map;

/** The PKCS#11 2.40 values that people use, under their standard names, and those names as text. */
public final class PKCS11Constants {
  /** What a token answers for a count or size that it does not tell. */
  public static final int CK_UNAVAILABLE_INFORMATION = -1;

  /** What a token answers for a session limit that it does not have. */
  public static final int CK_EFFECTIVELY_INFINITE = 0;

  /** Object classes. */
  public static final int
      CKO_DATA = 0x0, CKO_CERTIFICATE = 0x1, CKO_PUBLIC_KEY = 0x2, CKO_PRIVATE_KEY = 0x3,
      CKO_SECRET_KEY = 0x4, CKO_DOMAIN_PARAMETERS = 0x6;

  /** Certificate types. */
  public static final int
      CKC_X_509 = 0x0;

  /** Key types. */
  public static final int
      CKK_RSA = 0x0, CKK_DSA = 0x1, CKK_DH = 0x2, CKK_EC = 0x3, CKK_GENERIC_SECRET = 0x10,
      CKK_DES = 0x13, CKK_DES2 = 0x14, CKK_DES3 = 0x15, CKK_AES = 0x1F, CKK_SHA_1_HMAC = 0x28,
      CKK_SHA224_HMAC = 0x2E, CKK_SHA256_HMAC = 0x2B, CKK_SHA384_HMAC = 0x2C,
      CKK_SHA512_HMAC = 0x2D, CKK_EC_EDWARDS = 0x40;

  /** Attributes of every object that is stored. */
  public static final int
      CKA_CLASS = 0x0, CKA_TOKEN = 0x1, CKA_PRIVATE = 0x2, CKA_LABEL = 0x3, CKA_APPLICATION = 0x10,
      CKA_VALUE = 0x11, CKA_MODIFIABLE = 0x170, CKA_COPYABLE = 0x171, CKA_DESTROYABLE = 0x172;

  /** Attributes of certificates. */
  public static final int
      CKA_CERTIFICATE_TYPE = 0x80, CKA_ISSUER = 0x81, CKA_SERIAL_NUMBER = 0x82, CKA_TRUSTED = 0x86,
      CKA_CHECK_VALUE = 0x90;

  /** Attributes of keys. */
  public static final int
      CKA_KEY_TYPE = 0x100, CKA_SUBJECT = 0x101, CKA_ID = 0x102, CKA_SENSITIVE = 0x103,
      CKA_ENCRYPT = 0x104, CKA_DECRYPT = 0x105, CKA_WRAP = 0x106, CKA_UNWRAP = 0x107,
      CKA_SIGN = 0x108, CKA_SIGN_RECOVER = 0x109, CKA_VERIFY = 0x10A, CKA_VERIFY_RECOVER = 0x10B,
      CKA_DERIVE = 0x10C, CKA_START_DATE = 0x110, CKA_END_DATE = 0x111, CKA_EXTRACTABLE = 0x162,
      CKA_LOCAL = 0x163, CKA_NEVER_EXTRACTABLE = 0x164, CKA_ALWAYS_SENSITIVE = 0x165,
      CKA_KEY_GEN_MECHANISM = 0x166, CKA_ALWAYS_AUTHENTICATE = 0x202, CKA_WRAP_WITH_TRUSTED = 0x210;

  /** Attributes that hold key material, its parameters and sizes. */
  public static final int
      CKA_MODULUS = 0x120, CKA_MODULUS_BITS = 0x121, CKA_PUBLIC_EXPONENT = 0x122,
      CKA_PRIVATE_EXPONENT = 0x123, CKA_PRIME_1 = 0x124, CKA_PRIME_2 = 0x125,
      CKA_EXPONENT_1 = 0x126, CKA_EXPONENT_2 = 0x127, CKA_COEFFICIENT = 0x128,
      CKA_PUBLIC_KEY_INFO = 0x129, CKA_PRIME = 0x130, CKA_SUBPRIME = 0x131, CKA_BASE = 0x132,
      CKA_PRIME_BITS = 0x133, CKA_VALUE_BITS = 0x160, CKA_VALUE_LEN = 0x161, CKA_EC_PARAMS = 0x180,
      CKA_EC_POINT = 0x181;

  /** RSA mechanisms. */
  public static final int
      CKM_RSA_PKCS_KEY_PAIR_GEN = 0x0, CKM_RSA_PKCS = 0x1, CKM_RSA_X_509 = 0x3,
      CKM_RSA_PKCS_OAEP = 0x9, CKM_RSA_PKCS_PSS = 0xD, CKM_MD5_RSA_PKCS = 0x5,
      CKM_SHA1_RSA_PKCS = 0x6, CKM_SHA224_RSA_PKCS = 0x46, CKM_SHA256_RSA_PKCS = 0x40,
      CKM_SHA384_RSA_PKCS = 0x41, CKM_SHA512_RSA_PKCS = 0x42, CKM_SHA1_RSA_PKCS_PSS = 0xE,
      CKM_SHA224_RSA_PKCS_PSS = 0x47, CKM_SHA256_RSA_PKCS_PSS = 0x43,
      CKM_SHA384_RSA_PKCS_PSS = 0x44, CKM_SHA512_RSA_PKCS_PSS = 0x45, CKM_RSA_AES_KEY_WRAP = 0x1054;

  /** DSA, Diffie-Hellman and elliptic curve mechanisms. */
  public static final int
      CKM_DSA_KEY_PAIR_GEN = 0x10, CKM_DSA = 0x11, CKM_DSA_SHA1 = 0x12, CKM_DSA_SHA224 = 0x13,
      CKM_DSA_SHA256 = 0x14, CKM_DSA_SHA384 = 0x15, CKM_DSA_SHA512 = 0x16,
      CKM_DSA_PARAMETER_GEN = 0x2000, CKM_DH_PKCS_KEY_PAIR_GEN = 0x20, CKM_DH_PKCS_DERIVE = 0x21,
      CKM_DH_PKCS_PARAMETER_GEN = 0x2001, CKM_EC_KEY_PAIR_GEN = 0x1040, CKM_ECDSA = 0x1041,
      CKM_ECDSA_SHA1 = 0x1042, CKM_ECDSA_SHA224 = 0x1043, CKM_ECDSA_SHA256 = 0x1044,
      CKM_ECDSA_SHA384 = 0x1045, CKM_ECDSA_SHA512 = 0x1046, CKM_ECDH1_DERIVE = 0x1050,
      CKM_EC_EDWARDS_KEY_PAIR_GEN = 0x1055, CKM_EDDSA = 0x1057;

  /** Secret key mechanisms. */
  public static final int
      CKM_DES_KEY_GEN = 0x120, CKM_DES_ECB = 0x121, CKM_DES_CBC = 0x122, CKM_DES_CBC_PAD = 0x125,
      CKM_DES2_KEY_GEN = 0x130, CKM_DES3_KEY_GEN = 0x131, CKM_DES3_ECB = 0x132,
      CKM_DES3_CBC = 0x133, CKM_DES3_CBC_PAD = 0x136, CKM_DES3_CMAC = 0x138,
      CKM_DES_ECB_ENCRYPT_DATA = 0x1100, CKM_DES_CBC_ENCRYPT_DATA = 0x1101,
      CKM_DES3_ECB_ENCRYPT_DATA = 0x1102, CKM_DES3_CBC_ENCRYPT_DATA = 0x1103,
      CKM_AES_KEY_GEN = 0x1080, CKM_AES_ECB = 0x1081, CKM_AES_CBC = 0x1082,
      CKM_AES_CBC_PAD = 0x1085, CKM_AES_CTR = 0x1086, CKM_AES_GCM = 0x1087, CKM_AES_CCM = 0x1088,
      CKM_AES_CMAC = 0x108A, CKM_AES_ECB_ENCRYPT_DATA = 0x1104, CKM_AES_CBC_ENCRYPT_DATA = 0x1105,
      CKM_AES_KEY_WRAP = 0x2109, CKM_AES_KEY_WRAP_PAD = 0x210A, CKM_GENERIC_SECRET_KEY_GEN = 0x350;

  /** Digest and MAC mechanisms. */
  public static final int
      CKM_MD5 = 0x210, CKM_MD5_HMAC = 0x211, CKM_SHA_1 = 0x220, CKM_SHA_1_HMAC = 0x221,
      CKM_SHA224 = 0x255, CKM_SHA224_HMAC = 0x256, CKM_SHA256 = 0x250, CKM_SHA256_HMAC = 0x251,
      CKM_SHA384 = 0x260, CKM_SHA384_HMAC = 0x261, CKM_SHA512 = 0x270, CKM_SHA512_HMAC = 0x271;

  /** Slot flags. */
  public static final int
      CKF_TOKEN_PRESENT = 0x1, CKF_REMOVABLE_DEVICE = 0x2, CKF_HW_SLOT = 0x4;

  /** Token flags. */
  public static final int
      CKF_RNG = 0x1, CKF_WRITE_PROTECTED = 0x2, CKF_LOGIN_REQUIRED = 0x4,
      CKF_USER_PIN_INITIALIZED = 0x8,
      CKF_RESTORE_KEY_NOT_NEEDED = 0x20, CKF_CLOCK_ON_TOKEN = 0x40,
      CKF_PROTECTED_AUTHENTICATION_PATH = 0x100, CKF_TOKEN_INITIALIZED = 0x400,
      CKF_USER_PIN_COUNT_LOW = 0x10000, CKF_USER_PIN_FINAL_TRY = 0x20000,
      CKF_USER_PIN_LOCKED = 0x40000, CKF_USER_PIN_TO_BE_CHANGED = 0x80000,
      CKF_SO_PIN_COUNT_LOW = 0x100000, CKF_SO_PIN_FINAL_TRY = 0x200000,
      CKF_SO_PIN_LOCKED = 0x400000, CKF_SO_PIN_TO_BE_CHANGED = 0x800000;

  /** Session flags; every session needs {@code CKF_SERIAL_SESSION}. */
  public static final int
      CKF_RW_SESSION = 0x2, CKF_SERIAL_SESSION = 0x4;

  /** Mechanism flags. */
  public static final int
      CKF_HW = 0x1, CKF_ENCRYPT = 0x100, CKF_DECRYPT = 0x200, CKF_DIGEST = 0x400, CKF_SIGN = 0x800,
      CKF_SIGN_RECOVER = 0x1000, CKF_VERIFY = 0x2000, CKF_VERIFY_RECOVER = 0x4000,
      CKF_GENERATE = 0x8000, CKF_GENERATE_KEY_PAIR = 0x10000, CKF_WRAP = 0x20000,
      CKF_UNWRAP = 0x40000, CKF_DERIVE = 0x80000;

  /** Session states. */
  public static final int
      CKS_RO_PUBLIC_SESSION = 0x0, CKS_RO_USER_FUNCTIONS = 0x1, CKS_RW_PUBLIC_SESSION = 0x2,
      CKS_RW_USER_FUNCTIONS = 0x3, CKS_RW_SO_FUNCTIONS = 0x4;

  /** User types. */
  public static final int
      CKU_SO = 0x0, CKU_USER = 0x1, CKU_CONTEXT_SPECIFIC = 0x2;

  /** Return values. */
  public static final int
      CKR_OK = 0x0, CKR_CANCEL = 0x1, CKR_HOST_MEMORY = 0x2, CKR_SLOT_ID_INVALID = 0x3,
      CKR_GENERAL_ERROR = 0x5, CKR_FUNCTION_FAILED = 0x6, CKR_ARGUMENTS_BAD = 0x7,
      CKR_NO_EVENT = 0x8, CKR_NEED_TO_CREATE_THREADS = 0x9, CKR_CANT_LOCK = 0xA,
      CKR_ATTRIBUTE_READ_ONLY = 0x10, CKR_ATTRIBUTE_SENSITIVE = 0x11,
      CKR_ATTRIBUTE_TYPE_INVALID = 0x12, CKR_ATTRIBUTE_VALUE_INVALID = 0x13,
      CKR_ACTION_PROHIBITED = 0x1B, CKR_DATA_INVALID = 0x20, CKR_DATA_LEN_RANGE = 0x21,
      CKR_DEVICE_ERROR = 0x30, CKR_DEVICE_MEMORY = 0x31, CKR_DEVICE_REMOVED = 0x32,
      CKR_ENCRYPTED_DATA_INVALID = 0x40, CKR_ENCRYPTED_DATA_LEN_RANGE = 0x41,
      CKR_FUNCTION_CANCELED = 0x50, CKR_FUNCTION_NOT_PARALLEL = 0x51,
      CKR_FUNCTION_NOT_SUPPORTED = 0x54, CKR_KEY_HANDLE_INVALID = 0x60, CKR_KEY_SIZE_RANGE = 0x62,
      CKR_KEY_TYPE_INCONSISTENT = 0x63, CKR_KEY_NOT_NEEDED = 0x64, CKR_KEY_CHANGED = 0x65,
      CKR_KEY_NEEDED = 0x66, CKR_KEY_INDIGESTIBLE = 0x67, CKR_KEY_FUNCTION_NOT_PERMITTED = 0x68,
      CKR_KEY_NOT_WRAPPABLE = 0x69, CKR_KEY_UNEXTRACTABLE = 0x6A, CKR_MECHANISM_INVALID = 0x70,
      CKR_MECHANISM_PARAM_INVALID = 0x71, CKR_OBJECT_HANDLE_INVALID = 0x82,
      CKR_OPERATION_ACTIVE = 0x90, CKR_OPERATION_NOT_INITIALIZED = 0x91, CKR_PIN_INCORRECT = 0xA0,
      CKR_PIN_INVALID = 0xA1, CKR_PIN_LEN_RANGE = 0xA2, CKR_PIN_EXPIRED = 0xA3,
      CKR_PIN_LOCKED = 0xA4, CKR_SESSION_CLOSED = 0xB0, CKR_SESSION_COUNT = 0xB1,
      CKR_SESSION_HANDLE_INVALID = 0xB3, CKR_SESSION_PARALLEL_NOT_SUPPORTED = 0xB4,
      CKR_SESSION_READ_ONLY = 0xB5, CKR_SESSION_EXISTS = 0xB6, CKR_SESSION_READ_ONLY_EXISTS = 0xB7,
      CKR_SESSION_READ_WRITE_SO_EXISTS = 0xB8, CKR_SIGNATURE_INVALID = 0xC0,
      CKR_SIGNATURE_LEN_RANGE = 0xC1, CKR_TEMPLATE_INCOMPLETE = 0xD0,
      CKR_TEMPLATE_INCONSISTENT = 0xD1, CKR_TOKEN_NOT_PRESENT = 0xE0,
      CKR_TOKEN_NOT_RECOGNIZED = 0xE1, CKR_TOKEN_WRITE_PROTECTED = 0xE2,
      CKR_UNWRAPPING_KEY_HANDLE_INVALID = 0xF0, CKR_UNWRAPPING_KEY_SIZE_RANGE = 0xF1,
      CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT = 0xF2, CKR_USER_ALREADY_LOGGED_IN = 0x100,
      CKR_USER_NOT_LOGGED_IN = 0x101, CKR_USER_PIN_NOT_INITIALIZED = 0x102,
      CKR_USER_TYPE_INVALID = 0x103, CKR_USER_ANOTHER_ALREADY_LOGGED_IN = 0x104,
      CKR_USER_TOO_MANY_TYPES = 0x105, CKR_WRAPPED_KEY_INVALID = 0x110,
      CKR_WRAPPED_KEY_LEN_RANGE = 0x112, CKR_WRAPPING_KEY_HANDLE_INVALID = 0x113,
      CKR_WRAPPING_KEY_SIZE_RANGE = 0x114, CKR_WRAPPING_KEY_TYPE_INCONSISTENT = 0x115,
      CKR_RANDOM_SEED_NOT_SUPPORTED = 0x120, CKR_RANDOM_NO_RNG = 0x121,
      CKR_DOMAIN_PARAMS_INVALID = 0x130, CKR_CURVE_NOT_SUPPORTED = 0x140,
      CKR_BUFFER_TOO_SMALL = 0x150, CKR_SAVED_STATE_INVALID = 0x160,
      CKR_INFORMATION_SENSITIVE = 0x170, CKR_STATE_UNSAVEABLE = 0x180,
      CKR_CRYPTOKI_NOT_INITIALIZED = 0x190, CKR_CRYPTOKI_ALREADY_INITIALIZED = 0x191,
      CKR_MUTEX_BAD = 0x1A0, CKR_MUTEX_NOT_LOCKED = 0x1A1, CKR_NEW_PIN_MODE = 0x1B0,
      CKR_NEXT_OTP = 0x1B1, CKR_EXCEEDED_MAX_ITERATIONS = 0x1C0, CKR_FIPS_SELF_TEST_FAILED = 0x1C1,
      CKR_LIBRARY_LOAD_FAILED = 0x1C2, CKR_PIN_TOO_WEAK = 0x1C3, CKR_PUBLIC_KEY_INVALID = 0x1C4,
      CKR_FUNCTION_REJECTED = 0x200;

  /** Names by kind ("CKR_") and value, read off the constants above. */
  private static final Map<String, Map<Integer, String>> NAMES = names();

  private PKCS11Constants() {}

  /**
   * Names a return value.
   *
   * @param value the value
   * @return its {@code CKR_} constant, or the number as "0x%08X" writes it
   */
  public static String returnValueName(int value) {
    return name("CKR_", value);
  }

  /**
   * Names a mechanism.
   *
   * @param value the mechanism type
   * @return its {@code CKM_} constant, or the number as "0x%08X" writes it
   */
  public static String mechanismName(int value) {
    return name("CKM_", value);
  }

  /**
   * Names an attribute.
   *
   * @param value the attribute type
   * @return its {@code CKA_} constant, or the number as "0x%08X" writes it
   */
  public static String attributeName(int value) {
    return name("CKA_", value);
  }

  /**
   * Names an object class.
   *
   * @param value the object class
   * @return its {@code CKO_} constant, or the number as "0x%08X" writes it
   */
  public static String objectClassName(int value) {
    return name("CKO_", value);
  }

  /**
   * Names a key type.
   *
   * @param value the key type
   * @return its {@code CKK_} constant, or the number as "0x%08X" writes it
   */
  public static String keyTypeName(int value) {
    return name("CKK_", value);
  }

  private static String name(String kind, int value) {
    String name = NAMES.getOrDefault(kind, Map.of()).get(value);
    return name != null ? name : "0x%08X".formatted(value);
  }

  private static Map<String, Map<Integer, String>> names() {
    Map<String, Map<Integer, String>> names = new HashMap<>();
    try {
      for (Field field : PKCS11Constants.class.getFields()) {
        String kind = field.getName().substring(0, 4);
        names.computeIfAbsent(kind, k -> new HashMap<>()).put(field.getInt(null), field.getName());
      }
    } catch (IllegalAccessException e) {
      throw new AssertionError("public constants cannot be read", e);
    }
    return names;
  }
}
