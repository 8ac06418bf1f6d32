import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.function.Function;
import java.util.function.IntFunction;

/** How cost grows with size, on the instant module: GrowthBench MODULE LIBRARY FLOOR RESULTS. */
public final class GrowthBench {
  public static final String SEARCH = "objects found by a search";
  public static final String TEMPLATE = "attributes of a template";

  private static final int ATTEMPTS = 7;
  private static final long ATTEMPT_CALLS = 20_000; // elements in one attempt, at least

  private GrowthBench() {}

  public static void main(String[] args) throws Exception {
    Map<String, Map<String, IntFunction<Operation>>> subjects =
        Map.of(
            InstantBench.LIBRARY, growth(args[1], args[0]),
            InstantBench.FLOOR, growth(args[2], args[0]));
    Results results = new Results();
    for (String subject : List.of(InstantBench.LIBRARY, InstantBench.FLOOR)) {
      measure(subject, SEARCH, subjects.get(subject).get(SEARCH), 100, 1_000_000, results);
      measure(subject, TEMPLATE, subjects.get(subject).get(TEMPLATE), 1, 100_000, results);
    }
    results.write(args[3]);
  }

  @SuppressWarnings("unchecked")
  private static Map<String, IntFunction<Operation>> growth(String library, String module)
      throws Exception {
    return ((Function<String, Map<String, IntFunction<Operation>>>)
            Subjects.load("Growth", library))
        .apply(module);
  }

  private static void measure(
      String subject, String what, IntFunction<Operation> operation, int least, int most,
      Results results)
      throws Exception {
    List<double[]> points = new ArrayList<>();
    Rounds.best(operation.apply(least), 50_000 / least + 2_000, 2);
    for (int size = least; size <= most; size *= 10) {
      int calls = (int) Math.max(1, ATTEMPT_CALLS / size);
      double nanos = Rounds.best(operation.apply(size), calls, ATTEMPTS);
      points.add(new double[] {size, nanos});
      results.add("point", subject, what, size, nanos);
    }
    double exponent = exponent(points);
    results.add("exponent", subject, what, exponent);
    System.out.printf("%-8s %-28s exponent %.3f%n", subject, what, exponent);
  }

  /** The slope of log cost over log size, by least squares. */
  static double exponent(List<double[]> points) {
    double meanX = points.stream().mapToDouble(p -> Math.log(p[0])).average().orElseThrow();
    double meanY = points.stream().mapToDouble(p -> Math.log(p[1])).average().orElseThrow();
    double covariance = 0;
    double variance = 0;
    for (double[] point : points) {
      double x = Math.log(point[0]) - meanX;
      covariance += x * (Math.log(point[1]) - meanY);
      variance += x * x;
    }
    return covariance / variance;
  }
}
