import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.cli.Main;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import java.io.*;
import java.nio.file.*;
import java.util.*;
import java.util.regex.Pattern;
import javax.crypto.Cipher;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Runs the inspector on the token of {@link EndToEndTest}, and leaves it as empty as it was. */
class CliTest {
  static final EndToEndTest TOKEN = new EndToEndTest();

  record Run(int status, String out, String err) {}

  @TempDir static Path dir;

  @BeforeAll
  static void fillToken() throws Exception {
    Files.writeString(dir.resolve("pin"), EndToEndTest.PIN + "\n");
    Files.writeString(dir.resolve("wrong"), "98765");
    Files.write(dir.resolve("data"), EndToEndTest.DATA);
    EndToEndTest.makeKeyAndCertificate(dir);
    TOKEN.logInWithKeys();
    TOKEN.session.createObject(EndToEndTest.privateKey.put(CKA_TOKEN, true));
    TOKEN.session.createObject(EndToEndTest.x509);
    byte[] label = ("\"\\\n\u202e\ud83d\ude00" + "*".repeat(900)).getBytes(UTF_8);
    for (int i = 0; i < 300; i++) {
      TOKEN.session.createObject(new PKCS11Template().put(CKA_CLASS, CKO_DATA)
          .put(CKA_TOKEN, true).put(CKA_PRIVATE, i == 0).put(CKA_LABEL, label));
    }
    TOKEN.stop();
  }

  @AfterAll
  static void emptyToken() throws Exception {
    TOKEN.logInWithKeys();
    for (NativePKCS11Object object : TOKEN.session.findAll(null)) {
      object.destroy();
    }
    TOKEN.stop();
  }

  @Test
  void listsWhatOpenScLists() throws Exception {
    String theirs = EndToEndTest.openSc("--list-objects --login --pin " + EndToEndTest.PIN);
    String ours = run("objects --pin-source DIR/pin").out;
    assertEquals(found("(?m)^(Data|Cert|Private K)\\w* [Oo]bject", theirs),
        found("(?m)^CKO_(DATA|CERT|PRIVATE_K)", ours));
    assertEquals(found("  (?:label|ID): +((?=cl|00).+)", theirs),
        found("  (?:label|id) +((?=cl|00).+)", ours));
    assertTrue(ours.contains("  \"\\\\u000A\\u202E\ud83d\ude00*"), ours);
    // OpenSC has other names for two of them.
    assertEquals(found("(?m)^  ([^,]+)", EndToEndTest.openSc("--list-mechanisms")
        .replace("mechtype-0x210A", "AES-KEY-WRAP-PAD").replace("ECDSA-KEY", "EC-KEY")),
        found("CKM_(\\S+)", run("mechanisms").out));
    assertTrue(run("objects --attribute 0x12F").out.contains("\n  0x0000012F   -\n"));
    String item = "\\{\"class\": \"CKO_DATA\".*\"label\": \"\\Q\\\"\\\\\\u000a\u202e\ud83d\ude00\\E"
        + "\\*+\", .*\"CKA_TOKEN\": true}";
    String json = run("objects --type data --json --attribute token").out;
    assertTrue(json.matches("\\[\n(%s,\n){298}%1$s\n]\n".formatted(item)), json);
  }

  @Test
  void signsAndDecryptsForTheJdk() throws Exception {
    run("sign --id 00:69:ff --pin-source DIR/pin -o DIR/signature DIR/data");
    EndToEndTest.assertVerifies("SHA256withRSA", EndToEndTest.certificate.getPublicKey(),
        Files.readAllBytes(dir.resolve("signature")));
    Cipher jdk = Cipher.getInstance("RSA/ECB/PKCS1Padding");
    jdk.init(Cipher.ENCRYPT_MODE, EndToEndTest.certificate.getPublicKey());
    Files.write(dir.resolve("hidden"), jdk.doFinal(EndToEndTest.DATA));
    String key = "pkcs11:token=demo;object=cl%c3%a9%20priv%C3%A9e?pin-source=file:DIR/pin";
    assertEquals(new Run(0, new String(EndToEndTest.DATA, UTF_8), ""),
        run("decrypt DIR/hidden --uri " + key));
  }

  @Test
  void checksTheTokenAndLeavesItAsItWas() {
    List<String> before = found("(.+)", run("objects --pin-source DIR/pin").out);
    Run check = run("check --write --pin-source DIR/pin");
    assertTrue(check.out.endsWith("\n36 works, 15 not offered by the binding\n"), check.out);
    assertEquals(new Run(0, check.out, ""), check);
    assertEquals(before, found("(.+)", run("objects --pin-source DIR/pin").out));
    assertTrue(run("check --json").out.contains("\"wrap\", \"result\": \"not asked\""));
  }

  @ParameterizedTest
  @CsvSource(delimiter = '|', value = {
    "2|unknown option --pni;.*|objects --pni=1234", "2|(?!.*1234).*|objects --pin 1234",
    "2|(?!.*1234).*pin-value.*|objects --uri pkcs11:?pin-value=1234",
    "2|(?!.*1234).*|objects --pinpad 1234", "2|which key.*|sign DIR/data",
    "2|.*mechanism MD4:.*|sign --mechanism MD4", "2|.*vendor's.*|sign --mechanism 0x80000001",
    "2|.*attribute colour:.*|objects --attribute colour", "2|.*start.*|objects --uri token=demo",
    "2|.*hexadecimal.*in id;.*|objects --uri pkcs11:id=%0", "2|.*\"=\";.*|objects --uri pkcs11:id",
    "2|.*its place: pin-source;.*|objects --uri pkcs11:pin-source=/x",
    "2|.*token twice;.*|objects --uri pkcs11:token=a;token=b",
    "2|(?!.*1234).*names no file.*|objects --uri pkcs11:?pin-source=/1234%00",
    "2|.*types are.*|objects --uri pkcs11:type=key", "2|(?!.*1234).*|objects --uri pkcs11:1234=",
    "2|.*locale.*|objects --label \uFFFD", "1|the PIN is empty|objects --pin-source /dev/null",
    "1|.*/none cannot be read: there is no such.*|sign --id 00 DIR/none",
    "1|no token that.*|objects --token x", "1|no token that.*|objects --uri pkcs11:serial=0",
    "1|no terminal.*|objects --login", "1|no environment.*|objects --pin env:NO_SUCH_NAME",
    "1|no such key.*|sign --label x --pin-source DIR/pin DIR/data",
    "1|CKR_PIN_INCORRECT \\(0xA0\\): login; .*|objects --pin-source DIR/wrong",
    "1|Internal error: load; .*|info --module libc.so.6"})
  void saysInOneLineWhatIsWrong(int status, String message, String arguments) {
    Run run = run(arguments);
    assertTrue(run.err.matches("quarvel-pkcs11: " + message + "\n"), run.err);
    assertEquals(new Run(status, "", run.err), run);
  }

  @Test
  void triesAPinOnceAndStopsWithItsReader() throws Exception {
    assertEquals(1, calls("C_Login", 1, "check >&2 --pin-source " + dir.resolve("wrong")));
    long found = calls("C_FindObjects", 141, "objects --type data");
    assertTrue(found < 300, found + " of 300");
  }

  /** Runs in this process. */
  static Run run(String arguments) {
    ByteArrayOutputStream out = new ByteArrayOutputStream();
    ByteArrayOutputStream err = new ByteArrayOutputStream();
    String module = arguments.contains("--module") ? "" : " --module " + EndToEndTest.MODULE;
    int status = Main.run(out, new PrintStream(err, true, UTF_8),
        (arguments + module).replace("DIR", "" + dir).split(" "));
    return new Run(status, out.toString(UTF_8), err.toString(UTF_8));
  }

  /** Counts the calls of a name in a process of its own, of whose output only a line is read. */
  static long calls(String name, int status, String arguments) throws Exception {
    String[] command = {"sh", "-c", "PKCS11SPY=$1 exec \"$2\" -cp \"$3\" it.quarvel.pkcs11.cli.Main"
        + " --module $(ls /usr/lib/*/pkcs11-spy.so) " + arguments, "sh", EndToEndTest.MODULE,
        System.getProperty("java.home") + "/bin/java", System.getProperty("java.class.path")};
    ProcessBuilder builder = new ProcessBuilder(command);
    builder.environment().put("PKCS11SPY_OUTPUT", dir.resolve(name).toString());
    Process process = builder.start();
    process.inputReader().readLine();
    process.getInputStream().close();
    assertEquals(status, process.waitFor());
    String log = Files.readString(dir.resolve(name));
    assertEquals(1, found("(?m)^\\d+: (C_Finalize)$", log).size(), log);
    return found("(?m)^\\d+: (" + name + ")$", log).size();
  }

  static List<String> found(String pattern, String text) {
    return Pattern.compile(pattern).matcher(text).results()
        .map(match -> match.group(1).toUpperCase().replaceAll("[ _]", "-")).sorted().toList();
  }
}
