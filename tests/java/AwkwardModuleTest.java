import static java.nio.charset.StandardCharsets.US_ASCII;
import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.nat.*;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.*;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Drives native/awkward.cpp, whose ways are those of real modules that are not had everywhere. */
class AwkwardModuleTest {
  final NativePKCS11 module = new NativePKCS11();

  @BeforeEach
  void start() throws Exception {
    Path classes =
        Path.of(getClass().getProtectionDomain().getCodeSource().getLocation().toURI());
    NativePKCS11.loadPKCS11Library(classes.resolveSibling("libawkward.so").toString());
    module.libInitialize();
  }

  @AfterEach
  void stop() {
    module.libFinalize();
  }

  @Test
  void listsNone() throws Exception {
    List<NativePKCS11Slot> slots = module.slots(false);
    assertEquals(2, slots.size());
    assertEquals(List.of(), module.slots(true));
    slots.get(0).closeAllSessions();
    assertEquals(List.of(), module.slots(false));
  }

  @ParameterizedTest
  @ValueSource(ints = {0, 1024, 1025})
  void asksForALengthOnlyAfterARefusal(int length) throws Exception {
    NativePKCS11Session session = new NativePKCS11Session(new NativePKCS11Slot(module, 1), 1);
    NativePKCS11Object key = new NativePKCS11Object(session, 1);
    byte[] expected = "x".repeat(length).getBytes(US_ASCII);
    assertArrayEquals(expected, session.sign(length, key, new byte[2000]));
    assertArrayEquals(expected, session.decrypt(length, key, new byte[1]));
  }
}
