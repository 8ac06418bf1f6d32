// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import it.quarvel.pkcs11.security.QuarvelProvider;
import java.nio.file.*;
import java.security.*;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAPrivateCrtKey;
import java.security.spec.AlgorithmParameterSpec;
import java.util.*;
import java.util.concurrent.*;
import java.util.logging.*;
import org.junit.jupiter.api.extension.*;
import org.junit.jupiter.api.function.Executable;

/**
 * The throwaway token that run.sh has made. A test class registers one of these, which closes after
 * each test what this one has opened, and empties the token after the last one.
 */
class TestToken implements AfterEachCallback, AfterAllCallback {
  static final Path CLASSES = Path.of(System.getenv("QUARVEL_CLASSES"));
  static final Path DIR = Path.of(System.getenv("TOKEN_DIR"));
  static final String MODULE = System.getenv("QUARVEL_PKCS11_MODULE");
  static final String SHIM = CLASSES.resolveSibling("libshim.so").toString();
  static final String PIN = System.getenv("QUARVEL_PIN");
  static final String SO_PIN = System.getenv("QUARVEL_SO_PIN");

  static final byte[] DATA = "Whole blocks, to sign or to hide".getBytes(UTF_8);
  static final byte[] ID = {0, 'i', (byte) 0xFF};
  static final Date END = new GregorianCalendar(2031, Calendar.FEBRUARY, 28).getTime();

  /** What the library has logged. */
  static final List<String> logged = new CopyOnWriteArrayList<>();

  private static final Logger LOGGER = Logger.getLogger("it.quarvel.pkcs11");

  static {
    LOGGER.addHandler(new StreamHandler() {
      @Override
      public void publish(LogRecord left) {
        logged.add(left.getMessage());
      }
    });
  }

  private final Queue<AutoCloseable> open = new ArrayDeque<>();

  PKCS11Module open() throws PKCS11Exception {
    PKCS11Module module = PKCS11Module.open(MODULE);
    open.add(module);
    return module;
  }

  /** Opens the module by the native methods alone, and logs in. */
  NativePKCS11Session logIn() throws Exception {
    NativePKCS11 module = new NativePKCS11();
    open.add(module::libFinalize);
    NativePKCS11.loadPKCS11Library(MODULE);
    module.libInitialize();
    NativePKCS11Session session = module.slots(true).get(0).openSession(true);
    session.loginellips(false, PIN.getBytes(UTF_8));
    return session;
  }

  QuarvelProvider configured(String uri) {
    QuarvelProvider provider = (QuarvelProvider) new QuarvelProvider().configure(uri);
    open.add(provider::logout);
    return provider;
  }

  /** Closes the last one first, and the others also where that fails. */
  private void close() throws Exception {
    AutoCloseable eldest = open.poll();
    if (eldest != null) {
      try {
        close();
      } finally {
        eldest.close();
      }
    }
  }

  @Override
  public void afterEach(ExtensionContext test) throws Exception {
    close();
  }

  @Override
  public void afterAll(ExtensionContext tests) throws Exception {
    close();
    empty();
  }

  /** Destroys all objects; no module may be open. */
  static void empty() throws Exception {
    try (PKCS11Module module = PKCS11Module.open(MODULE);
        NativePKCS11Session session = module.tokens().get(0).openSession(true)) {
      session.login(PIN.toCharArray());
      for (NativePKCS11Object object : session.findAll(null)) {
        object.destroy();
      }
    }
  }

  // ---- A key and its certificate, as the JDK has them and as a token takes them ----

  record Pair(RSAPrivateCrtKey key, X509Certificate certificate, PKCS11Template privateKey,
      PKCS11Template x509) {}

  /** Returns templates that are the caller's to change. */
  static Pair pair() throws Exception {
    Path file = DIR.resolve("rsa.p12");
    if (!Files.exists(file)) {
      output(System.getProperty("java.home") + "/bin/keytool -genkeypair -alias rsa -keyalg RSA"
          + " -keysize 2048 -dname CN=Test -storetype PKCS12 -storepass changeit -keystore " + file);
    }
    char[] password = "changeit".toCharArray();
    KeyStore store = KeyStore.getInstance(file.toFile(), password);
    RSAPrivateCrtKey rsa = (RSAPrivateCrtKey) store.getKey("rsa", password);
    X509Certificate certificate = (X509Certificate) store.getCertificate("rsa");
    // Not private, although it should be: SoftHSM2 cannot read a private object's dates back.
    return new Pair(rsa, certificate,
        new PKCS11Template().put(CKA_CLASS, CKO_PRIVATE_KEY).put(CKA_KEY_TYPE, CKK_RSA)
            .put(CKA_LABEL, "cl\u00e9 priv\u00e9e").put(CKA_ID, ID).put(CKA_END_DATE, END)
            .put(CKA_PRIVATE, false).put(CKA_SENSITIVE, false).put(CKA_EXTRACTABLE, true)
            .put(CKA_SIGN, true).put(CKA_DECRYPT, true).put(CKA_MODULUS, rsa.getModulus())
            .put(CKA_PUBLIC_EXPONENT, rsa.getPublicExponent())
            .put(CKA_PRIVATE_EXPONENT, rsa.getPrivateExponent()).put(CKA_PRIME_1, rsa.getPrimeP())
            .put(CKA_PRIME_2, rsa.getPrimeQ()).put(CKA_EXPONENT_1, rsa.getPrimeExponentP())
            .put(CKA_EXPONENT_2, rsa.getPrimeExponentQ())
            .put(CKA_COEFFICIENT, rsa.getCrtCoefficient()),
        PKCS11Template.of(certificate).put(CKA_TOKEN, true).put(CKA_LABEL, ""));
  }

  // ---- What other programs and the module make of it ----

  static String openSc(String arguments) throws Exception {
    return output("pkcs11-tool --module " + MODULE + " " + arguments);
  }

  static String output(String command) throws Exception {
    return output(0, new ProcessBuilder(command.split(" ")).redirectErrorStream(true).start());
  }

  static String output(int status, Process process) throws Exception {
    String text = new String(process.getInputStream().readAllBytes(), UTF_8);
    assertEquals(status, process.waitFor(), text);
    return text;
  }

  /** Counts the calls of a function while native/shim.cpp, which is the module, follows such words. */
  static long calls(String name, String words, Executable use) throws Throwable {
    Path calls = Files.write(DIR.resolve("calls"), new byte[0]);
    Path shim = Files.writeString(DIR.resolve("shim"), words);
    try {
      use.execute();
    } finally {
      Files.delete(shim);
    }
    return Files.readAllLines(calls).stream().filter(name::equals).count();
  }

  static <T> List<T> inEightThreads(List<Callable<T>> tasks) throws Exception {
    List<T> results = new ArrayList<>();
    for (Future<T> task : new ForkJoinPool(8).invokeAll(tasks)) {
      results.add(task.get());
    }
    return results;
  }

  static void assertTells(String why, Class<? extends Throwable> failure, Executable call) {
    String told = assertThrows(failure, call).getMessage();
    assertTrue(told.contains(why), told);
  }

  static void assertFails(String message, Executable call) {
    assertEquals(message, assertThrows(PKCS11Exception.class, call, message).getMessage());
  }

  static void assertVerifies(String algorithm, PublicKey key, byte[] signature) throws Exception {
    assertVerifies(Signature.getInstance(algorithm), key, null, signature);
  }

  /** The verifier takes the signature for this data, and refuses it for other data. */
  static void assertVerifies(Signature verifier, PublicKey key, AlgorithmParameterSpec parameters,
      byte[] signature) throws Exception {
    verifier.initVerify(key);
    if (parameters != null) {
      verifier.setParameter(parameters);
    }
    for (int added = 0; added < 2; added++) {
      verifier.update(new byte[] {1}, 0, added);
      verifier.update(DATA);
      assertEquals(added == 0, verifier.verify(signature), () -> key + " " + verifier);
    }
  }
}
