// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.PKCS11Constants;
import java.lang.reflect.Array;

/**
 * Runs one operation on a misbehaving module, in a virtual machine of its own: Hostile library |
 * jdk MODULE KIND. Prints the outcome as the last line.
 */
final class Hostile {
  public static void main(String[] args) {
    try {
      Operation.Kind kind = Operation.Kind.valueOf(args[2]);
      Operation op = Operation.of("", kind, kind == Operation.Kind.READ ? PKCS11Constants.CKA_ID : 16);
      Object result =
          args[0].equals("library")
              ? new Library(args[1]).apply(op).call()
              : new JdkWrapper(args[1], true).apply(op).call();
      System.out.println("\noutcome: returns " + describe(result));
    } catch (Throwable e) {
      String name = e.getClass().getSimpleName();
      String message = name.equals("PKCS11Exception") ? " " + e.getMessage() : "";
      System.out.println("\noutcome: " + name + message);
    }
  }

  private static String describe(Object result) {
    if (result != null && result.getClass().isArray()) {
      return Array.getLength(result) + " elements";
    }
    return result == null || result instanceof Number ? String.valueOf(result) : "an object";
  }
}
