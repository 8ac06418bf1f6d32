// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.nat.NativePKCS11Session;

/** A token from one login to the next. Object handles of one connection are of no use in another. */
final class Connection {
  /** A piece of work in a session. */
  interface Work<T> {
    T in(NativePKCS11Session session, Connection connection) throws PKCS11Exception;
  }

  final Sessions sessions;

  Connection(Sessions sessions) {
    this.sessions = sessions;
  }

  /** Does some work in a session that nobody else uses meanwhile. */
  <T> T run(Work<T> work) throws PKCS11Exception {
    try (Sessions.Use use = sessions.take(false)) {
      T result = work.in(use.session(), this);
      use.succeeded();
      return result;
    }
  }

  /** Does some work in a read/write session of its own. */
  <T> T change(Work<T> work) throws PKCS11Exception {
    try (Sessions.Use use = sessions.take(true)) {
      return work.in(use.session(), this);
    }
  }
}
