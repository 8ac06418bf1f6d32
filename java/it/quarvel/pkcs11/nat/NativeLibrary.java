package it.quarvel.pkcs11.nat;

import java.io.File;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** Finds and loads the native library. */
final class NativeLibrary {
  private static final String NAME = "quarvelpkcs11";
  private static final String FILE_PROPERTY = "it.quarvel.pkcs11.library";
  private static final String TMPDIR_PROPERTY = "it.quarvel.pkcs11.tmpdir";
  private static final String RESOURCE =
      "/it/quarvel/pkcs11/nat/linux-" + System.getProperty("os.arch") + "/lib" + NAME + ".so";

  private interface Loader {
    void load() throws IOException;
  }

  private NativeLibrary() {}

  /**
   * Loads the library and tells which attempt did it, or tells in one error everything that was
   * tried and why it failed.
   */
  @SuppressWarnings("restricted")
  static String load() {
    Map<String, Loader> attempts = new LinkedHashMap<>();
    String file = System.getProperty(FILE_PROPERTY);
    if (file != null) {
      attempts.put(
          "file " + file + " named by the system property " + FILE_PROPERTY,
          () -> System.load(new File(file).getAbsolutePath()));
    } else {
      attempts.put("library " + NAME + " in java.library.path", () -> System.loadLibrary(NAME));
      attempts.put("resource " + RESOURCE, NativeLibrary::loadResource);
    }
    List<String> failures = new ArrayList<>();
    return attempts.entrySet().stream()
        .filter(attempt -> succeeds(attempt.getKey(), attempt.getValue(), failures))
        .findFirst()
        .map(Map.Entry::getKey)
        .orElseThrow(
            () -> error("The native library cannot be loaded", String.join("\n", failures)));
  }

  /** Makes an error that says what helps against it. */
  static UnsatisfiedLinkError error(String what, String details) {
    return new UnsatisfiedLinkError(
        "%s. Name its file with -D%s=FILE.\n%s".formatted(what, FILE_PROPERTY, details));
  }

  private static boolean succeeds(String attempt, Loader loader, List<String> failures) {
    try {
      loader.load();
      return true;
    } catch (IllegalCallerException e) {
      throw accessDenied(e);
    } catch (UnsatisfiedLinkError | IOException e) {
      failures.add(attempt + ": " + e.getMessage());
      return false;
    }
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

  /** Loads a private copy of the resource; the mapped library outlives its deleted file. */
  @SuppressWarnings("restricted")
  private static void loadResource() throws IOException {
    try (InputStream in = NativeLibrary.class.getResourceAsStream(RESOURCE)) {
      if (in == null) {
        throw new FileNotFoundException("not in the jar");
      }
      File directory = createPrivateDirectory().toFile();
      File copy = new File(directory, "lib" + NAME + ".so");
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
