// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.security.*;

/** Tokens of two modules behind p11-kit's proxy, a provider for each. */
class SeveralModules {
  public static void main(String[] args) throws Exception {
    KeyStore[] stores = {load("demo"), load("nss")};
    for (KeyStore store : stores) {
      String alias = store.aliases().nextElement();
      Signature signature = Signature.getInstance("SHA256withRSA", store.getProvider());
      signature.initSign((PrivateKey) store.getKey(alias, null));
      byte[] signed = signature.sign();
      signature = Signature.getInstance("SHA256withRSA");
      signature.initVerify(store.getCertificate(alias));
      if (!signature.verify(signed)) throw new AssertionError(alias);
    }
  }

  private static KeyStore load(String token) throws Exception {
    KeyStore store = KeyStore.getInstance("PKCS11", new QuarvelProvider().configure(
        "pkcs11:token=" + token + "?module-path=" + System.getenv("QUARVEL_PKCS11_MODULE")));
    store.load(null, System.getenv("QUARVEL_PIN").toCharArray());
    return store;
  }
}
