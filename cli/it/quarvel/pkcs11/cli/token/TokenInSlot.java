// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.util.HexFormat;

/**
 * A token and the slot it is in. Its PKCS#11 URI (RFC 7512), and those of its objects, are written
 * as {@link PKCS11Uri} reads them.
 *
 * @param slot the slot
 * @param info what the token says of itself
 */
public record TokenInSlot(NativePKCS11Slot slot, PKCS11TokenInfo info) {
  private static final HexFormat ALL_ESCAPED = HexFormat.of().withUpperCase().withPrefix("%");

  /** Reads what the token in a slot says of itself. */
  public static TokenInSlot of(NativePKCS11Slot slot) throws PKCS11Exception {
    return new TokenInSlot(slot, slot.getTokenInfo());
  }

  /** Returns the number of a slot as modules mean it, never negative. */
  public static long number(NativePKCS11Slot slot) {
    return Integer.toUnsignedLong(slot.slotID());
  }

  public String uri() {
    return "pkcs11:model=" + escape(info.model()) + ";manufacturer="
        + escape(info.manufacturerID()) + ";serial=" + escape(info.serialNumber())
        + ";token=" + escape(info.trimmedLabel());
  }

  /** An empty id counts: without it, the URI would name others with the same label too. */
  public String uri(NativePKCS11Object object) {
    Attributes attributes = new Attributes(object);
    Object id = attributes.bytes(CKA_ID);
    Object label = attributes.bytes(CKA_LABEL);
    Object objectClass = attributes.number(CKA_CLASS);
    String type = objectClass instanceof Integer known ? PKCS11Uri.type(known) : null;
    return uri() + (id instanceof byte[] bytes ? ";id=" + ALL_ESCAPED.formatHex(bytes) : "")
        + (label instanceof byte[] bytes ? ";object=" + escape(bytes) : "")
        + (type == null ? "" : ";type=" + type);
  }

  @Override
  public String toString() {
    return "\"%s\" in slot %s".formatted(info.trimmedLabel(), number(slot));
  }

  private static String escape(String text) {
    return escape(text.stripTrailing().getBytes(StandardCharsets.UTF_8));
  }

  /** Escapes single bytes, which need not be text; a form of the web writes a blank otherwise. */
  private static String escape(byte[] value) {
    return URLEncoder.encode(
        new String(value, StandardCharsets.ISO_8859_1), StandardCharsets.ISO_8859_1)
        .replace("+", "%20");
  }
}
