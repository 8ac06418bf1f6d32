import static java.nio.charset.StandardCharsets.ISO_8859_1;

import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.io.IOException;
import java.lang.reflect.Array;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import sun.security.pkcs11.wrapper.CK_ATTRIBUTE;
import sun.security.pkcs11.wrapper.CK_MECHANISM;
import sun.security.pkcs11.wrapper.PKCS11;

/**
 * Runs the same operations on a misbehaving module through this library and through the JDK's own
 * wrapper, each in a virtual machine of its own, and prints what became of each.
 *
 * <p>{@code Hostile SCRIPTED LIAR MISBEHAVIOUR...} names two modules and the misbehaviours of the
 * first in its order; {@code Hostile --case SUBJECT MODULE OPERATION} is such a child.
 */
public class Hostile {
  private static final long TIMEOUT_SECONDS = 20;
  private static final int LABEL = 3;
  private static final int RSA_PKCS = 1;
  private static final byte[] DATA = new byte[16];
  private static final String DONE = "outcome: ";

  /** What the module then says, and the sizes of its first and second answer. */
  private static final String[][] LIES = {
    {"says 3, then 4", "3 4"},
    {"says 3, then 1000000", "3 1000000"},
    {"says 2^31 twice", "0x80000000 0x80000000"},
    {"says 2^60 twice", "0x1000000000000000 0x1000000000000000"},
    {"says 3, then 2^64-1", "3 0xFFFFFFFFFFFFFFFF"},
    {"says 2^64-1 twice", "0xFFFFFFFFFFFFFFFF 0xFFFFFFFFFFFFFFFF"}
  };

  private static final List<String> OPERATIONS =
      List.of(
          "info",
          "slot list",
          "slot info",
          "token info",
          "mechanism list",
          "mechanism info",
          "open session",
          "session info",
          "find objects",
          "attribute value",
          "sign",
          "encrypt",
          "decrypt",
          "create object",
          "generate key",
          "wrap key",
          "unwrap key");

  private static final List<String> SUBJECTS = List.of("library", "jdk");

  private record Case(String misbehaviour, String module, Map<String, String> environment) {}

  public static void main(String[] args) throws Exception {
    if (args[0].equals("--case")) {
      runCase(args[1], args[2], args[3]);
      return;
    }
    List<Case> cases = new ArrayList<>();
    for (int i = 2; i < args.length; i++) {
      String number = String.valueOf(i - 2);
      cases.add(new Case(args[i], args[0], Map.of("QUARVEL_MISBEHAVIOUR", number)));
    }
    for (String[] lie : LIES) {
      cases.add(new Case(lie[0], args[1], Map.of("QUARVEL_LIES", lie[1])));
    }
    printTable(cases);
  }

  // ---- The two subjects ----

  private static Map<String, Callable<Object>> wrapperOfTheJdk(String module) throws Exception {
    PKCS11 p11 = PKCS11.getInstance(module, "C_GetFunctionList", null, false);
    CK_MECHANISM mechanism = new CK_MECHANISM(RSA_PKCS);
    CK_ATTRIBUTE[] template = {new CK_ATTRIBUTE(LABEL, "label")};
    Map<String, Callable<Object>> operations = new LinkedHashMap<>();
    operations.put("info", p11::C_GetInfo);
    operations.put("slot list", () -> p11.C_GetSlotList(true));
    operations.put("slot info", () -> p11.C_GetSlotInfo(7));
    operations.put("token info", () -> p11.C_GetTokenInfo(7));
    operations.put("mechanism list", () -> p11.C_GetMechanismList(7));
    operations.put("mechanism info", () -> p11.C_GetMechanismInfo(7, RSA_PKCS));
    operations.put("open session", () -> p11.C_OpenSession(7, 4, null, null));
    operations.put("session info", () -> p11.C_GetSessionInfo(5));
    operations.put(
        "find objects",
        () -> {
          p11.C_FindObjectsInit(5, template);
          return p11.C_FindObjects(5, 1);
        });
    operations.put(
        "attribute value",
        () -> {
          CK_ATTRIBUTE[] asked = {new CK_ATTRIBUTE(LABEL)};
          p11.C_GetAttributeValue(5, 9, asked);
          return asked[0].pValue;
        });
    operations.put(
        "sign",
        () -> {
          p11.C_SignInit(5, mechanism, 9);
          return p11.C_Sign(5, DATA);
        });
    operations.put(
        "encrypt",
        () -> {
          p11.C_EncryptInit(5, mechanism, 9);
          return p11.C_Encrypt(5, 0, DATA, 0, DATA.length, 0, new byte[16], 0, 16);
        });
    operations.put(
        "decrypt",
        () -> {
          p11.C_DecryptInit(5, mechanism, 9);
          return p11.C_Decrypt(5, 0, DATA, 0, DATA.length, 0, new byte[16], 0, 16);
        });
    operations.put("create object", () -> p11.C_CreateObject(5, template));
    operations.put("generate key", () -> p11.C_GenerateKey(5, mechanism, template));
    operations.put("wrap key", () -> p11.C_WrapKey(5, mechanism, 9, 9));
    operations.put("unwrap key", () -> p11.C_UnwrapKey(5, mechanism, 9, DATA, template));
    return operations;
  }

  private static Map<String, Callable<Object>> thisLibrary(String path) throws Exception {
    NativePKCS11.loadPKCS11Library(path);
    NativePKCS11 module = new NativePKCS11();
    module.libInitialize();
    NativePKCS11Slot slot = new NativePKCS11Slot(module, 7);
    NativePKCS11Session session = new NativePKCS11Session(slot, 5);
    NativePKCS11Object key = new NativePKCS11Object(session, 9);
    PKCS11Template template = new PKCS11Template().put(LABEL, "label");
    Map<String, Callable<Object>> operations = new LinkedHashMap<>();
    operations.put("info", module::getInfo);
    operations.put("slot list", () -> module.getSlotList(true));
    operations.put("slot info", slot::getInfo);
    operations.put("token info", slot::getTokenInfo);
    operations.put("mechanism list", slot::getMechanismList);
    operations.put("mechanism info", () -> slot.getMechanismInfo(RSA_PKCS));
    operations.put("open session", () -> slot.openSession(4).sessionID());
    operations.put("session info", session::getInfo);
    operations.put(
        "find objects",
        () -> {
          session.findObjectsInit(template.types(), template.values());
          return session.findObject();
        });
    operations.put("attribute value", () -> key.getByteArrayAttributeValue(LABEL));
    operations.put("sign", () -> session.sign(RSA_PKCS, key, DATA));
    operations.put(
        "encrypt",
        () -> {
          session.encryptInit(RSA_PKCS, null, key);
          return session.encrypt(DATA, 0, DATA.length, new byte[16], 0);
        });
    operations.put(
        "decrypt",
        () -> {
          session.decryptInit(RSA_PKCS, null, key);
          return session.decrypt(DATA, 0, DATA.length, new byte[16], 0);
        });
    operations.put("create object", () -> session.createObject(template).objectID());
    operations.put("generate key", () -> session.generateKey(RSA_PKCS, template).objectID());
    operations.put("wrap key", () -> session.wrapKey(RSA_PKCS, key, key));
    operations.put(
        "unwrap key", () -> session.unwrapKey(RSA_PKCS, key, DATA, template).objectID());
    return operations;
  }

  // ---- A child ----

  private static void runCase(String subject, String module, String operation) {
    String outcome;
    try {
      Map<String, Callable<Object>> operations =
          subject.equals("library") ? thisLibrary(module) : wrapperOfTheJdk(module);
      outcome = describe(operations.get(operation).call());
    } catch (Throwable e) {
      String name = e.getClass().getSimpleName();
      outcome = name.equals("PKCS11Exception") ? name + " " + e.getMessage() : name;
    }
    System.out.println("\n" + DONE + outcome);
  }

  private static String describe(Object value) {
    if (value == null) {
      return "returns null";
    }
    if (value.getClass().isArray()) {
      return "returns " + Array.getLength(value) + " elements";
    }
    return "returns " + (value instanceof Number ? value : "an object");
  }

  // ---- The parent ----

  private static void printTable(List<Case> cases) throws Exception {
    ExecutorService pool = Executors.newFixedThreadPool(SUBJECTS.size());
    Map<String, List<String>> usual = new HashMap<>();
    int[] crashes = new int[SUBJECTS.size()];
    int alike = 0;
    System.out.println("| The module | Operation | This library | The JDK's wrapper |");
    System.out.println("|---|---|---|---|");
    for (Case hostile : cases) {
      for (String operation : OPERATIONS) {
        List<String> row = outcomes(pool, hostile, operation);
        count(row, crashes);
        if (row.equals(usual.putIfAbsent(operation, row))) {
          alike++;
        } else {
          System.out.printf(
              "| %s | %s | %s |%n", hostile.misbehaviour(), operation, String.join(" | ", row));
        }
      }
    }
    pool.shutdown();
    System.out.printf(
        "%n%d cases for each. Left out: %d in which both did as in the first rows.%n"
            + "Crashed or hung: %d for this library, %d for the JDK's wrapper.%n",
        cases.size() * OPERATIONS.size(), alike, crashes[0], crashes[1]);
    System.exit(crashes[0] == 0 ? 0 : 1);
  }

  private static List<String> outcomes(ExecutorService pool, Case hostile, String operation)
      throws Exception {
    List<Callable<String>> children = new ArrayList<>();
    for (String subject : SUBJECTS) {
      children.add(() -> child(subject, hostile, operation));
    }
    List<String> outcomes = new ArrayList<>();
    for (Future<String> outcome : pool.invokeAll(children)) {
      outcomes.add(outcome.get());
    }
    return outcomes;
  }

  private static void count(List<String> row, int[] crashes) {
    for (int subject = 0; subject < crashes.length; subject++) {
      String outcome = row.get(subject);
      crashes[subject] += outcome.startsWith("crash") || outcome.equals("hang") ? 1 : 0;
    }
  }

  private static String child(String subject, Case hostile, String operation)
      throws IOException, InterruptedException {
    Path output = Files.createTempFile("hostile", ".txt");
    try {
      ProcessBuilder builder = new ProcessBuilder(command(subject, hostile.module(), operation));
      builder.environment().putAll(hostile.environment());
      Process process = builder.redirectErrorStream(true).redirectOutput(output.toFile()).start();
      if (!process.waitFor(TIMEOUT_SECONDS, TimeUnit.SECONDS)) {
        process.destroyForcibly().waitFor();
        return "hang";
      }
      return outcome(Files.readString(output, ISO_8859_1), process.exitValue());
    } finally {
      Files.delete(output);
    }
  }

  private static List<String> command(String subject, String module, String operation) {
    return List.of(
        System.getProperty("java.home") + "/bin/java",
        "-Xmx1g",
        "-XX:TieredStopAtLevel=1",
        "-XX:-CreateCoredumpOnCrash",
        "-XX:ErrorFile=/dev/null",
        "--add-modules=jdk.crypto.cryptoki",
        "--add-exports=jdk.crypto.cryptoki/sun.security.pkcs11.wrapper=ALL-UNNAMED",
        "--enable-native-access=ALL-UNNAMED",
        "-cp",
        System.getProperty("java.class.path"),
        "Hostile",
        "--case",
        subject,
        module,
        operation);
  }

  private static String outcome(String output, int status) {
    int done = output.indexOf("\n" + DONE);
    if (status == 0 && done >= 0) {
      return output.substring(done + 1 + DONE.length()).strip();
    }
    Matcher signal = Pattern.compile("SIG[A-Z]{3,4}").matcher(output);
    String cause = signal.find() ? signal.group() : "status " + status;
    return "crash (" + (status > 128 ? "signal " + (status - 128) : cause) + ")";
  }
}
