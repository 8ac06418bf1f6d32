// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli;

import it.quarvel.pkcs11.PKCS11Module;
import it.quarvel.pkcs11.cli.command.*;
import it.quarvel.pkcs11.cli.console.*;
import java.io.*;
import java.util.*;
import java.util.stream.Collectors;
import picocli.AutoComplete.GenerateCompletion;
import picocli.CommandLine;
import picocli.CommandLine.*;

/** The command line: data goes to standard output, messages to standard error. */
@Command(
    name = Program.NAME,
    description = "Inspects PKCS#11 tokens and uses their keys.",
    subcommands = {
      InfoCommand.class, SlotsCommand.class, MechanismsCommand.class, ObjectsCommand.class,
      SignCommand.class, VerifyCommand.class, DecryptCommand.class, ExportCommand.class,
      PinCommand.class, CheckCommand.class, GenerateCompletion.class
    },
    mixinStandardHelpOptions = true,
    scope = ScopeType.INHERIT,
    versionProvider = Main.Version.class,
    exitCodeListHeading = "Exit status:%n",
    exitCodeList = {
      "0:It worked.", "1:It did not.", "2:The command line is wrong.",
      "130:It was interrupted.", "141:The reader of standard output has gone."
    })
public final class Main extends Program {
  /** The answer to {@code --version}. */
  static final class Version implements IVersionProvider {
    @Override
    public String[] getVersion() {
      return new String[] {PKCS11Module.version()};
    }
  }

  /** Serves programs that only read the names and descriptions of the commands. */
  private Main() {
    this(OutputStream.nullOutputStream(), System.err);
  }

  private Main(OutputStream out, PrintStream err) {
    super(out, err);
  }

  /**
   * Runs one command and ends the process with its status.
   *
   * @param args the command line
   */
  public static void main(String[] args) {
    System.exit(run(new FileOutputStream(FileDescriptor.out), System.err, args));
  }

  /**
   * Runs one command.
   *
   * @param out gets its data
   * @param err gets its messages
   * @param args the command line
   * @return the exit status
   */
  public static int run(OutputStream out, PrintStream err, String... args) {
    Main main = new Main(out, err);
    if (Arrays.stream(args).anyMatch(Text::isGarbled)) {
      main.message("the command line" + Text.GARBLED);
      return Failure.USAGE;
    }
    CommandLine commandLine = new CommandLine(main);
    StringWriter help = new StringWriter();
    commandLine.setOut(new PrintWriter(help));
    commandLine.setExpandAtFiles(false);
    commandLine.setUsageHelpAutoWidth(true);
    commandLine.setParameterExceptionHandler((failure, all) -> main.refuse(failure));
    commandLine.setExecutionExceptionHandler((failure, c, parsed) -> main.report(failure));
    try {
      int status = commandLine.execute(args);
      main.out().write(help.toString());
      return status;
    } catch (Failure e) {
      return main.report(e);
    } catch (OutOfMemoryError e) {
      main.message("not enough memory: the data is worked on in one piece");
      return Failure.FAILED;
    }
  }

  private int refuse(ParameterException failure) {
    CommandLine command = failure.getCommandLine();
    boolean top = !command.getSubcommands().isEmpty();
    String text = failure instanceof UnmatchedArgumentException unmatched
        ? unmatched(unmatched.getUnmatched(), top)
        : failure.getCause() instanceof IllegalArgumentException wrong ? wrong.getMessage()
        : failure.getMessage().replaceFirst("^Error: ", "")
            .replaceFirst("(?s)^expected only one match but got \\[(.*?)].*", "only one of $1, and once");
    String commands = top ? command.getSubcommands().entrySet().stream()
        .filter(entry -> !entry.getValue().getCommandSpec().usageMessage().hidden())
        .map(Map.Entry::getKey).collect(Collectors.joining(", ", "the commands are ", "; ")) : "";
    message("%s; %ssee \"%s --help\"".formatted(
        text, commands, command.getCommandSpec().qualifiedName()));
    return Failure.USAGE;
  }

  /** Names options only: anything else may be a PIN that is not at its place. */
  private static String unmatched(List<String> arguments, boolean top) {
    String first = arguments.get(0);
    return first.startsWith("-") ? "unknown option " + first.replaceFirst("=.*", "")
        : top ? "there is no such command" : "there is an argument that belongs to no option";
  }
}
