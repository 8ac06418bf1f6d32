// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.io.FileOutputStream;
import java.nio.file.*;

/**
 * Loads a module, opens a file, and prints: the file holds its own bytes only. Then it loads the
 * module again without what is in the way of the log.
 */
class StandardOutput {
  public static void main(String[] args) throws Exception {
    NativePKCS11.loadPKCS11Library(args[0]);
    try (FileOutputStream file = new FileOutputStream(args[1])) {
      System.out.println("for standard output");
      System.out.flush();
      file.write("its own bytes".getBytes());
    }
    if (args.length > 2) {
      Files.delete(Path.of(args[2]));
      NativePKCS11.loadPKCS11Library(args[0]);
      System.out.println("for the log");
    }
    System.out.println(javax.security.auth.x500.X500Principal.class); // one more class is loaded
  }
}
