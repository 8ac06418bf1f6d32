// SPDX-License-Identifier: Apache-2.0
/**
 * Java binding to PKCS#11 tokens.
 *
 * <p>Start at {@link it.quarvel.pkcs11.PKCS11Module}: it opens a PKCS#11 module and leads to slots,
 * sessions and objects; or at {@link it.quarvel.pkcs11.security.QuarvelProvider}, which makes a
 * token's keys usable by every Java library.
 */
@SuppressWarnings("module")
module it.quarvel.pkcs11 {
  exports it.quarvel.pkcs11;
  exports it.quarvel.pkcs11.nat;
  exports it.quarvel.pkcs11.security;

  provides java.security.Provider with
      it.quarvel.pkcs11.security.QuarvelProvider;
}
