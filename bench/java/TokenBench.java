import java.util.EnumMap;
import java.util.LinkedHashMap;
import java.util.Map;
import sun.security.pkcs11.wrapper.CK_ATTRIBUTE;
import sun.security.pkcs11.wrapper.CK_MECHANISM;
import sun.security.pkcs11.wrapper.PKCS11;
import sun.security.pkcs11.wrapper.PKCS11Exception;

/**
 * What a user of a real token sees: this library, the JDK's wrapper and the bare C calls, all in
 * one session of one module: TokenBench MODULE PIN LIBRARY BARE_HELPER RESULTS [--quick].
 */
final class TokenBench {
  static final String BARE = "bare C calls";

  private final PKCS11 p11;
  private final TokenSubject.Keys keys;

  private TokenBench(PKCS11 p11, TokenSubject.Keys keys) {
    this.p11 = p11;
    this.keys = keys;
  }

  public static void main(String[] args) throws Exception {
    boolean quick = args.length > 5 && args[5].equals("--quick");
    Rounds rounds = quick ? new Rounds(15, 3_000, 200) : new Rounds(51, 20_000, 500);
    TokenSubject library = (TokenSubject) Subjects.load("TokenBinding", args[2]);
    TokenSubject.Keys keys = library.prepare(args[0], args[1]);
    System.load(args[3]);
    Bare.open(args[0]);
    TokenBench jdk = new TokenBench(JdkBinding.open(args[0], false), keys);
    TokenInputs inputs = new TokenInputs(new byte[32], new byte[51], jdk.ciphertext());

    Map<TokenOp, Operation> libraryOps = library.operations(inputs);
    Map<TokenOp, Operation> jdkOps = jdk.operations(inputs);
    Map<TokenOp, Operation> bareOps = bareOperations(keys, inputs);
    System.out.printf("%-28s %11s %8s %8s %8s%n", "", "us", "/ bare", "+-", "/ JDK");
    Results results = new Results();
    for (TokenOp op : TokenOp.values()) {
      Map<String, Operation> subjects = new LinkedHashMap<>();
      subjects.put(InstantBench.LIBRARY, libraryOps.get(op));
      subjects.put(InstantBench.JDK, jdkOps.get(op));
      subjects.put(BARE, bareOps.get(op));
      Map<String, double[]> times = rounds.measure(subjects);
      double[] own = times.get(InstantBench.LIBRARY);
      double[] bare = times.get(BARE);
      System.out.printf(
          "%-28s %11.1f %8.3f %8.3f %8.3f%n",
          op.label,
          Rounds.median(own) / 1_000,
          Rounds.ratio(own, bare),
          Rounds.spread(own, bare),
          Rounds.ratio(own, times.get(InstantBench.JDK)));
      times.forEach(
          (name, t) ->
              results.add(
                  op.name(), name, Rounds.median(t), Rounds.ratio(t, bare),
                  Rounds.ratio(own, t), Rounds.spread(t, bare)));
    }
    results.write(args[4]);
  }

  private byte[] ciphertext() throws PKCS11Exception {
    byte[] secret = new byte[32];
    byte[] out = new byte[TokenInputs.RSA_SIZE];
    CK_MECHANISM mechanism = new CK_MECHANISM(TokenInputs.CKM_RSA_PKCS);
    p11.C_EncryptInit(keys.session(), mechanism, keys.rsaPublic());
    p11.C_Encrypt(keys.session(), 0, secret, 0, secret.length, 0, out, 0, out.length);
    return out;
  }

  private Map<TokenOp, Operation> operations(TokenInputs inputs) {
    Map<TokenOp, Operation> operations = new EnumMap<>(TokenOp.class);
    operations.put(
        TokenOp.RSA_SIGN,
        n -> sign(TokenInputs.CKM_RSA_PKCS, keys.rsaPrivate(), inputs.digestInfo(), n));
    operations.put(
        TokenOp.EC_SIGN, n -> sign(TokenInputs.CKM_ECDSA, keys.ecPrivate(), inputs.hash(), n));
    operations.put(TokenOp.RSA_DECRYPT, n -> decrypt(inputs.ciphertext(), n));
    TokenInputs.AES_SIZES.forEach((op, size) -> operations.put(op, aes(size)));
    operations.put(TokenOp.SEARCH, this::search);
    return operations;
  }

  private long sign(int mech, long key, byte[] in, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      p11.C_SignInit(keys.session(), new CK_MECHANISM(mech), key);
      sum += Sink.keep(p11.C_Sign(keys.session(), in)).length;
    }
    return sum;
  }

  private long decrypt(byte[] in, int calls) throws PKCS11Exception {
    byte[] out = new byte[TokenInputs.RSA_SIZE];
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_MECHANISM mechanism = new CK_MECHANISM(TokenInputs.CKM_RSA_PKCS);
      p11.C_DecryptInit(keys.session(), mechanism, keys.rsaPrivate());
      sum += p11.C_Decrypt(keys.session(), 0, in, 0, in.length, 0, out, 0, out.length) + out[0];
    }
    return sum;
  }

  private Operation aes(int size) {
    byte[] in = new byte[size];
    byte[] out = new byte[size];
    return n -> encrypt(in, out, n);
  }

  private long encrypt(byte[] in, byte[] out, int calls) throws PKCS11Exception {
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      CK_MECHANISM mechanism = new CK_MECHANISM(TokenInputs.CKM_AES_ECB);
      p11.C_EncryptInit(keys.session(), mechanism, keys.aes());
      sum += p11.C_Encrypt(keys.session(), 0, in, 0, in.length, 0, out, 0, out.length) + out[0];
    }
    return sum;
  }

  private long search(int calls) throws PKCS11Exception {
    CK_ATTRIBUTE[] template = {
      new CK_ATTRIBUTE(Workload.CKA_CLASS, (long) TokenInputs.CKO_SECRET_KEY)
    };
    long sum = 0;
    for (int i = 0; i < calls; i++) {
      sum += JdkBinding.search(p11, keys.session(), template);
    }
    return sum;
  }

  private static Map<TokenOp, Operation> bareOperations(
      TokenSubject.Keys keys, TokenInputs inputs) {
    long session = keys.session();
    Map<TokenOp, Operation> operations = new EnumMap<>(TokenOp.class);
    operations.put(
        TokenOp.RSA_SIGN,
        n ->
            Bare.sign(
                session, keys.rsaPrivate(), TokenInputs.CKM_RSA_PKCS, inputs.digestInfo(),
                TokenInputs.RSA_SIZE, n));
    operations.put(
        TokenOp.EC_SIGN,
        n ->
            Bare.sign(
                session, keys.ecPrivate(), TokenInputs.CKM_ECDSA, inputs.hash(),
                TokenInputs.EC_SIZE, n));
    operations.put(
        TokenOp.RSA_DECRYPT,
        n ->
            Bare.decrypt(
                session, keys.rsaPrivate(), TokenInputs.CKM_RSA_PKCS, inputs.ciphertext(),
                TokenInputs.RSA_SIZE, n));
    TokenInputs.AES_SIZES.forEach(
        (op, size) -> {
          byte[] data = new byte[size];
          operations.put(
              op,
              n -> Bare.encrypt(session, keys.aes(), TokenInputs.CKM_AES_ECB, data, size, n));
        });
    operations.put(
        TokenOp.SEARCH,
        n -> Bare.search(session, TokenInputs.CKO_SECRET_KEY, Workload.FIND_BATCH, n));
    return operations;
  }
}
