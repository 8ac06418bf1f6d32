package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11MechanismInfo;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Attributes;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Operation;
import it.quarvel.pkcs11.cli.token.Token;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.text.ParseException;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** The operations of a check-up that leave the token as it is. */
public final class Checkup {
  /** One of the typed getters of an object. */
  private interface Reader {
    Object read(NativePKCS11Object object, int type) throws PKCS11Exception, ParseException;
  }

  private final Connection connection;
  private final CheckTable table;
  private final Token token;
  private final Map<Integer, PKCS11MechanismInfo> mechanisms = new LinkedHashMap<>();

  public Checkup(Connection connection, CheckTable table, Token token) {
    this.connection = connection;
    this.table = table;
    this.token = token;
  }

  /** Returns the mechanisms that the token lists, but for those of its vendor. */
  public Map<Integer, PKCS11MechanismInfo> mechanisms() {
    return mechanisms;
  }

  public void describe() {
    NativePKCS11Slot slot = token.slot();
    table.checkHandle("slot", slot.slotID());
    table.attempt("slot info", slot::getInfo);
    table.attempt("serial number", this::readSerialNumber);
    int[] listed = table.attempt("mechanisms", slot::getMechanismList);
    for (int mechanism : listed == null ? new int[0] : listed) {
      if (mechanism >= 0) {
        mechanisms.put(
            mechanism, table.attempt("mechanism info", () -> slot.getMechanismInfo(mechanism)));
      }
    }
    if (mechanisms.isEmpty()) {
      table.note("mechanism info", CheckTable.Result.NOTHING, "no mechanisms");
    }
  }

  public void describeSession() {
    table.checkHandle("session", connection.session().sessionID());
    table.attempt("session info", connection.session()::getInfo);
  }

  /** Reads an attribute of each Java type, of the first object of each class and those given. */
  public void read(List<NativePKCS11Object> more) {
    List<NativePKCS11Object> samples = new ArrayList<>(more);
    sample(samples);
    for (NativePKCS11Object object : samples) {
      table.attempt("object size", object::size);
    }
    if (samples.isEmpty()) {
      table.note("object size", CheckTable.Result.NOTHING, "no object");
    }
    read("read number", samples, CKA_CLASS, NativePKCS11Object::getIntAttributeValue);
    read("read truth value", samples, CKA_TOKEN, NativePKCS11Object::getBoolAttributeValue);
    read("read text", samples, CKA_LABEL, NativePKCS11Object::getStringAttributeValue);
    read("read bytes", samples, CKA_ID, NativePKCS11Object::getByteArrayAttributeValue);
    read("read big number", samples, CKA_MODULUS, NativePKCS11Object::getBigInteger);
    read("read date", samples, CKA_END_DATE, NativePKCS11Object::getDate);
    read("read any type", samples, CKA_CLASS, NativePKCS11Object::getAttributeValue);
  }

  /** Calls one method of each group that the library refuses, with arguments that ask nothing. */
  @SuppressWarnings("deprecation")
  public void tryWhatIsNotOffered() {
    NativePKCS11Session session = connection.session();
    NativePKCS11Object none = new NativePKCS11Object(session, 0);
    byte[] data = {};
    table.attemptNotOffered("digest", () -> session.digestInit(CKM_SHA256, null));
    table.attemptNotOffered("verify", () -> session.verifyInit(CKM_RSA_PKCS, null, none));
    table.attemptNotOffered("sign in parts", () -> session.signUpdate(data, 0, 0));
    table.attemptNotOffered("encrypt in parts", () -> session.encryptUpdate(data, 0, 0, data, 0));
    table.attemptNotOffered("decrypt in parts", () -> session.decryptUpdate(data, 0, 0, data, 0));
    table.attemptNotOffered(
        "sign with recovery", () -> session.signRecoverInit(CKM_RSA_PKCS, null, none));
    table.attemptNotOffered(
        "verify with recovery", () -> session.verifyRecoverInit(CKM_RSA_PKCS, null, none));
    table.attemptNotOffered(
        "two operations at once", () -> session.digestEncryptUpdate(data, 0, 0, data, 0));
    table.attemptNotOffered(
        "derive key", () -> session.deriveKey(0, null, none, new int[0], new Object[0]));
    table.attemptNotOffered("random numbers", () -> session.generateRandom(data, 0, 0));
    table.attemptNotOffered("operation state", session::getOperationState);
    table.attemptNotOffered("copy object", () -> none.copy(new int[0], new Object[0]));
    table.attemptNotOffered("parallel functions", session::getFunctionStatus);
    table.attemptNotOffered("slot events", () -> connection.module().waitForSlotEvent(false));
    table.attemptNotOffered("initialise token", () -> token.slot().initToken(null, null));
  }

  public void close() throws Failure {
    if (!connection.isLoggedIn()) {
      table.note("logout", CheckTable.Result.NOT_ASKED, "no login");
    }
    connection.closeSession();
    table.run("close all sessions", token.slot()::closeAllSessions);
  }

  private String readSerialNumber() throws PKCS11Exception, Failure {
    String number = token.slot().getTokenSN();
    if (!token.info().serialNumber().equals(number)) {
      throw new Failure("not the serial number of the token info");
    }
    return number;
  }

  /** A search that fails has its row; what it has found until then serves as well. */
  private void sample(List<NativePKCS11Object> samples) {
    List<Integer> known = samples.stream().map(NativePKCS11Object::objectID).toList();
    Map<Integer, NativePKCS11Object> byClass = new LinkedHashMap<>();
    int[] count = {0};
    try {
      connection.search(
          new PKCS11Template(),
          object -> {
            count[0]++;
            table.checkHandle("object", object.objectID());
            Integer objectClass = known.contains(object.objectID()) ? null : readClass(object);
            if (objectClass != null) {
              byClass.putIfAbsent(objectClass, object);
            }
            return true;
          });
      table.note(Operation.SEARCH, CheckTable.Result.WORKS, count[0] + " objects");
    } catch (Failure e) {
      table.note(Operation.SEARCH, CheckTable.Result.REFUSED, e.reason());
    }
    samples.addAll(byClass.values());
  }

  /** An object that cannot be read has its row, and ends no search. */
  private Integer readClass(NativePKCS11Object object) {
    return table.attempt(
        "read number",
        () -> new Attributes(object).read(CKA_CLASS, object::getIntAttributeValue));
  }

  /** Objects without the attribute say nothing about the operation. */
  private void read(String operation, List<NativePKCS11Object> samples, int type, Reader reader) {
    boolean found = false;
    for (NativePKCS11Object object : samples) {
      Object value = table.attempt(
          operation, () -> new Attributes(object).read(type, t -> reader.read(object, t)));
      found |= value != null;
    }
    if (!found) {
      table.note(operation, CheckTable.Result.NOTHING, "no object has such a value");
    }
  }
}
