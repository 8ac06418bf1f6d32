// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.util.ArrayList;
import java.util.List;

/**
 * One operation and its data. Every subject makes one lambda of it.
 *
 * @param size the room for output in bytes, the number of attributes in a template, or the type of
 *     the attribute that is read
 */
public record Operation(
    String label, Kind kind, int session, int key, int mechanism, byte[] in, int size) {

  /** The operations. The last eight are compared on misbehaving modules only. */
  public enum Kind {
    INFO, SLOT_LIST, TOKEN_INFO, SESSION_INFO, MECHANISM_LIST, LOGIN, SIGN, ENCRYPT, DECRYPT,
    SEARCH, CREATE, READ, GENERATE_PAIR, WRAP_KEY, REFUSED,
    SLOT_INFO, MECHANISM_INFO, OPEN_SESSION, FIND_ONE, NEW_SIGNATURE, GENERATE_KEY,
    NEW_WRAPPED_KEY, UNWRAP_KEY
  }

  /** Attributes as this library takes them: types and values side by side. */
  public record Attributes(int[] types, Object[] values) {
    private static final Object[][] PRIVATE_KEY = {
      {CKA_CLASS, CKO_PRIVATE_KEY}, {CKA_TOKEN, true}, {CKA_LABEL, "signing key 2048"},
      {CKA_ID, new byte[20]}, {CKA_KEY_TYPE, CKK_RSA}, {CKA_PRIVATE, true}, {CKA_SENSITIVE, true},
      {CKA_SIGN, true}
    };

    /** Returns {@code size} attributes: those of a private key, over and over. */
    public static Attributes privateKey(int size) {
      Attributes result = new Attributes(new int[size], new Object[size]);
      for (int i = 0; i < size; i++) {
        result.types[i] = (int) PRIVATE_KEY[i % PRIVATE_KEY.length][0];
        result.values[i] = PRIVATE_KEY[i % PRIVATE_KEY.length][1];
      }
      return result;
    }
  }

  /** The template of a search. */
  public static final Attributes WANTED =
      new Attributes(new int[] {CKA_CLASS}, new Object[] {CKO_SECRET_KEY});

  /** The number of handles that a search asks for at once, if its interface takes more than one. */
  public static final int BATCH = 100;

  public static final String PIN = "1234";

  /** Makes an operation on a module that looks neither at handles nor at data. */
  static Operation of(String label, Kind kind, int size) {
    byte[] in = new byte[kind == Kind.SIGN ? 32 : size];
    return new Operation(label, kind, 1, 1, CKM_RSA_PKCS, in, size);
  }

  Operation in(int otherSession) {
    return new Operation(label, kind, otherSession, key, mechanism, in, size);
  }

  /** Makes a search on the module that finds as many objects as the number of its session. */
  static Operation search(String label, int objects) {
    return new Operation(label, Kind.SEARCH, objects, 1, 0, new byte[0], 0);
  }

  /** Returns the operations that are measured on the module that answers at once. */
  static List<Operation> instant() {
    return List.of(
        of("module information", Kind.INFO, 0),
        of("slot list of 4", Kind.SLOT_LIST, 0),
        of("token information", Kind.TOKEN_INFO, 0),
        of("session information", Kind.SESSION_INFO, 0),
        of("mechanism list of 64", Kind.MECHANISM_LIST, 0),
        of("login and logout", Kind.LOGIN, 0),
        of("signInit and sign", Kind.SIGN, 256),
        of("encryptInit and encrypt 16 B", Kind.ENCRYPT, 16),
        of("encryptInit and encrypt 1 KiB", Kind.ENCRYPT, 1 << 10),
        of("encryptInit and encrypt 64 KiB", Kind.ENCRYPT, 64 << 10),
        of("encryptInit and encrypt 1 MiB", Kind.ENCRYPT, 1 << 20),
        of("decryptInit and decrypt 16 B", Kind.DECRYPT, 16),
        of("decryptInit and decrypt 1 KiB", Kind.DECRYPT, 1 << 10),
        of("decryptInit and decrypt 64 KiB", Kind.DECRYPT, 64 << 10),
        of("decryptInit and decrypt 1 MiB", Kind.DECRYPT, 1 << 20),
        search("search with 1 object", 1),
        search("search with 100 objects", 100),
        search("search with 10,000 objects", 10_000),
        of("createObject, 1 attribute", Kind.CREATE, 1),
        of("createObject, 8 attributes", Kind.CREATE, 8),
        of("createObject, 64 attributes", Kind.CREATE, 64),
        of("read a class (Integer)", Kind.READ, CKA_CLASS),
        of("read a truth value (Boolean)", Kind.READ, CKA_TOKEN),
        of("read a label (String)", Kind.READ, CKA_LABEL),
        of("read an ID of 20 bytes (byte[])", Kind.READ, CKA_ID),
        of("read a modulus of 256 bytes (BigInteger)", Kind.READ, CKA_MODULUS),
        of("read a date (Date)", Kind.READ, CKA_END_DATE),
        of("generateKeyPair, 4 + 4 attributes", Kind.GENERATE_PAIR, 4),
        of("wrapKey", Kind.WRAP_KEY, 64),
        of("a refused call and its exception", Kind.REFUSED, 0));
  }

  /** Returns operations whose cost grows with size: five searches, then six templates. */
  static List<Operation> growth() {
    List<Operation> operations = new ArrayList<>();
    for (int size = 100; size <= 1_000_000; size *= 10) {
      operations.add(search("search, objects: %,d".formatted(size), size));
    }
    for (int size = 1; size <= 100_000; size *= 10) {
      operations.add(of("createObject, attributes: %,d".formatted(size), Kind.CREATE, size));
    }
    return operations;
  }
}
