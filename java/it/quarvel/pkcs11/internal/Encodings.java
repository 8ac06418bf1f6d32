// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.internal;

import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.security.MessageDigest;
import java.util.Arrays;

/** Encodes signatures and digests in the forms that PKCS#11 leaves to the caller. */
public final class Encodings {
  private static final byte INTEGER = 2;
  private static final byte SEQUENCE = 0x30;
  private static final byte ONE_LENGTH_BYTE = (byte) 0x81;
  private static final byte PSS_TRAILER = (byte) 0xBC;

  private Encodings() {}

  /**
   * Encodes an ECDSA signature in DER.
   *
   * @param signature r and s as {@code C_Sign} returns them: two unsigned big-endian numbers of the
   *     same size, each at most 125 bytes in DER
   * @return the SEQUENCE of the two INTEGERs
   */
  public static byte[] derSignature(byte[] signature) {
    int size = signature.length / 2;
    byte[] r = new BigInteger(1, signature, 0, size).toByteArray();
    byte[] s = new BigInteger(1, signature, size, size).toByteArray();
    int length = 4 + r.length + s.length;
    ByteBuffer der = ByteBuffer.allocate(3 + length).put(SEQUENCE);
    if (length > Byte.MAX_VALUE) {
      der.put(ONE_LENGTH_BYTE);
    }
    der.put((byte) length).put(INTEGER).put((byte) r.length).put(r)
        .put(INTEGER).put((byte) s.length).put(s);
    return Arrays.copyOf(der.array(), der.position());
  }

  /**
   * Pads a digest for raw RSA ({@code CKM_RSA_X_509}) by EMSA-PSS of RFC 8017.
   *
   * @param digest the digest of the message
   * @param bits one less than the bits of the modulus; their bytes hold digest, salt and two bytes
   * @param hash the digest's hash function, in its initial state
   * @param mask the hash function of MGF1, in its initial state
   * @return the padded digest, as many bytes as {@code bits} need: one fewer than the modulus has
   *     if that has 8n + 1 bits
   */
  public static byte[] pss(byte[] digest, byte[] salt, int bits, MessageDigest hash, MessageDigest mask) {
    hash.update(new byte[8]);
    hash.update(digest);
    byte[] h = hash.digest(salt);
    byte[] padded = new byte[(bits + 7) / 8];
    int masked = padded.length - h.length - 1;
    padded[masked - salt.length - 1] = 1;
    System.arraycopy(salt, 0, padded, masked - salt.length, salt.length);
    for (int i = 0, counter = 0; i < masked; counter++) {
      mask.update(h);
      for (byte b : mask.digest(ByteBuffer.allocate(4).putInt(counter).array())) {
        if (i < masked) {
          padded[i++] ^= b;
        }
      }
    }
    padded[0] &= (byte) (0xFF >> 8 * padded.length - bits);
    System.arraycopy(h, 0, padded, masked, h.length);
    padded[padded.length - 1] = PSS_TRAILER;
    return padded;
  }
}
