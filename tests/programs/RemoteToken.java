// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.CKR_DEVICE_ERROR;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.nio.file.*;

/** A token behind a p11-kit server that dies in mid-session and comes back. */
class RemoteToken {
  private static final String MODULE = System.getenv("QUARVEL_PKCS11_MODULE");

  public static void main(String[] args) throws Exception {
    try (PKCS11Module module = PKCS11Module.openDirect(MODULE)) {
      NativePKCS11Session session = logIn(module);
      ProcessHandle server =
          ProcessHandle.of(Long.parseLong(System.getenv("P11_KIT_SERVER_PID"))).get();
      // The connection is served by a process of its own, which goes first.
      server.descendants().forEach(ProcessHandle::destroyForcibly);
      server.destroyForcibly();
      for (int i = 0; i < 3; i++) {
        try {
          session.findAll(null);
          throw new AssertionError("a call reached the server that is gone");
        } catch (PKCS11Exception e) {
          if (e.errorCode() != CKR_DEVICE_ERROR) throw e;
        }
      }
    }
    Path socket = Path.of(System.getenv("P11_KIT_SERVER_ADDRESS").replace("unix:path=", ""));
    Files.delete(socket);
    Process revived = new ProcessBuilder("p11-kit", "server", "--foreground", "--provider",
        "/usr/lib/softhsm/libsofthsm2.so", "--name", "" + socket, "pkcs11:token=demo").start();
    for (int i = 0; i < 1000 && !Files.exists(socket); i++) Thread.sleep(10);
    try (PKCS11Module module = PKCS11Module.openDirect(MODULE)) {
      logIn(module);
    } finally {
      revived.destroy();
      revived.waitFor();
    }
  }

  private static NativePKCS11Session logIn(PKCS11Module module) throws PKCS11Exception {
    NativePKCS11Session session = module.tokens().get(0).openSession();
    session.login(System.getenv("QUARVEL_PIN").toCharArray());
    System.out.println(session.findAll(null).size() + " objects");
    return session;
  }
}
