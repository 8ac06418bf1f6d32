// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.CKR_FUNCTION_NOT_SUPPORTED;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Stdout;
import it.quarvel.pkcs11.cli.console.Terminal;
import it.quarvel.pkcs11.cli.console.Text;
import it.quarvel.pkcs11.cli.option.Output;
import it.quarvel.pkcs11.cli.token.Step;
import it.quarvel.pkcs11.cli.token.Steps;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.EnumMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;
import java.util.stream.Collectors;

/**
 * Shows what becomes of each step, one row each, as soon as it is known: a module that hangs or
 * crashes leaves the rows before it. A call within a row belongs to that row.
 */
public final class CheckTable extends Steps {
  /** What becomes of a step; in a row of several calls the last of these counts. */
  public enum Result {
    WORKS("works"),
    NOTHING("nothing to try"),
    NOT_VERIFIED("answered, not verified"),
    NOT_ASKED("not asked"),
    NO_MECHANISM("no mechanism"),
    NOT_IN_MODULE("not offered by the module"),
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
    private final Step step;
    private final long start = System.nanoTime();
    private Result result = Result.NOTHING;
    private String detail = "";
    private int calls;
    private int alike;

    private Row(Step step) {
      this.step = step;
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

    private String summary() {
      return result.isFinding() && calls > 1
          ? "%s, %s of %s".formatted(detail, alike, calls) : detail;
    }
  }

  private static final int[] WIDTHS = {18, Result.NOT_IN_MODULE.text.length(), 5, 0};
  private static final int PATIENCE_SECONDS = 30;

  private final Stdout out;
  private final Output output;

  /** Whether a step is named before it is known what becomes of it. */
  private final boolean marks;

  /** Held while a row is under way. */
  private final ReentrantLock lock = new ReentrantLock();

  private final Map<Result, Integer> counts = new EnumMap<>(Result.class);
  /** What failed, by kind. */
  private final Map<String, List<String>> findings = new LinkedHashMap<>();
  private Row row;

  public CheckTable(Stdout out, Output output) throws Failure {
    this.out = out;
    this.output = output;
    marks = Terminal.is(Terminal.OUT) && !output.isJson();
    output.nest("operations");
    if (!output.isJson()) {
      out.write(line("operation", "result", "ms", "detail"));
    }
  }

  @Override
  public <T> T call(Step step, Call<T> call) throws Failure {
    if (row != null) {
      return super.call(step, call);
    }
    begin(step);
    try {
      T result = super.call(step, call);
      row.add(Result.WORKS, "");
      return result;
    } catch (Failure e) {
      add(e, Result.FAILED);
      throw e;
    } finally {
      end();
    }
  }

  /** Makes a call whose failure ends nothing. */
  public Result attempt(Step step, Call<Result> call) throws Failure {
    begin(step);
    try {
      row.add(super.call(step, call), "");
    } catch (Failure e) {
      add(e, Result.FAILED);
    }
    return end();
  }

  /**
   * Makes the same call on each of several things, in one row. A failure that is no return value of
   * the module is a value that cannot be read.
   */
  <T> void each(Step step, List<T> things, String nothing, Trial<T> trial) throws Failure {
    begin(step);
    for (T thing : things) {
      try {
        row.add(super.call(step, () -> trial.apply(thing)), "");
      } catch (Failure e) {
        add(e, Result.UNREADABLE);
      }
    }
    if (row.result == Result.NOTHING) {
      row.detail = nothing;
    }
    end();
  }

  /** Says something of a step that is not tried. */
  public Result note(Step step, Result result, String detail) throws Failure {
    return show(step, result, null, detail);
  }

  /** Says why operations are not tried. */
  public void skip(String why, Step... steps) throws Failure {
    for (Step step : steps) {
      note(step, Result.NOT_ASKED, why);
    }
  }

  /** Says more of the row under way. */
  void tell(String detail) {
    row.detail = detail;
  }

  /** Has the row under way say why there is nothing to try. */
  Result nothing(String why) {
    tell(why);
    return Result.NOTHING;
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
    // One line for each kind of failure, however many there are.
    List<String> found = findings.values().stream().map(alike -> alike.size() == 1 ? alike.get(0)
        : "%s (%s times)".formatted(alike.get(0), alike.size())).toList();
    if (output.isJson()) {
      Map<String, Object> rest = new LinkedHashMap<>();
      rest.put("findings", found);
      rest.put("works", failure == null && works());
      rest.put("error", failure == null ? null : failure.getMessage());
      output.end(out, rest);
      return;
    }
    out.write("\n");
    for (String finding : found) {
      out.write(Text.wrap("", Text.printable(finding), out.columns()) + "\n");
    }
    out.write(Text.wrap("", counts.entrySet().stream()
        .map(count -> count.getValue() + " " + count.getKey())
        .collect(Collectors.joining(", ")), out.columns()) + "\n");
  }

  private void begin(Step step) throws Failure {
    lock.lock();
    row = new Row(step);
    if (marks) {
      out.write(step + " ...");
    }
  }

  private Result end() throws Failure {
    Row ended = row;
    row = null;
    try {
      boolean tried = ended.result != Result.NOTHING && ended.result != Result.NO_MECHANISM;
      double tenths = Math.round((System.nanoTime() - ended.start) / 1e5);
      return show(
          ended.step, ended.result, tried ? tenths / 10 : null, ended.summary());
    } finally {
      lock.unlock();
    }
  }

  private Result show(Step step, Result result, Double milliseconds, String detail)
      throws Failure {
    counts.merge(result, 1, Integer::sum);
    if (output.isJson()) {
      Map<String, Object> values = new LinkedHashMap<>();
      values.put("operation", step);
      values.put("result", result);
      values.put("milliseconds", milliseconds);
      values.put("detail", detail);
      output.item(out, "", values, Set.of());
    } else {
      out.write((marks ? "\r" : "") + line(step, result, milliseconds, detail));
    }
    return result;
  }

  private String line(Object... cells) {
    return Text.line(Arrays.stream(cells).map(Text::value).toList(), WIDTHS, out.columns());
  }

  private void add(Failure failure, Result other) {
    Result result = !(failure.getCause() instanceof PKCS11Exception cause) || cause.errorCode() == 0
        ? other : cause.errorCode() == CKR_FUNCTION_NOT_SUPPORTED
            ? Result.NOT_IN_MODULE : Result.REFUSED;
    row.add(result, failure.reason());
    if (result.isFinding()) {
      findings.computeIfAbsent(failure.reason(), kind -> new ArrayList<>()).add(
          (failure.getCause() == null ? row.step + ": " : "") + failure.getMessage());
    }
  }
}
