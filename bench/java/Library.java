// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.CKF_SERIAL_SESSION;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.concurrent.Callable;
import java.util.function.Function;

/**
 * Runs the operations through this library's Java half. This class and those of the Java half are
 * loaded once for each native library.
 */
public final class Library implements Function<Operation, Callable<?>> {
  private static final Operation.Attributes WANTED = Operation.WANTED;

  private final NativePKCS11 module = new NativePKCS11();
  private final NativePKCS11Slot slot = new NativePKCS11Slot(module, 0);
  private final NativePKCS11Session none = new NativePKCS11Session(slot, 0);

  public Library(String modulePath) throws PKCS11Exception {
    NativePKCS11.loadPKCS11Library(modulePath);
    module.libInitialize();
  }

  @Override
  public Callable<?> apply(Operation op) {
    NativePKCS11Session session = new NativePKCS11Session(slot, op.session());
    NativePKCS11Object key = new NativePKCS11Object(session, op.key());
    int mech = op.mechanism();
    byte[] in = op.in();
    byte[] out = new byte[op.size()];
    Operation.Attributes template = Operation.Attributes.privateKey(op.size());
    int[] types = template.types();
    Object[] values = template.values();
    return switch (op.kind()) {
      case INFO -> module::getInfo;
      case SLOT_LIST -> () -> module.getSlotList(true);
      case TOKEN_INFO -> slot::getTokenInfo;
      case SESSION_INFO -> session::getInfo;
      case MECHANISM_LIST -> slot::getMechanismList;
      case LOGIN -> () -> {
        session.login(false, Operation.PIN);
        session.logout();
        return null;
      };
      case SIGN -> () -> {
        session.signInit(mech, null, key);
        return session.sign(in, 0, in.length, out, 0);
      };
      case ENCRYPT -> () -> {
        session.encryptInit(mech, null, key);
        return session.encrypt(in, 0, in.length, out, 0);
      };
      case DECRYPT -> () -> {
        session.decryptInit(mech, null, key);
        return session.decrypt(in, 0, in.length, out, 0);
      };
      case SEARCH -> () -> {
        session.findObjectsInit(WANTED.types(), WANTED.values());
        int found = 0;
        while (session.findObject() != null) {
          found++;
        }
        session.findObjectsFinal();
        return found;
      };
      case CREATE -> () -> session.createObject(types, values);
      case READ -> () -> key.getAttributeValue(op.size());
      case GENERATE_PAIR -> () ->
          session.generateKeyPair(mech, null, types, values, types, values);
      case WRAP_KEY -> () -> session.wrapKey(mech, null, key, key, out, 0);
      case REFUSED -> () -> {
        try {
          none.logout();
        } catch (PKCS11Exception e) {
          return e;
        }
        throw new IllegalStateException("nothing was refused");
      };
      case SLOT_INFO -> slot::getInfo;
      case MECHANISM_INFO -> () -> slot.getMechanismInfo(mech);
      case OPEN_SESSION -> () -> slot.openSession(CKF_SERIAL_SESSION).sessionID();
      case FIND_ONE -> () -> {
        session.findObjectsInit(WANTED.types(), WANTED.values());
        return session.findObject();
      };
      case NEW_SIGNATURE -> () -> session.sign(mech, key, in);
      case GENERATE_KEY -> () -> session.generateKey(mech, null, types, values).objectID();
      case NEW_WRAPPED_KEY -> () -> session.wrapKey(mech, key, key);
      case UNWRAP_KEY -> () ->
          session.unwrapKey(mech, null, key, in, 0, in.length, types, values).objectID();
    };
  }
}
