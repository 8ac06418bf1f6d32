// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import java.util.Locale;

/** The purposes of calls on a module; most of them are rows of a check-up. */
public enum Step {
  OPEN, INFO, SLOTS, TOKEN_INFO, SLOT_INFO, SERIAL_NUMBER, MECHANISMS, MECHANISM_INFO, OPEN_SESSION,
  SESSION_INFO, LOGIN, CREATE_OBJECT, GENERATE_KEY, GENERATE_KEY_PAIR, SEARCH, OBJECT_SIZE,
  READ_NUMBER, READ_TRUTH_VALUE, READ_TEXT, READ_BYTES, READ_BIG_NUMBER, READ_DATE, READ_ANY_TYPE,
  SIGN, DECRYPT, ENCRYPT, WRAP, UNWRAP, SET_ATTRIBUTE, DESTROY, SEARCH_AFTER, LOGOUT, CLOSE_SESSION,
  CLOSE_ALL_SESSIONS, FINALISE, EXPORT, VERIFY, SET_PIN;

  @Override
  public String toString() {
    return name().toLowerCase(Locale.ROOT).replace('_', ' ').replace("pin", "PIN");
  }
}
