import it.quarvel.pkcs11.nat.*;

/** Makes the calls whose trace the log is compared with. */
class TraceLog {
  public static void main(String[] args) throws Exception {
    NativePKCS11.loadPKCS11Library(args[0]);
    NativePKCS11 module = new NativePKCS11();
    module.libInitialize();
    try (NativePKCS11Session session = module.getSlotList(true)[0].openSession(4, null, null)) {
      session.login(false, args[1]);
    }
    module.libFinalize();
    NativePKCS11.loadPKCS11Library(args[0]);
  }
}
