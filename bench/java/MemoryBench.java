import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;
import java.util.function.Function;

/**
 * The resident size of the process before and after many calls of each offered method: MemoryBench
 * MODULE LIBRARY CALLS RESULTS. Some methods write to standard output, so this does not.
 */
final class MemoryBench {
  private static final int PAGE_KIB = 4;

  private MemoryBench() {}

  @SuppressWarnings("unchecked")
  public static void main(String[] args) throws Exception {
    Map<String, Operation> operations =
        ((Function<String, Map<String, Operation>>) Subjects.load("Offered", args[1]))
            .apply(args[0]);
    int calls = Integer.parseInt(args[2]);
    Results results = new Results();
    // First all of them until compiled, so that the compiler's own memory is not counted.
    for (Operation operation : operations.values()) {
      operation.run(calls / 10);
    }
    long first = residentKiB();
    for (Map.Entry<String, Operation> entry : operations.entrySet()) {
      long before = residentKiB();
      entry.getValue().run(calls);
      long after = residentKiB();
      results.add(entry.getKey(), calls, before, after);
    }
    long last = residentKiB();
    results.write(args[3]);
    System.err.printf(
        "%d calls of each of %d methods: resident size %,d KiB before, %,d KiB after%n",
        calls, operations.size(), first, last);
  }

  private static long residentKiB() throws IOException {
    System.gc();
    String pages = Files.readString(Path.of("/proc/self/statm")).split(" ")[1];
    return Long.parseLong(pages) * PAGE_KIB;
  }
}
