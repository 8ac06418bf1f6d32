// SPDX-License-Identifier: Apache-2.0
// A PKCS#11 module that answers at once: its answers are constant, and it records and computes
// nothing. The cost of a call to it is the cost of the binding in front of it.
//
// A search in session n finds n objects, and session 0 does not exist.
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <tuple>

#include "pkcs11.h"

namespace {

CK_ULONG objectsLeft = 0;

template <typename... Args>
CK_RV succeed(Args...) {
  return CKR_OK;
}

template <typename... Args>
auto* last(Args... args) {
  return std::get<sizeof...(Args) - 1>(std::tuple(args...));
}

/// Answers with a handle through the last argument: 7, or the value of INSTANT_HANDLE.
template <typename... Args>
CK_RV giveHandle(Args... args) {
  static const char* const given = std::getenv("INSTANT_HANDLE");
  static const CK_ULONG handle = given != nullptr ? std::strtoul(given, nullptr, 0) : 7;
  *last(args...) = handle;
  return CKR_OK;
}

/// Fills every field of the structure behind the last argument with one letter.
template <typename... Args>
CK_RV giveLetters(Args... args) {
  std::memset(last(args...), 'A', sizeof *last(args...));
  return CKR_OK;
}

/// Answers the two calls by which a caller reads a list or a result: its length, then its items.
template <typename T>
CK_RV give(T* out, CK_ULONG* room, CK_ULONG size) {
  if (out != nullptr && *room < size) return CKR_BUFFER_TOO_SMALL;
  for (CK_ULONG i = 0; out != nullptr && i < size; ++i) out[i] = static_cast<T>(i);
  *room = size;
  return CKR_OK;
}

/// Gives output as long as the input, and leaves its bytes as they are.
CK_RV transform(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG size, CK_BYTE* out, CK_ULONG* room) {
  if (out != nullptr && *room < size) return CKR_BUFFER_TOO_SMALL;
  *room = size;
  return CKR_OK;
}

std::string_view valueOf(CK_ATTRIBUTE_TYPE type) {
  static constexpr char bytes[256] = {CKO_PRIVATE_KEY};
  if (type == CKA_LABEL) return "signing key 2048";
  if (type == CKA_END_DATE) return "20351231";
  if (type == CKA_CLASS) return {bytes, sizeof(CK_ULONG)};
  if (type == CKA_ID) return {bytes, 20};
  return {bytes, type == CKA_MODULUS ? sizeof bytes : 1};
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attributes,
                        CK_ULONG count) {
  for (CK_ULONG i = 0; i < count; ++i) {
    const std::string_view value = valueOf(attributes[i].type);
    if (attributes[i].pValue != nullptr) {
      if (attributes[i].ulValueLen < value.size()) return CKR_BUFFER_TOO_SMALL;
      std::memcpy(attributes[i].pValue, value.data(), value.size());
    }
    attributes[i].ulValueLen = value.size();
  }
  return CKR_OK;
}

CK_FUNCTION_LIST functions() {
  CK_FUNCTION_LIST f = {};
  f.version = {2, 40};
  f.C_Initialize = f.C_Finalize = succeed;
  f.C_GetInfo = giveLetters;
  f.C_GetSlotInfo = giveLetters;
  f.C_GetTokenInfo = giveLetters;
  f.C_GetMechanismInfo = giveLetters;
  f.C_GetSessionInfo = giveLetters;
  f.C_OpenSession = giveHandle;
  f.C_CloseSession = f.C_CloseAllSessions = f.C_FindObjectsFinal = succeed;
  f.C_Login = succeed;
  f.C_SignInit = f.C_EncryptInit = f.C_DecryptInit = succeed;
  f.C_Encrypt = f.C_Decrypt = transform;
  f.C_CreateObject = giveHandle;
  f.C_GenerateKey = giveHandle;
  f.C_GetAttributeValue = getAttributeValue;
  f.C_GetSlotList = [](CK_BBOOL, CK_ULONG* list, CK_ULONG* room) { return give(list, room, 4); };
  f.C_GetMechanismList = [](CK_SLOT_ID, CK_ULONG* list, CK_ULONG* room) {
    return give(list, room, 64);
  };
  f.C_Sign = [](CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG* room) {
    return give(out, room, 256);
  };
  f.C_WrapKey = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE,
                   CK_BYTE* out, CK_ULONG* room) { return give(out, room, 40); };
  f.C_GenerateKeyPair = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_ATTRIBUTE*, CK_ULONG, CK_ATTRIBUTE*,
                           CK_ULONG, CK_OBJECT_HANDLE* pub, CK_OBJECT_HANDLE* prv) {
    *pub = *prv = 7;
    return CK_RV{CKR_OK};
  };
  f.C_Logout = [](CK_SESSION_HANDLE session) {
    return session != 0 ? CK_RV{CKR_OK} : CK_RV{CKR_SESSION_HANDLE_INVALID};
  };
  f.C_FindObjectsInit = [](CK_SESSION_HANDLE session, CK_ATTRIBUTE*, CK_ULONG) {
    objectsLeft = session;
    return CK_RV{CKR_OK};
  };
  f.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* out, CK_ULONG max, CK_ULONG* count) {
    *count = objectsLeft < max ? objectsLeft : max;
    for (CK_ULONG i = 0; i < *count; ++i) out[i] = objectsLeft--;
    return CK_RV{CKR_OK};
  };
  return f;
}

}  // namespace

[[gnu::visibility("default")]] CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST only = functions();
  *list = &only;
  return CKR_OK;
}
