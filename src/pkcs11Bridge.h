// SPDX-License-Identifier: Apache-2.0
// The module bridge: owns the one PKCS#11 module of the process and wraps each PKCS#11 function
// that the library uses in a checked call-through. Knows nothing of Java.
//
// Every function returns a CK_RV: 0 for success, the module's own value unchanged, or one of the
// bridge's codes. There are no locks: the Java caller makes one call at a time.
#ifndef QUARVEL_SRC_PKCS11BRIDGE_H_
#define QUARVEL_SRC_PKCS11BRIDGE_H_

#include "pkcs11.h"

namespace bridge {

/// The module could not be opened, gave no function list, or lacks the function.
inline constexpr CK_RV CKR_ZOV_NOFUNCPTR = 0x80000001;
/// A buffer for a module's answer could not be allocated.
inline constexpr CK_RV CKR_ZOV_NOSPACE = 0x80000002;
/// No successful C_Initialize stands behind the call.
inline constexpr CK_RV CKR_ZOV_NOTINIT = 0x80000003;

/// The module's function list; written by the module's C_GetFunctionList, also by one that then
/// fails (what it does not write stays); stale after finalizeLib.
extern CK_FUNCTION_LIST_PTR pFunctionList;
/// The handle of the opened module; null when the last open failed, stale after finalizeLib.
extern void* hLibrary;
/// 1 between a successful initLib and the next finalizeLib; call-throughs refuse to run at 0.
extern int loaded;

// ---- Module lifecycle ----

/// Opens the module `libName` (a path, passed to dlopen unchanged) and obtains its function list
/// with C_GetFunctionList. An earlier module stays open and `loaded` keeps its value.
/// @param pFuncList receives the list on success, else stays untouched; the module owns the list
/// @return CKR_OK, CKR_ZOV_NOFUNCPTR, or what C_GetFunctionList returned
CK_RV loadLib(const char* libName, CK_FUNCTION_LIST_PTR* pFuncList);

/// C_Initialize without arguments; sets `loaded` on success.
/// @return its value; CKR_ZOV_NOFUNCPTR without the list of a successful loadLib
CK_RV initLib();

/// C_Finalize, then closes the module whatever that returned, and clears `loaded`.
/// @return the value of C_Finalize; CKR_ZOV_NOFUNCPTR, with no module touched, without the list of
/// a successful loadLib (`loaded` is cleared all the same) or without a C_Finalize (`loaded` stays)
CK_RV finalizeLib();

// ---- Call-throughs ----
//
// Each returns CKR_ZOV_NOTINIT while `loaded` is 0 and CKR_ZOV_NOFUNCPTR for a null entry of the
// function list (or a null list). Arguments belong to the caller before and after the call, and
// outputs are to be read only after CKR_OK.

CK_RV getInfo(CK_INFO* pCkInfo);

/// C_GetSlotList, twice. On CKR_OK *slots is a C heap block of *pCounter slot IDs (8 bytes each,
/// non-null also for none) that the caller frees; on failure there is nothing to free.
/// @param tokenIn true for the slots with a token present only
/// @return also CKR_ZOV_NOSPACE; CKR_BUFFER_TOO_SMALL when the list grew between the two calls
CK_RV getSlotList(CK_SLOT_ID_PTR* slots, CK_BBOOL tokenIn, CK_ULONG* pCounter);

CK_RV getSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* pCkSlotInfo);
CK_RV getTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* pCkTokenInfo);

/// C_GetMechanismList, twice; buffer and errors as for getSlotList.
CK_RV getMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR* mechs, CK_ULONG* pCounter);

CK_RV getMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE mach, CK_MECHANISM_INFO* pCkMechInfo);

/// C_OpenSession without application pointer and notification callback, flags unchanged.
CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE* pSession);
CK_RV closeAllSessions(CK_SLOT_ID slot);
CK_RV closeSession(CK_SESSION_HANDLE session);
CK_RV getSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO* pCkSessionInfo);

/// C_InitPIN; the PIN is zero-terminated, its strlen is the length.
CK_RV initPin(CK_SESSION_HANDLE session, CK_CHAR_PTR newPin);
/// C_SetPIN with zero-terminated PINs.
CK_RV setPin(CK_SESSION_HANDLE session, CK_CHAR_PTR oldPin, CK_CHAR_PTR newPin);
/// C_SetPIN with explicit lengths in bytes; the PINs may hold zero bytes.
CK_RV setPinellips(CK_SESSION_HANDLE session, CK_BYTE_PTR oldPin, CK_ULONG oldPinLen,
                   CK_BYTE_PTR newPin, CK_ULONG newPinLen);
/// C_Login with a zero-terminated PIN, never null.
CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_CHAR_PTR pPin);
/// C_Login with an explicit length in bytes; the PIN may hold zero bytes.
CK_RV loginellips(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_BYTE_PTR pPin, CK_ULONG pPinLen);
/// C_Login with a null PIN: the token asks for it on its protected authentication path.
CK_RV loginAuthPath(CK_SESSION_HANDLE session, CK_USER_TYPE user);
CK_RV logout(CK_SESSION_HANDLE session);

CK_RV findObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attr, CK_ULONG count);
/// C_FindObjects for one handle; *pObj is CK_INVALID_HANDLE when nothing (more) was found.
CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* pObj);
CK_RV findObjectsFinal(CK_SESSION_HANDLE session);

/// C_CreateObject. Mind the order: the result handle comes before the template here.
CK_RV createObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* phObj, CK_ATTRIBUTE* attr,
                   CK_ULONG count);
CK_RV destroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj);
CK_RV getObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj, CK_ULONG* pSize);

/// C_GetAttributeValue, twice, for the one attribute whose type the caller has set. On CKR_OK
/// attr->pValue is a C heap block of attr->ulValueLen bytes and one zero byte after them, which
/// the caller frees; on failure there is nothing to free.
/// @return also CKR_ZOV_NOSPACE; CKR_BUFFER_TOO_SMALL when the value grew between the two calls
CK_RV getAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj, CK_ATTRIBUTE* attr);
CK_RV setAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj, CK_ATTRIBUTE* attr,
                        CK_ULONG count);

CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_OBJECT_HANDLE key);
/// C_Sign. *outLen is the room at outData in bytes on entry and the length of the result after;
/// a null outData asks for that length. encrypt and decrypt are alike.
CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE_PTR inData, CK_ULONG inLen, CK_BYTE_PTR outData,
           CK_ULONG* outLen);
CK_RV encryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_OBJECT_HANDLE key);
CK_RV encrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR inData, CK_ULONG inLen, CK_BYTE_PTR outData,
              CK_ULONG* outLen);
CK_RV decryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_OBJECT_HANDLE key);
CK_RV decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR inData, CK_ULONG inLen, CK_BYTE_PTR outData,
              CK_ULONG* outLen);

/// C_WrapKey; *outLen is the room at outData on entry and the wrapped key's length after.
CK_RV wrapKey(CK_SESSION_HANDLE session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hWrappingKey,
              CK_OBJECT_HANDLE hKey, CK_BYTE_PTR outData, CK_ULONG* outLen);
CK_RV unwrapKey(CK_SESSION_HANDLE session, CK_MECHANISM_PTR pMechanism,
                CK_OBJECT_HANDLE hUnwrappingKey, CK_BYTE_PTR pWrappedKey, CK_ULONG ulWrappedKeyLen,
                CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey);
CK_RV generateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_ATTRIBUTE* pubAttr,
                      CK_ULONG pubLen, CK_ATTRIBUTE* prvAttr, CK_ULONG prvLen,
                      CK_OBJECT_HANDLE* pubKey, CK_OBJECT_HANDLE* prvKey);
CK_RV generateKey(CK_SESSION_HANDLE ckSessionNum, CK_MECHANISM_PTR ckMech, CK_ATTRIBUTE_PTR ckAttr,
                  CK_ULONG ckLen, CK_OBJECT_HANDLE_PTR ckKey);

/// The lookup of an RSA credential by name; this bridge has none. Of C linkage, so that the linker
/// can put another in its place.
/// @param alias, pPin byte strings of aliasLen and pPinLen bytes; pPin null for no PIN
/// @return all bits set, in every state; no output is written
extern "C" CK_RV getRSACred(
    CK_CHAR_PTR alias, CK_ULONG aliasLen, CK_FLAGS flags, CK_CHAR_PTR pPin, CK_ULONG pPinLen,
    CK_SLOT_ID_PTR pSlotID, CK_SESSION_HANDLE_PTR pSession, CK_OBJECT_HANDLE_PTR pPrivateHandle,
    CK_OBJECT_HANDLE_PTR pPublicHandle, CK_OBJECT_HANDLE_PTR pCertificateHandle);

}  // namespace bridge

#endif  // QUARVEL_SRC_PKCS11BRIDGE_H_
