// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;

/**
 * A token and the slot it is in.
 *
 * @param slot the slot
 * @param info the token's description
 */
public record TokenInSlot(NativePKCS11Slot slot, PKCS11TokenInfo info) {
  /** Reads the description of the token in a slot. */
  public static TokenInSlot of(NativePKCS11Slot slot) throws PKCS11Exception {
    return new TokenInSlot(slot, slot.getTokenInfo());
  }

  /** Returns the number of a slot as modules mean it, never negative. */
  public static long number(NativePKCS11Slot slot) {
    return Integer.toUnsignedLong(slot.slotID());
  }

  public PKCS11Uri uri() {
    return PKCS11Uri.of(info);
  }

  /** Tells whether another token has the same description. */
  boolean isSame(TokenInSlot other) {
    return uri().toString().equals(other.uri().toString());
  }

  /** Returns the URI of an object, also with an empty id: others may have the same label. */
  public PKCS11Uri uri(NativePKCS11Object object) {
    Attributes attributes = new Attributes(object);
    PKCS11Uri uri = attributes.bytes(CKA_ID) instanceof byte[] id ? uri().with("id", id) : uri();
    uri = attributes.bytes(CKA_LABEL) instanceof byte[] label ? uri.with("object", label) : uri;
    String type = attributes.number(CKA_CLASS) instanceof Integer known ? PKCS11Uri.type(known) : null;
    return type == null ? uri : uri.with("type", type);
  }

  @Override
  public String toString() {
    return "\"%s\" in slot %s".formatted(info.trimmedLabel(), number(slot));
  }
}
