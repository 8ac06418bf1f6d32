package it.quarvel.pkcs11.cli;

import java.util.concurrent.Callable;
import picocli.CommandLine.ParentCommand;

/** A command that works on an initialised module, which is finalised however the command ends. */
abstract class ModuleCommand implements Callable<Integer> {
  @ParentCommand private Main main;

  /** Does what the command is for. */
  abstract void run(Connection connection) throws Failure;

  @Override
  public Integer call() throws Failure {
    try (Connection connection = Connection.open(main.module(), new Steps())) {
      run(connection);
    }
    return 0;
  }

  final Main main() {
    return main;
  }
}
