package it.quarvel.pkcs11.cli.token;

import it.quarvel.pkcs11.cli.console.Failure;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;

/** Tells what is wrong with the file of a module; "Internal error" is all that a load says. */
final class ModuleFile {
  private static final byte[] ELF = {0x7F, 'E', 'L', 'F'};

  /** Where an ELF file tells its class and its machine. */
  private static final int CLASS = 4;
  private static final int MACHINE = 18;

  private ModuleFile() {}

  /** Refuses what cannot be loaded. A name without a folder is for the dynamic linker to look up. */
  static void check(String path) throws Failure {
    if (path.contains("/")) {
      try {
        byte[] file = Files.readAllBytes(Path.of(path));
        byte[] own = Files.readAllBytes(Path.of("/proc/self/exe"));
        if (!Arrays.equals(file, 0, Math.min(file.length, ELF.length), ELF, 0, ELF.length)
            || file.length < MACHINE + 2) {
          throw new Failure(path + " is no library");
        }
        if (file[CLASS] != own[CLASS] || file[MACHINE] != own[MACHINE]
            || file[MACHINE + 1] != own[MACHINE + 1]) {
          throw new Failure(path + " is a library for another architecture");
        }
      } catch (IOException e) {
        throw Failure.file("the module " + path + " cannot be read", e);
      }
    }
  }

  /** Tells why a load may have failed. */
  static String reason(String path) {
    try {
      boolean module = new String(Files.readAllBytes(Path.of(path)), StandardCharsets.ISO_8859_1)
          .contains("C_GetFunctionList");
      return path + (module ? " cannot be loaded; \"ldd\" shows the libraries that it misses"
          : " is a library, but no PKCS#11 module");
    } catch (IOException e) {
      return path + " cannot be loaded; --module has to name the file of a PKCS#11 module";
    }
  }
}
