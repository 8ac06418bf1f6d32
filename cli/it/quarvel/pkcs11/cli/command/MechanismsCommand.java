package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.PKCS11Constants;
import it.quarvel.pkcs11.PKCS11MechanismInfo;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Output;
import it.quarvel.pkcs11.cli.option.Names;
import it.quarvel.pkcs11.cli.option.TokenOptions;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;

/** Lists the mechanisms of a token. */
@Command(
    name = "mechanisms",
    description = {
      "List the mechanisms of a token, their key sizes and uses.",
      "Those of a vendor are shown by number and cannot be used."
    })
public final class MechanismsCommand extends ModuleCommand {
  @Mixin private TokenOptions token;
  @Mixin private Output output;

  @Override
  void run(Connection connection) throws Failure {
    NativePKCS11Slot slot = token.choose(connection).slot();
    List<Map<String, Object>> rows = new ArrayList<>();
    for (int mechanism : connection.call("mechanisms", slot::getMechanismList)) {
      rows.add(describe(connection, slot, mechanism));
    }
    output.table(program().out(), rows);
  }

  private static Map<String, Object> describe(
      Connection connection, NativePKCS11Slot slot, int mechanism) throws Failure {
    Map<String, Object> row = new LinkedHashMap<>();
    row.put("mechanism", PKCS11Constants.mechanismName(mechanism));
    // The number of a vendor's mechanism reaches the module changed.
    PKCS11MechanismInfo info = mechanism < 0 ? null
        : connection.call("mechanism info", () -> slot.getMechanismInfo(mechanism));
    row.put("minKeySize", info == null ? null : info.minKeySize());
    row.put("maxKeySize", info == null ? null : info.maxKeySize());
    row.put("uses", info == null ? List.of() : Names.flags(info, Names.MECHANISM_FLAGS));
    return row;
  }
}
