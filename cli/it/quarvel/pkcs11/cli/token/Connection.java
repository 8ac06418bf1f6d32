// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.*;
import it.quarvel.pkcs11.cli.console.Failure;
import it.quarvel.pkcs11.nat.*;
import java.security.*;
import java.util.*;
import java.util.concurrent.Callable;
import java.util.stream.IntStream;

/**
 * The open module with the one session that a command needs. Closing it logs out, closes the
 * session and finalises the module, however the command ended.
 */
public final class Connection implements AutoCloseable {
  private static final int MOST_HALVES = 8;

  private final Steps steps;
  private final PKCS11Module opened;
  private final boolean direct;
  private NativePKCS11Session session;
  private boolean loggedIn;

  /** The PIN, kept for keys that ask for it each time; null if a PIN pad asks. */
  private byte[] pin;

  /** The failure of the PIN for such a key, null without one. Another try could lock the token. */
  private PKCS11Exception refused;

  private Connection(Steps steps, PKCS11Module opened, boolean direct) {
    this.steps = steps;
    this.opened = opened;
    this.direct = direct;
  }

  /** Loads and initialises a module, behind the adapter or directly. */
  public static Connection open(String path, boolean direct, Steps steps) throws Failure {
    return new Connection(steps, steps.call(Step.OPEN, () -> open(path, direct)), direct);
  }

  /** Opens a module. The library's classes are used first here, and load its native file. */
  private static PKCS11Module open(String path, boolean direct) throws PKCS11Exception, Failure {
    try {
      return direct ? PKCS11Module.openDirect(path) : PKCS11Module.open(path);
    } catch (LinkageError e) {
      throw new Failure(String.valueOf(e.getMessage()).replaceAll("\\s+", " "));
    } catch (PKCS11Exception e) {
      if (e.reason() != PKCS11Exception.Reason.OTHER) {
        throw e;
      }
      throw new Failure(e.getMessage()); // it is about the file
    }
  }

  /** Makes a call on the module under the name of its step. */
  public <T> T call(Step step, Callable<T> call) throws Failure {
    return steps.call(step, call);
  }

  public void run(Step step, Steps.Action action) throws Failure {
    steps.run(step, action);
  }

  /** Tells whether the token lists a mechanism. */
  public boolean hasMechanism(int mechanism) throws PKCS11Exception {
    return IntStream.of(session.slot().getMechanismList()).anyMatch(each -> each == mechanism);
  }

  public PKCS11Module opened() {
    return opened;
  }

  public NativePKCS11Session session() {
    return session;
  }

  /**
   * Tells whether the type of a mechanism or an attribute can be named. Without the adapter, types
   * of the vendor-defined range reach the module changed.
   */
  public boolean canName(int type) {
    return type >= 0 || !direct;
  }

  /** Refuses a type that cannot be named. */
  public void requireName(int type) throws Failure {
    if (!canName(type)) {
      throw Failure.usage("0x%08X is the vendor's own, which --direct cannot name".formatted(type));
    }
  }

  public boolean isLoggedIn() {
    return loggedIn;
  }

  /**
   * Opens the session, and fails if another token has taken the place of the chosen one.
   *
   * @param flags {@code CKF_RW_SESSION} or 0; {@code CKF_SERIAL_SESSION} is always set
   */
  public void openSession(TokenInSlot chosen, int flags) throws Failure {
    steps.run(Step.OPEN_SESSION, () -> {
      session = chosen.slot().openSession(CKF_SERIAL_SESSION | flags);
      if (!TokenInSlot.of(chosen.slot()).isSame(chosen)) {
        throw new Failure("there is another token than %s now".formatted(chosen));
      }
    });
  }

  /** Logs in once; without a PIN the reader's PIN pad asks for it. Closing wipes the PIN. */
  public void login(boolean officer, byte[] given) throws Failure {
    pin = given;
    steps.run(Step.LOGIN, () -> login(officer));
    loggedIn = true;
  }

  private void login(boolean officer) throws PKCS11Exception {
    if (pin == null) {
      session.loginAuthPath(officer);
    } else {
      session.loginellips(officer, pin);
    }
  }

  /** Signs; a key that asks for the PIN each time gets it. */
  public byte[] sign(int mechanism, NativePKCS11Object key, byte[] data) throws PKCS11Exception {
    return session.sign(mechanism, key, data, loginFor(key));
  }

  /** Decrypts; a key that asks for the PIN each time gets it. */
  public byte[] decrypt(int mechanism, NativePKCS11Object key, byte[] data) throws PKCS11Exception {
    return session.decrypt(mechanism, key, data, loginFor(key));
  }

  /**
   * Returns the login for a key that asks for the PIN each time, null for other keys. It is null
   * without the adapter too: the module would refuse a second login, and may well sign without.
   */
  private NativePKCS11Session.Login loginFor(NativePKCS11Object key) throws PKCS11Exception {
    if (!loggedIn || direct
        || !Boolean.TRUE.equals(new Attributes(key).truth(CKA_ALWAYS_AUTHENTICATE))) {
      return null;
    }
    if (refused != null) {
      throw refused;
    }
    return () -> {
      try {
        login(false);
      } catch (PKCS11Exception e) {
        refused = e;
        throw e;
      }
    };
  }

  /** Returns the public halves of the objects that match, each once, as Java's own keys. */
  public Set<PublicKey> publicKeys(PKCS11Template template) throws Failure {
    Set<PublicKey> keys = new LinkedHashSet<>();
    for (NativePKCS11Object object : find(template, MOST_HALVES)) {
      keys.addAll(publicKeys(object));
    }
    return keys;
  }

  /** Returns the public half of an object, else those of all objects with the same id. */
  public Set<PublicKey> publicKeys(NativePKCS11Object object) throws Failure {
    Set<PublicKey> keys = new LinkedHashSet<>(publicKey(object));
    byte[] id = new Attributes(object).bytesOrEmpty(CKA_ID);
    if (keys.isEmpty() && id.length > 0) {
      for (NativePKCS11Object half : find(new PKCS11Template().put(CKA_ID, id), MOST_HALVES)) {
        keys.addAll(publicKey(half));
      }
    }
    return keys;
  }

  /** Returns the public key that an object holds, none if it holds none that Java can use. */
  private static Set<PublicKey> publicKey(NativePKCS11Object object) {
    try {
      return Set.of(new Attributes(object).isOf(CKO_CERTIFICATE)
          ? object.certificate().getPublicKey() : object.publicKey());
    } catch (PKCS11Exception | GeneralSecurityException e) {
      return Set.of();
    }
  }

  /** Visits the objects that match, each as it is found, until a visit returns false. */
  public void search(PKCS11Template template, NativePKCS11Session.Visitor<Failure> visitor)
      throws Failure {
    steps.run(Step.SEARCH, () -> session.forEach(template, visitor));
  }

  /** Returns the first objects that match, at most {@code most}. */
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
        steps.run(Step.LOGOUT, open::logout);
      }
    } finally {
      steps.run(Step.CLOSE_SESSION, open::close);
    }
  }

  @Override
  public void close() throws Failure {
    if (pin != null) {
      Arrays.fill(pin, (byte) 0);
    }
    try {
      closeSession();
    } finally {
      steps.run(Step.FINALISE, opened::close);
    }
  }
}
