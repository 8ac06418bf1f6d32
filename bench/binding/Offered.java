import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.math.BigInteger;
import java.util.Date;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.function.Function;

/** Every method that the library offers, on the instant module. */
public final class Offered implements Function<String, Map<String, Operation>> {
  /** One call; its result does not matter here. */
  private interface Call {
    void run() throws Exception;
  }

  private final Map<String, Operation> operations = new LinkedHashMap<>();
  private final NativePKCS11 module = new NativePKCS11();
  private final NativePKCS11Slot slot = new NativePKCS11Slot(module, 0);
  private final NativePKCS11Session session = new NativePKCS11Session(slot, 1);
  private final NativePKCS11Session noSession = new NativePKCS11Session(slot, 0);
  private final NativePKCS11Object key = new NativePKCS11Object(session, 1);

  @Override
  public Map<String, Operation> apply(String modulePath) {
    add("load, initialise, finalise", () -> loadAndFinalize(modulePath));
    add("load again", () -> load(modulePath));
    addModule();
    addSession();
    addOperations();
    addTemplates();
    addAttributes();
    add("refused call", () -> refused(noSession::logout));
    return operations;
  }

  private void add(String name, Call call) {
    operations.put(
        name,
        calls -> {
          for (int i = 0; i < calls; i++) {
            call.run();
          }
          return calls;
        });
  }

  private void load(String path) throws PKCS11Exception {
    NativePKCS11.loadPKCS11Library(path);
    module.libInitialize();
  }

  private void loadAndFinalize(String path) throws PKCS11Exception {
    load(path);
    module.libFinalize();
  }

  private static void refused(Call call) throws Exception {
    try {
      call.run();
    } catch (PKCS11Exception e) {
      return;
    }
    throw new IllegalStateException("nothing was refused");
  }

  private void addModule() {
    add("getBridgeVersion", module::getBridgeVersion);
    add("PKCS11.getInfo", module::getInfo);
    add("getSlotList", () -> module.getSlotList(true));
    add("getRSAcredential", () -> refused(() -> module.getRSAcredential("a", 0, "1234")));
    add("Slot.getInfo", slot::getInfo);
    add("getTokenInfo", slot::getTokenInfo);
    add("getTokenSN", slot::getTokenSN);
    add("getMechanismList", slot::getMechanismList);
    add("getMechanismInfo", () -> slot.getMechanismInfo(1));
    add("openSession", () -> slot.openSession(6));
    add("closeAllSessions", slot::closeAllSessions);
  }

  private void addSession() {
    byte[] pin = {'1', '2', '3', '4'};
    add("Session.close", session::close);
    add("Session.getInfo", session::getInfo);
    add("login", () -> session.login(false, Workload.PIN));
    add("logout", session::logout);
    add("initPIN", () -> session.initPIN(Workload.PIN));
    add("setPIN", () -> session.setPIN(Workload.PIN, Workload.PIN));
    add("loginellips", () -> session.loginellips(false, pin));
    add("setPINellips", () -> session.setPINellips(pin, pin));
    add("loginAuthPath", () -> session.loginAuthPath(false));
    add("getCardStatus", session::getCardStatus);
    add("setCardStatus", () -> session.setCardStatus(8));
    add("getIdentrusObject", session::getIdentrusObject);
  }

  private void addOperations() {
    byte[] in = new byte[256];
    byte[] out = new byte[256];
    add("signInit", () -> session.signInit(1, null, key));
    add("sign", () -> session.sign(in, 0, 32, out, 0));
    add("sign for the length", () -> session.sign(in, 0, 32, null, 0));
    add("encryptInit", () -> session.encryptInit(1, null, key));
    add("encrypt", () -> session.encrypt(in, 0, 256, out, 0));
    add("decryptInit", () -> session.decryptInit(1, null, key));
    add("decrypt", () -> session.decrypt(in, 0, 256, out, 0));
    add("wrapKey", () -> session.wrapKey(1, null, key, key, out, 0));
  }

  private void addTemplates() {
    Workload.Attributes t = Workload.template(8);
    byte[] in = new byte[64];
    add("findObjectsInit", () -> session.findObjectsInit(t.types(), t.values()));
    add("findObject", session::findObject);
    add("findObjectsFinal", session::findObjectsFinal);
    add("createObject", () -> session.createObject(t.types(), t.values()));
    add("createObject, no value", () -> session.createObject(t.types(), new Object[8]));
    add("installCertificate", () -> session.installCertificate(1, in, 64, "s", "n", "i", "l"));
    add("generateKey", () -> session.generateKey(0, null, t.types(), t.values()));
    add("unwrapKey", () -> session.unwrapKey(1, null, key, in, 0, 64, t.types(), t.values()));
    add(
        "generateKeyPair",
        () -> session.generateKeyPair(0, null, t.types(), t.values(), t.types(), t.values()));
    add("generateKeyPairOB", () -> session.generateKeyPairOB(0, true));
    add("setAttributeValues", () -> key.setAttributeValues(t.types(), t.values()));
  }

  private void addAttributes() {
    Date date = new Date(0);
    BigInteger number = BigInteger.ONE.shiftLeft(255);
    Workload.ATTRIBUTES.forEach((op, attr) -> add(op.label, () -> key.getAttributeValue(attr)));
    add("getBoolAttributeValue", () -> key.getBoolAttributeValue(Workload.CKA_TOKEN));
    add("getIntAttributeValue", () -> key.getIntAttributeValue(Workload.CKA_CLASS));
    add("getStringAttributeValue", () -> key.getStringAttributeValue(Workload.CKA_LABEL));
    add("getByteArrayAttributeValue", () -> key.getByteArrayAttributeValue(Workload.CKA_ID));
    add("getDateAttributeValue", () -> key.getDateAttributeValue(Workload.CKA_END_DATE));
    add("getBigIntegerAttributeValue", () -> key.getBigIntegerAttributeValue(Workload.CKA_MODULUS));
    add("setAttributeValue, Date", () -> key.setAttributeValue(Workload.CKA_END_DATE, date));
    add("setAttributeValue, number", () -> key.setAttributeValue(Workload.CKA_MODULUS, number));
    add("setBoolAttributeValue", () -> key.setBoolAttributeValue(Workload.CKA_PRIVATE, true));
    add("setIntAttributeValue", () -> key.setIntAttributeValue(Workload.CKA_KEY_TYPE, 0));
    add("size", key::size);
    add("destroy", key::destroy);
  }
}
