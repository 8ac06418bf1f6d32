// SPDX-License-Identifier: Apache-2.0
/**
 * A module behind the adapter and the token that a URI names; what a module tells of itself, its slots, tokens, mechanisms and sessions; PKCS#11 constants and
 * their names; templates of attributes; and the exception for every failure.
 */
package it.quarvel.pkcs11;
