// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/**
 * The description of a slot, which is a reader or acts as one ({@code CK_SLOT_INFO}). Texts keep
 * the blanks that pad them; {@link PKCS11Info#versionText} writes versions out.
 *
 * @param slotDescription description of the slot, 64 bytes
 * @param manufacturerID maker of the slot, 32 bytes
 * @param flags {@code CKF_TOKEN_PRESENT}, {@code CKF_REMOVABLE_DEVICE}, {@code CKF_HW_SLOT}
 * @param hardwareVersion version of the slot's hardware, major * 256 + minor
 * @param firmwareVersion version of the slot's firmware, major * 256 + minor
 */
public record PKCS11SlotInfo(
    String slotDescription,
    String manufacturerID,
    int flags,
    int hardwareVersion,
    int firmwareVersion)
    implements PKCS11Flags {}
