// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.nat;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.PKCS11SessionInfo;
import it.quarvel.pkcs11.PKCS11Template;
import it.quarvel.pkcs11.internal.Pin;
import java.nio.charset.CharacterCodingException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.Optional;

/**
 * A session with a token; {@link NativePKCS11Slot#openSession(int)} opens it and {@link #close}
 * ends it. {@link NativePKCS11} states the rules that hold for every call.
 *
 * <p>A login holds for all sessions of this application with the token, until the last of them is
 * closed. Sessions of the same handle on the same slot are equal.
 *
 * <p>Methods that take a {@link PKCS11Template}, or return an array instead of filling one, do the
 * usual steps of an operation in one call. The others are the PKCS#11 functions one by one.
 */
public class NativePKCS11Session implements AutoCloseable {
  /** The least room that is offered for a signature or for decrypted data, in bytes. */
  private static final int SMALLEST_ROOM = 1024;

  /** The room that is offered first for a wrapped key, in bytes, and doubled after each refusal. */
  private static final int SMALLEST_WRAP_ROOM = 4 * 1024;

  private static final int LARGEST_WRAP_ROOM = 64 * 1024;

  static {
    NativePKCS11.loadLibrary();
  }

  private final NativePKCS11Slot slot;
  private final int sessionID;

  /**
   * The two halves of a new key pair.
   *
   * @param publicKey the public key
   * @param privateKey the private key
   */
  public record KeyPair(NativePKCS11Object publicKey, NativePKCS11Object privateKey) {}

  /**
   * Visits the objects that {@link #forEach} finds.
   *
   * @param <E> the exception with which the visitor ends the search
   */
  @FunctionalInterface
  public interface Visitor<E extends Exception> {
    /**
     * Looks at an object. The search is still open: no other one can start in the session, and some
     * modules refuse to sign in it meanwhile (CKR_OPERATION_ACTIVE).
     *
     * @param object the object
     * @return whether to go on to the next one
     * @throws E to end the search
     */
    boolean visit(NativePKCS11Object object) throws E;
  }

  /**
   * The login between the start and the end of {@link #sign(int, NativePKCS11Object, byte[], Login)}.
   */
  @FunctionalInterface
  public interface Login {
    /**
     * Logs in.
     *
     * @throws PKCS11Exception when the module refuses; the operation then stays active
     */
    void run() throws PKCS11Exception;
  }

  /** Ends a search when the {@code try} block that runs it ends. */
  private interface Search extends AutoCloseable {
    @Override
    void close() throws PKCS11Exception;
  }

  /**
   * Makes an object for a session whose handle is known.
   *
   * @param slot the slot
   * @param sessionID the session handle
   */
  public NativePKCS11Session(NativePKCS11Slot slot, int sessionID) {
    this.slot = slot;
    this.sessionID = sessionID;
  }

  /**
   * Returns the slot.
   *
   * @return the slot that the session was opened on
   */
  public NativePKCS11Slot slot() {
    return slot;
  }

  /**
   * Returns the handle.
   *
   * @return the low 32 bits of the session handle
   */
  public int sessionID() {
    return sessionID;
  }

  /**
   * Ends the session ({@code C_CloseSession}). Closing it again raises the module's
   * CKR_SESSION_HANDLE_INVALID.
   *
   * @throws PKCS11Exception when the module refuses
   */
  @Override
  public native void close() throws PKCS11Exception;

  /**
   * Returns the session's state ({@code C_GetSessionInfo}).
   *
   * @return who is logged in and what the session may do
   * @throws PKCS11Exception when the module refuses
   */
  public native PKCS11SessionInfo getInfo() throws PKCS11Exception;

  /**
   * Logs in ({@code C_Login}). A {@code String} cannot be wiped from memory; {@link #login(char[])}
   * and {@link #loginellips} take arrays, which can. An empty PIN is a PIN without characters; it
   * does not ask for the reader's PIN pad, as {@link #loginAuthPath} does.
   *
   * @param isSO true for the security officer, false for the user
   * @param pin the PIN, sent as modified UTF-8
   * @throws PKCS11Exception when the module refuses, with CKR_PIN_INCORRECT for a wrong PIN
   */
  public native void login(boolean isSO, String pin) throws PKCS11Exception;

  /**
   * Logs out of the token ({@code C_Logout}), in all sessions of this application alike.
   *
   * @throws PKCS11Exception when the module refuses
   */
  public native void logout() throws PKCS11Exception;

  /**
   * Sets the user's PIN ({@code C_InitPIN}) in a read/write session of the security officer. The
   * {@code String} cannot be wiped from memory.
   *
   * @param newPin the PIN, sent as modified UTF-8
   * @throws PKCS11Exception when the module refuses
   */
  public native void initPIN(String newPin) throws PKCS11Exception;

  /**
   * Changes the PIN of whoever is logged in, else the user's ({@code C_SetPIN}). A {@code String}
   * cannot be wiped from memory; {@link #setPINellips} takes arrays, which can.
   *
   * @param oldPin the present PIN, sent as modified UTF-8
   * @param newPin the new PIN, sent as modified UTF-8
   * @throws PKCS11Exception when the module refuses, with CKR_PIN_INCORRECT for a wrong old PIN
   */
  public native void setPIN(String oldPin, String newPin) throws PKCS11Exception;

  /**
   * Starts a signature ({@code C_SignInit}).
   *
   * <p>A key with {@code CKA_ALWAYS_AUTHENTICATE} wants the PIN before each signature or
   * decryption, by a login of its own kind ({@code CKU_CONTEXT_SPECIFIC}). In a module that {@link
   * it.quarvel.pkcs11.PKCS11Module#open} opened, log in again between this call and {@link
   * #sign(byte[], int, int, byte[], int) sign}. In most others, the first operation after a login
   * succeeds and the next one raises CKR_USER_NOT_LOGGED_IN; logging out and in again allows one
   * more.
   *
   * @param mech a {@code CKM_} value
   * @param param not read
   * @param key a private or secret key
   * @throws PKCS11Exception when the module refuses
   */
  public native void signInit(int mech, Object param, NativePKCS11Object key)
      throws PKCS11Exception;

  /**
   * Signs all data at once ({@code C_Sign}). The call ends the operation, unless it only asks for
   * the length, fails with CKR_BUFFER_TOO_SMALL, or is refused before the module is called.
   *
   * @param inData the data
   * @param inOffset not read: data starts at index 0
   * @param inLen bytes of data
   * @param outData room for the signature; null or empty to ask for its length
   * @param outOffset not read: the signature starts at index 0
   * @return bytes of the signature, or the room that it needs
   * @throws PKCS11Exception when the module refuses
   */
  public native int sign(byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /**
   * Starts an encryption ({@code C_EncryptInit}).
   *
   * @param mech a {@code CKM_} value
   * @param param not read
   * @param key a public or secret key
   * @throws PKCS11Exception when the module refuses
   */
  public native void encryptInit(int mech, Object param, NativePKCS11Object key)
      throws PKCS11Exception;

  /**
   * Encrypts all data at once ({@code C_Encrypt}). The call offers the module room for {@code
   * inLen} bytes, however long {@code outData} is, so that only mechanisms work whose output is no
   * longer than their input. It cannot ask for the length.
   *
   * @param inData the data
   * @param inOffset not read: data starts at index 0
   * @param inLen bytes of data
   * @param outData at least {@code inLen} bytes of room
   * @param outOffset not read: the result starts at index 0
   * @return bytes of the result
   * @throws PKCS11Exception when the module refuses; with CKR_BUFFER_TOO_SMALL, the operation still
   *     active, when the result is longer than {@code inLen} or {@code outData} is shorter
   */
  public native int encrypt(byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /**
   * Starts a decryption ({@code C_DecryptInit}).
   *
   * @param mech a {@code CKM_} value
   * @param param not read
   * @param key a private or secret key
   * @throws PKCS11Exception when the module refuses
   */
  public native void decryptInit(int mech, Object param, NativePKCS11Object key)
      throws PKCS11Exception;

  /**
   * Decrypts all data at once ({@code C_Decrypt}). The call ends the operation, unless it only asks
   * for the length, fails with CKR_BUFFER_TOO_SMALL, or is refused before the module is called.
   *
   * @param inData the encrypted data
   * @param inOffset not read: data starts at index 0
   * @param inLen bytes of data
   * @param outData room for the result; null or empty to ask for its length
   * @param outOffset not read: the result starts at index 0
   * @return bytes of the result, or the room that it needs at most
   * @throws PKCS11Exception when the module refuses
   */
  public native int decrypt(byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /**
   * Starts a search ({@code C_FindObjectsInit}); {@link #findAll}, {@link #findFirst} and {@link
   * #forEach} run a whole one. It searches for a {@code Date} in the calendar and the digits of the
   * default locale. If a value is null or of a class that {@link NativePKCS11} does not name, the
   * call starts no search and raises nothing; {@link #findObject} then fails with
   * CKR_OPERATION_NOT_INITIALIZED.
   *
   * @param attrArray the {@code CKA_} constants to match; null for every object
   * @param valArray the values to match in the same order; null if {@code attrArray} is
   * @throws PKCS11Exception when the module refuses; with "Different array length" for arrays of
   *     different lengths, or if only one is null
   */
  public native void findObjectsInit(int[] attrArray, Object[] valArray) throws PKCS11Exception;

  /**
   * Returns the next object of the search ({@code C_FindObjects}).
   *
   * @return the object; null when there is no further one, or when the module gives out the handle
   *     0, as some do although it stands for none
   * @throws PKCS11Exception when the module refuses
   */
  public native NativePKCS11Object findObject() throws PKCS11Exception;

  /**
   * Ends the search ({@code C_FindObjectsFinal}); the session cannot start another one before.
   *
   * @throws PKCS11Exception when the module refuses
   */
  public native void findObjectsFinal() throws PKCS11Exception;

  /**
   * Logs in with the exact bytes of the PIN ({@code C_Login}); wipe the array afterwards. An empty
   * array does not ask for the reader's PIN pad, as {@link #loginAuthPath} does.
   *
   * @param isSO true for the security officer, false for the user
   * @param pin the PIN
   * @throws PKCS11Exception when the module refuses, with CKR_PIN_INCORRECT for a wrong PIN
   */
  public native void loginellips(boolean isSO, byte[] pin) throws PKCS11Exception;

  /**
   * Changes the PIN with exact bytes ({@code C_SetPIN}); wipe the arrays afterwards.
   *
   * @param oldPin the present PIN
   * @param newPin the new PIN
   * @throws PKCS11Exception when the module refuses, with CKR_PIN_INCORRECT for a wrong old PIN
   */
  public native void setPINellips(byte[] oldPin, byte[] newPin) throws PKCS11Exception;

  /**
   * Logs in with the reader's own PIN pad or other protected path ({@code C_Login} without a PIN).
   * The call waits for the person. Only tokens with CKF_PROTECTED_AUTHENTICATION_PATH have such a
   * path.
   *
   * @param isSO true for the security officer, false for the user
   * @throws PKCS11Exception when the module refuses
   */
  public native void loginAuthPath(boolean isSO) throws PKCS11Exception;

  /**
   * Reads the life-cycle status of the Identrus application on an Oberthur card: one byte in a
   * vendor-defined attribute of the object that {@link #getIdentrusObject} returns. The call
   * searches for that object first, so no other search may be open in the session. It prints its
   * progress on standard output, whatever the trace setting.
   *
   * @return the status byte, -128 to 127; 8 before first use
   * @throws PKCS11Exception when the module refuses to read the attribute, for instance with
   *     CKR_OBJECT_HANDLE_INVALID when the token has no such application
   */
  public native int getCardStatus() throws PKCS11Exception;

  /**
   * Changes the life-cycle status of the Identrus application on an Oberthur card, after reading it
   * as {@link #getCardStatus} does. If the status cannot be read, the call writes nothing. It
   * prints its progress, the old and the new status on standard output, whatever the trace setting.
   *
   * @param status the status, of which the low 8 bits are written; 8 before first use
   * @throws PKCS11Exception when the module refuses to read or to write the attribute, for instance
   *     with CKR_OBJECT_HANDLE_INVALID when the token has no such application
   */
  public native void setCardStatus(int status) throws PKCS11Exception;

  /**
   * Returns the Identrus application of an Oberthur card. The call searches for it, so no other
   * search may be open in the session. It prints its progress on standard output, whatever the
   * trace setting.
   *
   * @return an object in any case, of use unless its {@link NativePKCS11Object#objectID} is one of
   *     these: 0 when the token has no such application; -1 when no search could be started,
   *     because another one is open or no module is initialised for instance; -2 when the search
   *     failed on the way, and may still be open until {@link #findObjectsFinal} ends it
   * @throws PKCS11Exception never
   */
  public native NativePKCS11Object getIdentrusObject() throws PKCS11Exception;

  /**
   * Generates a key pair ({@code C_GenerateKeyPair}).
   *
   * @param mech a {@code CKM_} value, {@code CKM_RSA_PKCS_KEY_PAIR_GEN} for instance
   * @param param not read
   * @param pubAttrs attributes of the public key
   * @param pubVals their values in the same order
   * @param prvAttrs attributes of the private key
   * @param prvVals their values in the same order
   * @return the public key and the private key, or null when a value cannot be converted
   * @throws PKCS11Exception when the module refuses; with "Different array length for PublicKey" or
   *     "... for PrivateKey" unless the two arrays of each have the same length
   */
  public native Object[] generateKeyPair(
      int mech, Object param, int[] pubAttrs, Object[] pubVals, int[] prvAttrs, Object[] prvVals)
      throws PKCS11Exception;

  /**
   * Generates an "Identity" or "Utility" key pair as token objects ({@code C_GenerateKeyPair}): RSA
   * of 1024 bits with the public exponent 65537. The public key's label is that word, 8 bytes in
   * both cases: "Utility" ends in a zero byte. The private key signs, also with recovery, and has a
   * vendor-defined attribute that marks it, which only the cards of that vendor accept; {@link
   * #generateKeyPair(int, PKCS11Template, PKCS11Template)} serves other tokens. The call prints its
   * progress on standard output, whatever the trace setting.
   *
   * @param mech a {@code CKM_} value, {@code CKM_RSA_PKCS_KEY_PAIR_GEN} for instance
   * @param isIdentity true for "Identity", false for "Utility"
   * @return the public key and the private key
   * @throws PKCS11Exception when the module refuses, with CKR_ATTRIBUTE_TYPE_INVALID for the
   *     attribute that marks the key for instance; some then leave one key behind on the token
   */
  public native Object[] generateKeyPairOB(int mech, boolean isIdentity) throws PKCS11Exception;

  /**
   * Creates an object ({@code C_CreateObject}).
   *
   * @param attrArray its attributes
   * @param valArray their values in the same order
   * @return the object, or null when a value cannot be converted
   * @throws PKCS11Exception when the module refuses; with "Different array length" unless both
   *     arrays have the same length
   */
  public native NativePKCS11Object createObject(int[] attrArray, Object[] valArray)
      throws PKCS11Exception;

  /**
   * Stores an X.509 certificate ({@code C_CreateObject}), with its number in a vendor-defined
   * attribute, which only the cards of that vendor accept; {@link #createObject(PKCS11Template)}
   * serves other tokens. The texts are stored as modified UTF-8, not as DER. The module decides
   * whether the object outlives the session; a search finds it. The call prints its progress and
   * the four texts on standard output, whatever the trace setting.
   *
   * @param certID number of the certificate
   * @param certStr the certificate in DER
   * @param certLen not read: the whole array is stored
   * @param subject the subject
   * @param sn the serial number
   * @param issuer the issuer
   * @param label the label
   * @throws PKCS11Exception when the module refuses, with CKR_ATTRIBUTE_TYPE_INVALID for the number
   *     for instance
   */
  public native void installCertificate(
      long certID,
      byte[] certStr,
      long certLen,
      String subject,
      String sn,
      String issuer,
      String label)
      throws PKCS11Exception;

  /**
   * Generates a secret key ({@code C_GenerateKey}).
   *
   * @param mech a {@code CKM_} value, {@code CKM_AES_KEY_GEN} for instance
   * @param param not read
   * @param attrTypes attributes of the key
   * @param attrValues their values in the same order; further ones are ignored
   * @return the key, or null when a value cannot be converted
   * @throws PKCS11Exception when the module refuses; with "Different array length" when there are
   *     fewer values than attributes
   */
  public native NativePKCS11Object generateKey(
      int mech, Object param, int[] attrTypes, Object[] attrValues) throws PKCS11Exception;

  /**
   * Wraps a key ({@code C_WrapKey}). The call cannot ask for the length.
   *
   * @param mech a {@code CKM_} value
   * @param mechParameters not read
   * @param wrappingKey the key that wraps
   * @param key the key to wrap
   * @param outData room for the wrapped key
   * @param outOffset not read: the wrapped key starts at index 0
   * @return bytes of the wrapped key
   * @throws PKCS11Exception when the module refuses, with CKR_BUFFER_TOO_SMALL for too little room
   */
  public native int wrapKey(
      int mech,
      Object mechParameters,
      NativePKCS11Object wrappingKey,
      NativePKCS11Object key,
      byte[] outData,
      int outOffset)
      throws PKCS11Exception;

  /**
   * Unwraps a key ({@code C_UnwrapKey}).
   *
   * @param mech a {@code CKM_} value
   * @param param not read
   * @param unwrappingKey the key that unwraps
   * @param inkeyData the wrapped key
   * @param inkeyOffset not read: the wrapped key starts at index 0
   * @param inkeyLen bytes of the wrapped key
   * @param attrTypes attributes of the new key
   * @param attrValues their values in the same order; further ones are ignored
   * @return the new key, or null when a value cannot be converted
   * @throws PKCS11Exception when the module refuses; with "Different array length" when there are
   *     fewer values than attributes
   */
  public native NativePKCS11Object unwrapKey(
      int mech,
      Object param,
      NativePKCS11Object unwrappingKey,
      byte[] inkeyData,
      int inkeyOffset,
      int inkeyLen,
      int[] attrTypes,
      Object[] attrValues)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported YET" */
  @Deprecated
  public native void signUpdate(byte[] inData, int inOffset, int inLen) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported YET" */
  @Deprecated
  public native int signFinal(byte[] outData, int outOffset) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native byte[] getOperationState() throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void setOperationState(
      byte[] state, NativePKCS11Object encryptionKey, NativePKCS11Object authenticationKey)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int encryptUpdate(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int encryptFinal(byte[] outData, int outOffset) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int decryptUpdate(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int decryptFinal(byte[] outData, int outOffset) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void digestInit(int mech, Object param) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int digest(byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void digestUpdate(byte[] inData, int inOffset, int inLen) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void digestKey(NativePKCS11Object key) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int digestFinal(byte[] outData, int outOffset) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void signRecoverInit(int mech, Object param, NativePKCS11Object key)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int signRecover(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void verifyInit(int mech, Object param, NativePKCS11Object key)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native boolean verify(
      byte[] inData, int inOffset, int inLen, byte[] signature, int sigOffset, int sigLen)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void verifyUpdate(byte[] inData, int inOffset, int inLen) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native boolean verifyFinal(byte[] signature, int sigOffset, int sigLen)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void verifyRecoverInit(int mech, Object param, NativePKCS11Object key)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int verifyRecover(
      byte[] signature, int sigOffset, int sigLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int digestEncryptUpdate(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int decryptDigestUpdate(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int signEncryptUpdate(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native int decryptVerifyUpdate(
      byte[] inData, int inOffset, int inLen, byte[] outData, int outOffset)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native NativePKCS11Object deriveKey(
      int mech, Object param, NativePKCS11Object baseKey, int[] attrTypes, Object[] attrValues)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void seedRandom(byte[] seed, int seedOffset, int seedLen) throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void generateRandom(byte[] outData, int outOffset, int outLen)
      throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native boolean getFunctionStatus() throws PKCS11Exception;

  /** @deprecated always fails with "Not supported" */
  @Deprecated
  public native void cancelFunction() throws PKCS11Exception;

  /**
   * Logs the user in ({@code C_Login}). The call wipes the bytes that it makes of the PIN; the
   * caller wipes the characters.
   *
   * @param pin the PIN, sent as UTF-8
   * @throws PKCS11Exception when the module refuses, with CKR_PIN_INCORRECT for a wrong PIN; before
   *     the module is called, with CKR_ARGUMENTS_BAD for null or half a surrogate pair, which is no
   *     text
   */
  public void login(char[] pin) throws PKCS11Exception {
    if (pin == null) {
      throw new PKCS11Exception(CKR_ARGUMENTS_BAD);
    }
    byte[] bytes = {};
    try {
      bytes = Pin.of(pin);
      loginellips(false, bytes);
    } catch (CharacterCodingException e) {
      throw new PKCS11Exception(CKR_ARGUMENTS_BAD);
    } finally {
      Pin.wipe(bytes);
    }
  }

  /**
   * Finds every object that matches; an object with the handle 0 ends the search.
   *
   * @param template the attributes to match; null or empty for every object
   * @return the objects in the module's order
   * @throws PKCS11Exception when the module refuses
   */
  public List<NativePKCS11Object> findAll(PKCS11Template template) throws PKCS11Exception {
    List<NativePKCS11Object> found = new ArrayList<>();
    forEach(template, found::add);
    return found;
  }

  /**
   * Finds an object that matches.
   *
   * @param template the attributes to match; null or empty for every object
   * @return the first object in the module's order
   * @throws PKCS11Exception when the module refuses
   */
  public Optional<NativePKCS11Object> findFirst(PKCS11Template template) throws PKCS11Exception {
    List<NativePKCS11Object> found = new ArrayList<>();
    forEach(template, object -> !found.add(object));
    return found.isEmpty() ? Optional.empty() : Optional.of(found.get(0));
  }

  /**
   * Visits every object that matches, each as the module yields it, so that the caller needs to
   * keep none ({@code C_FindObjectsInit}, {@code C_FindObjects}, {@code C_FindObjectsFinal}). The
   * search is open meanwhile, and some modules then refuse to sign in the session. It ends however
   * the visits end.
   *
   * @param <E> the visitor's exception
   * @param template the attributes to match; null or empty for every object
   * @param visitor gets each object, and tells whether to go on
   * @throws PKCS11Exception when the module refuses
   * @throws E from the visitor
   */
  @SuppressWarnings("try")
  public <E extends Exception> void forEach(PKCS11Template template, Visitor<E> visitor)
      throws PKCS11Exception, E {
    PKCS11Template attributes = template == null ? new PKCS11Template() : template;
    findObjectsInit(attributes.types(), attributes.values());
    try (Search search = this::findObjectsFinal) {
      NativePKCS11Object object;
      do {
        object = findObject();
      } while (object != null && visitor.visit(object));
    }
  }

  /**
   * Signs data ({@code C_SignInit}, {@code C_Sign}). The call offers the module room for 1,024
   * bytes first; a longer signature costs two calls of the module more.
   *
   * @param mech a {@code CKM_} value
   * @param key a private or secret key; {@link #signInit} tells of keys that want the PIN each time
   * @param data the data
   * @return the signature
   * @throws PKCS11Exception when the module refuses
   */
  public byte[] sign(int mech, NativePKCS11Object key, byte[] data) throws PKCS11Exception {
    return sign(mech, key, data, null);
  }

  /**
   * Signs data with a key that may want the PIN each time.
   *
   * @param mech a {@code CKM_} value
   * @param key a private or secret key
   * @param data the data
   * @param login logs in, once the signature has started; null for a key that does not want it
   * @return the signature
   * @throws PKCS11Exception when the module refuses
   */
  public byte[] sign(int mech, NativePKCS11Object key, byte[] data, Login login)
      throws PKCS11Exception {
    notNull(data);
    signInit(mech, null, key);
    return result(true, login, data, SMALLEST_ROOM);
  }

  /**
   * Encrypts data ({@code C_EncryptInit}, {@code C_Encrypt}) with a mechanism whose output is no
   * longer than its input: raw RSA on a whole block, block ciphers without padding on whole blocks.
   *
   * @param mech a {@code CKM_} value
   * @param key a public or secret key
   * @param data the data
   * @return the encrypted data
   * @throws PKCS11Exception when the module refuses; with CKR_BUFFER_TOO_SMALL, the operation still
   *     active, when the result is longer than the data
   */
  public byte[] encrypt(int mech, NativePKCS11Object key, byte[] data) throws PKCS11Exception {
    byte[] out = new byte[notNull(data).length];
    encryptInit(mech, null, key);
    return prefix(out, encrypt(data, 0, out.length, out, 0));
  }

  /**
   * Decrypts data ({@code C_DecryptInit}, {@code C_Decrypt}). The call first offers the module room
   * for as many bytes as {@code data} has, and at least 1,024; a longer result costs two calls of
   * the module more.
   *
   * @param mech a {@code CKM_} value
   * @param key a private or secret key; {@link #signInit} tells of keys that want the PIN each time
   * @param data the encrypted data
   * @return the decrypted data
   * @throws PKCS11Exception when the module refuses
   */
  public byte[] decrypt(int mech, NativePKCS11Object key, byte[] data) throws PKCS11Exception {
    return decrypt(mech, key, data, null);
  }

  /**
   * Decrypts data with a key that may want the PIN each time.
   *
   * @param mech a {@code CKM_} value
   * @param key a private or secret key
   * @param data the encrypted data
   * @param login logs in, once the decryption has started; null for a key that does not want it
   * @return the decrypted data
   * @throws PKCS11Exception when the module refuses
   */
  public byte[] decrypt(int mech, NativePKCS11Object key, byte[] data, Login login)
      throws PKCS11Exception {
    int room = Math.max(SMALLEST_ROOM, notNull(data).length);
    decryptInit(mech, null, key);
    return result(false, login, data, room);
  }

  /**
   * Creates an object ({@code C_CreateObject}).
   *
   * @param template its attributes
   * @return the object
   * @throws PKCS11Exception when the module refuses
   */
  public NativePKCS11Object createObject(PKCS11Template template) throws PKCS11Exception {
    return converted(createObject(template.types(), template.values()));
  }

  /**
   * Generates a secret key ({@code C_GenerateKey}).
   *
   * @param mech a {@code CKM_} value, {@code CKM_AES_KEY_GEN} for instance
   * @param template its attributes
   * @return the key
   * @throws PKCS11Exception when the module refuses
   */
  public NativePKCS11Object generateKey(int mech, PKCS11Template template) throws PKCS11Exception {
    return converted(generateKey(mech, null, template.types(), template.values()));
  }

  /**
   * Generates a key pair ({@code C_GenerateKeyPair}).
   *
   * @param mech a {@code CKM_} value, {@code CKM_RSA_PKCS_KEY_PAIR_GEN} for instance
   * @param pub attributes of the public key
   * @param prv attributes of the private key
   * @return the two keys
   * @throws PKCS11Exception when the module refuses
   */
  public KeyPair generateKeyPair(int mech, PKCS11Template pub, PKCS11Template prv)
      throws PKCS11Exception {
    Object[] keys =
        converted(
            generateKeyPair(mech, null, pub.types(), pub.values(), prv.types(), prv.values()));
    return new KeyPair((NativePKCS11Object) keys[0], (NativePKCS11Object) keys[1]);
  }

  /**
   * Wraps a key ({@code C_WrapKey}), of up to 64 KiB in its wrapped form.
   *
   * @param mech a {@code CKM_} value
   * @param wrappingKey the key that wraps
   * @param key the key to wrap
   * @return the wrapped key
   * @throws PKCS11Exception when the module refuses, with CKR_BUFFER_TOO_SMALL for a longer key
   */
  public byte[] wrapKey(int mech, NativePKCS11Object wrappingKey, NativePKCS11Object key)
      throws PKCS11Exception {
    for (int room = SMALLEST_WRAP_ROOM; ; room *= 2) {
      byte[] out = new byte[room];
      try {
        return prefix(out, wrapKey(mech, null, wrappingKey, key, out, 0));
      } catch (PKCS11Exception e) {
        if (e.errorCode() != CKR_BUFFER_TOO_SMALL || room >= LARGEST_WRAP_ROOM) {
          throw e;
        }
      }
    }
  }

  /**
   * Unwraps a key ({@code C_UnwrapKey}). In a module that {@link
   * it.quarvel.pkcs11.PKCS11Module#open} opened, {@code CKM_ECDH1_DERIVE} and {@code
   * CKM_ECDH1_COFACTOR_DERIVE} agree on a key instead ({@code C_DeriveKey} with {@code CKD_NULL}):
   * the unwrapping key is the private EC key; the wrapped key is the other side's public point,
   * bare or as a DER octet string, whichever the module takes; the secret becomes the new key's
   * value.
   *
   * @param mech a {@code CKM_} value
   * @param unwrappingKey the key that unwraps
   * @param wrapped the wrapped key
   * @param template attributes of the new key
   * @return the new key
   * @throws PKCS11Exception when the module refuses
   */
  public NativePKCS11Object unwrapKey(
      int mech, NativePKCS11Object unwrappingKey, byte[] wrapped, PKCS11Template template)
      throws PKCS11Exception {
    int length = notNull(wrapped).length;
    return converted(
        unwrapKey(
            mech, null, unwrappingKey, wrapped, 0, length, template.types(), template.values()));
  }

  @Override
  public boolean equals(Object other) {
    return other instanceof NativePKCS11Session session && session.sessionID == sessionID
        && Objects.equals(session.slot, slot);
  }

  @Override
  public int hashCode() {
    return sessionID;
  }

  @Override
  public String toString() {
    return "NativePKCS11Session[sessionID=" + Integer.toUnsignedString(sessionID) + "]";
  }

  /**
   * Ends a signature or a decryption, after its login if it has one, and returns the result. It
   * offers room first: a question for the length is one call more, and some modules answer it by
   * writing through the null pointer. A refusal for want of room leaves the operation active.
   */
  private byte[] result(boolean signs, Login login, byte[] data, int room) throws PKCS11Exception {
    if (login != null) {
      login.run();
    }
    byte[] out = new byte[room];
    try {
      return prefix(out, result(signs, data, out));
    } catch (PKCS11Exception e) {
      if (e.errorCode() != CKR_BUFFER_TOO_SMALL) {
        throw e;
      }
    }
    out = new byte[Math.max(room, result(signs, data, null))];
    return prefix(out, result(signs, data, out));
  }

  private int result(boolean signs, byte[] data, byte[] out) throws PKCS11Exception {
    return signs ? sign(data, 0, data.length, out, 0) : decrypt(data, 0, data.length, out, 0);
  }

  private static byte[] notNull(byte[] data) throws PKCS11Exception {
    if (data == null) {
      throw new PKCS11Exception(CKR_ARGUMENTS_BAD);
    }
    return data;
  }

  /** Refuses null, which a native method returns when it cannot convert an attribute value. */
  private static <T> T converted(T result) throws PKCS11Exception {
    if (result == null) {
      throw new PKCS11Exception("An attribute value cannot be converted");
    }
    return result;
  }

  private static byte[] prefix(byte[] out, int length) throws PKCS11Exception {
    if (length < 0 || length > out.length) {
      throw new PKCS11Exception(
          "The module reports %s bytes in an array of %s".formatted(length, out.length));
    }
    return length == out.length ? out : Arrays.copyOf(out, length);
  }
}
