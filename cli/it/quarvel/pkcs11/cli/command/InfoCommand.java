// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.PKCS11Info;
import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.util.*;
import picocli.CommandLine.*;

/** Shows the module's description. */
@Command(name = "info", description = "Show what the module says of itself.")
public final class InfoCommand extends ModuleCommand {
  @Mixin private Output output;

  @Override
  void run(Connection connection) throws Failure {
    PKCS11Info info = connection.call(Step.INFO, connection.opened()::info);
    Map<String, Object> values = new LinkedHashMap<>();
    values.put("cryptokiVersion", PKCS11Info.versionText(info.cryptokiVersion()));
    values.put("manufacturer", info.manufacturerID().strip());
    values.put("library", info.libraryDescription().strip());
    values.put("libraryVersion", PKCS11Info.versionText(info.libraryVersion()));
    values.put("bridgeVersion", new NativePKCS11().getBridgeVersion());
    output.object(program().out(), program().module(), values);
  }
}
