// A token with faults of real ones, which the inspector has to show for what they are: objects that
// are numbered from 0, success with the length -1 for an attribute that is not there, a mechanism
// that cannot be described, a label that is no UTF-8, and an end that takes the process with it.
#include <cstdlib>
#include <cstring>

#include "pkcs11.h"

namespace {

constexpr CK_ULONG objects = 3;
CK_ULONG found;

CK_RV succeed(void* /*unused*/) { return CKR_OK; }

CK_RV getInfo(CK_INFO* /*info*/) { return CKR_OK; }

CK_RV getSlotList(CK_BBOOL /*tokenPresent*/, CK_SLOT_ID* slots, CK_ULONG* count) {
  *count = 1;
  if (slots != nullptr) *slots = 1;
  return CKR_OK;
}

CK_RV getSlotInfo(CK_SLOT_ID /*slot*/, CK_SLOT_INFO* info) {
  info->flags = CKF_TOKEN_PRESENT;
  return CKR_OK;
}

CK_RV getTokenInfo(CK_SLOT_ID /*slot*/, CK_TOKEN_INFO* info) {
  std::memset(info, ' ', offsetof(CK_TOKEN_INFO, flags));
  std::memcpy(info->label, "odd\x1b[31m", 8);
  info->flags = CKF_TOKEN_INITIALIZED;
  info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
  return CKR_OK;
}

CK_RV getMechanismList(CK_SLOT_ID /*slot*/, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  *count = 2;
  if (list != nullptr) list[0] = CKM_RSA_PKCS, list[1] = CKM_AES_ECB;
  return CKR_OK;
}

CK_RV getMechanismInfo(CK_SLOT_ID /*slot*/, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  *info = {1, 0x80000000, CKF_SIGN};
  return type == CKM_RSA_PKCS ? CKR_OK : CKR_DEVICE_ERROR;
}

CK_RV openSession(CK_SLOT_ID /*slot*/, CK_FLAGS /*flags*/, void* /*application*/,
                  CK_NOTIFY /*notify*/, CK_SESSION_HANDLE* session) {
  *session = 1;
  return CKR_OK;
}

CK_RV closeSession(CK_SESSION_HANDLE /*session*/) { return CKR_OK; }

CK_RV closeAllSessions(CK_SLOT_ID /*slot*/) { std::abort(); }

CK_RV findObjectsInit(CK_SESSION_HANDLE /*session*/, CK_ATTRIBUTE* /*template*/,
                      CK_ULONG /*count*/) {
  found = 0;
  return CKR_OK;
}

CK_RV findObjects(CK_SESSION_HANDLE /*session*/, CK_OBJECT_HANDLE* list, CK_ULONG room,
                  CK_ULONG* count) {
  for (*count = 0; *count < room && found < objects; ++*count) list[*count] = found++;
  return CKR_OK;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE /*session*/, CK_OBJECT_HANDLE object,
                        CK_ATTRIBUTE* attribute, CK_ULONG /*count*/) {
  const CK_ULONG data = CKO_DATA;
  const CK_BYTE label[] = {'0', 0xe9, static_cast<CK_BYTE>('0' + object)};
  const void* value = attribute->type == CKA_CLASS ? static_cast<const void*>(&data) : label;
  const CK_ULONG length = attribute->type == CKA_CLASS   ? sizeof data
                          : attribute->type == CKA_LABEL ? sizeof label
                                                         : CK_UNAVAILABLE_INFORMATION;
  if (attribute->pValue != nullptr && length <= attribute->ulValueLen) {
    std::memcpy(attribute->pValue, value, length);
  }
  attribute->ulValueLen = length;
  return CKR_OK;
}

CK_FUNCTION_LIST list;

}  // namespace

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** functionList) {
  list.C_Initialize = succeed;
  list.C_Finalize = succeed;
  list.C_GetInfo = getInfo;
  list.C_GetSlotList = getSlotList;
  list.C_GetSlotInfo = getSlotInfo;
  list.C_GetTokenInfo = getTokenInfo;
  list.C_GetMechanismList = getMechanismList;
  list.C_GetMechanismInfo = getMechanismInfo;
  list.C_OpenSession = openSession;
  list.C_CloseSession = closeSession;
  list.C_CloseAllSessions = closeAllSessions;
  list.C_FindObjectsInit = findObjectsInit;
  list.C_FindObjects = findObjects;
  list.C_FindObjectsFinal = closeSession;
  list.C_GetAttributeValue = getAttributeValue;
  *functionList = &list;
  return CKR_OK;
}
