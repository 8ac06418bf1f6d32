// SPDX-License-Identifier: Apache-2.0
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.Stream;

/** Measures what the adapter adds to a call, and how many signatures threads make through it. */
final class Adapter {
  private static final String FILE = Subject.BUILD + "/adapter/libquarvelpkcs11adapter.so";
  private static final int ROUNDS = 21;
  private static final long WINDOW = 400_000_000; // nanoseconds
  private static final int STEP = 10; // calls between two looks at the clock
  private static final int LONG_STEP = 10_000; // the same for calls of some nanoseconds

  private Adapter() {}

  /** Prints the times of a C program's calls, direct and adapted, of one thread and two. */
  static void onInstantModule(Rounds rounds) throws Exception {
    String module = Table.BENCH + "instantModule.so";
    Subject library = Subject.library(Table.LIBRARY, FILE);
    library.loop(Operation.of("", Operation.Kind.OPEN_SESSION, 0)).run(1);
    int session = (int) Subject.KEPT[0];
    library.loop(Operation.of("", Operation.Kind.GENERATE_KEY, 0).in(session)).run(1);
    int key = (int) Subject.KEPT[0];
    print(rounds, 1, Operation.of("C_Logout", Operation.Kind.LOGIN, 0).in(session), module);
    print(rounds, 2, new Operation(
        "C_SignInit and C_Sign", Operation.Kind.SIGN, session, key, 0, new byte[32], 256), module);
  }

  private static void print(Rounds rounds, int calls, Operation op, String module) throws Exception {
    Subject[] subjects = {
      new Bare(Table.BENCH + "libfloor.so", module), new Bare(Table.BENCH + "libfloor.so", FILE)
    };
    Rounds.Times[] times = rounds.measure(op, subjects);
    double[][] rates = new double[2][ROUNDS];
    for (int round = 0; round < ROUNDS; round++) {
      for (int i = 0; i < subjects.length; i++) {
        rates[i][round] = rate(subjects[i], op, new int[] {op.session(), op.session()}, LONG_STEP);
      }
    }
    Stream.of(rates).forEach(Arrays::sort);
    System.out.printf("| %s, %s | %.1f | %.1f | %.1f | %.1f |%n", op.label(),
        System.getProperty("bench.handles"), times[0].median() / calls, times[1].median() / calls,
        2e9 / rates[0][ROUNDS / 2] / calls, 2e9 / rates[1][ROUNDS / 2] / calls);
  }

  /** Prints signatures a second: the medians over rounds in which the subjects take turns. */
  static void onToken(String module, String pin) throws Exception {
    Subject through = Subject.library(Table.LIBRARY, FILE);
    JdkWrapper jdk = new JdkWrapper(module, false);
    Subject bare = new Bare(Table.BENCH + "libfloor.so", module);
    RealToken token = new RealToken(jdk.p11, pin);
    int[] sessions = {token.openSession(), token.openSession()};
    for (Operation op : token.operations().subList(0, 2)) {
      for (int threads = 1; threads <= sessions.length; threads++) {
        double[][] rates = new double[3][ROUNDS];
        for (int round = -1; round < ROUNDS; round++) { // one round more, to warm up
          int i = 0;
          for (Subject subject : List.of(through, Subject.of(jdk), bare)) {
            rates[i++][Math.max(round, 0)] = rate(subject, op, Arrays.copyOf(sessions, threads), STEP);
          }
        }
        Stream.of(rates).forEach(Arrays::sort);
        System.out.printf("| %s, threads: %d | %,.0f | %,.0f | %,.0f |%n", op.label(), threads,
            rates[0][ROUNDS / 2], rates[1][ROUNDS / 2], rates[2][ROUNDS / 2]);
      }
    }
  }

  /** Runs an operation for a while, a thread in each session, and returns the calls a second. */
  private static double rate(Subject subject, Operation op, int[] sessions, int step)
      throws Exception {
    ExecutorService pool = Executors.newFixedThreadPool(sessions.length);
    long start = System.nanoTime();
    List<Future<Integer>> threads = new ArrayList<>();
    for (int session : sessions) {
      Subject.Loop loop = subject.loop(op.in(session));
      threads.add(pool.submit(() -> {
        int calls = 0;
        for (; System.nanoTime() - start < WINDOW; calls += step) {
          loop.run(step);
        }
        return calls;
      }));
    }
    int calls = 0;
    for (Future<Integer> thread : threads) {
      calls += thread.get();
    }
    double seconds = (System.nanoTime() - start) / 1e9;
    pool.shutdown();
    return calls / seconds;
  }
}
