// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;

/** Gives every call on the module the name of its step, which its failure then carries. */
public class Steps {
  /** A call with a result. */
  public interface Call<T> {
    T call() throws Exception;
  }

  /** A call without a result. */
  public interface Action {
    void run() throws Exception;
  }

  public <T> T call(Step step, Call<T> call) throws Failure {
    try {
      return call.call();
    } catch (Failure | RuntimeException e) {
      throw e;
    } catch (PKCS11Exception e) {
      throw failure(step, e);
    } catch (Exception e) {
      String reason = "Java cannot use the result: " + e.getMessage();
      throw new Failure(reason, step + ": " + reason, e);
    }
  }

  public final void run(Step step, Action action) throws Failure {
    call(step, () -> {
      action.run();
      return null;
    });
  }

  /** Makes a failure of a step of the module, with advice where there is any. */
  static Failure failure(Step step, PKCS11Exception cause) {
    String reason = cause.getMessage();
    return new Failure(reason, reason + ": " + step + Hints.of(step, cause), cause);
  }
}
