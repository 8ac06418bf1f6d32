// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.security.*;
import java.util.*;

/** Tokens of two modules behind p11-kit's proxy, a provider for each. */
class SeveralModules {
  public static void main(String[] args) throws Exception {
    Map<KeyStore, String> stores = new LinkedHashMap<>();
    for (String token : args) {
      Provider provider = new QuarvelProvider().configure(
          "pkcs11:token=" + token + "?module-path=" + System.getenv("QUARVEL_PKCS11_MODULE"));
      KeyStore store = KeyStore.getInstance("PKCS11", provider);
      store.load(null, System.getenv("QUARVEL_PIN").toCharArray());
      stores.put(store, store.aliases().nextElement());
    }
    for (KeyStore store : stores.keySet()) {
      Signature signature = Signature.getInstance("SHA256withRSA", store.getProvider());
      signature.initSign((PrivateKey) store.getKey(stores.get(store), null));
      byte[] signed = signature.sign();
      signature = Signature.getInstance("SHA256withRSA");
      signature.initVerify(store.getCertificate(stores.get(store)));
      if (!signature.verify(signed)) throw new AssertionError(store.getProvider());
      System.out.println(store.getProvider().getName() + " signs");
    }
  }
}
