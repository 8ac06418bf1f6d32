package it.quarvel.pkcs11.cli.console;

import java.io.PrintStream;

/** A count of objects for who waits at a terminal while the objects themselves go elsewhere. */
public final class Progress {
  private static final int EVERY = 100;

  private final PrintStream err;
  private final boolean shown = Terminal.is(Terminal.ERR) && !Terminal.is(Terminal.OUT);
  private int count;

  public Progress(PrintStream err) {
    this.err = err;
  }

  public void step() {
    count++;
    if (shown && count % EVERY == 0) {
      err.print("\r" + count + " objects");
      err.flush();
    }
  }

  public void end() {
    if (shown && count >= EVERY) {
      err.println("\r" + count + " objects");
    }
  }
}
