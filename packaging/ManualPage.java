// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.cli.Main;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import picocli.CommandLine;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Model.OptionSpec;

/**
 * Prints the inspector's manual page: ManualPage.java TEMPLATE. The descriptions of its commands and
 * options replace the lines .COMMANDS and .OPTIONS of the template.
 */
final class ManualPage {
  public static void main(String[] args) throws Exception {
    CommandSpec all = CommandSpec.forAnnotatedObject(Main.class);
    Map<String, CommandSpec> commands = new LinkedHashMap<>();
    all.subcommands().forEach((name, command) -> {
      if (!command.getCommandSpec().usageMessage().hidden()) {
        commands.put(name, command.getCommandSpec());
      }
    });
    String page = Files.readString(Path.of(args[0]))
        .replace(".COMMANDS\n", commands.values().stream().map(ManualPage::command)
            .collect(Collectors.joining()))
        .replace(".OPTIONS\n", options(commands));
    System.out.write(page.getBytes("UTF-8"));
    System.out.flush();
  }

  private static String command(CommandSpec command) {
    return paragraph("\\fB" + escape(command.name()) + "\\fR", command.usageMessage().description());
  }

  /** Describes every option once, in the order of its name, and says which commands have it. */
  private static String options(Map<String, CommandSpec> commands) {
    Map<String, OptionSpec> options = new TreeMap<>();
    Map<String, List<String>> users = new LinkedHashMap<>();
    commands.forEach((name, command) -> command.options().forEach(option -> {
      options.put(option.longestName(), option);
      users.merge(option.longestName(), List.of(name),
          (some, one) -> Stream.concat(some.stream(), one.stream()).toList());
    }));
    return options.entrySet().stream().map(entry -> {
      OptionSpec option = entry.getValue();
      List<String> with = users.get(entry.getKey());
      String value = option.arity().max() == 0 ? "" : "=\\fI" + escape(option.paramLabel()) + "\\fR";
      String suffix = with.size() == commands.size() ? ""
          : " With " + String.join(", ", with) + ".";
      return paragraph("\\fB" + Stream.of(option.names()).map(ManualPage::escape)
          .collect(Collectors.joining("\\fR, \\fB")) + "\\fR" + value,
          String.join(" ", option.description()) + suffix);
    }).collect(Collectors.joining());
  }

  private static String paragraph(String title, String... texts) {
    return ".TP\n" + title + "\n" + escape(String.join(" ", texts)) + "\n";
  }

  private static String escape(String text) {
    return text.replace("\\", "\\e").replace("-", "\\-").replaceAll("(?m)^([.'])", "\\\\&$1");
  }
}
