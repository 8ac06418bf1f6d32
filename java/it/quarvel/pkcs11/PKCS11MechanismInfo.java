// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/**
 * The uses and key sizes of one mechanism of a token ({@code CK_MECHANISM_INFO}).
 *
 * @param minKeySize smallest key, in bits or bytes as the mechanism counts
 * @param maxKeySize largest key, in the same unit
 * @param flags {@code CKF_SIGN}, {@code CKF_DECRYPT} and the other mechanism flags
 */
public record PKCS11MechanismInfo(int minKeySize, int maxKeySize, int flags)
    implements PKCS11Flags {}
