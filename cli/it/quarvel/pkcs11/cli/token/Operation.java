// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

/** The operations whose names more than one class knows. */
public final class Operation {
  public static final String OPEN = "open";
  public static final String LOGIN = "login";
  public static final String SEARCH = "search";

  private Operation() {}
}
