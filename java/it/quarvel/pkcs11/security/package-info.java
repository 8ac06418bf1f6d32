// SPDX-License-Identifier: Apache-2.0
/**
 * The keys of tokens for every Java library. {@link it.quarvel.pkcs11.security.QuarvelProvider} is
 * a provider of {@code java.security} with a key store, signatures, ciphers and key agreements; the
 * private keys stay on the token.
 */
package it.quarvel.pkcs11.security;
