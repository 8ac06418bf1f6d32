import java.io.File;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.Map;
import java.util.function.Function;

/** Loads this library's Java half once for each native library to be put under it. */
final class Subjects {
  private static final String FILE_PROPERTY = "it.quarvel.pkcs11.library";

  private Subjects() {}

  /** An instance of `className` that runs on `library`, in a class loader of its own. */
  static Object load(String className, String library) throws Exception {
    URL[] classes = {directory("bench.classes"), directory("bench.binding")};
    URLClassLoader loader = new URLClassLoader(classes, Subjects.class.getClassLoader());
    // The Java half reads the property when its first class is initialised, and only then.
    System.setProperty(FILE_PROPERTY, library);
    return loader.loadClass(className).getConstructor().newInstance();
  }

  @SuppressWarnings("unchecked")
  static Map<Op, Operation> binding(String library, String module) throws Exception {
    return ((Function<String, Map<Op, Operation>>) load("Binding", library)).apply(module);
  }

  private static URL directory(String property) throws MalformedURLException {
    return new File(System.getProperty(property)).toURI().toURL();
  }
}
