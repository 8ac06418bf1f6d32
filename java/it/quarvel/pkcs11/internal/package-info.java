// SPDX-License-Identifier: Apache-2.0
/** What the packages of this library share with the inspector, and nobody else sees. */
package it.quarvel.pkcs11.internal;
