// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_LOGIN_REQUIRED;

import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.util.*;
import java.util.stream.Collectors;
import picocli.CommandLine.*;

/** Lists the objects of a token, each as the search yields it. */
@Command(name = "objects",
    description = {
      "List the objects of a token; private ones only after a login.",
      "A value that an object does not have is \"-\" where it was asked for; one that cannot be had"
          + " is shown as the reason in brackets, \"(sensitive)\" for instance."
    })
public final class ObjectsCommand extends ObjectCommand {
  @Mixin private UriOutput output;

  @Option(names = "--attribute", paramLabel = "NAME", converter = Names.Attribute.class,
      description = "Show this attribute too, for instance CKA_PUBLIC_EXPONENT. Can be repeated.")
  private List<Integer> attributes = List.of();

  @Override
  void run(Connection connection) throws Failure {
    for (int attribute : attributes) {
      connection.requireName(attribute);
    }
    TokenInSlot chosen = openSession(connection, 0, false);
    connection.search(uri().template(), object -> {
      show(chosen, object);
      return true;
    });
    output.end(program().out());
    if (!connection.isLoggedIn() && chosen.info().hasFlag(CKF_LOGIN_REQUIRED)) {
      program().message("private objects, if there are any, show after a login only: --login");
    }
  }

  private void show(TokenInSlot chosen, NativePKCS11Object object) throws Failure {
    String uri = output.needsUri() ? chosen.uri(object).toString() : "";
    Map<String, Object> values =
        output.isUriOnly() ? Map.of() : new Attributes(object).describe(attributes);
    List<String> inTitle = List.of("class", "keyType", "certificateType", "profile");
    String title = inTitle.stream().map(values::get).filter(Objects::nonNull).map(Object::toString)
        .collect(Collectors.joining(", "));
    output.item(program().out(), title, uri, values, Set.copyOf(inTitle));
  }
}
