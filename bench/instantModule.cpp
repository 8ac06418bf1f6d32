// A PKCS#11 module that answers at once: constant answers, nothing recorded, nothing computed. What
// a call to it costs is what the binding in front of it costs.
//
// A search in session n finds n objects, and session 0 does not exist.
#include <cstring>

#include "pkcs11.h"

namespace {

constexpr CK_ULONG kSlots = 4;
constexpr CK_ULONG kMechanisms = 64;
constexpr CK_ULONG kSignatureSize = 256;
constexpr CK_ULONG kWrappedSize = 40;

CK_ULONG objectsLeft = 0;

void fill(void* field, std::size_t size, const char* text) {
  std::memset(field, ' ', size);
  std::memcpy(field, text, std::strlen(text));
}

/// The two calls by which a caller reads a list: its length, then its items from 0 up.
CK_RV answerList(CK_ULONG* list, CK_ULONG* count, CK_ULONG size) {
  for (CK_ULONG i = 0; list != nullptr && i < size; ++i) list[i] = i;
  *count = size;
  return CKR_OK;
}

/// The same for a constant result of an operation.
CK_RV answerBytes(CK_BYTE_PTR out, CK_ULONG* outLen, CK_ULONG size) {
  if (out != nullptr && *outLen < size) return CKR_BUFFER_TOO_SMALL;
  if (out != nullptr) std::memset(out, 0x5A, size);
  *outLen = size;
  return CKR_OK;
}

/// Output as long as the input; its bytes stay what they are.
CK_RV answerLength(CK_BYTE_PTR out, CK_ULONG* outLen, CK_ULONG size) {
  if (out != nullptr && *outLen < size) return CKR_BUFFER_TOO_SMALL;
  *outLen = size;
  return CKR_OK;
}

struct Value {
  const void* bytes;
  CK_ULONG size;
};

constexpr CK_ULONG kPrivateKey = CKO_PRIVATE_KEY;
constexpr CK_BBOOL kTrue = CK_TRUE;
constexpr CK_BYTE kBytes[256] = {0xC3, 0x5A, 0x17};
constexpr char kLabel[] = "signing key 2048";
constexpr char kDate[] = "20351231";

Value valueOf(CK_ATTRIBUTE_TYPE type) {
  switch (type) {
    case CKA_CLASS:
      return {&kPrivateKey, sizeof kPrivateKey};
    case CKA_LABEL:
      return {kLabel, sizeof kLabel - 1};
    case CKA_ID:
      return {kBytes, 20};
    case CKA_MODULUS:
      return {kBytes, sizeof kBytes};
    case CKA_START_DATE:
    case CKA_END_DATE:
      return {kDate, sizeof kDate - 1};
    default:
      return {&kTrue, sizeof kTrue};
  }
}

}  // namespace

#pragma GCC visibility push(default)
#pragma GCC diagnostic ignored "-Wunused-parameter"

CK_RV C_Initialize(void* args) { return CKR_OK; }
CK_RV C_Finalize(void* reserved) { return CKR_OK; }

CK_RV C_GetInfo(CK_INFO* info) {
  *info = {};
  info->cryptokiVersion = {2, 40};
  info->libraryVersion = {1, 2};
  fill(info->manufacturerID, sizeof info->manufacturerID, "Instant");
  fill(info->libraryDescription, sizeof info->libraryDescription, "Answers at once");
  return CKR_OK;
}

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* list, CK_ULONG* count) {
  return answerList(list, count, kSlots);
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info) {
  *info = {};
  fill(info->slotDescription, sizeof info->slotDescription, "Slot");
  fill(info->manufacturerID, sizeof info->manufacturerID, "Instant");
  info->flags = CKF_TOKEN_PRESENT;
  return CKR_OK;
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
  *info = {};
  fill(info->label, sizeof info->label, "Token");
  fill(info->manufacturerID, sizeof info->manufacturerID, "Instant");
  fill(info->model, sizeof info->model, "Constant");
  fill(info->serialNumber, sizeof info->serialNumber, "0123456789abcdef");
  fill(info->utcTime, sizeof info->utcTime, "2026010100000000");
  info->flags = CKF_TOKEN_INITIALIZED | CKF_LOGIN_REQUIRED;
  info->ulMaxPinLen = 64;
  info->ulMinPinLen = 4;
  return CKR_OK;
}

CK_RV C_GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  return answerList(list, count, kMechanisms);
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  *info = {1024, 4096, CKF_SIGN};
  return CKR_OK;
}

CK_RV C_InitPIN(CK_SESSION_HANDLE session, CK_BYTE_PTR pin, CK_ULONG pinLen) { return CKR_OK; }
CK_RV C_SetPIN(CK_SESSION_HANDLE session, CK_BYTE_PTR oldPin, CK_ULONG oldLen, CK_BYTE_PTR newPin,
               CK_ULONG newLen) {
  return CKR_OK;
}

CK_RV C_OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, void* application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE* session) {
  *session = 1;
  return CKR_OK;
}
CK_RV C_CloseSession(CK_SESSION_HANDLE session) { return CKR_OK; }
CK_RV C_CloseAllSessions(CK_SLOT_ID slot) { return CKR_OK; }
CK_RV C_GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
  *info = {0, CKS_RW_USER_FUNCTIONS, CKF_RW_SESSION | CKF_SERIAL_SESSION, 0};
  return CKR_OK;
}

CK_RV C_Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_BYTE_PTR pin, CK_ULONG pinLen) {
  return CKR_OK;
}
CK_RV C_Logout(CK_SESSION_HANDLE session) {
  return session != CK_INVALID_HANDLE ? CKR_OK : CKR_SESSION_HANDLE_INVALID;
}

CK_RV C_CreateObject(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count,
                     CK_OBJECT_HANDLE* object) {
  *object = 7;
  return CKR_OK;
}
CK_RV C_DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) { return CKR_OK; }
CK_RV C_GetObjectSize(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG* size) {
  *size = 512;
  return CKR_OK;
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                          CK_ATTRIBUTE* attributes, CK_ULONG count) {
  for (CK_ULONG i = 0; i < count; ++i) {
    const Value value = valueOf(attributes[i].type);
    if (attributes[i].pValue != nullptr) {
      if (attributes[i].ulValueLen < value.size) return CKR_BUFFER_TOO_SMALL;
      std::memcpy(attributes[i].pValue, value.bytes, value.size);
    }
    attributes[i].ulValueLen = value.size;
  }
  return CKR_OK;
}
CK_RV C_SetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                          CK_ATTRIBUTE* attributes, CK_ULONG count) {
  return CKR_OK;
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count) {
  objectsLeft = session;
  return CKR_OK;
}
CK_RV C_FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG max,
                    CK_ULONG* count) {
  *count = objectsLeft < max ? objectsLeft : max;
  for (CK_ULONG i = 0; i < *count; ++i) objects[i] = objectsLeft--;
  return CKR_OK;
}
CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE session) { return CKR_OK; }

CK_RV C_EncryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  return CKR_OK;
}
CK_RV C_Encrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                CK_ULONG* outLen) {
  return answerLength(out, outLen, inLen);
}
CK_RV C_DecryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  return CKR_OK;
}
CK_RV C_Decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                CK_ULONG* outLen) {
  return answerLength(out, outLen, inLen);
}
CK_RV C_SignInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  return CKR_OK;
}
CK_RV C_Sign(CK_SESSION_HANDLE session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
             CK_ULONG* outLen) {
  return answerBytes(out, outLen, kSignatureSize);
}

CK_RV C_GenerateKey(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_ATTRIBUTE* attributes,
                    CK_ULONG count, CK_OBJECT_HANDLE* key) {
  *key = 9;
  return CKR_OK;
}
CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_ATTRIBUTE* pub,
                        CK_ULONG pubLen, CK_ATTRIBUTE* prv, CK_ULONG prvLen,
                        CK_OBJECT_HANDLE* pubKey, CK_OBJECT_HANDLE* prvKey) {
  *pubKey = 11;
  *prvKey = 12;
  return CKR_OK;
}
CK_RV C_WrapKey(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE wrappingKey,
                CK_OBJECT_HANDLE key, CK_BYTE_PTR out, CK_ULONG* outLen) {
  return answerBytes(out, outLen, kWrappedSize);
}
CK_RV C_UnwrapKey(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key,
                  CK_BYTE_PTR in, CK_ULONG inLen, CK_ATTRIBUTE* attributes, CK_ULONG count,
                  CK_OBJECT_HANDLE* unwrapped) {
  *unwrapped = 13;
  return CKR_OK;
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST functions = [] {
    CK_FUNCTION_LIST f = {};
    f.version = {2, 40};
    f.C_Initialize = C_Initialize;
    f.C_Finalize = C_Finalize;
    f.C_GetInfo = C_GetInfo;
    f.C_GetFunctionList = C_GetFunctionList;
    f.C_GetSlotList = C_GetSlotList;
    f.C_GetSlotInfo = C_GetSlotInfo;
    f.C_GetTokenInfo = C_GetTokenInfo;
    f.C_GetMechanismList = C_GetMechanismList;
    f.C_GetMechanismInfo = C_GetMechanismInfo;
    f.C_InitPIN = C_InitPIN;
    f.C_SetPIN = C_SetPIN;
    f.C_OpenSession = C_OpenSession;
    f.C_CloseSession = C_CloseSession;
    f.C_CloseAllSessions = C_CloseAllSessions;
    f.C_GetSessionInfo = C_GetSessionInfo;
    f.C_Login = C_Login;
    f.C_Logout = C_Logout;
    f.C_CreateObject = C_CreateObject;
    f.C_DestroyObject = C_DestroyObject;
    f.C_GetObjectSize = C_GetObjectSize;
    f.C_GetAttributeValue = C_GetAttributeValue;
    f.C_SetAttributeValue = C_SetAttributeValue;
    f.C_FindObjectsInit = C_FindObjectsInit;
    f.C_FindObjects = C_FindObjects;
    f.C_FindObjectsFinal = C_FindObjectsFinal;
    f.C_EncryptInit = C_EncryptInit;
    f.C_Encrypt = C_Encrypt;
    f.C_DecryptInit = C_DecryptInit;
    f.C_Decrypt = C_Decrypt;
    f.C_SignInit = C_SignInit;
    f.C_Sign = C_Sign;
    f.C_GenerateKey = C_GenerateKey;
    f.C_GenerateKeyPair = C_GenerateKeyPair;
    f.C_WrapKey = C_WrapKey;
    f.C_UnwrapKey = C_UnwrapKey;
    return f;
  }();
  *list = &functions;
  return CKR_OK;
}

#pragma GCC visibility pop
