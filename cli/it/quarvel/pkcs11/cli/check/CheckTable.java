package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.CKR_FUNCTION_NOT_SUPPORTED;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Output;
import it.quarvel.pkcs11.cli.console.Stdout;
import it.quarvel.pkcs11.cli.console.Terminal;
import it.quarvel.pkcs11.cli.console.Text;
import it.quarvel.pkcs11.cli.token.Steps;
import java.util.ArrayList;
import java.util.EnumMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;
import java.util.stream.Collectors;

/**
 * Shows what becomes of each operation, one row each, as soon as it is known: a module that hangs or
 * crashes leaves the rows before it. A call within a row belongs to that row.
 */
public final class CheckTable extends Steps {
  /** What becomes of an operation; in a row of several calls the last of these counts. */
  public enum Result {
    WORKS("works"),
    NOTHING("nothing to try"),
    NOT_VERIFIED("answered, not verified"),
    NOT_ASKED("not asked"),
    NO_MECHANISM("no mechanism"),
    NOT_IN_MODULE("not offered by the module"),
    NOT_IN_BINDING("not offered by the binding"),
    UNREADABLE("not readable"),
    FAILED("failed"),
    REFUSED("refused");

    private final String text;

    Result(String text) {
      this.text = text;
    }

    private boolean isFinding() {
      return compareTo(UNREADABLE) >= 0;
    }

    @Override
    public String toString() {
      return text;
    }
  }

  /** A call on one of several things. */
  interface Trial<T> {
    Result apply(T thing) throws Exception;
  }

  private static final class Row {
    private final String operation;
    private final long start = System.nanoTime();
    private Result result = Result.NOTHING;
    private String detail = "";
    private int calls;
    private int alike;

    private Row(String operation) {
      this.operation = operation;
    }

    /** Things without anything to try count only where there are no others. */
    private void add(Result found, String why) {
      calls++;
      if (result == Result.NOTHING || found != Result.NOTHING && found.compareTo(result) > 0) {
        result = found;
        detail = why.isEmpty() ? detail : why;
        alike = 0;
      }
      alike += found == result ? 1 : 0;
    }

    private Map<String, Object> values(boolean timed) {
      boolean counts = result.isFinding() && calls > 1;
      Map<String, Object> values = new LinkedHashMap<>();
      values.put("operation", operation);
      values.put("result", result);
      long tenths = Math.round((System.nanoTime() - start) / 1e5);
      values.put("milliseconds", timed ? tenths / 10.0 : null);
      values.put("detail", counts ? "%s, %d of %d".formatted(detail, alike, calls) : detail);
      return values;
    }
  }

  private static final List<String> HEADING = List.of("operation", "result", "ms", "detail");
  private static final int[] WIDTHS = {18, Result.NOT_IN_MODULE.text.length(), 5, 0};
  private static final int PATIENCE_SECONDS = 30;

  private final Stdout out;
  private final Output output;
  private final boolean marks = Terminal.is(Terminal.OUT);

  /** Held while a row is under way. */
  private final ReentrantLock lock = new ReentrantLock();

  private final Map<Result, Integer> counts = new EnumMap<>(Result.class);
  /** What failed, by kind. */
  private final Map<String, List<String>> findings = new LinkedHashMap<>();
  private final Set<String> refused = new HashSet<>();
  private final List<Row> notInBinding = new ArrayList<>();
  private Row row;
  private boolean started;

  public CheckTable(Stdout out, Output output) {
    this.out = out;
    this.output = output;
    output.nest("operations");
  }

  @Override
  public <T> T call(String operation, Call<T> call) throws Failure {
    if (row != null) {
      return super.call(operation, call);
    }
    begin(operation);
    try {
      T result = super.call(operation, call);
      row.add(Result.WORKS, "");
      return result;
    } catch (Failure e) {
      add(e, Result.FAILED, operation);
      throw e;
    } finally {
      end();
    }
  }

  /** Makes a call whose failure ends nothing; the detail is what there is to say otherwise. */
  public Result attempt(String operation, String detail, Call<Result> call) throws Failure {
    begin(operation);
    try {
      row.add(super.call(operation, call), detail);
    } catch (Failure e) {
      add(e, Result.FAILED, operation);
    }
    return end();
  }

  /**
   * Makes the same call on each of several things, in one row. A failure that is no return value of
   * the module is a value that cannot be read.
   */
  <T> void each(String operation, List<T> things, String nothing, Trial<T> trial) throws Failure {
    begin(operation);
    for (T thing : things) {
      try {
        row.add(super.call(operation, () -> trial.apply(thing)), "");
      } catch (Failure e) {
        add(e, Result.UNREADABLE, operation);
      }
    }
    if (row.result == Result.NOTHING) {
      row.detail = nothing;
    }
    end();
  }

  /** Says something of an operation that is not tried. */
  public Result note(String operation, Result result, String detail) throws Failure {
    begin(operation);
    row.calls = -1;
    row.add(result, detail);
    return end();
  }

  /** Says why operations are not tried. */
  public void skip(String why, String... operations) throws Failure {
    for (String operation : operations) {
      note(operation, Result.NOT_ASKED, why);
    }
  }

  /** Says more of the row under way. */
  void tell(String detail) {
    row.detail = detail;
  }

  /** Makes a call that the library itself is expected to refuse; what it does is told at the end. */
  void attemptNotOffered(String group, Action action) throws Failure {
    Row tried = new Row(group);
    try {
      super.call(group, () -> {
        action.run();
        return null;
      });
      note(group, Result.WORKS, "");
    } catch (Failure e) {
      if (!e.reason().startsWith("Not supported")) {
        note(group, Result.REFUSED, e.reason());
        return;
      }
      tried.add(Result.NOT_IN_BINDING, "");
      notInBinding.add(tried);
      counts.merge(Result.NOT_IN_BINDING, 1, Integer::sum);
    }
  }

  public boolean isRefused(String operation) {
    return refused.contains(operation);
  }

  /** Tells whether all that was tried works. */
  public boolean works() {
    return !counts.containsKey(Result.REFUSED) && !counts.containsKey(Result.FAILED);
  }

  /**
   * Waits for the row under way, and runs the last action of a process that is about to end: no
   * other call is made after it has begun.
   *
   * @return whether the row has come to its end
   */
  boolean close(Runnable last) {
    try {
      if (!lock.tryLock(PATIENCE_SECONDS, TimeUnit.SECONDS)) {
        return false;
      }
    } catch (InterruptedException e) {
      return false;
    }
    last.run();
    return true;
  }

  /** Ends the table with what there is to say of all rows, and of the failure that ended them. */
  public void finish(Failure failure) throws Failure {
    if (output.isJson()) {
      for (Row absent : notInBinding) {
        output.item(out, "", absent.values(false), Set.of());
      }
      Map<String, Object> rest = new LinkedHashMap<>();
      rest.put("findings", findings());
      rest.put("works", failure == null && works());
      rest.put("error", failure == null ? null : failure.getMessage());
      output.end(out, rest);
      return;
    }
    if (!notInBinding.isEmpty()) {
      out.write("\n" + Text.wrap("Not offered by the binding: ", notInBinding.stream()
          .map(absent -> absent.operation).collect(Collectors.joining(", ")), out.columns()) + "\n");
    }
    out.write("\n");
    for (String finding : findings()) {
      out.write(Text.wrap("", Text.printable(finding), out.columns()) + "\n");
    }
    out.write(Text.wrap("", counts.entrySet().stream()
        .map(count -> count.getValue() + " " + count.getKey())
        .collect(Collectors.joining(", ")), out.columns()) + "\n");
  }

  private void begin(String operation) {
    lock.lock();
    row = new Row(operation);
    if (marks && !output.isJson()) {
      try {
        out.write(operation + " ...");
      } catch (Failure e) {
        // The row itself will tell.
      }
    }
  }

  private Result end() throws Failure {
    Row ended = row;
    row = null;
    try {
      counts.merge(ended.result, 1, Integer::sum);
      show(ended.values(ended.calls > 0));
    } finally {
      lock.unlock();
    }
    return ended.result;
  }

  private void show(Map<String, Object> values) throws Failure {
    if (output.isJson()) {
      output.item(out, "", values, Set.of());
      return;
    }
    String start = marks ? "\r" : "";
    if (!started) {
      started = true;
      start += Text.line(HEADING, WIDTHS, out.columns());
    }
    out.write(start + Text.line(
        values.values().stream().map(Text::value).toList(), WIDTHS, out.columns()));
  }

  private void add(Failure failure, Result other, String operation) {
    boolean answered = failure.getCause() instanceof PKCS11Exception cause && cause.errorCode() != 0;
    Result result = !answered ? other
        : ((PKCS11Exception) failure.getCause()).errorCode() == CKR_FUNCTION_NOT_SUPPORTED
            ? Result.NOT_IN_MODULE : Result.REFUSED;
    row.add(result, failure.reason());
    if (result == Result.REFUSED) {
      refused.add(operation);
    }
    if (result.isFinding()) {
      findings.computeIfAbsent(failure.reason(), kind -> new ArrayList<>())
          .add(failure.getMessage());
    }
  }

  /** One line for each kind of failure, however many there are. */
  private List<String> findings() {
    return findings.values().stream().map(alike -> alike.size() == 1 ? alike.get(0)
        : "%s (%d times)".formatted(alike.get(0), alike.size())).toList();
  }
}
