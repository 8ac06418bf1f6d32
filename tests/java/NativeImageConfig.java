import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** Looks up every class and member that the metadata for native-image names. */
class NativeImageConfig {
  private static final Pattern NAME =
      Pattern.compile("\"name\": \"([^\"]+)\"(?:, \"parameterTypes\": \\[(.*?)]})?");

  public static void main(String[] args) throws Exception {
    int members = 0;
    for (String line : Files.readAllLines(Path.of(args[0]))) {
      Matcher matcher = NAME.matcher(line);
      if (!matcher.find()) {
        continue;
      }
      Class<?> owner = Class.forName(matcher.group(1));
      for (; matcher.find(); members++) {
        if (matcher.group(2) == null) {
          owner.getDeclaredField(matcher.group(1));
        } else if (matcher.group(1).equals("<init>")) {
          owner.getDeclaredConstructor(types(matcher.group(2)));
        } else {
          owner.getDeclaredMethod(matcher.group(1), types(matcher.group(2)));
        }
      }
    }
    if (members == 0) {
      throw new IllegalStateException("no member named");
    }
  }

  private static Class<?>[] types(String names) {
    return Arrays.stream(names.replaceAll("[\" ]", "").split(","))
        .filter(name -> !name.isEmpty())
        .map(NativeImageConfig::type)
        .toArray(Class<?>[]::new);
  }

  private static Class<?> type(String name) {
    try {
      return switch (name) {
        case "int" -> int.class;
        case "boolean" -> boolean.class;
        case "byte[]" -> byte[].class;
        default -> Class.forName(name);
      };
    } catch (ClassNotFoundException e) {
      throw new IllegalArgumentException(e);
    }
  }
}
