import static org.junit.jupiter.api.Assertions.*;

import it.quarvel.pkcs11.nat.NativePKCS11;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.Arrays;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Each class with native methods loads the library when it is the first one to be used. */
class FirstUseTest {
  @ParameterizedTest
  @CsvSource({
    "NativePKCS11Slot, initToken", "NativePKCS11Session, getFunctionStatus",
    "NativePKCS11Object, copy"
  })
  void loadsTheLibrary(String name, String refused) throws Exception {
    URL jar = NativePKCS11.class.getProtectionDomain().getCodeSource().getLocation();
    try (URLClassLoader unused =
        new URLClassLoader(new URL[] {jar}, ClassLoader.getPlatformClassLoader())) {
      Class<?> type = unused.loadClass("it.quarvel.pkcs11.nat." + name);
      Object object = type.getConstructors()[0].newInstance(null, 1);
      Method method =
          Arrays.stream(type.getMethods()).filter(m -> m.getName().equals(refused)).findAny().get();
      Throwable cause =
          assertThrows(
                  InvocationTargetException.class,
                  () -> method.invoke(object, new Object[method.getParameterCount()]))
              .getCause();
      assertEquals("Not supported", cause.getMessage(), cause::toString);
    }
  }
}
