// SPDX-License-Identifier: Apache-2.0
import java.lang.management.CompilationMXBean;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.Arrays;
import java.util.stream.IntStream;
import java.util.stream.Stream;

/**
 * Measures subjects against each other in rounds: every round runs one batch of each, a few
 * milliseconds apart, and the next round starts with another one. A disturbance of the machine that
 * is longer than a round hits all of them alike, so ratios within a round stay true. Times are
 * processor time of the calling thread, user and system, so that waiting for a processor does not
 * count; the operations wait for nothing else.
 */
final class Rounds {
  /** Nanoseconds per call, round by round. */
  record Times(double[] nanos) {
    double median() {
      return quantile(nanos, 2);
    }

    /** Returns the median of the ratios within each round. */
    double over(Times reference) {
      return quantile(ratios(reference), 2);
    }

    /** Returns half the width of the middle half of the ratios: how good their median is. */
    double spread(Times reference) {
      return (quantile(ratios(reference), 3) - quantile(ratios(reference), 1)) / 2;
    }

    private double[] ratios(Times reference) {
      return IntStream.range(0, nanos.length)
          .mapToDouble(i -> nanos[i] / reference.nanos[i])
          .toArray();
    }

    private static double quantile(double[] values, int quarters) {
      double[] sorted = values.clone();
      Arrays.sort(sorted);
      return sorted[sorted.length * quarters / 4];
    }
  }

  private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();

  private final int rounds;
  private final long batchNanos;
  private final long warmUpNanos;

  /** Takes the lengths of a measurement, a quarter of each with the property bench.quick. */
  Rounds(int rounds, long batchMicros, long warmUpMillis) {
    int part = Boolean.getBoolean("bench.quick") ? 4 : 1;
    this.rounds = rounds / part;
    this.batchNanos = batchMicros * 1_000 / part;
    this.warmUpNanos = warmUpMillis * 1_000_000 / part;
  }

  Times[] measure(Operation op, Subject... subjects) throws Exception {
    return measure(Stream.of(subjects).map(s -> s.loop(op)).toArray(Subject.Loop[]::new));
  }

  /** Warms all loops up, then measures them. */
  Times[] measure(Subject.Loop... loops) throws Exception {
    int[] calls = new int[loops.length];
    Times[] times = new Times[loops.length];
    for (Subject.Loop loop : loops) {
      warmUp(loop);
    }
    for (int i = 0; i < loops.length; i++) {
      calls[i] = batchSize(loops[i]);
      times[i] = new Times(new double[rounds]);
    }
    System.gc();
    for (int round = 0; round < rounds; round++) {
      for (int turn = 0; turn < loops.length; turn++) {
        int i = (round + turn) % loops.length;
        times[i].nanos[round] = (double) time(loops[i], calls[i]) / calls[i];
      }
    }
    return times;
  }

  /** Runs a loop until the compiler has had nothing to do for some batches. */
  private void warmUp(Subject.Loop loop) throws Exception {
    CompilationMXBean compiler = ManagementFactory.getCompilationMXBean();
    long start = System.nanoTime();
    long passed = 0;
    int idle = 0;
    while ((idle < 5 || passed < warmUpNanos) && passed < 20 * warmUpNanos) {
      long before = compiler.getTotalCompilationTime();
      batchSize(loop);
      idle = compiler.getTotalCompilationTime() == before ? idle + 1 : 0;
      passed = System.nanoTime() - start;
    }
  }

  private int batchSize(Subject.Loop loop) throws Exception {
    int calls = 1;
    while (time(loop, calls) < batchNanos) {
      calls *= 2;
    }
    return calls;
  }

  private static long time(Subject.Loop loop, int calls) throws Exception {
    long start = THREADS.getCurrentThreadCpuTime();
    loop.run(calls);
    return THREADS.getCurrentThreadCpuTime() - start;
  }
}
