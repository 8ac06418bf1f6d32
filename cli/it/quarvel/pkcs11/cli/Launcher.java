// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli;

/** Starts {@link Main}, whose classes need two jars beside its own, or says which one is missing. */
final class Launcher {
  private Launcher() {}

  public static void main(String[] args) {
    require("it.quarvel.pkcs11.PKCS11Exception", "quarvel-pkcs11.jar");
    require("picocli.CommandLine", "picocli.jar");
    Main.main(args);
  }

  private static void require(String name, String jar) {
    try {
      Class.forName(name);
    } catch (ClassNotFoundException e) {
      System.err.println("quarvel-pkcs11: " + jar + " is not beside quarvel-pkcs11-cli.jar");
      System.exit(1);
    }
  }
}
