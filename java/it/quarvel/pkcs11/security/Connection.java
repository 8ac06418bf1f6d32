// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11Session;

/** The time from one login to the next. An object handle is good in its own connection only. */
final class Connection {
  /** Work in a session; {@link Token#run} may do it again in another connection. */
  interface Work<T> {
    T in(NativePKCS11Session session, Connection connection) throws PKCS11Exception;
  }

  final Sessions sessions;

  Connection(Sessions sessions) {
    this.sessions = sessions;
  }

  /** Does work in a read-only session that no other thread uses meanwhile. */
  <T> T run(Work<T> work) throws PKCS11Exception {
    try (Sessions.Use use = sessions.take(false)) {
      T result = work.in(use.session(), this);
      use.succeeded();
      return result;
    }
  }

  /** Does work in a read/write session of its own ({@code CKF_RW_SESSION}). */
  <T> T change(Work<T> work) throws PKCS11Exception {
    try (Sessions.Use use = sessions.take(true)) {
      return work.in(use.session(), this);
    }
  }
}
