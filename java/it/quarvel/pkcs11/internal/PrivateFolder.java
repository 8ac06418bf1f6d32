// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Objects;
import java.util.Set;
import java.util.TreeSet;
import java.util.zip.CRC32;

/**
 * A folder that only its owner can look into, where native files lie while they are loaded. What is
 * mapped outlives its deleted file.
 */
public final class PrivateFolder implements AutoCloseable {
  /** The system property that says where such folders are made, instead of java.io.tmpdir. */
  public static final String TMPDIR_PROPERTY = "it.quarvel.pkcs11.tmpdir";

  private static final String NATIVES = "/it/quarvel/pkcs11/nat/";

  /** Of {@link #NATIVES}: a line for each native file of the jar: CRC-32, bytes, name. */
  private static final String INDEX = "INDEX";

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
   * Copies a native file out of the jar. One that was changed on its way, as tools do that take a
   * resource for a text, could end the process when it is loaded. The checksum is against such tools
   * alone: who means harm changes the index too.
   *
   * @param name the file's name, in the jar and in the folder
   * @return the copy
   * @throws IOException when the jar has none for this architecture, when the file is not as it was
   *     built, or when it cannot be written
   */
  public Path copy(String name) throws IOException {
    byte[] content = read(resource(name));
    if (content.length == 0) {
      throw new IOException("not in the jar");
    }
    CRC32 crc = new CRC32();
    crc.update(content);
    String line = crc.getValue() + " " + content.length + " "
        + resource(name).substring(NATIVES.length()) + "\n";
    if (!("\n" + index()).contains("\n" + line)) {
      throw new IOException("damaged: it is not what the jar was built with");
    }
    try (FileOutputStream out = new FileOutputStream(file(name).toFile())) {
      out.write(content);
    }
    return file(name);
  }

  /**
   * Tells for what the jar has native files.
   *
   * @return names of systems and architectures
   */
  public static String carried() {
    try {
      Set<String> folders = new TreeSet<>();
      index().lines().forEach(line -> folders.add(line.replaceAll(".* |/.*", "")));
      return folders.isEmpty() ? "no native files" : String.join(" and ", folders);
    } catch (IOException e) {
      return e.toString();
    }
  }

  private static String index() throws IOException {
    return new String(read(NATIVES + INDEX), StandardCharsets.UTF_8);
  }

  /** Reads a resource, which is empty when it is not there. */
  private static byte[] read(String resource) throws IOException {
    try (InputStream in = PrivateFolder.class.getResourceAsStream(resource)) {
      return in == null ? new byte[0] : in.readAllBytes();
    }
  }

  /**
   * Tells where the jar has a native file, if it carries any.
   *
   * @param name the file's name
   * @return name of the resource for this architecture
   */
  public static String resource(String name) {
    return NATIVES + "linux-" + System.getProperty("os.arch") + "/" + name;
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
