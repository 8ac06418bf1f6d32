// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.*;
import picocli.CommandLine.*;

/** Lists the mechanisms of a token. */
@Command(name = "mechanisms",
    description = {
      "List the mechanisms of a token, their key sizes and uses.",
      "Sizes are in bits or bytes, as each mechanism counts. Those of a vendor go by number."
    })
public final class MechanismsCommand extends ModuleCommand {
  @Mixin private TokenOptions token;
  @Mixin private Output output;

  @Override
  void run(Connection connection) throws Failure {
    NativePKCS11Slot slot = token.choose(connection).slot();
    List<Map<String, Object>> rows = new ArrayList<>();
    for (int mechanism : connection.call(Step.MECHANISMS, slot::getMechanismList)) {
      Map<String, Object> row = new LinkedHashMap<>();
      row.put("mechanism", PKCS11Constants.mechanismName(mechanism));
      describe(row, connection, slot, mechanism);
      rows.add(row);
    }
    output.table(program().out(), rows);
  }

  private static void describe(
      Map<String, Object> row, Connection connection, NativePKCS11Slot slot, int mechanism) {
    try {
      connection.requireName(mechanism);
      PKCS11MechanismInfo info =
          connection.call(Step.MECHANISM_INFO, () -> slot.getMechanismInfo(mechanism));
      row.put("minKeySize", size(info.minKeySize()));
      row.put("maxKeySize", size(info.maxKeySize()));
      row.put("uses", PKCS11Constants.mechanismFlagNames(info.flags()));
    } catch (Failure e) {
      row.put("minKeySize", null);
      row.put("maxKeySize", null);
      row.put("uses", List.of(new Unread(e.reason())));
    }
  }

  private static Object size(int size) {
    return size == PKCS11Constants.CK_UNAVAILABLE_INFORMATION ? "unlimited"
        : Integer.toUnsignedLong(size);
  }
}
