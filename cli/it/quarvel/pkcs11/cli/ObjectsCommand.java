package it.quarvel.pkcs11.cli;

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
final class ObjectsCommand extends ModuleCommand {
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
      pin.login(main(), connection, chosen, token.uri());
    }
    Progress progress = new Progress(main().err());
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
    output.end(main().out());
  }

  private void show(Map<String, Object> values) throws Failure {
    List<String> inTitle = List.of("class", "keyType", "certificateType");
    String title = inTitle.stream().map(values::get).filter(Objects::nonNull).map(Object::toString)
        .collect(Collectors.joining(", "));
    output.item(main().out(), title, values, Set.copyOf(inTitle));
  }
}
