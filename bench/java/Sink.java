/** Where results go, so that the compiler must make every part of them. */
public final class Sink {
  private static Object kept;

  private Sink() {}

  /** Keeps the result until the next one. */
  public static <T> T keep(T result) {
    kept = result;
    return result;
  }

  /** The last result. */
  public static Object kept() {
    return kept;
  }
}
