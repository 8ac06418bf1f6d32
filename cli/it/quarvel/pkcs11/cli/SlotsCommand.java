package it.quarvel.pkcs11.cli;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Info;
import it.quarvel.pkcs11.PKCS11SlotInfo;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Set;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;

/** Lists the slots and their tokens. */
@Command(name = "slots", description = "List the slots and their tokens.")
final class SlotsCommand extends ModuleCommand {
  @Mixin private Output output;

  @Override
  void run(Connection connection) throws Failure {
    Steps steps = connection.steps();
    for (NativePKCS11Slot slot : steps.call("slots", () -> connection.module().slots(false))) {
      PKCS11SlotInfo info = steps.call("slot info", slot::getInfo);
      Map<String, Object> values = describe(slot, info);
      if (info.hasFlag(CKF_TOKEN_PRESENT)) {
        addToken(values, steps, slot);
      }
      String title = "Slot " + Token.number(slot) + ": " + info.slotDescription().strip();
      output.item(main().out(), title, values, Set.of("slot", "description"));
    }
    output.end(main().out());
  }

  private static Map<String, Object> describe(NativePKCS11Slot slot, PKCS11SlotInfo info) {
    Map<String, Object> values = new LinkedHashMap<>();
    values.put("slot", Token.number(slot));
    values.put("description", info.slotDescription().strip());
    values.put("manufacturer", info.manufacturerID().strip());
    values.put("hardwareVersion", PKCS11Info.versionText(info.hardwareVersion()));
    values.put("firmwareVersion", PKCS11Info.versionText(info.firmwareVersion()));
    values.put("flags", Names.flags(info, Names.SLOT_FLAGS));
    return values;
  }

  /** A token that cannot be read is one of the things to show, not the end of the list. */
  private static void addToken(Map<String, Object> values, Steps steps, NativePKCS11Slot slot) {
    try {
      add(values, steps.call("token info", slot::getTokenInfo));
    } catch (Failure e) {
      values.put("tokenError", e.reason());
    }
  }

  private static void add(Map<String, Object> values, PKCS11TokenInfo token) {
    values.put("tokenLabel", token.trimmedLabel());
    values.put("tokenManufacturer", token.manufacturerID().strip());
    values.put("tokenModel", token.model().strip());
    values.put("serialNumber", token.serialNumber().strip());
    values.put("tokenHardwareVersion", PKCS11Info.versionText(token.hardwareVersion()));
    values.put("tokenFirmwareVersion", PKCS11Info.versionText(token.firmwareVersion()));
    values.put("minPinLength", token.minPinLen());
    values.put("maxPinLength", token.maxPinLen());
    values.put("freePublicMemory", known(token.freePublicMemory()));
    values.put("freePrivateMemory", known(token.freePrivateMemory()));
    values.put("tokenFlags", Names.flags(token, Names.TOKEN_FLAGS));
  }

  private static Integer known(int size) {
    return size == CK_UNAVAILABLE_INFORMATION ? null : size;
  }
}
