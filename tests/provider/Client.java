import it.quarvel.pkcs11.security.QuarvelProvider;
import java.io.File;
import java.security.KeyStore;
import java.security.Provider;
import java.security.Security;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManagerFactory;

/**
 * Says a line to TLS servers, each time with the certificate of another key: Client URI PIN CA,
 * then as often as is wanted PROTOCOL KEY PORT.
 */
class Client {
  public static void main(String[] args) throws Exception {
    Security.insertProviderAt(new QuarvelProvider().configure(args[0]), 1);
    TrustManagerFactory trusted = TrustManagerFactory.getInstance("PKIX");
    trusted.init(KeyStore.getInstance(new File(args[2]), "changeit".toCharArray()));
    for (int i = 3; i < args.length; i += 3) {
      Provider limited =
          new QuarvelProvider().configure(args[0].replace("?", ";object=" + args[i + 1] + "?"));
      KeyStore store = KeyStore.getInstance("PKCS11", limited);
      store.load(null, args[1].toCharArray());
      KeyManagerFactory keys = KeyManagerFactory.getInstance("PKIX");
      keys.init(store, null);
      SSLContext context = SSLContext.getInstance(args[i]);
      context.init(keys.getKeyManagers(), trusted.getTrustManagers(), null);
      try (SSLSocket socket = (SSLSocket) context.getSocketFactory()
              .createSocket("localhost", Integer.parseInt(args[i + 2]))) {
        socket.getOutputStream().write("hello\n".getBytes());
        System.out.println(new String(socket.getInputStream().readNBytes(6)).strip());
      }
    }
  }
}
