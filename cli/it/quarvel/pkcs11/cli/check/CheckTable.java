package it.quarvel.pkcs11.cli.check;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.console.Output;
import it.quarvel.pkcs11.cli.console.Stdout;
import it.quarvel.pkcs11.cli.token.Hints;
import it.quarvel.pkcs11.cli.token.Steps;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.LinkedHashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Collectors;

/** Keeps what became of each operation: one row each, however many calls it takes. */
public final class CheckTable extends Steps {
  /** What becomes of an operation; the order is that of precedence within one row. */
  public enum Result {
    WORKS("works"),
    NOT_ASKED("not asked"),
    NOTHING("nothing to try"),
    NO_MECHANISM("no mechanism"),
    NOT_OFFERED("not offered by the binding"),
    REFUSED("refused");

    private final String text;

    Result(String text) {
      this.text = text;
    }

    @Override
    public String toString() {
      return text;
    }
  }

  private static final class Row {
    private Result result = Result.WORKS;
    private String detail = "";
    private long nanos;
  }

  private final Map<String, Row> rows = new LinkedHashMap<>();
  private final Set<String> findings = new LinkedHashSet<>();

  /** Nanoseconds of the calls that the current one has made, and that have rows of their own. */
  private long inner;

  @Override
  public <T> T call(String operation, Call<T> call) throws Failure {
    note(operation, Result.WORKS, "");
    long innerBefore = inner;
    inner = 0;
    long start = System.nanoTime();
    try {
      return super.call(operation, call);
    } catch (Failure e) {
      note(operation, Result.REFUSED, e.reason());
      if (e.getCause() instanceof PKCS11Exception cause) {
        findUnknownHandle(cause.errorCode());
      }
      throw e;
    } finally {
      long all = System.nanoTime() - start;
      rows.get(operation).nanos += all - inner;
      inner = innerBefore + all;
    }
  }

  /** Makes a call whose failure ends nothing; the result is then null. */
  public <T> T attempt(String operation, Call<T> call) {
    try {
      return call(operation, call);
    } catch (Failure e) {
      return null;
    }
  }

  /** Makes a call that the library itself is expected to refuse. */
  void attemptNotOffered(String group, Action action) {
    try {
      super.call(group, () -> {
        action.run();
        return null;
      });
      note(group, Result.WORKS, "");
    } catch (Failure e) {
      boolean expected = e.reason().startsWith("Not supported");
      note(group, expected ? Result.NOT_OFFERED : Result.REFUSED, expected ? "" : e.reason());
    }
  }

  /** Sets what a row says, unless it has something worse to say already. */
  public void note(String operation, Result result, String detail) {
    Row row = rows.computeIfAbsent(operation, o -> new Row());
    if (result.compareTo(row.result) > 0 || result == row.result && row.detail.isEmpty()) {
      row.result = result;
      row.detail = detail;
    }
  }

  /** Says something of an operation that nobody has tried. */
  void noteAbsent(String operation, Result result, String detail) {
    if (!rows.containsKey(operation)) {
      note(operation, result, detail);
    }
  }

  /** Looks at a handle that the module has just given. */
  void checkHandle(String kind, int handle) {
    if (handle < 0) {
      findings.add("The module gave a %s handle that does not fit a Java int (0x%08X as it arrived)"
          .formatted(kind, handle));
    }
  }

  /** Tells whether nothing was refused. */
  public boolean works() {
    return rows.keySet().stream().noneMatch(this::isRefused);
  }

  public boolean isRefused(String operation) {
    return rows.containsKey(operation) && rows.get(operation).result == Result.REFUSED;
  }

  public void show(Stdout out, Output output) throws Failure {
    if (output.isJson()) {
      Map<String, Object> all = new LinkedHashMap<>();
      all.put("works", works());
      all.put("operations", list());
      all.put("findings", List.copyOf(findings));
      output.object(out, "", all);
      return;
    }
    output.table(out, list());
    out.write("\n" + summary() + "\n");
    for (String finding : findings) {
      out.write(finding + ".\n");
    }
    if (!findings.isEmpty()) {
      out.write("What helps: " + Hints.HANDLE_WIDTH + ".\n");
    }
  }

  /** The handle was the module's own a moment ago: Java has no room for all of it. */
  private void findUnknownHandle(int code) {
    String kind = switch (code) {
      case CKR_SLOT_ID_INVALID -> "slot";
      case CKR_SESSION_HANDLE_INVALID -> "session";
      case CKR_OBJECT_HANDLE_INVALID -> "object";
      default -> null;
    };
    if (kind != null) {
      findings.add(
          "The module answers %s to a %s handle that it has just given: it does not fit a Java int"
              .formatted(new PKCS11Exception(code).getMessage(), kind));
    }
  }

  private List<Map<String, Object>> list() {
    List<Map<String, Object>> list = new ArrayList<>();
    rows.entrySet().stream()
        .sorted(Comparator.comparing(entry -> entry.getValue().result == Result.NOT_OFFERED))
        .forEach(entry -> list.add(map(entry.getKey(), entry.getValue())));
    return list;
  }

  private static Map<String, Object> map(String operation, Row row) {
    Map<String, Object> map = new LinkedHashMap<>();
    map.put("operation", operation);
    map.put("result", row.result);
    map.put("milliseconds", row.nanos == 0 ? null : Math.round(row.nanos / 1e5) / 10.0);
    map.put("detail", row.detail);
    return map;
  }

  private String summary() {
    Map<Result, Long> counts =
        rows.values().stream().collect(Collectors.groupingBy(r -> r.result, Collectors.counting()));
    return Arrays.stream(Result.values()).filter(counts::containsKey)
        .map(result -> counts.get(result) + " " + result).collect(Collectors.joining(", "));
  }
}
