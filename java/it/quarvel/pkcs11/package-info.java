// SPDX-License-Identifier: Apache-2.0
/**
 * Modules behind the adapter, and URIs that name tokens; records that describe modules, slots,
 * tokens, mechanisms and sessions; the PKCS#11 constants and their names; templates of attributes;
 * and the exception for every failure.
 */
package it.quarvel.pkcs11;
