// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.token;

import it.quarvel.pkcs11.PKCS11Exception;
import it.quarvel.pkcs11.cli.console.Failure;
import java.util.concurrent.Callable;

/** Makes calls on the module, each under the name of its step, which its failure then carries. */
public class Steps {
  /** A call without a result. */
  public interface Action {
    void run() throws Exception;
  }

  public <T> T call(Step step, Callable<T> call) throws Failure {
    try {
      return call.call();
    } catch (Failure | RuntimeException e) {
      throw e;
    } catch (PKCS11Exception e) {
      throw new Failure(e.getMessage(), step, Hints.of(step, e), e);
    } catch (Exception e) {
      throw new Failure("Java cannot use the result, " + e.getMessage(), step, "", e);
    }
  }

  public final void run(Step step, Action action) throws Failure {
    call(step, () -> {
      action.run();
      return null;
    });
  }
}
