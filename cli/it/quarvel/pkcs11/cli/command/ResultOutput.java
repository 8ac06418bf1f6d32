// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.cli.console.*;
import java.io.IOException;
import java.nio.file.*;
import picocli.CommandLine.Option;

/** The option that names the file for the result of a command. */
public final class ResultOutput {
  @Option(names = {"-o", "--output"}, paramLabel = "FILE",
      description = "Where the result goes; without it, or with \"-\", standard output.")
  private Path file = KeyCommand.STANDARD;

  /** Refuses to show a result that is no text, before any work is done for it. */
  public void refuseTerminal() throws Failure {
    if (file.equals(KeyCommand.STANDARD) && Terminal.is(Terminal.OUT)) {
      throw Failure.usage("the result is no text for a terminal: name a file by -o");
    }
  }

  public void write(Stdout out, byte[] result) throws Failure {
    if (file.equals(KeyCommand.STANDARD)) {
      if (!Text.isText(result)) {
        refuseTerminal();
      }
      out.write(result);
      return;
    }
    try {
      Files.write(file, result);
    } catch (IOException e) {
      throw Failure.file(file + " cannot be written", e);
    }
  }
}
