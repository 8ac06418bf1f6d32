// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.cli.Main;
import it.quarvel.pkcs11.internal.Hash;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import java.io.*;
import java.math.BigInteger;
import java.nio.file.*;
import java.security.*;
import java.security.cert.*;
import java.security.spec.X509EncodedKeySpec;
import java.util.*;
import java.util.regex.Pattern;
import javax.crypto.Cipher;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Runs the inspector on {@link TestToken}. */
class CliTest {
  @RegisterExtension static final TestToken token = new TestToken();

  record Run(int status, String out, String err) {}

  @TempDir static Path dir;
  static X509Certificate certificate;

  @BeforeAll
  static void fillToken() throws Exception {
    Files.writeString(dir.resolve("pin"), TestToken.PIN + "\n");
    Files.writeString(dir.resolve("wrong"), "98765");
    Files.write(dir.resolve("data"), TestToken.DATA);
    TestToken.Pair pair = TestToken.pair();
    certificate = pair.certificate();
    NativePKCS11Session session = token.logIn();
    session.createObject(pair.privateKey().put(CKA_TOKEN, true));
    session.createObject(pair.x509());
    byte[] label = ("\"\\\n\u202e\ud83d\ude00" + "*".repeat(900)).getBytes(UTF_8);
    for (int i = 0; i < 300; i++) {
      session.createObject(new PKCS11Template().put(CKA_CLASS, CKO_DATA)
          .put(CKA_TOKEN, true).put(CKA_PRIVATE, i == 0)
          .put(CKA_LABEL, i == 0 ? "quarvel-pkcs11 check".getBytes(UTF_8) : label));
    }
    session.slot().module().libFinalize();
  }

  @Test
  void listsWhatOpenScLists() throws Exception {
    // The newest OpenSC reads an id as a number, too, and parts its bytes.
    String theirs = TestToken.openSc("--list-objects --login --pin " + TestToken.PIN)
        .replaceAll("\\d+ \\(0x(..):(..):(..)\\)", "$1$2$3");
    String ours = run("objects --pin-source DIR/pin").out;
    assertEquals(found("(?m)^(Data|Cert|Private K)\\w* [Oo]bject", theirs),
        found("(?m)^CKO_(DATA|CERT|PRIVATE_K)", ours));
    assertEquals(found("  (?:label|ID): +((?=cl|00).+)", theirs),
        found("  (?:label|id) +((?=cl|00).+)", ours));
    assertEquals(certificate.getSerialNumber(),
        new BigInteger(found(" serial: +(.+)", theirs).get(0), 16));
    assertTrue(ours.contains("  \"\\\\u000A\\u202E\ud83d\ude00*"), ours);
    assertTrue(ours.matches("(?s).*\n  subject +CN=Test\n  issuer +CN=Test\n.*"), ours);
    String slots = TestToken.openSc("--show-info --list-slots");
    assertEquals(found("(?:\\(ver |serial num +: |Slot 0 .*: )([^)\n]+)", slots),
        found("(?:library version|serial number|Slot \\d+:) +(.+)",
            run("info").out + run("slots --token demo").out));
    // OpenSC has other names for two of them.
    assertEquals(found("(?m)^  ([^,]+)", TestToken.openSc("--list-mechanisms")
        .replace("mechtype-0x210A", "AES-KEY-WRAP-PAD").replace("ECDSA-KEY", "EC-KEY")),
        found("CKM_(\\S+)", run("mechanisms").out));
    assertTrue(run("objects --attribute 0x12F").out.contains("\n  0x0000012F  -\n"));
    String item = "\\{\"uri\": \"\\S+;type=data\", \"class\": \"CKO_DATA\".*\"label\":"
        + " \"\\Q\\\"\\\\\\u000A\\u202E\ud83d\ude00\\E\\*+\", .*\"CKA_TOKEN\": true}";
    String json = run("objects --type data --json --attribute token").out;
    assertTrue(json.matches("\\[\n(%s,\n){298}%1$s\n]\n".formatted(item)), json);
  }

  @Test
  void findsWhatItsUrisName() {
    for (String uri : run("objects --pin-source DIR/pin --type private --uri-only").out.split("\n")) {
      assertEquals(uri + "\n", run("objects --uri-only --uri " + uri + "?pin-source=DIR/pin").out);
    }
    String token = run("slots --token demo --uri-only").out.strip();
    assertEquals(run("slots --token demo").out, run("slots --uri " + token).out);
  }

  @Test
  void signsAndDecryptsForTheJdk() throws Exception {
    for (Hash hash : Hash.values()) {
      if (hash.rsaMechanism != -1) {
        run("sign --id 00:69:ff --pin-source DIR/pin -o DIR/signature DIR/data"
            + (hash == Hash.SHA256 ? "" : " --mechanism " + hash + "_RSA_PKCS"));
        TestToken.assertVerifies(hash.shortName + "withRSA", certificate.getPublicKey(),
            Files.readAllBytes(dir.resolve("signature")));
      }
    }
    Cipher jdk = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    jdk.init(Cipher.ENCRYPT_MODE, certificate.getPublicKey());
    Files.write(dir.resolve("hidden"), jdk.doFinal(TestToken.DATA));
    String key = "pkcs11:token=demo;object=cl%c3%a9%20priv%C3%A9e?pin-source=file:DIR/pin";
    assertEquals(new Run(0, new String(TestToken.DATA, UTF_8), ""),
        run("decrypt DIR/hidden --uri " + key));
    String pem = run("export -o - --uri pkcs11:object=;type=cert").out;
    assertEquals(certificate, CertificateFactory.getInstance("X.509")
        .generateCertificate(new ByteArrayInputStream(pem.getBytes(UTF_8))));
  }

  @Test
  void signsWithEcKeys() throws Exception {
    TestToken.openSc("--login --pin 1234 --keypairgen --key-type EC:prime256v1 --id ec --label ec");
    run("sign --id ec --pin-source DIR/pin --signature-format der -o DIR/signature DIR/data");
    run("export --id ec --der -o DIR/ec");
    PublicKey key = KeyFactory.getInstance("EC").generatePublic(
        new X509EncodedKeySpec(Files.readAllBytes(dir.resolve("ec"))));
    TestToken.assertVerifies(
        "SHA256withECDSA", key, Files.readAllBytes(dir.resolve("signature")));
    String verify = "verify --id ec --signature DIR/signature --signature-format ";
    assertEquals(List.of(0, 1), List.of(run(verify + "der DIR/data").status, run(verify + "raw DIR/data").status));
    String ec = run("check --id ec --pin-source DIR/pin").out;
    assertTrue(ec.matches("(?s).*\nsign  *works .*\ndecrypt  *nothing to try .*"), ec);
    assertTrue(run("objects --id ec").out.contains("  curve   P-256\n"));
    TestToken.openSc("--delete-object --type pubkey --id ec");
    ec = run("check --id ec --pin-source DIR/pin").out;
    assertTrue(ec.contains("\nsign                not verified"), ec);
    TestToken.openSc("--login --pin 1234 --delete-object --type privkey --id ec");
  }

  @Test
  void changesPinsAndRemovesWhatWasLeft() throws Throwable {
    Files.writeString(dir.resolve("so"), TestToken.SO_PIN);
    run("pin --pin-source DIR/pin --new-pin-source DIR/wrong");
    assertEquals(0, run("objects --pin-source DIR/wrong").status);
    run("pin --unblock --pin-source DIR/so --new-pin-source DIR/pin");
    String change = "pin --module " + TestToken.SHIM + " --new-pin-source DIR/pin --pin-source DIR/";
    assertEquals(0, TestToken.calls("C_SetPIN", "C_SetPIN=0",
        () -> assertEquals(1, run(change + "wrong").status)));
    assertEquals(1, TestToken.calls("C_SetPIN", "C_Login:1=0xA3",
        () -> assertEquals(0, run(change + "pin").status)));
    Files.writeString(dir.resolve("new"), "12\ud83d\ude0034");
    assertEquals(0, TestToken.calls("C_Login:0", "", () -> assertEquals(1, run("pin --unblock --module "
        + TestToken.SHIM + " --pin-source DIR/so --new-pin-source DIR/new").status)));
    String clean = "check --clean --pin-source DIR/pin";
    Run asks = run(clean);
    assertEquals(1, asks.status);
    assertEquals(new Run(0, asks.out, ""), run(clean + " --yes"));
    assertEquals("", run(clean).out);
  }

  @Test
  void checksTheTokenAndLeavesItAsItWas() {
    List<String> before = found("(.+)", run("objects --pin-source DIR/pin").out);
    Run check = run("check --write --pin-source DIR/pin");
    assertTrue(check.out.endsWith("\n35 works\n"), check.out);
    assertEquals(new Run(0, check.out, ""), check);
    assertEquals(before, found("(.+)", run("objects --pin-source DIR/pin").out));
    Run json = run("check --json --token x");
    assertEquals(1, json.status);
    assertTrue(json.out.matches("(?s)\\{\"operations\": \\[\n.*\n], \"findings\": \\[\"no token .*: slots\"], "
        + "\"works\": false, \"error\": \"no token found; there are: .*\"}\n"), json.out);
  }

  @Test
  void removesWhatItMadeWhenItIsEnded() throws Exception {
    Process check = start("made", "check --write --pin-source " + dir.resolve("pin"));
    BufferedReader rows = check.inputReader();
    for (String row = ""; !row.startsWith("generate key "); row = rows.readLine()) {}
    check.toHandle().destroy(); // Process.destroy closes the output too, of which the command ends
    assertEquals(143, check.waitFor());
    // How far it has come by then depends on the machine.
    long made = calls("made", "C_CreateObject|C_GenerateKey|C_UnwrapKey")
        + 2 * calls("made", "C_GenerateKeyPair");
    assertTrue(made > 0);
    assertEquals(made, calls("made", "C_DestroyObject"));
  }

  /** The module is native/odd.cpp. */
  @Test
  void showsTheRestOfWhatIsOdd() throws Exception {
    String module = " --module " + TestToken.CLASSES.resolveSibling("libodd.so");
    String mechanisms = TestToken.output(0, start("odd", "mechanisms" + module));
    assertTrue(mechanisms.matches(
        "(?s).*0x80000001 +1 +2147483648 +CKF_SIGN\nCKM_AES_ECB +\\(CKR_DEVICE_ERROR \\(0x30\\)\\)\n"),
        mechanisms);
    String slots = TestToken.output(0, start("odd", "slots" + module));
    assertTrue(slots.contains("  token label             odd\\u001B[31m\n"), slots);
    String objects = TestToken.output(0, start("odd", "objects" + module));
    assertEquals(List.of("30E930", "30E931", "30E932"), found("label bytes +(\\S+)", objects));
    assertFalse(objects.contains("Internal error"), objects);
    String rows = TestToken.output(134, start("odd", "check" + module));
    assertTrue(rows.matches(
        "(?s).*\nread bytes .* the length -1.*\nread date  *not readable .*\nclose session  *works[^\n]*\n"), rows);
  }

  @ParameterizedTest
  @CsvSource(delimiter = '|', value = {
    "2|unknown option --pni;.*|objects --pni=1234", "2|(?!.*1234).*|objects --pin 1234",
    "2|(?!.*1234).*pin-value.*|objects --uri pkcs11:?pin-value=1234",
    "2|(?!.*1234).*|objects --pinpad 1234", "2|which key.*|sign DIR/data",
    "2|.*mechanism MD4:.*|sign --mechanism MD4", "2|.*vendor's.*|objects --direct --attribute 0x80000001",
    "2|.*attribute colour:.*|objects --attribute colour", "2|.*start.*|objects --uri token=demo",
    "2|.*hexadecimal.*in id;.*|objects --uri pkcs11:id=%0", "2|.*\"=\";.*|objects --uri pkcs11:id",
    "2|.*its place: pin-source;.*|objects --uri pkcs11:pin-source=/x",
    "2|.*token twice;.*|objects --uri pkcs11:token=a;token=b",
    "2|(?!.*1234).*names no file.*|objects --uri pkcs11:?pin-source=/1234%00",
    "2|.*types are.*|objects --uri pkcs11:type=key", "2|(?!.*1234).*|objects --uri pkcs11:1234=",
    "2|.*locale.*|objects --label \uFFFD", "1|.*is empty|objects --pin-source /dev/null",
    "1|.*/none cannot be read: there is no such.*|sign --id 00 DIR/none",
    "1|no token found; there are: \"demo\" .*|objects --token x", "1|no token found.*|slots --slot 77 --json",
    "1|no token found.*|slots --uri-only --uri pkcs11:serial=0", "2|.*slot is a number.*|objects --slot -1",
    "1|no token found.*|objects --slot 0x7", "2|--raw is for.*|export --id 0069ff --raw --pin-source DIR/pin",
    "1|no such certificate.*|export --label x", "1|the signature is not .*|verify --id 0069ff --signature DIR/pin DIR/data --pin-source DIR/pin", "2|.*no decimal.*|objects --uri pkcs11:slot-id=abc",
    "2|.*are no UTF-8;.*|objects --uri pkcs11:?pin-source=/%FF",
    "1|.* has no PIN pad.*|objects --pinpad", "1|.*4096 bytes|objects --pin-source /dev/zero",
    "2|there is no such command; the commands are info, .*|foo", "2|which key.*|check --type private",
    "2|--signature-format.*|sign --id 0069ff --pin-source DIR/pin --signature-format der DIR/data",
    "2|--clean goes.*|check --clean --label x", "2|--clean goes.*|check --clean --type data",
    "2|only one of --slot=N .*, and once;.*|slots --slot 1 --slot 1",
    "2|.*exclusive.*|pin --new-pin env:A --new-pin-source DIR/pin",
    "1|no terminal.*|objects --login", "1|no environment.*|objects --pin env:NO_SUCH_NAME",
    "1|no such private key.*--type.*|sign --label x --pin-source DIR/pin DIR/data",
    "1|CKR_PIN_INCORRECT \\(0xA0\\): login; .*|objects --pin-source DIR/wrong",
    "2|.*a module-path: .*|objects --uri pkcs11:?module-path=/x",
    "1|libc.so.6 is a library, but no PKCS#11 module|info --module libc.so.6",
    "1|.*/none: there is no such file that this user can reach|info --direct --module DIR/none",
    "1|.*above U\\+FFFF.*|info --direct --module DIR/\ud83d\ude00"})
  void saysInOneLineWhatIsWrong(int status, String message, String arguments) {
    Run run = run(arguments);
    assertTrue(run.err.matches("quarvel-pkcs11: " + message + "\n"), run.err);
    assertEquals(new Run(status, "", run.err), run);
  }

  @Test
  void triesAPinOnce() throws Throwable {
    TestToken.openSc("--login --pin 1234 --keypairgen --key-type RSA:1024 --id aa --always-auth");
    for (String pin : List.of("wrong", "pin")) {
      String login = pin.equals("pin") ? "C_Login:2" : "C_Login:1";
      assertEquals(1, TestToken.calls(login, "C_Login:2=0xA0 C_DecryptInit=0", () -> run(
          "check --id aa --pin-source DIR/" + pin + " --module " + TestToken.SHIM)), login);
    }
    TestToken.openSc("--delete-object --type pubkey --id aa");
    TestToken.openSc("--login --pin 1234 --delete-object --type privkey --id aa");
  }

  @Test
  void stopsWithItsReader() throws Exception {
    Process cut = start("cut", "objects --type data");
    cut.inputReader().readLine();
    cut.getInputStream().close();
    assertEquals(141, cut.waitFor());
    long found = calls("cut", "C_FindObjects");
    assertTrue(found < 300, found + " of 300");
    assertEquals(1, calls("cut", "C_Finalize"));
  }

  /** Runs in this process. */
  static Run run(String arguments) {
    ByteArrayOutputStream out = new ByteArrayOutputStream();
    ByteArrayOutputStream err = new ByteArrayOutputStream();
    String module = arguments.contains("--module") ? "" : " --module " + TestToken.MODULE;
    int status = Main.run(out, new PrintStream(err, true, UTF_8),
        (arguments + module).replace("DIR", "" + dir).split(" "));
    return new Run(status, out.toString(UTF_8), err.toString(UTF_8));
  }

  /** Starts a process, in which OpenSC's spy notes the calls unless another module is named. */
  static Process start(String log, String arguments) throws Exception {
    String module = arguments.contains("--module") ? "" : " --module $(ls /usr/lib/*/pkcs11-spy.so)";
    ProcessBuilder builder = new ProcessBuilder("sh", "-c",
        "exec \"$0\" -cp \"$1\" it.quarvel.pkcs11.cli.Main " + arguments + module,
        System.getProperty("java.home") + "/bin/java", System.getProperty("java.class.path"));
    builder.environment().putAll(Map.of("QUARVEL_MISBEHAVIOUR", "1", "PKCS11SPY",
        TestToken.MODULE, "PKCS11SPY_OUTPUT", dir.resolve(log + ".log").toString()));
    return builder.redirectError(ProcessBuilder.Redirect.DISCARD).start();
  }

  static long calls(String log, String name) throws Exception {
    String all = Files.readString(dir.resolve(log + ".log"));
    return found("(?m)^\\d+: (" + name + ")$", all).size();
  }

  static List<String> found(String pattern, String text) {
    return Pattern.compile(pattern).matcher(text).results()
        .map(match -> match.group(1).toUpperCase().replaceAll("[ _]", "-")).sorted().toList();
  }
}
