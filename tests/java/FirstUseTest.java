import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.nat.NativePKCS11;
import java.lang.reflect.InvocationTargetException;
import java.net.*;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Each class with native methods loads the library when it is the first one to be used. */
class FirstUseTest {
  @ParameterizedTest
  @CsvSource({"Slot, closeAllSessions", "Session, logout", "Object, destroy"})
  void loadsTheLibrary(String name, String method) throws Exception {
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
