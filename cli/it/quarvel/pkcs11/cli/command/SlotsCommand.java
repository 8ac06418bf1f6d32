// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.*;
import picocli.CommandLine.*;

/** Lists the slots and their tokens. */
@Command(name = "slots", description = "List the slots and their tokens, or those asked for.")
public final class SlotsCommand extends ModuleCommand {
  @Mixin private TokenOptions wanted;
  @Mixin private UriOutput output;

  @Override
  void run(Connection connection) throws Failure {
    boolean found = false;
    for (NativePKCS11Slot slot : connection.call(Step.SLOTS, connection.opened()::slots)) {
      Map<String, Object> values = new LinkedHashMap<>();
      values.put("slot", TokenInSlot.number(slot));
      TokenInSlot token = describe(values, connection, slot);
      if (!wanted.matches(slot, token) || output.isUriOnly() && token == null) {
        continue;
      }
      found = true;
      Object description = values.getOrDefault("description", "not readable");
      output.item(program().out(), "Slot " + TokenInSlot.number(slot) + ": " + description,
          token == null ? "" : token.uri().toString(), values, Set.of("slot", "description"));
    }
    if (!found && wanted.uri() != PKCS11Uri.ANY) {
      wanted.choose(connection); // fails, and says why there is none
    }
    output.end(program().out());
  }

  /**
   * Adds the values of a slot and of its token, and returns the token, null if there is none. A
   * slot or a token that cannot be read does not end the list: the failure is one of the values.
   */
  private static TokenInSlot describe(
      Map<String, Object> values, Connection connection, NativePKCS11Slot slot) {
    String failed = "slotError";
    try {
      PKCS11SlotInfo info = connection.call(Step.SLOT_INFO, slot::getInfo);
      add(values, info);
      failed = "tokenError";
      if (!info.hasFlag(CKF_TOKEN_PRESENT)) {
        return null;
      }
      TokenInSlot token = connection.call(Step.TOKEN_INFO, () -> TokenInSlot.of(slot));
      add(values, token.info());
      return token;
    } catch (Failure e) {
      values.put(failed, e.reason());
      return null;
    }
  }

  private static void add(Map<String, Object> values, PKCS11SlotInfo info) {
    values.put("description", info.slotDescription().strip());
    values.put("manufacturer", info.manufacturerID().strip());
    values.put("hardwareVersion", PKCS11Info.versionText(info.hardwareVersion()));
    values.put("firmwareVersion", PKCS11Info.versionText(info.firmwareVersion()));
    values.put("flags", slotFlagNames(info.flags()));
  }

  private static void add(Map<String, Object> values, PKCS11TokenInfo token) {
    values.put("tokenLabel", token.trimmedLabel());
    values.put("tokenManufacturer", token.manufacturerID().strip());
    values.put("tokenModel", token.model().strip());
    values.put("serialNumber", token.serialNumber().strip());
    values.put("tokenHardwareVersion", PKCS11Info.versionText(token.hardwareVersion()));
    values.put("tokenFirmwareVersion", PKCS11Info.versionText(token.firmwareVersion()));
    values.put("minPinLength", known(token.minPinLen()));
    values.put("maxPinLength", known(token.maxPinLen()));
    values.put("maxSessions", limit(token.maxSessionCount()));
    values.put("maxWritingSessions", limit(token.maxRwSessionCount()));
    values.put("freePublicMemory", known(token.freePublicMemory()));
    values.put("freePrivateMemory", known(token.freePrivateMemory()));
    values.put("tokenFlags", tokenFlagNames(token.flags()));
  }

  private static Object limit(int count) {
    return count == CK_EFFECTIVELY_INFINITE ? "unlimited" : known(count);
  }

  private static Object known(int size) {
    return size == CK_UNAVAILABLE_INFORMATION ? "unavailable" : Integer.toUnsignedLong(size);
  }
}
