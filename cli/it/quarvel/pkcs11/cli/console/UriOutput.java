// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

import java.util.*;
import picocli.CommandLine.Option;

/** An output of items that have a PKCS#11 URI. */
public final class UriOutput extends Output {
  @Option(names = "--uri-only", description = "Write the PKCS#11 URI (RFC 7512) of each and no more.")
  private boolean uriOnly;

  public boolean isUriOnly() {
    return uriOnly;
  }

  /** Tells whether the URI is written; a listing for people leaves it out. */
  public boolean needsUri() {
    return uriOnly || isJson();
  }

  /** Writes one item of a list, see {@link Output#item}. */
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
