// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.PKCS11Info;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.option.Output;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.util.LinkedHashMap;
import java.util.Map;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;

/** Shows what the module says of itself. */
@Command(name = "info", description = "Show what the module says of itself.")
public final class InfoCommand extends ModuleCommand {
  @Mixin private Output output;

  @Override
  void run(Connection connection) throws Failure {
    NativePKCS11 module = connection.module();
    PKCS11Info info = connection.call(Step.INFO, module::getInfo);
    Map<String, Object> values = new LinkedHashMap<>();
    values.put("cryptokiVersion", PKCS11Info.versionText(info.cryptokiVersion()));
    values.put("manufacturer", info.manufacturerID().strip());
    values.put("library", info.libraryDescription().strip());
    values.put("libraryVersion", PKCS11Info.versionText(info.libraryVersion()));
    values.put("bridgeVersion", module.getBridgeVersion());
    output.object(program().out(), program().module(), values);
  }
}
