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

/** Loads the file of a module, behind the adapter or as it is, and tells why it cannot be loaded. */
final class ModuleFile {
  private static final String ADAPTER = "libquarvelpkcs11adapter.so";
  private static final String ADAPTER_PROPERTY = "it.quarvel.pkcs11.adapter";

  /** The adapter finds the path of the module in a file of its own name and this ending. */
  private static final String MODULE_SUFFIX = ".module";

  /** With its end, as the dynamic linker takes it. */
  private static final int LONGEST_PATH = 4096;

  /**
   * The folder in which the adapter lies while it is loaded. An adapter of a load that failed stays in
   * memory under its name, and to the dynamic linker another name of the same file is still the first.
   */
  private static PrivateFolder folder;

  private ModuleFile() {}

  /**
   * Loads a module behind the adapter.
   *
   * @throws PKCS11Exception that names the file and tells why it cannot be loaded
   * @throws UnsatisfiedLinkError that tells why the adapter cannot be loaded
   */
  static void loadAdapted(String path) throws PKCS11Exception {
    load(path, true);
  }

  /**
   * Loads a module as it is.
   *
   * @throws PKCS11Exception that names the file and tells why it cannot be loaded
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

  /** Puts into the folder: the file that a property names, the jar's own, or the system's. */
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

  /** Returns advice that the user has not followed yet, empty if there is none. */
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
    new FileInputStream(file).close(); // says why it cannot be read
    return Files.createSymbolicLink(folder.file(ADAPTER), Path.of(file.getAbsolutePath()));
  }

  /** Explains why a load failed. The dynamic linker looks for a file that is named without a folder. */
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
      return file + ": there is no such file";
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
    // System.load could tell more, but then native methods would be looked for in what it has loaded.
    return file + " cannot be loaded as a PKCS#11 module; \"ldd -r\" shows the libraries and functions"
        + " that it misses";
  }

  /** Tells what of a file would have its load wait, or end the process; empty where nothing. */
  private static String danger(File file) {
    return file.exists() && !file.isFile() ? " is no file"
        : isCutShort(file) ? " is cut short: it lacks the end of a library" : "";
  }

  private static boolean isCutShort(File file) {
    try {
      return new ElfFile(file).isCutShort();
    } catch (IOException e) {
      return false; // the load, or what is said after it, tells more
    }
  }

  private static byte[] bytes(String path) {
    return path.getBytes(StandardCharsets.UTF_8);
  }
}
