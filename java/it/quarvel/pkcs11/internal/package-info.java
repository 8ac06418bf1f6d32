// SPDX-License-Identifier: Apache-2.0
/** Helpers of this library and of the inspector, for no other program. */
package it.quarvel.pkcs11.internal;
