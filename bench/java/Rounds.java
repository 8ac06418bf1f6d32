import java.lang.management.CompilationMXBean;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * Measures subjects against each other in rounds: every round runs one batch of each, a few
 * milliseconds apart, and the next round starts with another one. What disturbs the machine for
 * longer than a round disturbs all of them alike, so ratios within a round stay true. Times are
 * processor time of the calling thread, user and system, so that waiting for a processor does not
 * count; nothing that is measured here waits for anything else.
 */
final class Rounds {
  /** What the results of all calls add up to, kept where the compiler cannot see it unused. */
  private static volatile long consumed;

  private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();

  private final int rounds;
  private final long batchNanos;
  private final long warmUpNanos;

  Rounds(int rounds, long batchMicros, long warmUpMillis) {
    this.rounds = rounds;
    this.batchNanos = batchMicros * 1_000;
    this.warmUpNanos = warmUpMillis * 1_000_000;
  }

  /**
   * Warms all subjects up, then measures them.
   *
   * @return nanoseconds per call for each subject, round by round
   */
  Map<String, double[]> measure(Map<String, Operation> subjects) throws Exception {
    List<String> names = List.copyOf(subjects.keySet());
    int[] calls = new int[names.size()];
    for (int s = 0; s < calls.length; s++) {
      warmUp(subjects.get(names.get(s)));
    }
    for (int s = 0; s < calls.length; s++) {
      calls[s] = batchSize(subjects.get(names.get(s)));
    }
    Map<String, double[]> times = new LinkedHashMap<>();
    names.forEach(name -> times.put(name, new double[rounds]));
    System.gc();
    for (int round = 0; round < rounds; round++) {
      for (int turn = 0; turn < calls.length; turn++) {
        int s = (round + turn) % calls.length;
        String name = names.get(s);
        times.get(name)[round] = (double) time(subjects.get(name), calls[s]) / calls[s];
      }
    }
    return times;
  }

  /** Runs until the compiler has had nothing to do for some batches. */
  private void warmUp(Operation operation) throws Exception {
    CompilationMXBean compiler = ManagementFactory.getCompilationMXBean();
    long start = System.nanoTime();
    int idle = 0;
    int calls = 1;
    while (idle < 5 || System.nanoTime() - start < warmUpNanos) {
      long before = compiler.getTotalCompilationTime();
      if (time(operation, calls) < batchNanos) {
        calls *= 2;
      }
      idle = compiler.getTotalCompilationTime() == before ? idle + 1 : 0;
      if (System.nanoTime() - start > 20 * warmUpNanos) {
        return;
      }
    }
  }

  private int batchSize(Operation operation) throws Exception {
    int calls = 1;
    while (true) {
      long nanos = time(operation, calls);
      if (nanos >= batchNanos) {
        return calls;
      }
      calls = (int) Math.max(calls * 2L, Math.min(calls * 8L, calls * batchNanos / (nanos + 1)));
    }
  }

  private static long time(Operation operation, int calls) throws Exception {
    long start = THREADS.getCurrentThreadCpuTime();
    long sum = operation.run(calls);
    long nanos = THREADS.getCurrentThreadCpuTime() - start;
    consumed += sum;
    return nanos;
  }

  /** The shortest time of one call over some attempts. */
  static double best(Operation operation, int calls, int attempts) throws Exception {
    double best = Double.MAX_VALUE;
    for (int i = 0; i < attempts; i++) {
      best = Math.min(best, (double) time(operation, calls) / calls);
    }
    return best;
  }

  static double median(double[] values) {
    double[] sorted = values.clone();
    Arrays.sort(sorted);
    int middle = sorted.length / 2;
    return sorted.length % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
  }

  /** The median of the ratios within each round. */
  static double ratio(double[] times, double[] reference) {
    double[] ratios = new double[times.length];
    for (int i = 0; i < ratios.length; i++) {
      ratios[i] = times[i] / reference[i];
    }
    return median(ratios);
  }

  /** The middle half of the ratios within each round: how far the median can be trusted. */
  static double spread(double[] times, double[] reference) {
    double[] ratios = new double[times.length];
    for (int i = 0; i < ratios.length; i++) {
      ratios[i] = times[i] / reference[i];
    }
    Arrays.sort(ratios);
    return ratios[ratios.length * 3 / 4] - ratios[ratios.length / 4];
  }
}
