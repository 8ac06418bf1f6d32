package it.quarvel.pkcs11.cli;

import it.quarvel.pkcs11.nat.NativePKCS11;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.OutputStream;
import java.io.PrintStream;
import java.io.PrintWriter;
import java.io.StringWriter;
import java.util.Arrays;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.ScopeType;
import picocli.CommandLine.UnmatchedArgumentException;

/** The command line: data goes to standard output, messages to standard error. */
@Command(
    name = "quarvel-pkcs11",
    description = "Inspects PKCS#11 tokens and uses their keys.",
    subcommands = {
      InfoCommand.class, SlotsCommand.class, MechanismsCommand.class, ObjectsCommand.class,
      SignCommand.class, DecryptCommand.class, CheckCommand.class
    },
    mixinStandardHelpOptions = true,
    scope = ScopeType.INHERIT,
    version = NativePKCS11.BRIDGE_VERSION,
    exitCodeListHeading = "Exit status:%n",
    exitCodeList = {
      "0:It worked.", "1:It did not.", "2:The command line is wrong.",
      "141:The reader of standard output has gone."
    })
public final class Main {
  private static final String NAME = "quarvel-pkcs11";
  private static final String MODULE_VARIABLE = "QUARVEL_PKCS11_MODULE";
  /** What is wrong with a text that {@link #isGarbled}. */
  static final String GARBLED =
      " has characters that this locale does not have: start with LC_ALL=C.UTF-8";

  private static final String TRACE_VARIABLE = "PKCS11_ZOV_DEBUG";

  @Option(names = "--module", paramLabel = "FILE", scope = ScopeType.INHERIT,
      description = "The PKCS#11 module; else the one that " + MODULE_VARIABLE + " names.")
  private String module;

  @Option(names = "--verbose", scope = ScopeType.INHERIT,
      description = "Show where in the program a failure comes from.")
  private boolean verbose;

  private final Stdout out;
  private final PrintStream err;

  private Main(OutputStream out, PrintStream err) {
    this.out = new Stdout(out);
    this.err = err;
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
   * @param out where its data goes
   * @param err where its messages go
   * @param args the command line
   * @return the exit status
   */
  public static int run(OutputStream out, PrintStream err, String... args) {
    Main main = new Main(out, err);
    if (Arrays.stream(args).anyMatch(Main::isGarbled)) {
      main.message("the command line" + GARBLED);
      return Failure.USAGE;
    }
    CommandLine commandLine = new CommandLine(main);
    StringWriter help = new StringWriter();
    commandLine.setOut(new PrintWriter(help));
    commandLine.setExpandAtFiles(false);
    commandLine.setParameterExceptionHandler((failure, all) -> main.refuse(failure));
    commandLine.setExecutionExceptionHandler((failure, c, parsed) -> main.report(failure));
    try {
      int status = commandLine.execute(args);
      main.out.write(help.toString());
      return status;
    } catch (Failure e) {
      return main.report(e);
    } catch (OutOfMemoryError e) {
      main.message("not enough memory: the data is worked on in one piece");
      return Failure.FAILED;
    }
  }

  /** Returns the path of the module, from the command line or the environment. */
  String module() throws Failure {
    String path = module != null ? module : System.getenv(MODULE_VARIABLE);
    if (path == null || path.isEmpty()) {
      throw Failure.usage("no PKCS#11 module: name its file by --module or " + MODULE_VARIABLE);
    }
    if (isGarbled(path)) {
      throw Failure.usage("the path of the PKCS#11 module" + GARBLED);
    }
    if (System.getenv(TRACE_VARIABLE) != null) {
      message(TRACE_VARIABLE + " is set: standard output goes to /var/tmp/vorlenk0.log");
    }
    return path;
  }

  /** Java puts a replacement character for each byte that the locale does not know. */
  static boolean isGarbled(String text) {
    return text.indexOf('\uFFFD') >= 0;
  }

  Stdout out() {
    return out;
  }

  PrintStream err() {
    return err;
  }

  /** Tells the user something, in one line. */
  void message(String text) {
    err.println(NAME + ": " + Text.printable(text.replaceAll("\\R", "; ")));
  }

  /** Says what is wrong and no more: standard output may be a file that somebody reads later. */
  int report(Exception failure) {
    if (failure instanceof Failure known && known.getMessage().isEmpty()) {
      return known.status();
    }
    message(failure instanceof Failure ? failure.getMessage()
        : "unexpected " + failure + "; --verbose shows where");
    if (verbose) {
      failure.printStackTrace(err);
    }
    return failure instanceof Failure known ? known.status() : Failure.FAILED;
  }

  private int refuse(ParameterException failure) {
    String text = failure instanceof UnmatchedArgumentException unmatched
        ? unmatched(unmatched.getUnmatched()) : failure.getMessage().replaceFirst("^Error: ", "");
    String command = failure.getCommandLine().getCommandSpec().qualifiedName();
    message(text + "; see \"" + command + " --help\"");
    return Failure.USAGE;
  }

  /** Names options only: anything else may be a PIN that is not at its place. */
  private static String unmatched(List<String> arguments) {
    String first = arguments.get(0);
    return first.startsWith("-") ? "unknown option " + first.replaceFirst("=.*", "")
        : "there is an argument that belongs to no option";
  }
}
