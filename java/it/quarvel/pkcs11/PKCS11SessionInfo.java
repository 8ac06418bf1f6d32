// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/**
 * State of a session ({@code CK_SESSION_INFO}, without the slot).
 *
 * @param state a {@code CKS_} value: read-only or read/write, and who is logged in
 * @param flags {@code CKF_RW_SESSION} and {@code CKF_SERIAL_SESSION}
 * @param deviceError error code of the device's own, 0 without one
 */
public record PKCS11SessionInfo(int state, int flags, int deviceError) implements PKCS11Flags {}
