// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.Security;

/**
 * Whoever is chosen before the key is known has to take every key: what is not the token's goes on
 * to another provider.
 */
final class OtherProviders {
  interface Attempt<T> {
    T with(Provider provider) throws GeneralSecurityException;
  }

  private OtherProviders() {}

  /**
   * Returns what the first provider makes that can.
   *
   * @param own the provider that hands on; others of its kind are left out, for other tokens or of
   *     another copy of the jar, which would hand back what it cannot do
   * @throws InvalidKeyException when none can, with the first refusal as its cause
   */
  static <T> T first(Provider own, Attempt<T> attempt) throws InvalidKeyException {
    Exception refusal = null;
    for (Provider provider : Security.getProviders()) {
      if (!provider.getClass().getName().equals(own.getClass().getName())) {
        try {
          return attempt.with(provider);
        } catch (NoSuchAlgorithmException e) {
          // Not what it is there for.
        } catch (GeneralSecurityException | RuntimeException e) {
          refusal = refusal == null ? e : refusal;
        }
      }
    }
    throw new InvalidKeyException("a key that is not the token's, and no other provider takes it",
        refusal);
  }
}
