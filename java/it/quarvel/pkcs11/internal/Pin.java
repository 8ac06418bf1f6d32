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

/**
 * Makes the bytes of a PIN as {@code C_Login} takes them. Each method wipes its own copies; the
 * result is the caller's to wipe.
 */
public final class Pin {
  /** The most bytes of a line: a longer one is no PIN, but another file or one without an end. */
  private static final int LONGEST = 4096;

  private static final byte[] BYTE_ORDER_MARK = {(byte) 0xEF, (byte) 0xBB, (byte) 0xBF};

  private Pin() {}

  /**
   * Encodes a PIN in UTF-8.
   *
   * @param typed the characters, which the caller wipes
   * @return the bytes, which the caller wipes; none for no characters
   * @throws CharacterCodingException when {@code typed} has half of a surrogate pair
   */
  public static byte[] of(char[] typed) throws CharacterCodingException {
    // CharsetEncoder.encode(CharBuffer) would not do: it may leave outgrown copies behind.
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
   * Reads a PIN from the first line of a file. The line ends at a line feed or a carriage return.
   * The method takes off a byte order mark and that end, and nothing else: blanks are of the PIN.
   *
   * @param file the file; a pipe may stay open after the end of its first line
   * @return the bytes of the PIN, at least one, which the caller wipes
   * @throws IOException when the file cannot be read; when the line is empty, longer than 4,096
   *     bytes or no UTF-8, with a message that begins "its first line"
   */
  public static byte[] ofFile(Path file) throws IOException {
    // A channel fills an array by way of memory of its own, and would leave the PIN there.
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

  /**
   * Returns the offset of the first line's end.
   *
   * @param read the bytes read so far, up to its position
   * @param from the offset at which to begin
   * @return at least {@code from}; the position of {@code read} if the line has not ended yet
   */
  private static int endOfLine(ByteBuffer read, int from) {
    int end = from;
    while (end < read.position() && read.get(end) != '\n' && read.get(end) != '\r') {
      end++;
    }
    return end;
  }

  /** Refuses a line that is no PIN; the messages tell nothing of its bytes. */
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

  /** Overwrites a PIN with zeros; null does nothing. */
  public static void wipe(byte[] pin) {
    if (pin != null) {
      Arrays.fill(pin, (byte) 0);
    }
  }
}
