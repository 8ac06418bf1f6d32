import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/** Tables that one program of the benchmark leaves for the report: lines of tab-separated cells. */
final class Results {
  private final List<String> lines = new ArrayList<>();

  void add(Object... cells) {
    List<String> texts = new ArrayList<>();
    for (Object cell : cells) {
      texts.add(cell instanceof Double d ? String.format(Locale.ROOT, "%.6g", d) : cell.toString());
    }
    lines.add(String.join("\t", texts));
  }

  void write(String file) {
    try {
      Files.write(Path.of(file), lines);
    } catch (IOException e) {
      throw new UncheckedIOException(e);
    }
  }

  static List<String[]> read(Path file) throws IOException {
    return Files.readAllLines(file).stream().map(line -> line.split("\t")).toList();
  }
}
