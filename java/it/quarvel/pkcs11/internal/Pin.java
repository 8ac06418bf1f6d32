// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.channels.FileChannel;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.CharsetEncoder;
import java.nio.charset.CoderResult;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Arrays;

/** Makes a PIN the bytes that a token gets. Each copy but the result, which is the caller's, is wiped. */
public final class Pin {
  /** Bytes of a line; what is longer is another file, or has no end. */
  private static final int LONGEST = 4096;

  private static final byte[] BYTE_ORDER_MARK = {(byte) 0xEF, (byte) 0xBB, (byte) 0xBF};

  private Pin() {}

  /**
   * Encodes what somebody typed.
   *
   * @param typed the characters, which stay the caller's
   * @return their UTF-8, which the caller wipes
   * @throws CharacterCodingException when half of a surrogate pair is among them
   */
  public static byte[] of(char[] typed) throws CharacterCodingException {
    // Not encode(CharBuffer), which may leave outgrown copies behind.
    CharsetEncoder encoder = StandardCharsets.UTF_8.newEncoder();
    ByteBuffer room = ByteBuffer.allocate((int) (typed.length * encoder.maxBytesPerChar()));
    try {
      CoderResult result = encoder.encode(CharBuffer.wrap(typed), room, true);
      if (result.isError()) {
        result.throwException();
      }
      return Arrays.copyOf(room.array(), room.position());
    } finally {
      wipe(room.array());
    }
  }

  /**
   * Reads the first line of a file. Nothing but a byte order mark and the end of the line is taken off.
   *
   * @param file what has the PIN; a pipe is read no further than that line
   * @return its bytes, at least one, which the caller wipes
   * @throws IOException when it cannot be read; when the line is empty, longer than 4,096 bytes or no
   *     UTF-8, with a message that begins "its first line"
   */
  public static byte[] ofFile(Path file) throws IOException {
    // A channel puts into its own memory what goes into an array, and leaves it there.
    ByteBuffer read = ByteBuffer.allocateDirect(BYTE_ORDER_MARK.length + LONGEST + 1);
    byte[] line = {};
    boolean fits = false;
    try (FileChannel channel = FileChannel.open(file)) {
      int end = 0;
      while ((end = endOfLine(read, end)) == read.position() && channel.read(read) > 0) {}
      read.limit(end).rewind();
      int mark = BYTE_ORDER_MARK.length;
      if (end >= mark && read.slice(0, mark).equals(ByteBuffer.wrap(BYTE_ORDER_MARK))) {
        read.position(mark);
      }
      line = new byte[read.remaining()];
      read.get(line);
      check(line);
      fits = true;
      return line;
    } finally {
      read.clear().put(new byte[read.capacity()]);
      if (!fits) {
        wipe(line);
      }
    }
  }

  /** Returns where the line ends that was read so far, at the earliest at {@code from}. */
  private static int endOfLine(ByteBuffer read, int from) {
    int end = from;
    while (end < read.position() && read.get(end) != '\n' && read.get(end) != '\r') {
      end++;
    }
    return end;
  }

  private static void check(byte[] line) throws IOException {
    if (line.length == 0 || line.length > LONGEST) {
      throw new IOException(line.length == 0 ? "its first line is empty"
          : "its first line has more than " + LONGEST + " bytes");
    }
    CharBuffer text = CharBuffer.allocate(line.length);
    CoderResult result = StandardCharsets.UTF_8.newDecoder().decode(ByteBuffer.wrap(line), text, true);
    Arrays.fill(text.array(), '\0');
    if (result.isError()) {
      throw new IOException("its first line is no UTF-8");
    }
  }

  /** Overwrites a PIN; null is none. */
  public static void wipe(byte[] pin) {
    if (pin != null) {
      Arrays.fill(pin, (byte) 0);
    }
  }
}
