// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.internal.Printable;
import java.io.*;
import picocli.CommandLine.*;

/** The base of all commands: three options, and the streams for data and messages. */
public class Program {
  public static final String NAME = "quarvel-pkcs11";

  private static final String MODULE_VARIABLE = "QUARVEL_PKCS11_MODULE";
  private static final String TRACE_VARIABLE = "PKCS11_ZOV_DEBUG";

  @Option(names = "--module", paramLabel = "FILE", scope = ScopeType.INHERIT,
      description = "The PKCS#11 module; else the one that " + MODULE_VARIABLE + " names.")
  private String module;

  @Option(names = "--direct", scope = ScopeType.INHERIT,
      description = "Use the module without the adapter that makes other ways of modules fit.")
  private boolean direct;

  @Option(names = "--verbose", scope = ScopeType.INHERIT,
      description = "Show where in the program a failure comes from.")
  private boolean verbose;

  private final Stdout out;
  private final PrintStream err;

  protected Program(OutputStream out, PrintStream err) {
    this.out = new Stdout(out);
    this.err = err;
  }

  /** Returns the path of the module, from the command line or the environment. */
  public String module() throws Failure {
    String path = module != null ? module : System.getenv(MODULE_VARIABLE);
    if (path == null || path.isEmpty()) {
      throw Failure.usage("no PKCS#11 module: name its file by --module or " + MODULE_VARIABLE);
    }
    if (Text.isGarbled(path)) {
      throw Failure.usage("the path of the PKCS#11 module" + Text.GARBLED);
    }
    return path;
  }

  /** Tells the user, before a module is opened, that the trace takes standard output. */
  public void tellOfTrace() {
    if (System.getenv(TRACE_VARIABLE) != null) {
      message(TRACE_VARIABLE + " is set: standard output goes to /var/tmp/vorlenk0.log");
    }
  }

  public boolean direct() {
    return direct;
  }

  public Stdout out() {
    return out;
  }

  /** Tells the user something, in one line where it fits. */
  public void message(String text) {
    err.println(Text.wrap(NAME + ": ", Printable.of(text.replaceAll("\\R", "; ")),
        Terminal.columns(Terminal.ERR)));
  }

  /**
   * Tells the user what is wrong, and returns the exit status. It writes no more than that, and not
   * to standard output, which may be a file that somebody reads later.
   */
  public int report(Exception failure) {
    if (failure instanceof Failure known && known.getMessage().isEmpty()) {
      return known.status();
    }
    message(failure instanceof Failure ? failure.getMessage()
        : "unexpected " + failure + "; --verbose shows where");
    if (verbose) {
      StringWriter trace = new StringWriter();
      failure.printStackTrace(new PrintWriter(trace));
      trace.toString().lines().map(line -> line.replace("\t", "  ")).map(Printable::of)
          .forEach(err::println);
    }
    return failure instanceof Failure known ? known.status() : Failure.FAILED;
  }
}
