// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11.security;

import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.Security;

/**
 * Hands work on to other providers. Java may choose a provider before it knows the key, so that the
 * provider has to take every key: those that are not on its token go on to the next provider.
 */
final class OtherProviders {
  /** Work that a provider does or refuses. */
  interface Attempt<T> {
    T with(Provider provider) throws GeneralSecurityException;
  }

  private OtherProviders() {}

  /**
   * Tries the providers in Java's order until one does the work.
   *
   * @param own the provider that hands on. The method leaves out every provider whose class has the
   *     same name, for other tokens or from another copy of the jar: it would hand the work back
   * @return the result of the first provider that does the work
   * @throws InvalidKeyException when no provider does it, with the first refusal as its cause; the
   *     lack of the algorithm is no refusal
   */
  static <T> T first(Provider own, Attempt<T> attempt) throws InvalidKeyException {
    Exception refusal = null;
    for (Provider provider : Security.getProviders()) {
      if (!provider.getClass().getName().equals(own.getClass().getName())) {
        try {
          return attempt.with(provider);
        } catch (NoSuchAlgorithmException e) {
          // This provider does not have the algorithm.
        } catch (GeneralSecurityException | RuntimeException e) {
          refusal = refusal == null ? e : refusal;
        }
      }
    }
    throw new InvalidKeyException("a key that is not the token's, and no other provider takes it",
        refusal);
  }
}
