package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.CKF_SERIAL_SESSION;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.nat.NativePKCS11;
import it.quarvel.pkcs11.nat.NativePKCS11Object;
import it.quarvel.pkcs11.nat.NativePKCS11Session;
import it.quarvel.pkcs11.nat.NativePKCS11Slot;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * The loaded module with the one session that a command needs. Closing it undoes what was done, in
 * reverse, however the command ended.
 */
public final class Connection implements AutoCloseable {
  private final Steps steps;
  private final NativePKCS11 module;
  private NativePKCS11Session session;
  private boolean loggedIn;

  private Connection(Steps steps, NativePKCS11 module) {
    this.steps = steps;
    this.module = module;
  }

  /**
   * Loads and initialises a module. One that refuses is left alone: another part of the process may
   * be using it.
   */
  public static Connection open(String path, Steps steps) throws Failure {
    steps.run(Operation.LOAD, () -> load(path));
    NativePKCS11 module = new NativePKCS11();
    steps.run(Operation.INITIALISE, module::libInitialize);
    return new Connection(steps, module);
  }

  /** The native library is loaded with the first use of its class, which is here. */
  private static void load(String path) throws PKCS11Exception, Failure {
    try {
      NativePKCS11.loadPKCS11Library(path);
    } catch (LinkageError e) {
      throw new Failure(String.valueOf(e.getMessage()).replaceAll("\\s+", " "));
    }
  }

  /** Makes a call on the module under the name of its operation. */
  public <T> T call(String operation, Steps.Call<T> call) throws Failure {
    return steps.call(operation, call);
  }

  public NativePKCS11 module() {
    return module;
  }

  public NativePKCS11Session session() {
    return session;
  }

  public boolean isLoggedIn() {
    return loggedIn;
  }

  /** Opens the session; {@code flags} are those beyond CKF_SERIAL_SESSION. */
  public void openSession(NativePKCS11Slot slot, int flags) throws Failure {
    session = steps.call("open session", () -> slot.openSession(CKF_SERIAL_SESSION | flags));
  }

  /** Logs in once, and wipes the PIN; without one the token's own PIN pad asks for it. */
  public void login(byte[] pin) throws Failure {
    try {
      steps.run(Operation.LOGIN, () -> {
        if (pin == null) {
          session.loginAuthPath(false);
        } else {
          session.loginellips(false, pin);
        }
      });
      loggedIn = true;
    } finally {
      if (pin != null) {
        Arrays.fill(pin, (byte) 0);
      }
    }
  }

  /** Visits the objects that match, each as it is found, until a visit returns false. */
  public void search(PKCS11Template template, NativePKCS11Session.Visitor<Failure> visitor)
      throws Failure {
    steps.run(Operation.SEARCH, () -> session.forEach(template, visitor));
  }

  /** Returns the first objects that match. */
  public List<NativePKCS11Object> find(PKCS11Template template, int most) throws Failure {
    List<NativePKCS11Object> found = new ArrayList<>();
    search(template, object -> found.add(object) && found.size() < most);
    return found;
  }

  /** Logs out and closes the session, if there is one. */
  public void closeSession() throws Failure {
    NativePKCS11Session open = session;
    session = null;
    if (open == null) {
      return;
    }
    try {
      if (loggedIn) {
        loggedIn = false;
        steps.run("logout", open::logout);
      }
    } finally {
      steps.run("close session", open::close);
    }
  }

  @Override
  public void close() throws Failure {
    try {
      closeSession();
    } finally {
      steps.run("finalise", module::libFinalize);
    }
  }
}
