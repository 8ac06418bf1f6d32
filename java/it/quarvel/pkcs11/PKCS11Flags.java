// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/** Information that carries a PKCS#11 flag word. */
public interface PKCS11Flags {
  /**
   * Returns the flag word.
   *
   * @return the low 32 bits of the PKCS#11 {@code flags} field
   */
  int flags();

  /**
   * Tells whether a flag is set.
   *
   * @param flag a {@code CKF_} constant, or several of them combined
   * @return true when every bit of {@code flag} is set
   */
  default boolean hasFlag(int flag) {
    return (flags() & flag) == flag;
  }
}
