// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import java.util.*;
import picocli.CommandLine.Option;

/** The option that chooses between data for people and for programs, and the writing of both. */
public class Output {
  @Option(names = "--json", description = "Write JSON instead of text.")
  private boolean json;

  private String separator = "[";

  public boolean isJson() {
    return json;
  }

  /** Writes a single object. */
  public void object(Stdout out, String title, Map<String, Object> values) throws Failure {
    out.write(json ? Json.of(values) + "\n" : Text.block(title, values, Set.of(), out.columns()));
  }

  /**
   * Writes one item of a list of any length at once; {@link #end} follows the last. A block for
   * people leaves out the values that the title shows.
   */
  public void item(Stdout out, String title, Map<String, Object> values, Set<String> inTitle)
      throws Failure {
    if (json) {
      out.write(separator + "\n" + Json.of(values));
      separator = ",";
    } else {
      out.write(Text.block(title, values, inTitle, out.columns()));
    }
  }

  /** Makes the list the first member of an object. */
  public void nest(String member) {
    separator = "{\"%s\": [".formatted(member);
  }

  /** Ends the list, adds the other members of its object, and ends that. */
  public void end(Stdout out, Map<String, Object> others) throws Failure {
    if (json) {
      String rest = Json.of(others).substring(1);
      out.write((separator.equals(",") ? "\n" : separator) + "], " + rest + "\n");
    }
  }

  /** Ends the list. A list that a failure has cut short stays open: it is no valid JSON. */
  public void end(Stdout out) throws Failure {
    if (json) {
      out.write(separator.equals("[") ? "[]\n" : "\n]\n");
    }
  }

  /** Writes a table. */
  public void table(Stdout out, List<Map<String, Object>> rows) throws Failure {
    if (!json) {
      out.write(Text.table(rows, out.columns()));
      return;
    }
    for (Map<String, Object> row : rows) {
      item(out, "", row, Set.of());
    }
    end(out);
  }
}
