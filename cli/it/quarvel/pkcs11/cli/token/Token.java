package it.quarvel.pkcs11.cli.token;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;

/**
 * A token and the slot it is in.
 *
 * @param slot the slot
 * @param info what the token says of itself
 */
public record Token(NativePKCS11Slot slot, PKCS11TokenInfo info) {
  /** Reads what the token in a slot says of itself. */
  public static Token of(NativePKCS11Slot slot) throws PKCS11Exception {
    return new Token(slot, slot.getTokenInfo());
  }

  /** Returns the number of a slot as modules mean it, never negative. */
  public static long number(NativePKCS11Slot slot) {
    return Integer.toUnsignedLong(slot.slotID());
  }

  @Override
  public String toString() {
    return "\"%s\" in slot %d".formatted(info.trimmedLabel(), number(slot));
  }
}
