import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;

/**
 * This library, the floor, the JDK's wrapper and a JNA binding in one virtual machine, on a module
 * that answers at once: InstantBench MODULE LIBRARY FLOOR SECOND_FLOOR RESULTS [--quick]
 * [--only WORD], the latter for the operations whose description holds the word.
 */
final class InstantBench {
  static final String LIBRARY = "library";
  static final String FLOOR = "floor";
  static final String SECOND_FLOOR = "second floor";
  static final String JDK = "JDK";
  static final String JNA = "JNA";

  private static final double FLOOR_TARGET = 1.08;
  private static final double FLOOR_MEAN_TARGET = 1.03;

  private InstantBench() {}

  public static void main(String[] args) throws Exception {
    List<String> options = List.of(args).subList(5, args.length);
    boolean quick = options.contains("--quick");
    int only = options.indexOf("--only");
    String word = only < 0 ? "" : options.get(only + 1);
    List<Op> ops = Stream.of(Op.values()).filter(op -> op.label.contains(word)).toList();
    Rounds rounds = quick ? new Rounds(15, 1_000, 100) : new Rounds(101, 4_000, 300);
    String module = args[0];
    Map<String, Map<Op, Operation>> subjects = new LinkedHashMap<>();
    subjects.put(LIBRARY, Subjects.binding(args[1], module));
    subjects.put(FLOOR, Subjects.binding(args[2], module));
    subjects.put(SECOND_FLOOR, Subjects.binding(args[3], module));
    subjects.put(JDK, JdkBinding.operations(module));
    subjects.put(JNA, JnaBinding.operations(module));

    System.out.printf(
        "%-42s %9s %8s %8s %8s %8s %8s%n",
        "", "ns", "/ floor", "+-", "floor's", "/ JDK", "/ JNA");
    Results results = new Results();
    double logSum = 0;
    double floorLogSum = 0;
    for (Op op : ops) {
      Map<String, double[]> times = rounds.measure(of(op, subjects));
      double[] library = times.get(LIBRARY);
      double[] floor = times.get(FLOOR);
      double ratio = Rounds.ratio(library, floor);
      double floorRatio = Rounds.ratio(times.get(SECOND_FLOOR), floor);
      double jdkRatio = Rounds.ratio(library, times.get(JDK));
      logSum += Math.log(ratio);
      floorLogSum += Math.log(floorRatio);
      System.out.printf(
          "%-42s %9.0f %8.3f %8.3f %8.3f %8.3f %8.3f  %s%n",
          op.label,
          Rounds.median(library),
          ratio,
          Rounds.spread(library, floor),
          floorRatio,
          jdkRatio,
          Rounds.ratio(library, times.get(JNA)),
          verdict(op, ratio, jdkRatio));
      for (String name : subjects.keySet()) {
        double[] own = times.get(name);
        results.add(
            op.name(), name, Rounds.median(own), Rounds.ratio(own, floor),
            Rounds.ratio(library, own), Rounds.spread(own, floor));
      }
    }
    double mean = Math.exp(logSum / ops.size());
    System.out.printf(
        "geometric mean against the floor: %.3f%s; floor against floor: %.3f%n",
        mean,
        mean > FLOOR_MEAN_TARGET ? ", above " + FLOOR_MEAN_TARGET : "",
        Math.exp(floorLogSum / ops.size()));
    results.write(args[4]);
  }

  private static Map<String, Operation> of(Op op, Map<String, Map<Op, Operation>> subjects) {
    Map<String, Operation> operations = new LinkedHashMap<>();
    subjects.forEach((name, all) -> operations.put(name, all.get(op)));
    return operations;
  }

  private static String verdict(Op op, double ratio, double jdkRatio) {
    String floor = ratio > FLOOR_TARGET ? "above " + FLOOR_TARGET + " of the floor" : "";
    String jdk = jdkRatio > op.jdkTarget ? "above " + op.jdkTarget + " of the JDK" : "";
    return floor + (floor.isEmpty() || jdk.isEmpty() ? "" : ", ") + jdk;
  }
}
