// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/**
 * The state of a session ({@code CK_SESSION_INFO}, without the slot).
 *
 * @param state a {@code CKS_} value: read-only or read/write, and who is logged in
 * @param flags {@code CKF_RW_SESSION} and {@code CKF_SERIAL_SESSION}
 * @param deviceError the device's own error code, 0 if there is none
 */
public record PKCS11SessionInfo(int state, int flags, int deviceError) implements PKCS11Flags {}
