// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import it.quarvel.pkcs11.cli.console.Failure;
import picocli.CommandLine.Option;

/** The option that says how the two numbers of an EC signature are written. */
final class SignatureFormat {
  private enum Format { der, raw }

  @Option(names = "--signature-format", paramLabel = "der|raw",
      description = "For EC keys: r and s in DER, or, as otherwise, one after the other.")
  private Format format;

  /** Tells whether signatures of a key are in DER. */
  boolean isDer(boolean ec) throws Failure {
    if (format != null && !ec) {
      throw Failure.usage("--signature-format is for EC keys");
    }
    return format == Format.der;
  }
}
