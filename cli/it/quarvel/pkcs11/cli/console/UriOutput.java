// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import java.util.*;
import picocli.CommandLine.Option;

/** As {@link Output}, for things that have a PKCS#11 URI. */
public final class UriOutput extends Output {
  @Option(names = "--uri-only", description = "Write the PKCS#11 URI (RFC 7512) of each and no more.")
  private boolean uriOnly;

  public boolean isUriOnly() {
    return uriOnly;
  }

  /** Tells whether the URI is written at all: people would have to look past it. */
  public boolean needsUri() {
    return uriOnly || isJson();
  }

  /** Writes one of a list, see {@link Output#item}. */
  public void item(Stdout out, String title, String uri, Map<String, Object> values,
      Set<String> inTitle) throws Failure {
    if (isJson()) {
      Map<String, Object> all = new LinkedHashMap<>();
      all.put("uri", uri.isEmpty() ? null : uri);
      all.putAll(uriOnly ? Map.of() : values);
      item(out, title, all, inTitle);
    } else if (uriOnly) {
      out.write(uri + "\n");
    } else {
      item(out, title, values, inTitle);
    }
  }
}
