// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import it.quarvel.pkcs11.PKCS11Exception;

/** Advises the user what to do about a return value. */
public final class Hints {
  private static final String PARAMETER = "mechanisms that need a parameter cannot be used";

  private Hints() {}

  /** Returns advice to append to a message, empty when there is none. */
  static String of(Step step, PKCS11Exception failure) {
    String hint = switch (failure.reason()) {
      case RETURN_VALUE -> of(failure.errorCode(), step);
      case INTERNAL -> "the module lacks the function, or answers with a number of its own, which the"
          + " trace of PKCS11_ZOV_DEBUG shows";
      default -> "";
    };
    return hint.isEmpty() ? "" : "; " + hint;
  }

  private static String of(int code, Step step) {
    return switch (code) {
      case CKR_PIN_INCORRECT ->
          "check the PIN; it was tried once, and most tokens lock after a few wrong ones";
      case CKR_PIN_LOCKED -> "\"pin --unblock\" sets a new one with the security officer's PIN";
      case CKR_PIN_EXPIRED -> "change it first, by \"pin\"";
      case CKR_PIN_LEN_RANGE, CKR_PIN_INVALID -> "\"slots\" shows how long a PIN is";
      case CKR_USER_PIN_NOT_INITIALIZED -> "the token has no user PIN yet; \"pin --unblock\" sets one";
      case CKR_USER_NOT_LOGGED_IN ->
          "log in with --login, and not --direct where the key wants the PIN each time";
      case CKR_USER_TYPE_INVALID -> "the token may have no such PIN: leave it out";
      case CKR_TOKEN_NOT_RECOGNIZED -> "initialise the token with the tools of its module";
      case CKR_TOKEN_NOT_PRESENT, CKR_DEVICE_REMOVED -> "insert the token and start again";
      case CKR_SLOT_ID_INVALID, CKR_SESSION_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID ->
          "the module may have handles of 64 bits: leave --direct out, if it is there";
      case CKR_MECHANISM_INVALID -> "\"mechanisms\" lists what the token has";
      case CKR_MECHANISM_PARAM_INVALID -> PARAMETER;
      case CKR_ARGUMENTS_BAD -> switch (step) {
        case OPEN -> "the module needs arguments: load it through p11-kit-proxy.so";
        case LOGIN, SET_PIN -> "\"slots\" shows how long a PIN is";
        case SIGN, DECRYPT -> PARAMETER;
        default -> "";
      };
      case CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED -> "\"objects\" shows the type of the key and what it may be used for";
      case CKR_DATA_LEN_RANGE ->
          "the data is too long for the mechanism; one that hashes takes any length";
      case CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_ENCRYPTED_DATA_INVALID ->
          "the data does not suit the key and the mechanism";
      case CKR_TOKEN_WRITE_PROTECTED -> "nothing can be changed there: --write, if given, has no use";
      default -> step == Step.OPEN
          ? "the module may not find its configuration or its daemon" : "";
    };
  }
}
