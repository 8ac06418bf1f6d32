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
 * A folder of the user's own (mode 700), which holds native files while the dynamic linker loads
 * them. The caller closes it after the load: a mapped file outlives its name.
 */
public final class PrivateFolder implements AutoCloseable {
  /** The system property that names the parent of such folders, in place of the usual ones. */
  public static final String TMPDIR_PROPERTY = "it.quarvel.pkcs11.tmpdir";

  private static final String NATIVES = "/it/quarvel/pkcs11/nat/";

  /**
   * The file in {@link #NATIVES} with a line for each native file: CRC-32 and size in decimal, then
   * the file's name with its folder.
   */
  private static final String INDEX = "INDEX";

  private static final FileAttribute<?> OWNER_ONLY =
      PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));

  /** The environment variable that names the last parent. */
  private static final String RUNTIME = "XDG_RUNTIME_DIR";

  /** The parents that {@link #create} tries in turn, unless the property names one. */
  private static final String[] PARENTS = {
      System.getProperty("java.io.tmpdir"), "/dev/shm", RUNTIME};

  /** The mode bits by which the group and others may write. */
  private static final int WRITABLE = 0022;

  /** The mode bit of a folder in which each user may change only the user's own files. */
  private static final int STICKY = 01000;

  private final Path path;

  /** The files that {@link #close} deletes. */
  private final Set<String> names = new HashSet<>();

  private PrivateFolder(Path path) {
    this.path = path;
  }

  /**
   * Makes a folder of a new name that no other user but root can exchange. Its parent is the folder
   * of {@link #TMPDIR_PROPERTY}; if that is not set, the first of {@code java.io.tmpdir}, {@code
   * /dev/shm} and the environment's {@code XDG_RUNTIME_DIR} that serves.
   *
   * @return the folder, which the caller closes
   * @throws IOException when no parent serves; the message names each and the reason
   */
  public static PrivateFolder create() throws IOException {
    String named = System.getProperty(TMPDIR_PROPERTY);
    IOException failure = new IOException();
    String tried = "";
    for (String next : named != null ? new String[] {named} : PARENTS) {
      // Most starts do without the environment, whose classes take their time.
      String parent = RUNTIME.equals(next) ? System.getenv(RUNTIME) : next;
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
   * Refuses the folder if another user could exchange it, as the owner of a folder above it or by
   * the right to write to one. Root may own folders above, and so may the owner of the root folder,
   * whose number is not 0 in a user namespace without root.
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
   * Makes the folder once more after it was closed, or one of a new name if that fails because
   * somebody has taken the name.
   *
   * @return the folder, this one or a new one, which the caller closes
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
   * Returns the path of a file in the folder. {@link #close} will delete the file.
   *
   * @param name the file's name
   * @return its absolute path, whether or not the file is there
   */
  public Path file(String name) {
    names.add(name);
    return path.resolve(name);
  }

  /**
   * Copies a native file from the jar into the folder, after a comparison with the jar's index:
   * tools that take a resource for text damage it, and the load of a damaged file could end the
   * process. The checksum detects such damage alone: an attacker would change the index too.
   *
   * @param name the file's name, in the jar and in the folder
   * @return the absolute path of the copy
   * @throws IOException when the jar has no such file for this architecture, when the file differs
   *     from the index, or when the copy cannot be written
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
   * Writes a file in the folder. {@link #close} will delete the file.
   *
   * @param name the file's name
   * @param content its bytes
   * @return its absolute path
   * @throws IOException when the file cannot be written
   */
  public Path write(String name, byte[] content) throws IOException {
    Path file = file(name);
    try (FileOutputStream out = new FileOutputStream(file.toFile())) {
      out.write(content);
    }
    return file;
  }

  /**
   * Names the systems for which the jar has native files, for a message.
   *
   * @return "linux-aarch64 and linux-amd64" for instance, "no native files", or the failure to read
   *     the index
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

  /** Reads a resource; none counts as an empty one. */
  private static byte[] read(String resource) throws IOException {
    try (InputStream in = PrivateFolder.class.getResourceAsStream(resource)) {
      return in == null ? new byte[0] : in.readAllBytes();
    }
  }

  /**
   * Names the resource of a native file for this architecture, whether or not the jar has it.
   *
   * @param name the file's name
   * @return the absolute name of the resource
   */
  public static String resource(String name) {
    return NATIVES + "linux-" + System.getProperty("os.arch") + "/" + name;
  }

  /** Deletes the folder and the files that this object has named, as far as the system lets it. */
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
