import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;

/**
 * The card's own methods on a real module that stores vendor-defined attributes; the adapter in
 * front of it takes their types from Java.
 */
class Card {
  public static void main(String[] args) throws Exception {
    PKCS11Module module = PKCS11Module.open(System.getenv("QUARVEL_PKCS11_MODULE"));
    NativePKCS11Session session = module.token(System.getenv("QUARVEL_TOKEN")).openSession(true);
    expect(0, session.getIdentrusObject().objectID());
    NativePKCS11Object application = session.createObject(
        new int[] {CKA_CLASS, CKA_TOKEN, CKA_MODIFIABLE, 0x80000201, 0x80004400},
        new Object[] {CKO_DATA, false, true, new byte[] {1, -128, 0, -128}, new byte[] {3}});
    expect(application.objectID(), session.getIdentrusObject().objectID());
    expect(3, session.getCardStatus());
    session.setCardStatus(8);
    expect(8, session.getCardStatus());
    session.setCardStatus(0x190);
    expect(-112, session.getCardStatus());
    application.destroy();
    expect(0, session.getIdentrusObject().objectID());
    module.close();
  }

  private static void expect(int expected, int actual) {
    if (actual != expected) throw new AssertionError(actual + ", not " + expected);
  }
}
