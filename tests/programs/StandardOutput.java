// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.io.FileOutputStream;

/** Loads a module, opens a file, and prints: the file holds its own bytes only. */
class StandardOutput {
  public static void main(String[] args) throws Exception {
    NativePKCS11.loadPKCS11Library(args[0]);
    try (FileOutputStream file = new FileOutputStream(args[1])) {
      System.out.println("for standard output");
      System.out.flush();
      file.write("its own bytes".getBytes());
    }
    System.out.println(javax.security.auth.x500.X500Principal.class); // one more class is loaded
  }
}
