package it.quarvel.pkcs11.cli;

import it.quarvel.pkcs11.PKCS11Exception;
import java.security.GeneralSecurityException;

/** Gives every call on the module the name of its operation, which its failure then carries. */
class Steps {
  /** A call with a result. */
  interface Call<T> {
    T call() throws PKCS11Exception, GeneralSecurityException, Failure;
  }

  /** A call without a result. */
  interface Action {
    void run() throws PKCS11Exception, GeneralSecurityException, Failure;
  }

  <T> T call(String operation, Call<T> call) throws Failure {
    try {
      return call.call();
    } catch (PKCS11Exception e) {
      throw new Failure(operation, e);
    } catch (GeneralSecurityException e) {
      throw new Failure(operation + ": Java cannot use the result: " + e.getMessage());
    }
  }

  final void run(String operation, Action action) throws Failure {
    call(
        operation,
        () -> {
          action.run();
          return null;
        });
  }
}
