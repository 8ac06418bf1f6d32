// SPDX-License-Identifier: Apache-2.0
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.security.QuarvelProvider;
import java.math.BigInteger;
import java.nio.file.*;
import java.security.*;
import java.security.cert.Certificate;
import java.security.cert.CertificateFactory;
import java.security.interfaces.ECPublicKey;
import java.security.spec.*;
import java.util.*;
import java.util.concurrent.Callable;
import javax.crypto.KeyAgreement;
import javax.crypto.spec.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.api.function.Executable;

/** Has the key store change a token, and OpenSC say what is on it then. */
class KeyStoreWriterTest {
  static final String WRITABLE = ProviderTest.URI + "&x-writable=yes";

  static final Path failing = ProviderTest.DIR.resolve("failing");
  static Certificate[] expired;

  @RegisterExtension static final TestToken token = new TestToken();

  QuarvelProvider provider;
  KeyStore store;

  @BeforeAll
  static void makeKeys() throws Exception {
    ProviderTest.fillToken();
    try (var file = Files.newInputStream(ProviderTest.DIR.resolve("expired.der"))) {
      expired = new Certificate[] {
          CertificateFactory.getInstance("X.509").generateCertificate(file), chain("rsa2048")[1]};
    }
  }

  @BeforeEach
  void fill() throws Exception {
    TestToken.empty();
    Files.writeString(failing, "-1");
    open(WRITABLE);
    store.setKeyEntry("rsa", software("rsa2048"), null, chain("rsa2048"));
  }

  void open(String uri) throws Exception {
    if (provider != null) {
      provider.logout();
    }
    provider = token.configured(uri);
    store = ProviderTest.load(provider, ProviderTest.PIN);
  }

  KeyPair generated(String algorithm, AlgorithmParameterSpec parameters) throws Exception {
    KeyPairGenerator generator = KeyPairGenerator.getInstance(algorithm, provider);
    generator.initialize(parameters);
    return generator.generateKeyPair();
  }

  static PrivateKey software(String name) {
    return ProviderTest.software.get(name);
  }

  static Certificate[] chain(String name) {
    Certificate own = ProviderTest.certificates.get(name);
    return new Certificate[] {own, ProviderTest.certificates.get("ca"), own}; // once is enough
  }

  /** Returns the objects on the token, in no order. */
  static Set<String> objects() throws Exception {
    return Set.of(TestToken.openSc("--list-objects --login --pin " + TestToken.PIN)
        .replace("\n  ", " ").split("\n"));
  }

  List<String> aliases() throws Exception {
    return Collections.list(store.aliases());
  }

  @Test
  void undoesAChangeThatFailsHalfWay() throws Throwable {
    List<Integer> steps = new ArrayList<>();
    for (Executable change : List.<Executable>of(
        () -> store.setKeyEntry("ec", software("prime256v1"), null, chain("prime256v1")),
        () -> store.setKeyEntry("renewed", store.getKey("rsa", null), null, expired),
        () -> store.deleteEntry("rsa"))) {
      int step = -1;
      do {
        Files.writeString(failing, "-1");
        for (String alias : aliases()) {
          store.deleteEntry(alias);
        }
        store.setKeyEntry("rsa", software("rsa2048"), null, chain("rsa2048"));
        Set<String> before = objects();
        Files.writeString(failing, "" + ++step);
        try {
          change.execute();
        } catch (KeyStoreException e) {
          // When the private key has gone, its public half is all that can be left, beside a heading.
          assertTrue(before.equals(objects()) || aliases().isEmpty() && objects().size() == 2,
              "step " + step + ": " + e);
        }
      } while (Files.readString(failing).startsWith("-"));
      steps.add(step);
    }
    assertEquals(List.of(3, 4, 4), steps);
  }

  @Test
  void refusesWhatWouldLoseOrHideAKey() throws Exception {
    store.setKeyEntry("ec", software("prime256v1"), null, chain("prime256v1"));
    Key key = store.getKey("rsa", null);
    Certificate[] own = chain("rsa2048");
    KeyStore.TrustedCertificateEntry trusted = new KeyStore.TrustedCertificateEntry(own[1]);
    QuarvelProvider twin = token.configured(WRITABLE);
    Key twinKey = ProviderTest.load(twin, ProviderTest.PIN).getKey("rsa", null);
    Set<String> before = objects();
    Map<Executable, String> changes = new LinkedHashMap<>();
    changes.put(() -> store.setKeyEntry("new", key, null, chain("secp521r1")), "proved");
    changes.put(() -> store.setKeyEntry("new", key, null, chain("rsa1025")), "proved");
    changes.put(() -> store.setKeyEntry("new", software("rsa1025"), null, own), "proved");
    changes.put(() -> store.setKeyEntry("new", twinKey, null, own), "of this token");
    changes.put(() -> store.setKeyEntry("new", software("rsa2048"), null, own), "already");
    changes.put(() -> store.setKeyEntry("ec", key, null, own), "of another key");
    changes.put(() -> store.setKeyEntry("new", key, null,
        new Certificate[] {own[0], chain("secp521r1")[0], own[1]}), "issued none");
    changes.put(() -> store.setKeyEntry("", key, null, own), "no text");
    changes.put(() -> store.setKeyEntry("\uD83D", key, null, own), "no text");
    changes.put(() -> store.setKeyEntry("x", new SecretKeySpec(new byte[9], "AES"), null, own), "private");
    changes.put(() -> store.setEntry("x", trusted, null), "security officer");
    changes.put(() -> {
      open(WRITABLE.replace("?", ";object=rsa?"));
      store.setKeyEntry("x", store.getKey("rsa", null), null, own);
    }, "URI");
    changes.forEach((change, why) -> TestToken.assertTells(why, KeyStoreException.class, change));
    assertEquals(before, objects());
  }

  @Test
  void changesByTwoProvidersDoNotMix() throws Exception {
    KeyStore other = ProviderTest.load(token.configured(WRITABLE), ProviderTest.PIN);
    Set<String> before = objects();
    List<Callable<Void>> changes = new ArrayList<>();
    Map.of("prime256v1", store, "secp521r1", other).forEach((name, keys) -> changes.add(() -> {
      for (int i = 0; i < 10; i++) {
        keys.setKeyEntry(name, software(name), null, chain(name));
        keys.deleteEntry(name);
      }
      return null;
    }));
    TestToken.inEightThreads(changes);
    assertEquals(before, objects());
  }

  @Test
  void offersAKeyThatHasNoNameYet() throws Exception {
    Set<String> before = objects();
    KeyPair made = generated("Ed25519", NamedParameterSpec.ED25519);
    store.load(null, ProviderTest.PIN);
    String id = aliases().get(aliases().indexOf("rsa") == 0 ? 1 : 0);
    store.setEntry("named", store.getEntry(id, null), null);
    assertEquals(Set.of("rsa", "named"), Set.copyOf(aliases()));
    Signature signer = Signature.getInstance("Ed25519", provider);
    signer.initSign((PrivateKey) store.getKey("named", null));
    TestToken.assertVerifies("Ed25519", made.getPublic(), ProviderTest.signed(signer));
    store.deleteEntry("named");
    store.deleteEntry("named");
    assertEquals(before, objects());
  }

  @Test
  void refusesWhatItDoesNotMake() throws Exception {
    for (int[] wrong : new int[][] {{1024, 3}, {20_000, 3}, {2048, -3}, {2048, 4}}) {
      assertThrows(InvalidAlgorithmParameterException.class, () -> generated(
          "RSA", new RSAKeyGenParameterSpec(wrong[0], BigInteger.valueOf(wrong[1]))));
    }
    AlgorithmParameters.getInstance("1.2.840.113549.1.1.7", provider)
        .init(new OAEPParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, PSource.PSpecified.DEFAULT));
    byte[] digest = MessageDigest.getInstance("SHA-256", provider).digest(TestToken.DATA);
    assertArrayEquals(MessageDigest.getInstance("SHA-256").digest(TestToken.DATA), digest);
    open(ProviderTest.URI);
    assertThrows(NoSuchAlgorithmException.class, () -> generated("RSA", null));
  }

  @Test
  void agreesAsTheJdkDoes() throws Exception {
    ECGenParameterSpec curve = new ECGenParameterSpec("secp521r1");
    KeyPair own = generated("EC", curve);
    KeyPairGenerator generator = KeyPairGenerator.getInstance("EC");
    generator.initialize(curve);
    KeyPair theirs = generator.generateKeyPair();
    Set<String> before = objects();
    KeyAgreement agreement = KeyAgreement.getInstance("ECDH", provider);
    List<String> secrets = new ArrayList<>();
    for (PrivateKey key : List.of(own.getPrivate(), theirs.getPrivate())) {
      agreement.init(key);
      agreement.doPhase((key == own.getPrivate() ? theirs : own).getPublic(), true);
      secrets.add(HexFormat.of().formatHex(agreement.generateSecret()));
    }
    assertEquals(secrets.get(1), secrets.get(0));
    assertEquals(before, objects());
    ECPublicKey point = (ECPublicKey) theirs.getPublic();
    PublicKey beside = KeyFactory.getInstance("EC").generatePublic(new ECPublicKeySpec(
        new ECPoint(point.getW().getAffineX(), BigInteger.ONE), point.getParams()));
    agreement.init(own.getPrivate());
    // The provider refuses it: a token might agree.
    TestToken.assertTells(
        "of the curve", InvalidKeyException.class, () -> agreement.doPhase(beside, true));
  }
}
