// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.nio.charset.StandardCharsets;
import java.util.*;
import picocli.CommandLine.Option;

/** A command about objects of one token. An option takes the place of the URI's attribute. */
abstract class ObjectCommand extends TokenCommand {
  private PKCS11Uri object = PKCS11Uri.ANY;

  /** Passes the label on as bytes, which keep trailing blanks. */
  @Option(names = "--label", paramLabel = "LABEL", description = "The object's label.")
  void label(String text) {
    object = object.with("object", text.getBytes(StandardCharsets.UTF_8));
  }

  @Option(names = "--id", paramLabel = "HEX",
      description = "The object's id, in hexadecimal digits.")
  void id(String digits) {
    try {
      object = object.with("id", HexFormat.of().parseHex(digits.replace(":", "")));
    } catch (IllegalArgumentException e) {
      throw new IllegalArgumentException("an id is pairs of hexadecimal digits, as in 01af");
    }
  }

  @Option(names = "--type", paramLabel = "TYPE",
      description = "cert, data, private, public or secret-key.")
  void type(String name) {
    object = object.with("type", name);
  }

  @Override
  final PKCS11Uri uri() {
    return super.uri().with(object);
  }

  /** Tells whether the user names an object, by its label or id. */
  final boolean isNamed() {
    return uri().object() != null || uri().id() != null;
  }

  /** Refuses to guess which object is meant. */
  final void requireName() throws Failure {
    if (!isNamed()) {
      throw Failure.usage("which key or object? Name it by --label, --id or --uri");
    }
  }

  /** Finds the one key that is meant, a private one unless a type is given. */
  final NativePKCS11Object key(Connection connection) throws Failure {
    PKCS11Template template = uri().template();
    boolean typed = uri().objectClass() != null;
    return only(connection.find(typed ? template : template.put(CKA_CLASS, CKO_PRIVATE_KEY), 2),
        typed ? "key" : "private key (--type names other kinds)");
  }

  /** Returns the only thing that was found, and fails if there is none or there are more. */
  static <T> T only(Collection<T> found, String what) throws Failure {
    if (found.size() == 1) {
      return found.iterator().next();
    }
    throw new Failure(found.isEmpty()
        ? "no such %s on the token: \"objects --login\" lists what there is".formatted(what)
        : "more than one key or object of that name: add --label, --id or --type");
  }
}
