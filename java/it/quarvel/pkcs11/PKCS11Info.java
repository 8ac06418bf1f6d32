// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/**
 * The description that a module gives of itself ({@code CK_INFO}). Texts keep the blanks that pad
 * them.
 *
 * @param cryptokiVersion version of the PKCS#11 interface, major * 256 + minor
 * @param manufacturerID maker of the module, 32 bytes
 * @param flags reserved by PKCS#11, 0
 * @param libraryDescription description of the module, 32 bytes
 * @param libraryVersion version of the module, major * 256 + minor
 */
public record PKCS11Info(
    int cryptokiVersion,
    String manufacturerID,
    int flags,
    String libraryDescription,
    int libraryVersion)
    implements PKCS11Flags {
  /**
   * Writes a version out: 552 is "2.40".
   *
   * @param version a version out of an information record, major * 256 + minor
   * @return major and minor in decimal
   */
  public static String versionText(int version) {
    return (version >>> 8) + "." + (version & 0xFF);
  }
}
