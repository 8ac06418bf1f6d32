import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.LocalDate;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/** Writes performance.md and the charts' data from what the programs left: Report RESULTS DOCS. */
final class Report {
  private static final int LINE_WIDTH = 96;

  /** One row of a measurement: median time, times the reference, the library's share of it. */
  private record Cell(double nanos, double ratio, double share, double spread) {}

  private final Path results;
  private final StringBuilder text = new StringBuilder();
  private final Map<String, Map<String, Cell>> instant;
  private final Map<String, Map<String, Cell>> token;
  private final Map<String, Map<String, Cell>> tokenKeepingMemory;

  private Report(Path results) throws IOException {
    this.results = results;
    instant = cells("instant.tsv");
    token = cells("token.tsv");
    tokenKeepingMemory = cells("tokenKeepingMemory.tsv");
  }

  public static void main(String[] args) throws IOException {
    Report report = new Report(Path.of(args[0]));
    report.intro();
    report.instantTable();
    report.tokenTable();
    report.growth();
    report.memory();
    report.explanation();
    Files.writeString(Path.of(args[1], "performance.md"), report.text);
    report.ratioData();
  }

  private Map<String, Map<String, Cell>> cells(String file) throws IOException {
    Map<String, Map<String, Cell>> cells = new LinkedHashMap<>();
    for (String[] row : Results.read(results.resolve(file))) {
      cells
          .computeIfAbsent(row[0], op -> new LinkedHashMap<>())
          .put(row[1], new Cell(number(row[2]), number(row[3]), number(row[4]), number(row[5])));
    }
    return cells;
  }

  private static double number(String text) {
    return Double.parseDouble(text);
  }

  private void print(String format, Object... arguments) {
    text.append(String.format(Locale.ROOT, format, arguments)).append('\n');
  }

  /** Prints running text, filled to lines of one width, and an empty line. */
  private void paragraph(String format, Object... arguments) {
    int column = 0;
    for (String word : String.format(Locale.ROOT, format, arguments).strip().split("\\s+")) {
      boolean fits = column + 1 + word.length() <= LINE_WIDTH;
      text.append(column == 0 ? "" : fits ? " " : "\n").append(word);
      column = fits && column > 0 ? column + 1 + word.length() : word.length();
    }
    text.append("\n\n");
  }

  private void intro() throws IOException {
    print("# Performance%n");
    paragraph("Written by `./dev bench` on %s. %s", LocalDate.now(), machine());
    paragraph(
        """
        All subjects run in one virtual machine, each in a class loader of its own, warmed up until
        the compiler is idle. They take turns in rounds of a few milliseconds each; every ratio is
        the median of the ratios within a round, so that what disturbs the machine disturbs both
        sides of it. Times are processor time of the calling thread. `./dev bench --quick` prints
        the ratios in under a minute.
        """);
  }

  private static String machine() throws IOException {
    String model =
        Files.readAllLines(Path.of("/proc/cpuinfo")).stream()
            .filter(line -> line.startsWith("model name"))
            .map(line -> line.substring(line.indexOf(':') + 1).strip())
            .findFirst()
            .orElse("unknown processor");
    return "%s, %d cores, %s, %s %s."
        .formatted(
            model,
            Runtime.getRuntime().availableProcessors(),
            System.getProperty("os.name") + " " + System.getProperty("os.version"),
            System.getProperty("java.vm.name"),
            System.getProperty("java.vm.version"));
  }

  private void instantTable() {
    print("## On a module that answers at once%n");
    paragraph(
        """
        What is left when the module costs nothing. The floor is a shim written by hand that makes
        the JNI calls that the contract of a method demands, and nothing else; "noise" is the floor
        measured against a second copy of itself. Below 1.00 this library is faster.
        """);
    print("![Cost of each operation against the floor](performance-ratios.svg)%n");
    print("| Operation | ns | / floor | noise | / JDK's wrapper | / JNA |");
    print("|---|---:|---:|---:|---:|---:|");
    for (Op op : Op.values()) {
      Map<String, Cell> row = instant.get(op.name());
      print(
          "| %s | %,.0f | %.2f | %.2f | %.2f | %.2f |",
          op.label,
          row.get(InstantBench.LIBRARY).nanos,
          row.get(InstantBench.LIBRARY).ratio,
          row.get(InstantBench.SECOND_FLOOR).ratio,
          row.get(InstantBench.JDK).share,
          row.get(InstantBench.JNA).share);
    }
    print(
        "| geometric mean | | %.3f | %.3f | | |%n",
        mean(InstantBench.LIBRARY), mean(InstantBench.SECOND_FLOOR));
    paragraph(
        """
        In a search the JDK's wrapper and the JNA binding ask for %d handles at a time and return
        plain numbers, where this library makes an object of each. The JDK's wrapper lends byte
        arrays to the module instead of copying them, which shows here in full, since this module
        does not look at the bytes.
        """,
        Workload.FIND_BATCH);
  }

  private double mean(String subject) {
    double sum = 0;
    for (Op op : Op.values()) {
      sum += Math.log(instant.get(op.name()).get(subject).ratio);
    }
    return Math.exp(sum / Op.values().length);
  }

  private void tokenTable() {
    print("## On SoftHSM2%n");
    paragraph(
        """
        What a user of a token in software sees; the slower the token, the less of this shows. The
        bare C calls run in a native loop.
        """);
    print("| Operation | µs | / bare C calls | JDK's wrapper / bare C calls |");
    print("|---|---:|---:|---:|");
    for (TokenOp op : TokenOp.values()) {
      Map<String, Cell> row = token.get(op.name());
      Cell own = row.get(InstantBench.LIBRARY);
      double jdk = row.get(InstantBench.JDK).ratio;
      print("| %s | %,.1f | %.3f | %.3f |", op.label, own.nanos / 1_000, own.ratio, jdk);
    }
    print("");
  }

  private void growth() throws IOException {
    List<String[]> rows = Results.read(results.resolve("growth.tsv"));
    print("## Growth%n");
    print("![Cost against size](performance-growth.svg)%n");
    paragraph(
        """
        The exponent of cost against size (1 is proportional), by least squares over the logarithms
        of all points; where fixed cost weighs on the small sizes it is below 1.
        """);
    print("| | this library | floor |");
    print("|---|---:|---:|");
    for (String what : List.of(GrowthBench.SEARCH, GrowthBench.TEMPLATE)) {
      print(
          "| %s | %.3f | %.3f |",
          what,
          exponent(rows, InstantBench.LIBRARY, what),
          exponent(rows, InstantBench.FLOOR, what));
    }
    print("");
    growthData(rows);
  }

  private static double exponent(List<String[]> rows, String subject, String what) {
    return rows.stream()
        .filter(r -> r[0].equals("exponent") && r[1].equals(subject) && r[2].equals(what))
        .mapToDouble(r -> number(r[3]))
        .findFirst()
        .orElseThrow();
  }

  private void growthData(List<String[]> rows) throws IOException {
    List<String> lines = new ArrayList<>();
    String series = "";
    for (String[] row : rows) {
      if (!row[0].equals("point")) {
        continue;
      }
      String name = row[2] + ", " + row[1];
      if (!name.equals(series)) {
        lines.addAll(series.isEmpty() ? List.of() : List.of("", ""));
        lines.add(name);
        series = name;
      }
      lines.add(row[3] + "\t" + number(row[4]) / 1_000);
    }
    Files.write(results.resolve("growth.dat"), lines);
  }

  private void memory() throws IOException {
    List<String[]> rows = Results.read(results.resolve("memory.tsv"));
    long most = Long.MIN_VALUE;
    String where = "";
    for (String[] row : rows) {
      long grown = Long.parseLong(row[3]) - Long.parseLong(row[2]);
      if (grown > most) {
        most = grown;
        where = row[0];
      }
    }
    long total =
        Long.parseLong(rows.get(rows.size() - 1)[3]) - Long.parseLong(rows.get(0)[2]);
    print("## Memory%n");
    int calls = Integer.parseInt(rows.get(0)[1]);
    paragraph(
        """
        Resident size of the process over %,d calls of each offered method, %d methods and variants
        in a row: %+,d KiB in all. The most that one of them added is %,d KiB (%s), that is %.3f
        bytes a call.
        """,
        calls,
        rows.size(),
        total,
        most,
        where,
        most * 1024.0 / calls);
  }

  private void explanation() {
    double found = nanos(Op.FIND_10000, InstantBench.LIBRARY) / 10_000;
    double jdkFound = nanos(Op.FIND_10000, InstantBench.JDK) / 10_000;
    double copied = nanos(Op.ENCRYPT_1M, InstantBench.LIBRARY) / 1_000;
    double large = token.get(TokenOp.AES_1M.name()).get(InstantBench.LIBRARY).ratio;
    double medium = token.get(TokenOp.AES_64K.name()).get(InstantBench.LIBRARY).ratio;
    double kept = tokenKeepingMemory.get(TokenOp.AES_1M.name()).get(InstantBench.LIBRARY).ratio;
    double integer = nanos(Op.GET_CLASS, InstantBench.LIBRARY);
    double bytes = nanos(Op.GET_ID, InstantBench.LIBRARY);
    double date = nanos(Op.GET_DATE, InstantBench.LIBRARY);
    print("## Where the contract costs time, and what a caller can do%n");
    paragraph(
        """
        **Classes, methods and fields are looked up by name on every use**, and nothing is kept
        between calls; that keeps the library free of global references and safe when its classes
        are unloaded. It is most of what the small calls above cost: an attribute read as an
        `Integer` takes %,.0f ns, as a `byte[]`, which needs no class, %,.0f ns, as a `Date`, which
        needs a formatter, %,.0f ns. Read an attribute once and keep the value. In templates every
        value is tested against `String`, `byte[]`, `Integer`, `Boolean`, `BigInteger` and `Date` in
        this order: a `String` or `byte[]` costs one or two class lookups, a `Date` eight and a
        formatter. A fixed date is cheaper as its eight digits in a `String`, a big number as a
        `byte[]` without its leading zero.
        """,
        integer, bytes, date);
    paragraph(
        """
        **A search fetches one handle at a time** and makes an object of each: %,.0f ns an object,
        against %,.0f ns where a hundred plain numbers come at once. Search with a template that is
        as narrow as possible, stop at the first object where one is wanted (`findFirst`), and keep
        the objects: they serve as long as their session is open.
        """,
        found, jdkFound);
    paragraph(
        """
        **Byte arrays are copied in and out**, both whole, before and after the call to the module:
        encrypting 1 MiB costs %,.0f µs beside the encryption. Only the length of the arrays counts,
        not how much of them is used, so give arrays that fit: an output array much larger than the
        result is copied twice for nothing. For `sign` and `decrypt` a known output size saves the
        call that asks for the length.
        """,
        copied);
    paragraph(
        """
        The copies are blocks of the C heap, and large ones may go back to the system after each
        call, to be cleared again page by page for the next. On SoftHSM2, 1 MiB at a time takes %.1f
        times the bare calls, 64 KiB %.2f times. So work in pieces of up to 64 KiB where the
        mechanism allows it, or let the C library keep its memory: with
        `MALLOC_MMAP_THRESHOLD_=33554432`, `MALLOC_TRIM_THRESHOLD_=67108864` and
        `MALLOC_TOP_PAD_=16777216` in the environment, 1 MiB takes %.2f times the bare calls.
        """,
        large, medium, kept);
  }

  private double nanos(Op op, String subject) {
    return instant.get(op.name()).get(subject).nanos;
  }

  private void ratioData() throws IOException {
    List<String> lines = new ArrayList<>();
    int row = 0;
    for (Op op : Op.values()) {
      Map<String, Cell> cells = instant.get(op.name());
      lines.add(
          "%s\t%d\t%.4f\t%.4f\t%.4f"
              .formatted(
                  op.label,
                  row++,
                  cells.get(InstantBench.LIBRARY).ratio,
                  cells.get(InstantBench.JDK).ratio,
                  cells.get(InstantBench.JNA).ratio));
    }
    Files.write(results.resolve("ratios.dat"), lines);
  }
}
