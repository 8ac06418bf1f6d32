// SPDX-License-Identifier: Apache-2.0
import static it.quarvel.pkcs11.PKCS11Constants.*;
import static java.nio.charset.StandardCharsets.ISO_8859_1;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.nat.*;
import java.lang.reflect.InvocationTargetException;
import java.net.*;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.extension.RegisterExtension;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.*;

/** Opens modules: that of {@link TestToken} behind the adapter, and odd ones. */
class PKCS11ModuleTest {
  static final Path BUILD = TestToken.CLASSES.resolve("../..").normalize();
  static final String ODD = BUILD.resolve("tests/libodd.so").toString();

  @RegisterExtension static final TestToken token = new TestToken();

  @TempDir static Path dir;

  @BeforeAll
  static void makeFiles() throws Exception {
    Files.writeString(dir.resolve("text"), "a text that is longer than a header");
    byte[] library = Files.readAllBytes(Path.of(ODD));
    String lacking = new String(library, ISO_8859_1).replace("libc.so.6", "libx.so.6");
    Files.write(dir.resolve("lacking.so"), lacking.getBytes(ISO_8859_1));
    Files.write(dir.resolve("cut.so"), Arrays.copyOf(library, 5000));
    library[18] ^= 1;
    Files.write(dir.resolve("foreign.so"), library);
    library[18] ^= 1;
    library[38] = 1; // the table of segments is beyond the end, then before the beginning
    Files.write(dir.resolve("far.so"), library);
    library[39] = -1;
    Files.write(dir.resolve("negative.so"), library);
  }

  @ParameterizedTest
  @CsvSource(delimiter = '|', value = {
    "the path of the module is empty.*|''", "DIR is no file|DIR",
    "DIR/none: there is no such file that this user can reach|DIR/none", "DIR/text is no library|DIR/text",
    "/proc/self/mem is no library|/proc/self/mem", "DIR/cut.so is cut short.*|DIR/cut.so",
    "DIR/foreign.so is a library for another architecture|DIR/foreign.so",
    "DIR/lacking.so cannot be loaded as a .*; \"ldd -r\" shows .*|DIR/lacking.so",
    "DIR/far.so cannot be loaded as a .*|DIR/far.so",
    "DIR/negative.so cannot be loaded as a .*|DIR/negative.so",
    "BUILD/libquarvelpkcs11.so .* PKCS#11 module.*|BUILD/libquarvelpkcs11.so",
    "BUILD/adapter/lib\\w+.so is the adapter .*|BUILD/adapter/libquarvelpkcs11adapter.so"})
  void tellsWhyAFileIsNoModule(String message, String file) throws Exception {
    String path = file.replace("DIR", "" + dir).replace("BUILD", "" + BUILD);
    for (boolean direct : new boolean[] {false, true}) {
      String told = assertThrows(PKCS11Exception.class, () -> {
        (direct ? PKCS11Module.openDirect(path) : PKCS11Module.open(path)).close();
      }).getMessage();
      assertTrue(told.replace("" + dir, "DIR").replace("" + BUILD, "BUILD").matches(message), told);
    }
    token.open().close();
  }

  @Test
  void opensOneModuleAtATime() throws Exception {
    PKCS11Module first = token.open();
    assertEquals("there is one module at a time, and " + TestToken.MODULE + " is open: close it"
        + " first, or open p11-kit-proxy.so, which shows several as one",
        assertThrows(IllegalStateException.class, token::open).getMessage());
    first.close();
    try (PKCS11Module second = token.open()) {
      first.close();
      assertThrows(IllegalStateException.class, first::tokens);
      assertEquals(List.of(second.token("demo")), second.tokens());
      assertEquals(2, second.slots().size());
    }
  }

  @Test
  void namesTheTokensThereAre() throws Throwable {
    TestToken.calls("", "slots=both", () -> {
      try (PKCS11Module module = PKCS11Module.open(TestToken.SHIM)) {
        List<String> told = new ArrayList<>();
        for (NativePKCS11Slot slot : module.tokens()) {
          told.add("\"demo\" (serial number %s, slot %d)".formatted(slot.getTokenSN(), slot.slotID()));
          assertEquals(slot, module.token(PKCS11Uri.parse("pkcs11:slot-id=" + slot.slotID())));
        }
        String all = "; there are: " + String.join(", ", told);
        TestToken.assertFails("2 tokens labelled \"demo\"" + all, () -> module.token("demo"));
        TestToken.assertFails("2 tokens found" + all, () -> module.token(PKCS11Uri.ANY));
        TestToken.assertFails("no token labelled \"x\"" + all, () -> module.token("x"));
      }
    });
  }

  @Test
  void tellsOfAModuleThatDoesNotEnd() throws Throwable {
    TestToken.logged.clear();
    TestToken.calls("C_Finalize", "C_Finalize=0x30", () -> PKCS11Module.open(TestToken.SHIM).close());
    PKCS11Module.open(TestToken.SHIM).close();
    assertEquals(List.of(TestToken.SHIM + " is closed, but was not ended: CKR_DEVICE_ERROR (0x30)",
        TestToken.SHIM + " was not ended when it was closed before, and may be as it was left"),
        TestToken.logged);
  }

  // ---- Modules with ways that real ones have, see native/odd.cpp ----

  @Test
  void listsNoTokens() throws Exception {
    try (PKCS11Module module = PKCS11Module.openDirect(ODD)) {
      assertEquals(List.of(), module.tokens());
      TestToken.assertFails("no token labelled \"x\"; there is none", () -> module.token("x"));
      assertEquals(2, module.slots().size());
      module.slots().get(0).closeAllSessions();
      assertEquals(List.of(), module.slots());
    }
  }

  @ParameterizedTest
  @ValueSource(ints = {0, 1024, 1025})
  void asksForALengthOnlyAfterARefusal(int length) throws Exception {
    try (PKCS11Module module = PKCS11Module.openDirect(ODD)) {
      NativePKCS11Session session = new NativePKCS11Session(module.slots().get(0), 1);
      NativePKCS11Object key = new NativePKCS11Object(session, 1);
      byte[] expected = "x".repeat(length).getBytes(ISO_8859_1);
      assertArrayEquals(expected, session.sign(length, key, new byte[2000]));
      assertArrayEquals(expected, session.decrypt(length, key, new byte[1]));
    }
  }

  /** Each class with native methods loads the library when it is the first one to be used. */
  @ParameterizedTest
  @CsvSource({"Slot, closeAllSessions", "Session, logout", "Object, destroy"})
  void loadsTheLibraryAtTheFirstUse(String name, String method) throws Exception {
    URL jar = NativePKCS11.class.getProtectionDomain().getCodeSource().getLocation();
    try (URLClassLoader unused =
        new URLClassLoader(new URL[] {jar}, ClassLoader.getPlatformClassLoader())) {
      Class<?> type = unused.loadClass("it.quarvel.pkcs11.nat.NativePKCS11" + name);
      Object handle = type.getConstructors()[0].newInstance(null, 1);
      Throwable cause = assertThrows(
          InvocationTargetException.class, () -> type.getMethod(method).invoke(handle)).getCause();
      assertEquals("PKCS11Exception", cause.getClass().getSimpleName(), cause::toString);
    }
  }
}
