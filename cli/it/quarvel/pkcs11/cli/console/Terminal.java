package it.quarvel.pkcs11.cli.console;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** Which of the standard streams is a terminal; Java itself tells only of all of them. */
public final class Terminal {
  public static final int IN = 0;
  public static final int OUT = 1;
  public static final int ERR = 2;

  private Terminal() {}

  public static boolean is(int descriptor) {
    try {
      String target = Files.readSymbolicLink(Path.of("/proc/self/fd/" + descriptor)).toString();
      return target.matches("/dev/(pts/|tty|console).*");
    } catch (IOException e) {
      return false;
    }
  }
}
