// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import java.util.concurrent.Callable;
import picocli.CommandLine.ParentCommand;

/** A command that works on an initialised module, which is finalised however the command ends. */
public abstract class ModuleCommand implements Callable<Integer> {
  @ParentCommand private Program program;

  /** Does the work of the command. */
  abstract void run(Connection connection) throws Failure;

  @Override
  public Integer call() throws Failure {
    try (Connection connection = open(new Steps())) {
      run(connection);
    }
    return 0;
  }

  final Connection open(Steps steps) throws Failure {
    program.tellOfTrace();
    return Connection.open(program.module(), program.direct(), steps);
  }

  final Program program() {
    return program;
  }
}
