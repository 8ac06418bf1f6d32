// SPDX-License-Identifier: Apache-2.0
/** Classes that this library shares with the inspector alone. */
package it.quarvel.pkcs11.internal;
