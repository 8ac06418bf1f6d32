// SPDX-License-Identifier: Apache-2.0
import java.lang.reflect.Member;
import java.nio.file.*;
import java.util.*;
import java.util.regex.*;
import java.util.stream.Stream;

/** Looks up every class and member that the metadata for native-image names. */
class NativeImageConfig {
  private static final Pattern NAME =
      Pattern.compile("\"name\": \"([^\"]+)\"(?:, \"parameterTypes\": \\[(.*?)]})?");

  public static void main(String[] args) throws Exception {
    int members = 0;
    for (String line : Files.readAllLines(Path.of(args[0]))) {
      Matcher name = NAME.matcher(line);
      for (Class<?> owner = name.find() ? Class.forName(name.group(1)) : null; name.find(); members++) {
        String parameters =
            name.group(2) == null ? "" : "(" + name.group(2).replaceAll("[\" ]", "") + ")";
        String member = (" " + owner.getName() + "." + name.group(1) + parameters)
            .replace(".<init>", "");
        if (declared(owner).noneMatch(declared -> declared.endsWith(member))) {
          throw new NoSuchElementException(member);
        }
      }
    }
    if (members == 0) throw new IllegalStateException("no member named");
  }

  private static Stream<String> declared(Class<?> owner) {
    return Stream.<Member[]>of(
            owner.getDeclaredFields(), owner.getDeclaredConstructors(), owner.getDeclaredMethods())
        .flatMap(Arrays::stream).map(member -> " " + member.toString().replaceFirst(" throws .*", ""));
  }
}
