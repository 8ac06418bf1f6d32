import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;

/** Makes the calls whose trace the log is compared with. */
class TraceLog {
  public static void main(String[] args) throws Exception {
    NativePKCS11.loadPKCS11Library(args[0]);
    NativePKCS11 module = new NativePKCS11();
    module.libInitialize();
    NativePKCS11Slot[] slots = module.getSlotList(true);
    try (NativePKCS11Session session = slots[0].openSession(4, null, null)) {
      session.login(false, args[1]);
    }
    module.libFinalize();
    NativePKCS11.loadPKCS11Library(args[0]);
  }
}
