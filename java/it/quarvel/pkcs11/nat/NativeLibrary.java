package it.quarvel.pkcs11.nat;

import java.io.File;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;

/** Finds and loads the native library. */
final class NativeLibrary {
  private static final String NAME = "quarvelpkcs11";
  private static final String FILE = "lib" + NAME + ".so";
  private static final String FILE_PROPERTY = "it.quarvel.pkcs11.library";
  private static final String TMPDIR_PROPERTY = "it.quarvel.pkcs11.tmpdir";
  private static final String RESOURCE =
      "/it/quarvel/pkcs11/nat/linux-" + System.getProperty("os.arch") + "/" + FILE;

  private interface Loader {
    void load() throws IOException;
  }

  private NativeLibrary() {}

  /**
   * Loads the library: the file that a system property names, then nothing else; or the jar's own
   * copy, which has the version of these classes; or what {@code System.loadLibrary} finds.
   *
   * @throws UnsatisfiedLinkError that tells everything that was tried and why it failed, or which
   *     file has another version
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
            : succeeds("resource " + RESOURCE, NativeLibrary::loadResource, tried)
                || succeeds(
                    "library " + NAME + " in java.library.path",
                    () -> System.loadLibrary(NAME),
                    tried);
    if (!loaded) {
      throw error("The native library cannot be loaded", tried);
    }
    String version = version();
    if (!version.equals(NativePKCS11.BRIDGE_VERSION)) {
      tried.add("loaded: " + (file != null ? file : mappedFile()));
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

  private static UnsatisfiedLinkError error(String what, List<String> tried) {
    return new UnsatisfiedLinkError(
        "%s. Name its file with -D%s=FILE.\n%s"
            .formatted(what, FILE_PROPERTY, String.join("\n", tried)));
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

  /** Asks the library, which may be any other one. */
  private static String version() {
    try {
      return new NativePKCS11().getBridgeVersion();
    } catch (UnsatisfiedLinkError e) {
      return "none";
    }
  }

  /** The file of a library that was loaded by name, which only the map of the process tells. */
  private static String mappedFile() {
    try (Stream<String> lines = Files.lines(Path.of("/proc/self/maps"))) {
      return lines
          .filter(line -> line.contains("/lib" + NAME))
          .map(line -> line.substring(line.indexOf('/')))
          .findFirst()
          .orElse("a file of another name");
    } catch (IOException e) {
      return e.toString();
    }
  }

  /** Loads a private copy of the resource; the mapped library outlives its deleted file. */
  @SuppressWarnings("restricted")
  private static void loadResource() throws IOException {
    try (InputStream in = NativeLibrary.class.getResourceAsStream(RESOURCE)) {
      if (in == null) {
        throw new FileNotFoundException("not in the jar");
      }
      File directory = createPrivateDirectory().toFile();
      File copy = new File(directory, FILE);
      try {
        Files.copy(in, copy.toPath());
        System.load(copy.getPath());
      } catch (UnsatisfiedLinkError e) {
        throw new IOException(
            e.getMessage() + "; -D%s=DIR moves the copy elsewhere".formatted(TMPDIR_PROPERTY), e);
      } finally {
        copy.delete();
        directory.delete();
      }
    }
  }

  private static Path createPrivateDirectory() throws IOException {
    String parent = System.getProperty(TMPDIR_PROPERTY, System.getProperty("java.io.tmpdir"));
    FileAttribute<?> ownerOnly =
        PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));
    try {
      return Files.createTempDirectory(Path.of(parent).toAbsolutePath(), NAME + "-", ownerOnly);
    } catch (IOException e) {
      throw new IOException("no directory can be made in " + parent + " (" + e + ")", e);
    }
  }
}
