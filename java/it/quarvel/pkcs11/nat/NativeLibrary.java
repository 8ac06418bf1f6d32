// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.nat;

import it.quarvel.pkcs11.internal.PrivateFolder;
import java.io.File;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/** Finds and loads the native library. */
final class NativeLibrary {
  private static final String NAME = "quarvelpkcs11";
  private static final String FILE = "lib" + NAME + ".so";
  private static final String FILE_PROPERTY = "it.quarvel.pkcs11.library";

  private interface Loader {
    void load() throws IOException;
  }

  private NativeLibrary() {}

  /**
   * Loads the library: the file that the system property names; if it is not set, the jar's own
   * copy, which has the version of these classes, or else the file that {@code System.loadLibrary}
   * finds.
   *
   * @throws UnsatisfiedLinkError when no attempt works, with all attempts and why they failed; when
   *     the loaded file has another version, with its path
   */
  @SuppressWarnings("restricted")
  static void load() {
    List<String> tried = new ArrayList<>();
    String file = System.getProperty(FILE_PROPERTY);
    boolean loaded =
        file != null
            ? succeeds(
                "file " + file + " named by the system property " + FILE_PROPERTY,
                () -> System.load(new File(file).getAbsolutePath()),
                tried)
            : succeeds("resource " + PrivateFolder.resource(FILE), NativeLibrary::loadResource, tried)
                || succeeds(
                    "library " + NAME + " in java.library.path",
                    () -> System.loadLibrary(NAME),
                    tried);
    if (!loaded) {
      throw error(
          "The native library cannot be loaded on %s %s with the C library %s; the jar carries %s"
              .formatted(
                  System.getProperty("os.name"),
                  System.getProperty("os.arch"),
                  mappedFile("ld-musl-|libc[-.]"),
                  PrivateFolder.carried()),
          tried);
    }
    String version = version();
    if (!version.equals(NativePKCS11.BRIDGE_VERSION)) {
      tried.add("loaded: " + (file != null ? file : mappedFile("lib" + NAME)));
      throw error(
          "The native library has version %s, its Java classes need version %s"
              .formatted(version, NativePKCS11.BRIDGE_VERSION),
          tried);
    }
  }

  private static boolean succeeds(String attempt, Loader loader, List<String> tried) {
    try {
      loader.load();
      return true;
    } catch (IllegalCallerException e) {
      throw accessDenied(e);
    } catch (UnsatisfiedLinkError | IOException | InvalidPathException e) {
      tried.add(attempt + ": " + e.getMessage());
      return false;
    }
  }

  /** Makes the error, with advice unless the user has followed it. */
  private static UnsatisfiedLinkError error(String what, List<String> tried) {
    String advice = System.getProperty(FILE_PROPERTY) != null ? ""
        : ". Name its file with -D" + FILE_PROPERTY + "=FILE.";
    return new UnsatisfiedLinkError(what + advice + "\n" + String.join("\n", tried));
  }

  private static UnsatisfiedLinkError accessDenied(IllegalCallerException cause) {
    Module module = NativeLibrary.class.getModule();
    String name = module.isNamed() ? module.getName() : "ALL-UNNAMED";
    UnsatisfiedLinkError error =
        new UnsatisfiedLinkError(
            "This Java denies native access: start it with --enable-native-access=" + name);
    error.initCause(cause);
    return error;
  }

  /** Asks the loaded library for its version; "none" if it is a library of another kind. */
  private static String version() {
    try {
      return new NativePKCS11().getBridgeVersion();
    } catch (UnsatisfiedLinkError e) {
      return "none";
    }
  }

  /**
   * Finds the file of a library that was loaded by name; only the process's memory map tells it.
   *
   * @param name the beginning of the file's name, as a regular expression
   * @return its path, or a text that says why there is none
   */
  private static String mappedFile(String name) {
    Pattern file = Pattern.compile("/(.*/)?(%s)[^/]*$".formatted(name));
    try (Stream<String> lines = Files.lines(Path.of("/proc/self/maps"))) {
      return lines
          .map(file::matcher)
          .filter(Matcher::find)
          .map(Matcher::group)
          .findFirst()
          .orElse("a file of another name");
    } catch (IOException | UncheckedIOException e) {
      return e.toString();
    }
  }

  @SuppressWarnings("restricted")
  private static void loadResource() throws IOException {
    try (PrivateFolder folder = PrivateFolder.create()) {
      System.load(folder.copy(FILE).toString());
    } catch (UnsatisfiedLinkError e) {
      throw new IOException(
          System.getProperty(PrivateFolder.TMPDIR_PROPERTY) != null ? e.getMessage()
              : e.getMessage() + "; -D" + PrivateFolder.TMPDIR_PROPERTY + "=DIR moves the copy elsewhere",
          e);
    }
  }
}
