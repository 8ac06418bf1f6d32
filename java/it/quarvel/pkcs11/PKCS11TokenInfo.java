// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import java.nio.charset.StandardCharsets;
import java.util.regex.Pattern;

/**
 * The description of a token ({@code CK_TOKEN_INFO}). Texts keep the blanks that pad them; {@link
 * PKCS11Info#versionText} writes versions out. A count or a memory size that the token keeps to
 * itself is {@link PKCS11Constants#CK_UNAVAILABLE_INFORMATION}.
 *
 * @param label label given when the token was initialised, 32 bytes
 * @param manufacturerID maker of the token, 32 bytes
 * @param model model of the token, 16 bytes
 * @param serialNumber serial number of the token, 16 bytes
 * @param flags {@code CKF_LOGIN_REQUIRED}, {@code CKF_USER_PIN_LOCKED} and the other token flags
 * @param maxSessionCount most sessions that one application may open, 0 without limit
 * @param sessionCount sessions that this application has open
 * @param maxRwSessionCount most read/write sessions that one application may open, 0 without limit
 * @param rwSessionCount read/write sessions that this application has open
 * @param maxPinLen longest PIN in bytes
 * @param minPinLen shortest PIN in bytes
 * @param totalPublicMemory bytes for public objects
 * @param freePublicMemory unused bytes for public objects
 * @param totalPrivateMemory bytes for private objects
 * @param freePrivateMemory unused bytes for private objects
 * @param hardwareVersion version of the token's hardware, major * 256 + minor
 * @param firmwareVersion version of the token's firmware, major * 256 + minor
 * @param utcTime the token's clock as YYYYMMDDhhmmss00, meaningful with {@code CKF_CLOCK_ON_TOKEN}
 */
public record PKCS11TokenInfo(
    String label,
    String manufacturerID,
    String model,
    String serialNumber,
    int flags,
    int maxSessionCount,
    int sessionCount,
    int maxRwSessionCount,
    int rwSessionCount,
    int maxPinLen,
    int minPinLen,
    int totalPublicMemory,
    int freePublicMemory,
    int totalPrivateMemory,
    int freePrivateMemory,
    int hardwareVersion,
    int firmwareVersion,
    String utcTime)
    implements PKCS11Flags {
  /** Matches a character above U+FFFF, whose four bytes arrive as four characters. */
  private static final String FOUR_BYTES = "[\u00F0-\u00F4][\u0080-\u00BF]{3}";

  /**
   * Returns the label as people write it.
   *
   * @return the label without its padding, and with its characters above U+FFFF restored
   */
  public String trimmedLabel() {
    String text = label.stripTrailing();
    for (int i = 0; i < text.length(); i++) {
      // Few labels need the expression, and its classes would slow down each start.
      if (text.charAt(i) >= '\u00F0') {
        return Pattern.compile(FOUR_BYTES).matcher(text).replaceAll(match -> new String(
            match.group().getBytes(StandardCharsets.ISO_8859_1), StandardCharsets.UTF_8));
      }
    }
    return text;
  }

  /**
   * Tells whether the token can be used. A label suffices: some tokens that can be used lack {@code
   * CKF_TOKEN_INITIALIZED}.
   *
   * @return true for a token with the flag or with a label
   */
  public boolean isInitialised() {
    return hasFlag(PKCS11Constants.CKF_TOKEN_INITIALIZED) || !label.isBlank();
  }
}
