// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.cli.check;

import java.util.concurrent.locks.LockSupport;
import java.util.function.Consumer;

/**
 * Removes the objects of a check-up however it ends, also by Ctrl-C or SIGTERM, and tells the user
 * of those that stay.
 */
public final class Leftovers {
  private final KeyTrials trials;
  private final Consumer<String> message;
  private final Thread hook;

  public Leftovers(CheckTable table, KeyTrials trials, Consumer<String> message) {
    this.trials = trials;
    this.message = message;
    hook = new Thread(() -> {
      message.accept("interrupted: what was made is removed");
      if (!table.close(this::removeAndTell)) {
        message.accept("the module is busy: what was made may stay on the token");
      }
    });
    Runtime.getRuntime().addShutdownHook(hook);
  }

  /**
   * Removes the objects that are left, in place of the hook. Once the process is ending, this does
   * not return, so that the module stays open for the hook.
   */
  public void remove() {
    try {
      Runtime.getRuntime().removeShutdownHook(hook);
    } catch (IllegalStateException e) {
      while (true) {
        LockSupport.park();
      }
    }
    removeAndTell();
  }

  private void removeAndTell() {
    trials.abandon();
    String left = trials.left();
    if (!left.isEmpty()) {
      message.accept(left);
    }
  }
}
