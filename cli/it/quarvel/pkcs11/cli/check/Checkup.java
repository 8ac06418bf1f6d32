// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.check.CheckTable.Result;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.*;
import java.text.ParseException;
import java.util.*;
import java.util.stream.IntStream;

/** The operations of a check-up that leave the token as it is. */
public final class Checkup {
  /** One of the typed getters of an object. */
  private interface Reader {
    Object read(NativePKCS11Object object, int type) throws PKCS11Exception, ParseException;
  }

  private final Connection connection;
  private final CheckTable table;
  private final TokenInSlot token;
  private final Map<Integer, PKCS11MechanismInfo> mechanisms = new LinkedHashMap<>();

  public Checkup(Connection connection, CheckTable table, TokenInSlot token) {
    this.connection = connection;
    this.table = table;
    this.token = token;
  }

  /** Returns the mechanisms that the token lists and describes. */
  public Map<Integer, PKCS11MechanismInfo> mechanisms() {
    return mechanisms;
  }

  public void describe() throws Failure {
    NativePKCS11Slot slot = token.slot();
    table.works(Step.SLOT_INFO, slot::getInfo);
    table.works(Step.SERIAL_NUMBER, () -> {
      if (!token.info().serialNumber().equals(slot.getTokenSN())) {
        throw new Failure("not the serial number of the token info");
      }
    });
    List<Integer> listed = new ArrayList<>();
    table.works(Step.MECHANISMS, () -> IntStream.of(slot.getMechanismList())
        .filter(connection::canName).forEach(listed::add));
    table.each(Step.MECHANISM_INFO, listed, mechanism -> {
      mechanisms.put(mechanism, slot.getMechanismInfo(mechanism));
      return Result.WORKS;
    });
  }

  public void describeSession() throws Failure {
    table.works(Step.SESSION_INFO, connection.session()::getInfo);
  }

  /** Reads an attribute of each Java type from a sample of the objects and from the given ones. */
  public void read(List<NativePKCS11Object> more) throws Failure {
    List<NativePKCS11Object> samples = new ArrayList<>(more);
    table.attempt(Step.SEARCH, () -> sample(samples));
    table.each(Step.OBJECT_SIZE, samples, object -> {
      object.size();
      return Result.WORKS;
    });
    read(Step.READ_NUMBER, samples, CKA_CLASS, NativePKCS11Object::getIntAttributeValue);
    read(Step.READ_TRUTH_VALUE, samples, CKA_TOKEN, NativePKCS11Object::getBoolAttributeValue);
    read(Step.READ_TEXT, samples, CKA_LABEL, NativePKCS11Object::getStringAttributeValue);
    read(Step.READ_BYTES, samples, CKA_ID, NativePKCS11Object::getByteArrayAttributeValue);
    read(Step.READ_BIG_NUMBER, samples, CKA_MODULUS, NativePKCS11Object::getBigInteger);
    read(Step.READ_DATE, samples, CKA_END_DATE, NativePKCS11Object::getDate);
    read(Step.READ_ANY_TYPE, samples, CKA_CLASS, NativePKCS11Object::getAttributeValue);
  }

  public void close() throws Failure {
    if (!connection.isLoggedIn()) {
      table.skip(Result.NOT_ASKED, "no login", Step.LOGOUT);
    }
    connection.closeSession();
    table.works(Step.CLOSE_ALL_SESSIONS, token.slot()::closeAllSessions);
  }

  /**
   * Adds one object of each class and key type to the samples, also those that a search finds
   * before it fails. Objects whose class cannot be read count as one class: the row that reads the
   * class shows why.
   */
  private Result sample(List<NativePKCS11Object> samples) throws Failure {
    Map<String, NativePKCS11Object> byKind = new LinkedHashMap<>();
    int[] count = {0};
    try {
      connection.search(new PKCS11Template(), object -> {
        count[0]++;
        if (!samples.contains(object)) {
          Attributes attributes = new Attributes(object);
          byKind.putIfAbsent(
              attributes.number(CKA_CLASS) + " " + attributes.number(CKA_KEY_TYPE), object);
        }
        return true;
      });
      table.tell(count[0] + " objects");
      return Result.WORKS;
    } finally {
      samples.addAll(byKind.values());
    }
  }

  /** Reads an attribute. Objects without the attribute say nothing about the operation. */
  private void read(Step step, List<NativePKCS11Object> samples, int type, Reader reader)
      throws Failure {
    table.each(step, samples, object -> {
      try {
        reader.read(object, type);
        return Result.WORKS;
      } catch (PKCS11Exception e) {
        Attributes attributes = new Attributes(object);
        if (attributes.isWithoutLength(e)) {
          throw new Failure("the module gives a value the length -1, and no return value for it");
        }
        if (attributes.isAbsent(e) || e.errorCode() == CKR_ATTRIBUTE_SENSITIVE) {
          return Result.NOTHING_TO_TRY;
        }
        throw e;
      }
    });
  }
}
