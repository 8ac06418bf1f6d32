// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.internal.PrivateFolder;
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;

/** Loads the file of a module, behind the adapter or directly, and tells why a load fails. */
final class ModuleFile {
  private static final String ADAPTER = "libquarvelpkcs11adapter.so";
  private static final String ADAPTER_PROPERTY = "it.quarvel.pkcs11.adapter";

  /** The adapter reads the path of the module from a file of its own name with this ending. */
  private static final String MODULE_SUFFIX = ".module";

  /** The longest path of the dynamic linker, in bytes with the zero at its end (PATH_MAX). */
  private static final int LONGEST_PATH = 4096;

  /**
   * The folder that holds the adapter during a load, null before the first one. Every load uses the
   * same path. An adapter stays in memory after a load that failed, and the dynamic linker knows
   * its file by the first path alone, beside which the adapter looks for the path of the module.
   */
  private static PrivateFolder folder;

  private ModuleFile() {}

  /**
   * Loads a module behind the adapter.
   *
   * @throws PKCS11Exception when the module cannot be loaded; the message names the file and the
   *     reason
   * @throws UnsatisfiedLinkError when the adapter cannot be loaded; the message says why
   */
  static void loadAdapted(String path) throws PKCS11Exception {
    load(path, true);
  }

  /**
   * Loads a module directly.
   *
   * @throws PKCS11Exception as {@link #loadAdapted}
   */
  static void load(String path) throws PKCS11Exception {
    if (path.codePoints().anyMatch(Character::isSupplementaryCodePoint)) {
      throw new PKCS11Exception(
          path + " has a character above U+FFFF, with which only the adapter finds it");
    }
    load(path, false);
  }

  private static void load(String path, boolean adapted) throws PKCS11Exception {
    if (path.isEmpty() || path.indexOf('\0') >= 0 || bytes(path).length >= LONGEST_PATH) {
      throw new PKCS11Exception("the path of the module is empty or too long, or has a zero byte");
    }
    File file = new File(path).getAbsoluteFile();
    boolean isFile = path.contains("/");
    String danger = isFile ? danger(file) : "";
    if (!danger.isEmpty()) {
      throw new PKCS11Exception(path + danger);
    }
    try {
      String module = isFile ? file.getPath() : path;
      if (adapted) {
        loadAdapter(module);
      } else {
        NativePKCS11.loadPKCS11Library(module);
      }
    } catch (PKCS11Exception e) {
      PKCS11Exception told = new PKCS11Exception(reason(path, isFile ? file : null, e));
      told.initCause(e);
      throw told;
    }
  }

  private static void loadAdapter(String module) throws PKCS11Exception {
    try (PrivateFolder open = folder == null ? PrivateFolder.create() : folder.again()) {
      folder = open;
      String adapter = placeAdapter(open).toString();
      open.write(ADAPTER + MODULE_SUFFIX, bytes(module + "\n"));
      try {
        NativePKCS11.loadPKCS11Library(adapter);
      } catch (PKCS11Exception e) {
        if (e.errorCode() != CKR_OK) {
          throw e;
        }
        throw new IOException(whyNotLoaded(new File(adapter)) + advice());
      }
    } catch (IOException | InvalidPathException e) {
      folder = null;
      UnsatisfiedLinkError error = new UnsatisfiedLinkError(
          "The adapter cannot be loaded: " + e.getMessage());
      error.initCause(e);
      throw error;
    }
  }

  /**
   * Puts the adapter into the folder and returns its path there: a link to the file that the
   * property names, else a copy of the jar's, else a link to the first one in {@code
   * java.library.path}.
   */
  private static Path placeAdapter(PrivateFolder folder) throws IOException {
    String named = System.getProperty(ADAPTER_PROPERTY);
    if (named != null) {
      return link(folder, new File(named));
    }
    try {
      return folder.copy(ADAPTER);
    } catch (IOException e) {
      String folders = System.getProperty("java.library.path", "");
      for (String place : folders.split(File.pathSeparator)) {
        File file = new File(place, ADAPTER);
        if (file.exists()) {
          return link(folder, file);
        }
      }
      throw new IOException("resource " + PrivateFolder.resource(ADAPTER) + ": " + e.getMessage()
          + "\njava.library.path: not in " + folders + advice(), e);
    }
  }

  /** Returns the advice that the user has not followed yet, empty if there is none. */
  private static String advice() {
    return System.getProperty(ADAPTER_PROPERTY) != null ? ""
        : "\nName its file with -D" + ADAPTER_PROPERTY + "=FILE"
            + (System.getProperty(PrivateFolder.TMPDIR_PROPERTY) != null ? ""
                : ", or a folder for its copy with -D" + PrivateFolder.TMPDIR_PROPERTY + "=DIR");
  }

  private static Path link(PrivateFolder folder, File file) throws IOException {
    String danger = danger(file);
    if (!danger.isEmpty()) {
      throw new IOException(file + danger);
    }
    new FileInputStream(file).close(); // raises the reason why it cannot be read
    return Files.createSymbolicLink(folder.file(ADAPTER), Path.of(file.getAbsolutePath()));
  }

  /**
   * Explains why a load failed. The file is null for a path without a folder, which the dynamic
   * linker looks up.
   */
  private static String reason(String path, File file, PKCS11Exception failure) {
    return switch (failure.errorCode()) {
      case CKR_OK, CKR_LIBRARY_LOAD_FAILED -> file != null ? whyNotLoaded(file)
          : new File(path).isFile() ? path + " is no name that the dynamic linker finds: write ./"
              + path + " for the file in this folder"
          : path + " cannot be loaded, and has to name the file of a PKCS#11 module";
      case CKR_FUNCTION_NOT_SUPPORTED -> path + " is a library, but no PKCS#11 module";
      case CKR_FUNCTION_REJECTED, CKR_ARGUMENTS_BAD -> path + " is the adapter itself, or leads back to it";
      default -> path + " hands out no functions: " + failure.getMessage();
    };
  }

  private static String whyNotLoaded(File file) {
    if (!file.exists()) {
      return file + ": there is no such file that this user can reach";
    }
    if (!file.canRead()) {
      return file + " cannot be read: permission denied";
    }
    try {
      ElfFile elf = new ElfFile(file);
      if (!elf.isElf()) {
        return file + " is no library";
      }
      if (!elf.isForThisMachine()) {
        return file + " is a library for another architecture";
      }
    } catch (IOException e) {
      return file + " cannot be read: " + e.getMessage();
    }
    // System.load could tell more, but Java would then look for native methods in the module.
    return file + " cannot be loaded as a PKCS#11 module; \"ldd -r\" shows the libraries and functions"
        + " that it misses";
  }

  /**
   * Returns why the load of a file could wait for ever (as of a pipe) or end the process, empty if
   * it could not.
   */
  private static String danger(File file) {
    return file.exists() && !file.isFile() ? " is no file"
        : isCutShort(file) ? " is cut short: it lacks the end of a library" : "";
  }

  private static boolean isCutShort(File file) {
    try {
      return new ElfFile(file).isCutShort();
    } catch (IOException e) {
      return false; // the load, or the message about its failure, tells more
    }
  }

  private static byte[] bytes(String path) {
    return path.getBytes(StandardCharsets.UTF_8);
  }
}
