// SPDX-License-Identifier: Apache-2.0
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.util.concurrent.Callable;
import java.util.function.Function;

/** One way to call a module. */
@FunctionalInterface
interface Subject {
  /** The folder of the built library; run.sh builds into its folder "bench". */
  String BUILD = System.getProperty("bench.build");

  /** Keeps the last result, so that the compiler cannot leave out the call that makes it. */
  Object[] KEPT = new Object[1];

  /** Runs one operation, over and over. */
  @FunctionalInterface
  interface Loop {
    void run(int calls) throws Exception;
  }

  Loop loop(Operation op);

  static Subject of(Function<Operation, Callable<?>> calls) {
    return op -> repeat(calls.apply(op));
  }

  /** Makes the loop around a call from Java, which is the same for all subjects. */
  static Loop repeat(Callable<?> call) {
    return calls -> {
      for (int i = 0; i < calls; i++) {
        KEPT[0] = call.call();
      }
    };
  }

  /**
   * Makes the loop around nothing. Call this before any measurement: it shows the compiler more
   * kinds of calls than the compiler tells apart, so that the loop favours none of the subjects.
   */
  static Loop empty() throws Exception {
    Loop[] loops = {repeat(() -> null), repeat(() -> KEPT), repeat(() -> "")};
    for (int i = 0; i < 30_000; i++) {
      loops[i % loops.length].run(10);
    }
    return loops[0];
  }

  /** Returns this library's Java half over a native library, in a class loader of its own. */
  @SuppressWarnings("unchecked")
  static Subject library(String nativeLibrary, String module) throws Exception {
    URL[] classes = {
      Path.of(BUILD, "classes").toUri().toURL(), Path.of(BUILD, "bench", "library").toUri().toURL()
    };
    Class<?> library =
        new URLClassLoader(classes, Subject.class.getClassLoader()).loadClass("Library");
    // The Java half reads the property when its first class is initialised, and only then.
    System.setProperty("it.quarvel.pkcs11.library", nativeLibrary);
    return of(
        (Function<Operation, Callable<?>>)
            library.getConstructor(String.class).newInstance(module));
  }
}
