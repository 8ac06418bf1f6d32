// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.internal.PrivateFolder;
import it.quarvel.pkcs11.nat.NativePKCS11;
import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Arrays;

/** Loads the file of a module, behind the adapter or as it is, and tells why it cannot be loaded. */
final class ModuleFile {
  private static final String ADAPTER = "libquarvelpkcs11adapter.so";
  private static final String ADAPTER_PROPERTY = "it.quarvel.pkcs11.adapter";

  /** The adapter finds the path of the module in a file of its own name and this ending. */
  private static final String MODULE_SUFFIX = ".module";

  /** With its end, as the dynamic linker takes it. */
  private static final int LONGEST_PATH = 4096;

  /** How an ELF file begins, where it tells class and byte order, and its machine. */
  private static final int MAGIC = 0x464c457f;
  private static final int CLASS = 4;
  private static final int MACHINE = 18;
  private static final int HEADER = 20;

  /** Class and byte order of one of 64 bits, least significant first. */
  private static final int LITTLE_64 = 0x0102;

  /** Where that tells where its segments are described, in how many bytes each, and how many. */
  private static final int SEGMENTS = 32;
  private static final int SEGMENT_SIZE = 54;
  private static final int SEGMENT_COUNT = 56;

  /** A segment that is loaded, and where it tells its place and its length in the file. */
  private static final int LOADED = 1;
  private static final int OFFSET = 8;
  private static final int LENGTH = 32;

  /**
   * Where the adapter lies while it is loaded. An adapter of a load that failed stays in memory
   * under its name, and to the dynamic linker another name of the same file is still the first.
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
    load(path, ModuleFile::loadAdapter);
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
    load(path, NativePKCS11::loadPKCS11Library);
  }

  private interface Loader {
    void load(String path) throws PKCS11Exception;
  }

  private static void load(String path, Loader loader) throws PKCS11Exception {
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
      loader.load(isFile ? file.getPath() : path);
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
      Files.write(open.file(ADAPTER + MODULE_SUFFIX), bytes(module + "\n"));
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
      return link(folder, Arrays.stream(folders.split(File.pathSeparator))
          .map(place -> new File(place, ADAPTER)).filter(File::exists).findFirst()
          .orElseThrow(() -> new IOException("resource %s: %s\njava.library.path: not in %s%s"
              .formatted(PrivateFolder.resource(ADAPTER), e.getMessage(), folders, advice()), e)));
    }
  }

  /** What would help and has not been done. */
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
    map(file); // says why it cannot be read
    return Files.createSymbolicLink(folder.file(ADAPTER), Path.of(file.getAbsolutePath()));
  }

  /** What a load that failed does not say. Without a folder the file is the linker's to find. */
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
      ByteBuffer elf = map(file);
      if (elf.capacity() < HEADER || elf.getInt(0) != MAGIC) {
        return file + " is no library";
      }
      ByteBuffer own = program(elf);
      if (elf.getShort(CLASS) != own.getShort(CLASS)
          || elf.getShort(MACHINE) != own.getShort(MACHINE)) {
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

  /** Tells whether an ELF file of 64 bits lacks bytes that the dynamic linker takes for granted. */
  private static boolean isCutShort(File file) {
    try {
      ByteBuffer elf = map(file);
      boolean known = elf.getInt(0) == MAGIC && elf.getShort(CLASS) == LITTLE_64;
      int segments = known ? elf.getShort(SEGMENT_COUNT) : 0;
      for (int i = 0; i < segments; i++) {
        int at = (int) elf.getLong(SEGMENTS) + i * elf.getShort(SEGMENT_SIZE);
        if (elf.getInt(at) == LOADED
            && elf.getLong(at + OFFSET) + elf.getLong(at + LENGTH) > elf.capacity()) {
          return true;
        }
      }
    } catch (IOException | IndexOutOfBoundsException e) {
      // The load, or what is said after it, tells more.
    }
    return false;
  }

  /** The program that runs; where it cannot be read, what tells no difference. */
  private static ByteBuffer program(ByteBuffer unknown) {
    try {
      return map(new File("/proc/self/exe"));
    } catch (IOException e) {
      return unknown;
    }
  }

  /** Maps a file, a stream's so that names are found which the locale does not have. */
  private static ByteBuffer map(File file) throws IOException {
    try (FileInputStream in = new FileInputStream(file)) {
      FileChannel channel = in.getChannel();
      return channel.map(
          FileChannel.MapMode.READ_ONLY, 0, Math.min(channel.size(), Integer.MAX_VALUE))
          .order(ByteOrder.LITTLE_ENDIAN);
    }
  }

  private static byte[] bytes(String path) {
    return path.getBytes(StandardCharsets.UTF_8);
  }
}
