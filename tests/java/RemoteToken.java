import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.stream.Stream;

/** A token behind a p11-kit server that dies in mid-session and comes back. */
class RemoteToken {
  public static void main(String[] args) throws Exception {
    NativePKCS11 module = new NativePKCS11();
    NativePKCS11Session session = logIn(module);
    System.out.println("before: " + session.findAll(null).size() + " objects");
    var server = ProcessHandle.of(Long.parseLong(System.getenv("P11_KIT_SERVER_PID"))).get();
    // The connection is served by a process of its own, which goes first.
    for (ProcessHandle process : Stream.concat(server.descendants(), Stream.of(server)).toList()) {
      process.destroyForcibly();
    }
    for (int i = 0; i < 3; i++) {
      try {
        session.findAll(null);
        throw new AssertionError("a call reached the server that is gone");
      } catch (PKCS11Exception e) {
        System.out.println("gone: " + e.getMessage());
      }
    }
    module.libFinalize();
    Path socket = Path.of(System.getenv("P11_KIT_SERVER_ADDRESS").replace("unix:path=", ""));
    Files.delete(socket);
    Process revived =
        new ProcessBuilder("p11-kit", "server", "--foreground", "--provider",
                "/usr/lib/softhsm/libsofthsm2.so", "--name", socket.toString(), "pkcs11:token=demo")
            .start();
    try {
      for (int i = 0; !Files.exists(socket); i++) {
        if (i == 1000 || !revived.isAlive()) {
          throw new AssertionError("the server has not come back");
        }
        Thread.sleep(10);
      }
      session = logIn(module);
      System.out.println("after: " + session.findAll(null).size() + " objects");
      module.libFinalize();
    } finally {
      revived.destroy();
      revived.waitFor();
    }
  }

  private static NativePKCS11Session logIn(NativePKCS11 module) throws PKCS11Exception {
    NativePKCS11.loadPKCS11Library(System.getenv("QUARVEL_PKCS11_MODULE"));
    module.libInitialize();
    NativePKCS11Session session = module.slots(true).get(0).openSession(4, null, null);
    session.loginellips(false, System.getenv("QUARVEL_PIN").getBytes());
    return session;
  }
}
