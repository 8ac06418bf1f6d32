package it.quarvel.pkcs11.internal;

import java.io.File;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Objects;

/**
 * A folder that only its owner can look into, where native files lie while they are loaded. What is
 * mapped outlives its deleted file.
 */
public final class PrivateFolder implements AutoCloseable {
  /** The system property that says where such folders are made, instead of java.io.tmpdir. */
  public static final String TMPDIR_PROPERTY = "it.quarvel.pkcs11.tmpdir";

  private static final FileAttribute<?> OWNER_ONLY =
      PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));

  private final Path path;

  private PrivateFolder(Path path) {
    this.path = path;
  }

  /**
   * Makes a folder of a new name.
   *
   * @return the folder, which the caller closes
   * @throws IOException that names the folder in which none can be made
   */
  public static PrivateFolder create() throws IOException {
    String parent = System.getProperty(TMPDIR_PROPERTY, System.getProperty("java.io.tmpdir"));
    try {
      Path folder = Path.of(parent).toAbsolutePath();
      return new PrivateFolder(Files.createTempDirectory(folder, "quarvelpkcs11-", OWNER_ONLY));
    } catch (IOException | InvalidPathException e) {
      throw new IOException("no directory can be made in " + parent + " (" + e + ")", e);
    }
  }

  /**
   * Makes the folder once more after it was closed, or one of a new name where its own is taken.
   *
   * @return the folder, which the caller closes
   * @throws IOException as {@link #create}
   */
  public PrivateFolder again() throws IOException {
    try {
      Files.createDirectory(path, OWNER_ONLY);
      return this;
    } catch (IOException e) {
      return create();
    }
  }

  /**
   * Returns a file of the folder.
   *
   * @param name the file's name
   * @return its absolute path, whether or not it is there
   */
  public Path file(String name) {
    return path.resolve(name);
  }

  /**
   * Copies a native file out of the jar.
   *
   * @param name the file's name, in the jar and in the folder
   * @return the copy
   * @throws FileNotFoundException when the jar has none for this architecture
   * @throws IOException when it cannot be written
   */
  public Path copy(String name) throws IOException {
    try (InputStream in = PrivateFolder.class.getResourceAsStream(resource(name))) {
      if (in == null) {
        throw new FileNotFoundException("not in the jar");
      }
      Path copy = file(name);
      Files.copy(in, copy);
      return copy;
    }
  }

  /**
   * Tells where the jar has a native file, if it carries any.
   *
   * @param name the file's name
   * @return name of the resource for this architecture
   */
  public static String resource(String name) {
    return "/it/quarvel/pkcs11/nat/linux-" + System.getProperty("os.arch") + "/" + name;
  }

  /** Deletes the folder with its files, as far as that can be done. */
  @Override
  public void close() {
    File folder = path.toFile();
    for (File file : Objects.requireNonNullElse(folder.listFiles(), new File[0])) {
      file.delete();
    }
    folder.delete();
  }
}
