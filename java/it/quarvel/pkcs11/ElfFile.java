// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import java.io.File;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * The head of a library's file: whether the file is for this machine, and whether it is whole. It
 * is read within bounds and without a channel, whose classes would slow down each start. Bytes that
 * cannot be read count as missing.
 */
final class ElfFile {
  /** The first four bytes of an ELF file; offsets of its class and byte order, and its machine. */
  private static final int MAGIC = 0x464c457f;
  private static final int CLASS = 4;
  private static final int MACHINE = 18;

  /** Class and byte order of a 64-bit little-endian file, as one short; the size of its header. */
  private static final int LITTLE_64 = 0x0102;
  private static final int HEADER = 64;

  /** Offsets in the header: of the segment table's place, its entry size and its entry count. */
  private static final int SEGMENTS = 32;
  private static final int SEGMENT_SIZE = 54;
  private static final int SEGMENT_COUNT = 56;

  /** The entry size that the dynamic linker accepts, in bytes. */
  private static final int SEGMENT = 56;

  /** PT_LOAD, the type of a segment that is loaded; offsets of its place and length in an entry. */
  private static final int LOADED = 1;
  private static final int OFFSET = 8;
  private static final int LENGTH = 32;

  private final long length;
  private final ByteBuffer header;
  private final ByteBuffer segments;

  /**
   * Reads the head of any file, ELF or not.
   *
   * @throws IOException when the file cannot be opened
   */
  ElfFile(File file) throws IOException {
    try (RandomAccessFile in = new RandomAccessFile(file, "r")) {
      length = in.length();
      header = read(in, 0, HEADER);
      boolean known = isElf() && header.getShort(CLASS) == LITTLE_64 && header.limit() == HEADER
          && header.getShort(SEGMENT_SIZE) == SEGMENT;
      segments = known ? read(in, header.getLong(SEGMENTS),
          SEGMENT * Short.toUnsignedInt(header.getShort(SEGMENT_COUNT))) : ByteBuffer.allocate(0);
    }
  }

  private static ByteBuffer read(RandomAccessFile in, long from, int most) {
    byte[] bytes = new byte[most];
    int count = 0;
    try {
      in.seek(from);
      for (int more = 0; more >= 0 && count < most; count += Math.max(more, 0)) {
        more = in.read(bytes, count, most - count);
      }
    } catch (IOException e) {
      // The bytes count as missing: the load, or the message about its failure, tells more.
    }
    return ByteBuffer.wrap(bytes).limit(count).order(ByteOrder.LITTLE_ENDIAN);
  }

  /** Tells whether this is an ELF file at all. */
  boolean isElf() {
    return header.limit() > MACHINE + 1 && header.getInt(0) == MAGIC;
  }

  /** Tells whether an ELF file is for the machine of this process; true if that is unknown. */
  boolean isForThisMachine() {
    try {
      ByteBuffer own = new ElfFile(new File("/proc/self/exe")).header;
      return header.getShort(CLASS) == own.getShort(CLASS)
          && header.getShort(MACHINE) == own.getShort(MACHINE);
    } catch (IOException e) {
      return true;
    }
  }

  /**
   * Tells whether the file ends before one of its loaded segments does. The dynamic linker does not
   * look, and the process would die of it. False for all but 64-bit little-endian ELF files.
   */
  boolean isCutShort() {
    for (int at = 0; at + SEGMENT <= segments.limit(); at += SEGMENT) {
      long offset = segments.getLong(at + OFFSET);
      long size = segments.getLong(at + LENGTH);
      if (segments.getInt(at) == LOADED && (Long.compareUnsigned(size, length) > 0
          || Long.compareUnsigned(offset, length - size) > 0)) {
        return true;
      }
    }
    return false;
  }
}
