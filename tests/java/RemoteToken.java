import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.*;
import java.nio.file.*;
import java.util.stream.Stream;

/** A token behind a p11-kit server that dies in mid-session and comes back. */
class RemoteToken {
  private static final NativePKCS11 MODULE = new NativePKCS11();

  public static void main(String[] args) throws Exception {
    NativePKCS11Session session = logIn();
    System.out.println("before: " + session.findAll(null).size() + " objects");
    ProcessHandle server =
        ProcessHandle.of(Long.parseLong(System.getenv("P11_KIT_SERVER_PID"))).get();
    // The connection is served by a process of its own, which goes first.
    Stream.concat(server.descendants(), Stream.of(server)).forEach(ProcessHandle::destroyForcibly);
    for (int i = 0; i < 3; i++) {
      try {
        session.findAll(null);
        throw new AssertionError("a call reached the server that is gone");
      } catch (PKCS11Exception e) {
        System.out.println("gone: " + e.getMessage());
      }
    }
    MODULE.libFinalize();
    Path socket = Path.of(System.getenv("P11_KIT_SERVER_ADDRESS").replace("unix:path=", ""));
    Files.delete(socket);
    Process revived = new ProcessBuilder("p11-kit", "server", "--foreground", "--provider",
        "/usr/lib/softhsm/libsofthsm2.so", "--name", socket.toString(), "pkcs11:token=demo").start();
    try {
      for (int i = 0; i < 1000 && !Files.exists(socket); i++) Thread.sleep(10);
      System.out.println("after: " + logIn().findAll(null).size() + " objects");
      MODULE.libFinalize();
    } finally {
      revived.destroy();
      revived.waitFor();
    }
  }

  private static NativePKCS11Session logIn() throws PKCS11Exception {
    NativePKCS11.loadPKCS11Library(System.getenv("QUARVEL_PKCS11_MODULE"));
    MODULE.libInitialize();
    NativePKCS11Session session = MODULE.slots(true).get(0).openSession();
    session.login(System.getenv("QUARVEL_PIN").toCharArray());
    return session;
  }
}
