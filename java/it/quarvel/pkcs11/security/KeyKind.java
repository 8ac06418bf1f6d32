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
 * The kinds of keys that the provider offers. The encoding of the public half tells them apart: its
 * class, and the name of its algorithm, are the choice of whichever provider has made the object.
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

  private final ByteBuffer id;

  KeyKind(String algorithm, int type, String id) {
    this.algorithm = algorithm;
    this.type = type;
    this.id = ByteBuffer.wrap(HexFormat.of().parseHex(id));
  }

  /** Returns the kind of a key; null for any other kind, a key without an encoding, and null. */
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
   * Returns the parameters that a key of RSASSA-PSS is limited to, null where it is not.
   *
   * @throws InvalidKeyException for parameters that Java does not know
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

  /** Returns the identifier of the algorithm and its parameters, which stand first in a key. */
  private static ByteBuffer algorithm(PublicKey key) {
    return content(content(ByteBuffer.wrap(key.getEncoded())));
  }

  /** Takes the first value off some DER. */
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
