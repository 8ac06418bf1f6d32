// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.util.*;

/**
 * The card's own methods on a real module that stores vendor-defined attributes; the adapter in
 * front of it takes their types from Java.
 */
class Card {
  public static void main(String[] args) throws Exception {
    PKCS11Module module = PKCS11Module.open(System.getenv("QUARVEL_PKCS11_MODULE"));
    NativePKCS11Session session = module.token(System.getenv("QUARVEL_TOKEN")).openSession(true);
    List<Integer> seen = new ArrayList<>(List.of(session.getIdentrusObject().objectID()));
    NativePKCS11Object application = session.createObject(
        new int[] {CKA_CLASS, CKA_TOKEN, CKA_MODIFIABLE, 0x80000201, 0x80004400},
        new Object[] {CKO_DATA, false, true, new byte[] {1, -128, 0, -128}, new byte[] {3}});
    seen.add(session.getIdentrusObject().objectID());
    seen.add(session.getCardStatus());
    for (int status : new int[] {8, 0x190}) {
      session.setCardStatus(status);
      seen.add(session.getCardStatus());
    }
    application.destroy();
    seen.add(session.getIdentrusObject().objectID());
    module.close();
    List<Integer> expected = List.of(0, application.objectID(), 3, 8, -112, 0);
    if (!seen.equals(expected)) throw new AssertionError(seen);
  }
}
