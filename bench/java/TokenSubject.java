import java.util.Map;

/** This library on a real token: makes the keys that all subjects use. */
public interface TokenSubject {
  /** What the other subjects need to know of them. */
  record Keys(long session, long rsaPublic, long rsaPrivate, long ecPrivate, long aes) {}

  /** Opens the module, logs in, makes the keys. */
  Keys prepare(String module, String pin) throws Exception;

  Map<TokenOp, Operation> operations(TokenInputs inputs);
}
