/** The operations that are compared on a real token. */
public enum TokenOp {
  RSA_SIGN("RSA 2048 signature"),
  EC_SIGN("EC P-256 signature"),
  RSA_DECRYPT("RSA 2048 decryption"),
  AES_1K("AES encryption of 1 KiB"),
  AES_64K("AES encryption of 64 KiB"),
  AES_1M("AES encryption of 1 MiB"),
  SEARCH("search over 1,000 keys");

  public final String label;

  TokenOp(String label) {
    this.label = label;
  }
}
