package it.quarvel.pkcs11.cli;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** Which of the standard streams is a terminal; Java itself tells only of all of them. */
final class Terminal {
  static final int IN = 0;
  static final int OUT = 1;
  static final int ERR = 2;

  private Terminal() {}

  static boolean is(int descriptor) {
    try {
      String target = Files.readSymbolicLink(Path.of("/proc/self/fd/" + descriptor)).toString();
      return target.matches("/dev/(pts/|tty|console).*");
    } catch (IOException e) {
      return false;
    }
  }
}
