package it.quarvel.pkcs11.cli;

import java.io.PrintStream;

/** A count of objects for who waits at a terminal while the objects themselves go elsewhere. */
final class Progress {
  private static final int EVERY = 100;

  private final PrintStream err;
  private final boolean shown = Terminal.is(Terminal.ERR) && !Terminal.is(Terminal.OUT);
  private int count;

  Progress(PrintStream err) {
    this.err = err;
  }

  void step() {
    count++;
    if (shown && count % EVERY == 0) {
      err.print("\r" + count + " objects");
      err.flush();
    }
  }

  void end() {
    if (shown && count >= EVERY) {
      err.println("\r" + count + " objects");
    }
  }
}
