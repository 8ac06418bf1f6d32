import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.NativePKCS11Session;

/** Opens a module after another one has failed to load, which leaves an adapter in memory. */
class OpenModule {
  public static void main(String[] args) throws Exception {
    try {
      PKCS11Module.open("/nowhere/module.so").close();
      throw new AssertionError("opened");
    } catch (PKCS11Exception e) {
      System.out.println(e.getMessage());
    }
    try (PKCS11Module module = PKCS11Module.open(args[0]);
        NativePKCS11Session session = module.token("demo").openSession()) {
      session.login(args[1].toCharArray());
    }
  }
}
