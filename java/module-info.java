/**
 * Java binding to PKCS#11 tokens.
 *
 * <p>Start at {@link it.quarvel.pkcs11.PKCS11Module}: it opens a PKCS#11 module and leads to slots,
 * sessions and objects.
 */
@SuppressWarnings("module")
module it.quarvel.pkcs11 {
  exports it.quarvel.pkcs11;
  exports it.quarvel.pkcs11.nat;
}
