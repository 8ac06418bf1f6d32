// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.console;

/**
 * Stands in the place of a value that cannot be read.
 *
 * @param reason "sensitive" for a value that the token keeps to itself, else the failure
 */
public record Unread(String reason) {
  @Override
  public String toString() {
    return "(" + reason + ")";
  }
}
