package it.quarvel.pkcs11.cli.token;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.nio.charset.StandardCharsets;
import java.util.regex.Pattern;

/**
 * A token and the slot it is in.
 *
 * @param slot the slot
 * @param info what the token says of itself
 */
public record Token(NativePKCS11Slot slot, PKCS11TokenInfo info) {
  /** What the four bytes of a character above U+FFFF arrive as. */
  private static final Pattern FOUR_BYTES = Pattern.compile("[\u00F0-\u00F4][\u0080-\u00BF]{3}");

  /** Reads what the token in a slot says of itself. */
  public static Token of(NativePKCS11Slot slot) throws PKCS11Exception {
    PKCS11TokenInfo i = slot.getTokenInfo();
    return new Token(slot, new PKCS11TokenInfo(whole(i.label()), i.manufacturerID(), i.model(),
        i.serialNumber(), i.flags(), i.maxSessionCount(), i.sessionCount(), i.maxRwSessionCount(),
        i.rwSessionCount(), i.maxPinLen(), i.minPinLen(), i.totalPublicMemory(),
        i.freePublicMemory(), i.totalPrivateMemory(), i.freePrivateMemory(), i.hardwareVersion(),
        i.firmwareVersion(), i.utcTime()));
  }

  /** Returns the number of a slot as modules mean it, never negative. */
  public static long number(NativePKCS11Slot slot) {
    return Integer.toUnsignedLong(slot.slotID());
  }

  private static String whole(String label) {
    return FOUR_BYTES.matcher(label).replaceAll(match -> new String(
        match.group().getBytes(StandardCharsets.ISO_8859_1), StandardCharsets.UTF_8));
  }

  @Override
  public String toString() {
    return "\"%s\" in slot %d".formatted(info.trimmedLabel(), number(slot));
  }
}
