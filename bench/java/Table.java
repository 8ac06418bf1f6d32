// SPDX-License-Identifier: Apache-2.0
import java.util.List;

/**
 * Prints one table of docs/performance.md: Table instant | growth | token | adapter | threads. The
 * two tables on a token read the variables of tests/token.sh. The property bench.only picks
 * operations by a word, bench.quick shortens the measurement.
 */
final class Table {
  static final String LIBRARY = Subject.BUILD + "/libquarvelpkcs11.so";
  static final String BENCH = Subject.BUILD + "/bench/";

  private Table() {}

  public static void main(String[] args) throws Exception {
    double loop = new Rounds(51, 4_000, 300).measure(Subject.empty())[0].median();
    switch (args[0]) {
      case "instant" -> {
        String means = onInstantModule(Operation.instant(), new Rounds(101, 4_000, 300));
        System.out.printf(
            "%n%s%nThe loop around each call takes %.1f ns of its time.%n", means, loop);
      }
      case "growth" -> onInstantModule(Operation.growth(), new Rounds(25, 4_000, 300));
      case "adapter" -> Adapter.onInstantModule(new Rounds(101, 4_000, 300));
      case "threads" ->
          Adapter.onToken(System.getenv("QUARVEL_PKCS11_MODULE"), System.getenv("QUARVEL_PIN"));
      default -> onToken(System.getenv("QUARVEL_PKCS11_MODULE"), System.getenv("QUARVEL_PIN"));
    }
  }

  private static String onInstantModule(List<Operation> operations, Rounds rounds)
      throws Exception {
    String module = BENCH + "instantModule.so";
    Subject library = Subject.library(LIBRARY, module);
    Subject floor = Subject.library(BENCH + "libfloor.so", module);
    Subject secondFloor = Subject.library(BENCH + "libsecondfloor.so", module);
    Subject jdk = Subject.of(new JdkWrapper(module, true));
    return print(operations, rounds, "floor", library, floor, secondFloor, jdk);
  }

  private static void onToken(String module, String pin) throws Exception {
    Subject library = Subject.library(LIBRARY, module);
    JdkWrapper jdk = new JdkWrapper(module, false);
    Subject bare = new Bare(BENCH + "libfloor.so", module);
    List<Operation> operations = new RealToken(jdk.p11, pin).operations();
    print(operations, new Rounds(51, 20_000, 500), "bare C", library, bare, bare, Subject.of(jdk));
  }

  /**
   * Prints a row for each operation. The subjects are this library, the reference, the reference
   * again and the JDK's wrapper.
   *
   * @return the geometric means of this library's ratios and of the noise
   */
  private static String print(
      List<Operation> operations, Rounds rounds, String reference, Subject... subjects)
      throws Exception {
    double logSum = 0;
    double noiseLogSum = 0;
    int rows = 0;
    System.out.printf(
        "| Operation | ns | / %s | ± | noise | JDK's wrapper / %s |%n", reference, reference);
    System.out.println("|---|---:|---:|---:|---:|---:|");
    for (Operation op : operations) {
      if (!op.label().contains(System.getProperty("bench.only", ""))) {
        continue;
      }
      Rounds.Times[] times = rounds.measure(op, subjects);
      double ratio = times[0].over(times[1]);
      double noise = times[2].over(times[1]);
      System.out.printf(
          "| %-40s | %,13.0f | %.3f | %.3f | %.3f | %.3g |%n",
          op.label(), times[0].median(), ratio, times[0].spread(times[1]), noise,
          times[3].over(times[1]));
      logSum += Math.log(ratio);
      noiseLogSum += Math.log(noise);
      rows++;
    }
    return "Geometric mean over the %s: %.3f, of the noise %.3f."
        .formatted(reference, Math.exp(logSum / rows), Math.exp(noiseLogSum / rows));
  }
}
