// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.*;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.internal.Printable;
import java.util.*;
import java.util.concurrent.Callable;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;
import java.util.stream.Collectors;

/**
 * Shows the result of each step in a row of its own, as soon as it is known: a module that hangs or
 * crashes leaves the rows before it. A call within a row belongs to that row.
 */
public final class CheckTable extends Steps {
  /** The results of a step, from good to bad: of several calls in a row the worst one counts. */
  public enum Result {
    WORKS, NOTHING_TO_TRY, NOT_VERIFIED, NOT_ASKED, NO_MECHANISM, NOT_MADE,
    NOT_OFFERED_BY_THE_MODULE, NOT_READABLE, FAILED, REFUSED;

    private boolean isFinding() {
      return compareTo(NOT_READABLE) >= 0;
    }

    @Override
    public String toString() {
      return name().toLowerCase(Locale.ROOT).replace('_', ' ');
    }
  }

  /** Makes a call on one of several things. */
  interface Trial<T> {
    Result apply(T thing) throws Exception;
  }

  private static final class Row {
    private final Step step;
    private final long start = System.nanoTime();
    private Result result = Result.NOTHING_TO_TRY;
    private String detail = "";
    private int calls;
    private int alike;

    private Row(Step step) {
      this.step = step;
    }

    /** Adds a call. The worst result counts, and NOTHING_TO_TRY only if there is no other. */
    private void add(Result found, String why) {
      calls++;
      if (result == Result.NOTHING_TO_TRY || found != Result.NOTHING_TO_TRY && found.compareTo(result) > 0) {
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

  private static final int[] WIDTHS = {18, Result.NOT_OFFERED_BY_THE_MODULE.toString().length(), 5, 0};
  private static final Set<Step> MAKING = EnumSet.of(
      Step.CREATE_OBJECT, Step.GENERATE_KEY, Step.GENERATE_KEY_PAIR, Step.UNWRAP);
  private static final int PATIENCE_SECONDS = 30;

  private final Stdout out;
  private final Output output;

  /** Whether a row shows the name of its step before the result. */
  private final boolean marks;

  /** Held while a row is under way. */
  private final ReentrantLock lock = new ReentrantLock();

  private final Map<Result, Integer> counts = new EnumMap<>(Result.class);

  /** The names of the steps that failed, by the reason and the advice. */
  private final Map<List<String>, Set<String>> findings = new LinkedHashMap<>();
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
  public <T> T call(Step step, Callable<T> call) throws Failure {
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

  /** Makes a call in a row of its own. A failure does not end the check-up. */
  void attempt(Step step, Callable<Result> call) throws Failure {
    attempt(step, List.of(step), Result.FAILED, once -> call.call());
  }

  /** Makes such a call that works unless it fails. */
  public void works(Step step, Action action) throws Failure {
    attempt(step, () -> {
      action.run();
      return Result.WORKS;
    });
  }

  /**
   * Makes the same call on each of several things, in one row. A failure that is no return value of
   * the module counts as NOT_READABLE.
   */
  <T> void each(Step step, List<T> things, Trial<T> trial) throws Failure {
    attempt(step, things, Result.NOT_READABLE, trial);
  }

  private <T> void attempt(Step step, List<T> things, Result other, Trial<T> trial)
      throws Failure {
    begin(step);
    for (T thing : things) {
      try {
        row.add(super.call(step, () -> trial.apply(thing)), "");
      } catch (Failure e) {
        add(e, other);
      }
    }
    if (row.result == Result.NOTHING_TO_TRY && row.detail.isEmpty()) {
      row.detail = things.isEmpty() ? "there is none" : "none of " + things.size() + " tried";
    }
    end();
  }

  /** Shows steps that are not tried, and why. */
  public void skip(Result result, String why, Step... steps) throws Failure {
    for (Step step : steps) {
      show(step, result, null, why);
    }
  }

  /** Sets the detail of the row under way. */
  void tell(String detail) {
    row.detail = detail;
  }

  /** Sets the detail of the row under way to the reason why there is nothing to try. */
  Result nothing(String why) {
    tell(why);
    return Result.NOTHING_TO_TRY;
  }

  /** Tells whether no step failed and none was refused. */
  public boolean works() {
    return !counts.containsKey(Result.REFUSED) && !counts.containsKey(Result.FAILED);
  }

  /**
   * Waits for the row under way, and then runs the last action of a process that is about to end.
   * It keeps the lock, so that no row begins any more.
   *
   * @return whether the row has come to its end in time; the action does not run otherwise
   */
  boolean close(Runnable last) {
    try {
      boolean ended = lock.tryLock(PATIENCE_SECONDS, TimeUnit.SECONDS);
      if (ended) {
        last.run();
      }
      return ended;
    } catch (InterruptedException e) {
      return false;
    }
  }

  /** Ends the table with the findings and the results of all rows; JSON also has the failure. */
  public void finish(Failure failure) throws Failure {
    List<String> found = findings.entrySet().stream().map(kind -> kind.getKey().get(0) + ": "
        + String.join(", ", kind.getValue()) + kind.getKey().get(1)).toList();
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
      out.write(Text.wrap("", Printable.of(finding), out.columns()) + "\n");
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

  private void end() throws Failure {
    Row ended = row;
    row = null;
    try {
      boolean tried = ended.result != Result.NOTHING_TO_TRY && ended.result != Result.NO_MECHANISM;
      double tenths = Math.round((System.nanoTime() - ended.start) / 1e5);
      show(ended.step, ended.result, tried ? tenths / 10 : null, ended.summary());
    } finally {
      lock.unlock();
    }
  }

  private void show(Step step, Result result, Double milliseconds, String detail)
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
  }

  private String line(Object... cells) {
    return Text.line(Arrays.stream(cells).map(Text::value).toList(), WIDTHS, out.columns());
  }

  private void add(Failure failure, Result other) {
    Result result = failure.getCause() instanceof PKCS11Exception cause && cause.errorCode() != 0
        ? result(cause.errorCode()) : other;
    row.add(result, failure.reason());
    if (result.isFinding()) {
      findings.computeIfAbsent(List.of(failure.reason(), failure.advice()),
          kind -> new LinkedHashSet<>()).add(row.step.toString());
    }
  }

  /** Judges a return value. A token need not make objects for a session, nor for its user. */
  private Result result(int code) {
    return switch (code) {
      case CKR_FUNCTION_NOT_SUPPORTED -> Result.NOT_OFFERED_BY_THE_MODULE;
      case CKR_ARGUMENTS_BAD, CKR_ATTRIBUTE_READ_ONLY, CKR_ATTRIBUTE_TYPE_INVALID,
          CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCOMPLETE, CKR_TEMPLATE_INCONSISTENT,
          CKR_KEY_SIZE_RANGE, CKR_ACTION_PROHIBITED, CKR_TOKEN_WRITE_PROTECTED,
          CKR_USER_NOT_LOGGED_IN, CKR_USER_TYPE_INVALID ->
          MAKING.contains(row.step) ? Result.NOT_MADE : Result.REFUSED;
      default -> Result.REFUSED;
    };
  }
}
