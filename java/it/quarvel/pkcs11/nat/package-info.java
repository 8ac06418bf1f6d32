// SPDX-License-Identifier: Apache-2.0
/**
 * The PKCS#11 functions as native methods: {@link it.quarvel.pkcs11.nat.NativePKCS11} loads a module
 * and lists its slots, a slot opens sessions, a session finds and makes objects.
 */
package it.quarvel.pkcs11.nat;
