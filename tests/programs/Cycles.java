// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.nio.file.*;

/** Loads, initialises and finalises a module a thousand times, and watches the resident size. */
class Cycles {
  public static void main(String[] args) throws Exception {
    long settled = residentKib(100);
    long grown = residentKib(900) - settled;
    System.out.printf(
        "resident size: %d KiB after 100 cycles, %+d KiB after 1000%n", settled, grown);
    // Forty runs on two versions of Java grew by 52 to 112 KiB; a leak of 290 bytes a cycle is more.
    if (grown > 256) throw new AssertionError("more than 256 KiB");
  }

  private static long residentKib(int cycles) throws Exception {
    for (int i = 0; i < cycles; i++) {
      NativePKCS11.loadPKCS11Library(System.getenv("QUARVEL_PKCS11_MODULE"));
      new NativePKCS11().libInitialize();
      new NativePKCS11().libFinalize();
    }
    System.gc();
    String status = Files.readString(Path.of("/proc/self/status"));
    return Long.parseLong(status.replaceAll("(?s).*VmRSS:\\s*(\\d+).*", "$1"));
  }
}
