import java.util.Map;

/** The data of the operations on a real token. */
public record TokenInputs(byte[] hash, byte[] digestInfo, byte[] ciphertext) {
  public static final int CKM_RSA_PKCS = 0x1;
  public static final int CKM_ECDSA = 0x1041;
  public static final int CKM_AES_ECB = 0x1081;
  public static final int CKO_SECRET_KEY = 4;
  public static final int RSA_SIZE = 256;
  public static final int EC_SIZE = 64;
  public static final int KEYS = 1_000;

  public static final Map<TokenOp, Integer> AES_SIZES =
      Map.of(TokenOp.AES_1K, 1 << 10, TokenOp.AES_64K, 64 << 10, TokenOp.AES_1M, 1 << 20);
}
