// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.option;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.PKCS11Uri;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.nio.charset.StandardCharsets;
import java.util.HexFormat;
import java.util.List;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Option;
import picocli.CommandLine.TypeConversionException;

/** Which objects a command is about. An option counts more than what the URI says. */
public final class ObjectFilter {
  /** Only checks: an option of type byte[] would be a list of bytes. */
  private static final class IdConverter implements ITypeConverter<String> {
    @Override
    public String convert(String value) {
      try {
        String digits = value.replace(":", "");
        HexFormat.of().parseHex(digits);
        return digits;
      } catch (IllegalArgumentException e) {
        throw new TypeConversionException("an id is pairs of hexadecimal digits, as in 01af");
      }
    }
  }

  private static final class TypeConverter implements ITypeConverter<Integer> {
    @Override
    public Integer convert(String value) {
      try {
        return PKCS11Uri.objectClass(value);
      } catch (IllegalArgumentException e) {
        throw new TypeConversionException(e.getMessage());
      }
    }
  }

  @Option(names = "--label", paramLabel = "LABEL", description = "The object's label.")
  private String label;

  @Option(names = "--id", paramLabel = "HEX", converter = IdConverter.class,
      description = "The object's id, in hexadecimal digits.")
  private String id;

  @Option(names = "--type", paramLabel = "TYPE", converter = TypeConverter.class,
      description = "cert, data, private, public or secret-key.")
  private Integer type;

  /** Tells whether a single object is meant. */
  public boolean isNamed(PKCS11Uri uri) {
    return label != null || id != null || uri.object() != null || uri.id() != null;
  }

  /** Tells whether only objects of one type are meant. */
  public boolean isTyped() {
    return type != null;
  }

  /** Returns what to search for; labels go as bytes, which keeps all of UTF-8 as it is. */
  public PKCS11Template template(PKCS11Uri uri) {
    PKCS11Template template = new PKCS11Template();
    byte[] text = label == null ? uri.object() : label.getBytes(StandardCharsets.UTF_8);
    if (text != null) {
      template.put(CKA_LABEL, text);
    }
    byte[] wanted = id == null ? uri.id() : HexFormat.of().parseHex(id);
    if (wanted != null) {
      template.put(CKA_ID, wanted);
    }
    Integer objectClass = objectClass(uri);
    if (objectClass != null) {
      template.put(CKA_CLASS, objectClass);
    }
    return template;
  }

  /** Finds the one key that is meant, a private one unless a type is given. */
  public NativePKCS11Object key(Connection connection, PKCS11Uri uri) throws Failure {
    PKCS11Template template = template(uri);
    if (objectClass(uri) == null) {
      template.put(CKA_CLASS, CKO_PRIVATE_KEY);
    }
    List<NativePKCS11Object> keys = connection.find(template, 2);
    if (keys.size() != 1) {
      throw new Failure(keys.isEmpty()
          ? "no such key on the token: \"objects --login\" lists what there is"
          : "more than one key of that name: add --label, --id or --type");
    }
    return keys.get(0);
  }

  private Integer objectClass(PKCS11Uri uri) {
    return type != null ? type : uri.objectClass();
  }
}
