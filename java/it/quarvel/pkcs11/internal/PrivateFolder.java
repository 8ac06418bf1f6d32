// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.HashSet;
import java.util.Map;
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

  /** The file in {@link #NATIVES} with a line for each native file: CRC-32, bytes, name. */
  private static final String INDEX = "INDEX";

  private static final FileAttribute<?> OWNER_ONLY =
      PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));

  /** How many parents are tried unless the property names one. */
  private static final int PARENTS = 3;

  /** Bits of a mode: group or others may write; in a folder, they may change only their own files. */
  private static final int WRITABLE = 0022;
  private static final int STICKY = 01000;

  private final Path path;
  private final Set<String> names = new HashSet<>();

  private PrivateFolder(Path path) {
    this.path = path;
  }

  /**
   * Makes a folder of a new name: in the folder of {@link #TMPDIR_PROPERTY}, or if it is not set, in
   * {@code java.io.tmpdir}, {@code /dev/shm} or {@code XDG_RUNTIME_DIR}, the first in which one can
   * be made that no other user but root can exchange.
   *
   * @return the folder, which the caller closes
   * @throws IOException that tells what was tried and why it failed
   */
  public static PrivateFolder create() throws IOException {
    String named = System.getProperty(TMPDIR_PROPERTY);
    IOException failure = new IOException();
    String tried = "";
    for (int i = 0; i < (named != null ? 1 : PARENTS); i++) {
      String parent = named != null ? named : parent(i);
      try {
        if (parent != null) {
          return create(Path.of(parent).toRealPath());
        }
      } catch (IOException | InvalidPathException e) {
        failure.addSuppressed(e);
        tried += (tried.isEmpty() ? " in " : ", in ") + parent + " (" + e + ")";
      }
    }
    throw new IOException("no folder can be made" + tried
        + (named != null ? "" : ": name one with -D" + TMPDIR_PROPERTY + "=DIR"), failure);
  }

  /** Returns the parent that is tried in the given turn, from 0; null where it has no name. */
  private static String parent(int turn) {
    return switch (turn) {
      case 0 -> System.getProperty("java.io.tmpdir");
      case 1 -> "/dev/shm";
      default -> System.getenv("XDG_RUNTIME_DIR");
    };
  }

  private static PrivateFolder create(Path parent) throws IOException {
    PrivateFolder folder =
        new PrivateFolder(Files.createTempDirectory(parent, "quarvelpkcs11-", OWNER_ONLY));
    try {
      folder.checkParents();
      return folder;
    } catch (IOException e) {
      folder.close();
      throw e;
    }
  }

  /**
   * Refuses parents whose owner, or others who may write there, could exchange the folder. The owner of
   * the root folder can do so anyway; in a user namespace without root that is not 0.
   */
  private void checkParents() throws IOException {
    Set<Object> trusted = new HashSet<>();
    trusted.add(0);
    trusted.add(Files.getAttribute(path.getRoot(), "unix:uid"));
    trusted.add(Files.getAttribute(path, "unix:uid", LinkOption.NOFOLLOW_LINKS));
    for (Path at = path.getParent(); at != null; at = at.getParent()) {
      Map<String, Object> is = Files.readAttributes(at, "unix:uid,mode", LinkOption.NOFOLLOW_LINKS);
      int mode = (int) is.get("mode");
      if (!trusted.contains(is.get("uid"))) {
        throw new IOException(at + " belongs to another user");
      }
      if ((mode & WRITABLE) != 0 && (mode & STICKY) == 0) {
        throw new IOException("others may write to " + at);
      }
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
   * Returns a file of the folder, which goes with it.
   *
   * @param name the file's name
   * @return its absolute path, whether or not it is there
   */
  public Path file(String name) {
    names.add(name);
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
    return write(name, content);
  }

  /**
   * Writes a file of the folder, which goes with it.
   *
   * @param name the file's name
   * @return its absolute path
   * @throws IOException when it cannot be written
   */
  public Path write(String name, byte[] content) throws IOException {
    Path file = file(name);
    try (FileOutputStream out = new FileOutputStream(file.toFile())) {
      out.write(content);
    }
    return file;
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
    if (Files.isDirectory(path, LinkOption.NOFOLLOW_LINKS)) {
      for (String name : names) {
        path.resolve(name).toFile().delete();
      }
      path.toFile().delete();
    }
  }
}
