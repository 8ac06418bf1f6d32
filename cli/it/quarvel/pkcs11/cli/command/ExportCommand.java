// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.command;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.cli.token.*;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.nio.charset.StandardCharsets;
import java.security.PublicKey;
import java.util.*;
import picocli.CommandLine.*;

/** Writes an object that may leave a token. */
@Command(
    name = "export",
    description = {
      "Write a certificate, a public key or a data object to a file.",
      "Certificates and public keys are written in PEM, data objects as they are. A key pair gives"
          + " its public key, also where the token has no object for it. Private and secret keys stay"
          + " on the token."
    })
public final class ExportCommand extends ObjectCommand {
  private static final int MOST = 8;

  @Mixin private ResultOutput output;

  @Option(names = "--der", description = "Write DER instead of PEM.")
  private boolean der;

  @Option(names = "--raw", description = "Write the value of the object, CKA_VALUE, as it is.")
  private boolean raw;

  @Override
  public Integer call() throws Failure {
    requireName();
    return super.call();
  }

  @Override
  void run(Connection connection) throws Failure {
    openSession(connection, 0, false);
    output.write(program().out(), connection.call(Step.EXPORT, () -> encoded(connection)));
  }

  private byte[] encoded(Connection connection) throws Failure, PKCS11Exception {
    PKCS11Template template = uri().template();
    List<NativePKCS11Object> found = connection.find(template, MOST);
    if (found.isEmpty() && Integer.valueOf(CKO_PUBLIC_KEY).equals(uri().objectClass())) {
      found = connection.find(template.put(CKA_CLASS, CKO_PRIVATE_KEY), MOST);
    }
    Set<Object> all = new LinkedHashSet<>();
    for (NativePKCS11Object object : found) {
      Attributes attributes = new Attributes(object);
      if (attributes.isOf(CKO_CERTIFICATE) || attributes.isOf(CKO_DATA)) {
        all.add(object);
      } else if (attributes.isOf(CKO_PUBLIC_KEY) || attributes.isOf(CKO_PRIVATE_KEY)) {
        all.addAll(connection.publicKeys(object));
      }
    }
    Object only = only(all, "certificate, public key or data object");
    if (only instanceof PublicKey key) {
      if (raw) {
        throw Failure.usage("--raw is for certificates and data objects");
      }
      return form("PUBLIC KEY", key.getEncoded());
    }
    NativePKCS11Object object = (NativePKCS11Object) only;
    byte[] value = object.getByteArrayAttributeValue(CKA_VALUE);
    boolean isRaw = raw || new Attributes(object).isOf(CKO_DATA);
    if (value.length == 0 && !isRaw) {
      throw new Failure("the certificate has no value");
    }
    return isRaw ? value : form("CERTIFICATE", value);
  }

  private byte[] form(String name, byte[] bytes) {
    return der ? bytes : "-----BEGIN %1$s-----\n%2$s\n-----END %1$s-----\n".formatted(name,
        Base64.getMimeEncoder(64, new byte[] {'\n'}).encodeToString(bytes))
        .getBytes(StandardCharsets.US_ASCII);
  }
}
