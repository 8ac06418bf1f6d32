// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.security.AlgorithmParameters;
import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.PublicKey;
import java.security.spec.PSSParameterSpec;
import java.util.HexFormat;

/**
 * The kinds of keys that the provider offers. The object identifier in the encoding of the public
 * key tells them apart: each provider makes public keys of its own classes, and names the algorithm
 * in its own way.
 */
enum KeyKind {
  RSA("RSA", CKK_RSA, "2a864886f70d010101"),
  /** An RSA key that its certificate limits to RSASSA-PSS. */
  RSASSA_PSS("RSASSA-PSS", CKK_RSA, "2a864886f70d01010a"),
  EC("EC", CKK_EC, "2a8648ce3d0201"),
  ED25519("EdDSA", CKK_EC_EDWARDS, "2b6570");

  /** The JDK's name of the algorithm. */
  final String algorithm;

  /** The {@code CKK_} value. */
  final int type;

  /** The content of the algorithm's object identifier in DER. */
  private final ByteBuffer id;

  KeyKind(String algorithm, int type, String id) {
    this.algorithm = algorithm;
    this.type = type;
    this.id = ByteBuffer.wrap(HexFormat.of().parseHex(id));
  }

  /** Returns the kind of a key; null for another kind, a key without an encoding, and null. */
  static KeyKind of(PublicKey key) {
    if (key != null && key.getEncoded() != null) {
      ByteBuffer id = content(algorithm(key));
      for (KeyKind kind : values()) {
        if (kind.id.equals(id)) {
          return kind;
        }
      }
    }
    return null;
  }

  /**
   * Returns the parameters to which its certificate limits a key of RSASSA-PSS.
   *
   * @return the parameters, with the salt's minimum length in bytes; null if the key has no limits
   * @throws InvalidKeyException when Java cannot read the parameters
   */
  static PSSParameterSpec limits(PublicKey key) throws InvalidKeyException {
    ByteBuffer algorithm = algorithm(key);
    content(algorithm);
    if (!algorithm.hasRemaining()) {
      return null;
    }
    byte[] encoded = new byte[algorithm.remaining()];
    algorithm.get(encoded);
    try {
      AlgorithmParameters parameters = AlgorithmParameters.getInstance(RSASSA_PSS.algorithm);
      parameters.init(encoded);
      return parameters.getParameterSpec(PSSParameterSpec.class);
    } catch (GeneralSecurityException | IOException e) {
      throw new InvalidKeyException("parameters of RSASSA-PSS that are not known", e);
    }
  }

  /** Returns the first element of a key in DER: the algorithm's identifier, then its parameters. */
  private static ByteBuffer algorithm(PublicKey key) {
    return content(content(ByteBuffer.wrap(key.getEncoded())));
  }

  /**
   * Returns the content of the first DER value in a buffer, and moves the buffer's position behind
   * that value.
   */
  private static ByteBuffer content(ByteBuffer der) {
    der.get();
    int length = der.get();
    if (length < 0) {
      int bytes = length & Byte.MAX_VALUE;
      for (length = 0; bytes > 0; bytes--) {
        length = length << Byte.SIZE | der.get() & 0xFF;
      }
    }
    ByteBuffer content = der.slice(der.position(), length);
    der.position(der.position() + length);
    return content;
  }
}
