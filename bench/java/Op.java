/** The operations that are compared on the module that answers at once. */
public enum Op {
  MODULE_INFO("module information", 0.5),
  SLOT_LIST("slot list of 4"),
  TOKEN_INFO("token information", 0.65),
  SESSION_INFO("session information"),
  MECHANISM_LIST("mechanism list of 64", 1.2),
  LOGIN("login and logout"),
  SIGN("signInit and sign"),
  ENCRYPT_16("encryptInit and encrypt 16 B"),
  ENCRYPT_1K("encryptInit and encrypt 1 KiB"),
  ENCRYPT_64K("encryptInit and encrypt 64 KiB"),
  ENCRYPT_1M("encryptInit and encrypt 1 MiB"),
  DECRYPT_16("decryptInit and decrypt 16 B"),
  DECRYPT_1K("decryptInit and decrypt 1 KiB"),
  DECRYPT_64K("decryptInit and decrypt 64 KiB"),
  DECRYPT_1M("decryptInit and decrypt 1 MiB"),
  FIND_1("search with 1 object"),
  FIND_100("search with 100 objects"),
  FIND_10000("search with 10,000 objects"),
  CREATE_1("createObject, 1 attribute"),
  CREATE_8("createObject, 8 attributes", 0.8),
  CREATE_64("createObject, 64 attributes", 0.8),
  GET_CLASS("read a class (Integer)", 0.65),
  GET_BOOLEAN("read a truth value (Boolean)", 0.65),
  GET_LABEL("read a label (String)", 0.45),
  GET_ID("read an ID of 20 bytes (byte[])"),
  GET_MODULUS("read a modulus of 256 bytes (BigInteger)", 1.0),
  GET_DATE("read a date (Date)"),
  GENERATE_PAIR("generateKeyPair, 4 + 4 attributes", 0.77),
  WRAP_KEY("wrapKey"),
  FAILURE("a refused call and its exception");

  /** What the report calls it. */
  public final String label;

  /** What share of the JDK's time it may take; NaN where none is set. */
  public final double jdkTarget;

  Op(String label) {
    this(label, Double.NaN);
  }

  Op(String label, double jdkTarget) {
    this.label = label;
    this.jdkTarget = jdkTarget;
  }
}
