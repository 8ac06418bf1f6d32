package it.quarvel.pkcs11;

/**
 * The token in a slot ({@code CK_TOKEN_INFO}). Texts keep the blanks that pad them; {@link
 * PKCS11Info#versionText} writes versions out. A count or a memory size that the token keeps to
 * itself is {@link PKCS11Constants#CK_UNAVAILABLE_INFORMATION}.
 *
 * @param label label given when the token was initialised, 32 bytes
 * @param manufacturerID who made the token, 32 bytes
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
  /**
   * Returns the label as people write it.
   *
   * @return the label without its padding
   */
  public String trimmedLabel() {
    return label.stripTrailing();
  }
}
