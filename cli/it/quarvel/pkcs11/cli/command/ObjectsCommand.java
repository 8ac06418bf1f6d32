package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Output;
import it.quarvel.pkcs11.cli.console.Progress;
import it.quarvel.pkcs11.cli.option.Names;
import it.quarvel.pkcs11.cli.option.ObjectFilter;
import it.quarvel.pkcs11.cli.option.PinOptions;
import it.quarvel.pkcs11.cli.option.TokenOptions;
import it.quarvel.pkcs11.cli.token.Attributes;
import it.quarvel.pkcs11.cli.token.Connection;
import it.quarvel.pkcs11.cli.token.Token;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.stream.Collectors;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Option;

/** Lists the objects of a token, each as the search yields it. */
@Command(name = "objects",
    description = "List the objects of a token; private ones only after a login.")
public final class ObjectsCommand extends ModuleCommand {
  @Mixin private TokenOptions token;
  @Mixin private PinOptions pin;
  @Mixin private ObjectFilter filter;
  @Mixin private Output output;

  @Option(names = "--attribute", paramLabel = "NAME", converter = Names.Attribute.class,
      description = "Show this attribute too, for instance CKA_PUBLIC_EXPONENT. Can be repeated.")
  private List<Integer> attributes = List.of();

  @Override
  void run(Connection connection) throws Failure {
    Token chosen = token.choose(connection);
    connection.openSession(chosen.slot(), 0);
    if (pin.isAsked(token.uri())) {
      pin.login(program(), connection, chosen, token.uri());
    }
    Progress progress = new Progress(program().err());
    try {
      connection.search(
          filter.template(token.uri()),
          object -> {
            show(new Attributes(object).describe(attributes));
            progress.step();
            return true;
          });
    } finally {
      progress.end();
    }
    output.end(program().out());
  }

  private void show(Map<String, Object> values) throws Failure {
    List<String> inTitle = List.of("class", "keyType", "certificateType");
    String title = inTitle.stream().map(values::get).filter(Objects::nonNull).map(Object::toString)
        .collect(Collectors.joining(", "));
    output.item(program().out(), title, values, Set.copyOf(inTitle));
  }
}
