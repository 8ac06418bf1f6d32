package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11TokenInfo;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.nio.charset.StandardCharsets;

/** Writes the PKCS#11 URI (RFC 7512) of a token or an object, as {@link PKCS11Uri} reads it. */
public final class Uris {
  private Uris() {}

  public static String of(PKCS11TokenInfo token) {
    return "pkcs11:" + text("model", token.model()) + text(";manufacturer", token.manufacturerID())
        + text(";serial", token.serialNumber()) + text(";token", token.trimmedLabel());
  }

  public static String of(PKCS11TokenInfo token, NativePKCS11Object object) {
    Attributes attributes = new Attributes(object);
    Object objectClass = attributes.value(CKA_CLASS, object::getIntAttributeValue);
    String type = objectClass instanceof Integer number ? PKCS11Uri.type(number) : null;
    return of(token) + part(";id", attributes.bytesOrNull(CKA_ID), true)
        + part(";object", attributes.bytesOrNull(CKA_LABEL), false)
        + (type == null ? "" : ";type=" + type);
  }

  private static String text(String name, String value) {
    return part(name, value.stripTrailing().getBytes(StandardCharsets.UTF_8), false);
  }

  private static String part(String name, byte[] value, boolean allEscaped) {
    if (value == null || value.length == 0 && name.startsWith(";id")) {
      return "";
    }
    StringBuilder all = new StringBuilder(name + "=");
    for (byte b : value) {
      boolean plain = !allEscaped && Character.toString(b & 0xFF).matches("[A-Za-z0-9._~-]");
      all.append(plain ? Character.toString(b) : "%%%02X".formatted(b));
    }
    return all.toString();
  }
}
