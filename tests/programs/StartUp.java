// SPDX-License-Identifier: Apache-2.0
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;

/** Signs once with a key of a token: StartUp CONFIGURATION PIN ALIAS, by the provider it is for. */
public class StartUp {
  public static void main(String[] args) throws Exception {
    Provider provider = (args[0].startsWith("pkcs11:") ? new QuarvelProvider()
        : Security.getProvider("SunPKCS11")).configure(args[0]);
    KeyStore keys = KeyStore.getInstance("PKCS11", provider);
    keys.load(null, args[1].toCharArray());
    Signature signature = Signature.getInstance("SHA256withRSA", provider);
    signature.initSign((PrivateKey) keys.getKey(args[2], null));
    System.out.println(signature.sign().length);
  }
}
