// A module with ways that real ones have, and that the Java half has to get along with.
#include <cstring>

#include "pkcs11.h"

namespace {

CK_ULONG readers;  // slots 1 and so on, none with a token
CK_ULONG length;   // of the result of the operation under way: the number of its mechanism
bool refused;      // whether there was too little room for that result

CK_RV initialize(void* /*arguments*/) {
  readers = 2;
  return CKR_OK;
}

CK_RV finalize(void* /*reserved*/) { return CKR_OK; }

// A list of none is refused as too long for its buffer.
CK_RV getSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* slots, CK_ULONG* count) {
  *count = tokenPresent ? 0 : readers;
  for (CK_ULONG i = 0; slots != nullptr && i < *count; ++i) slots[i] = i + 1;
  return *count == 0 && slots != nullptr ? CKR_BUFFER_TOO_SMALL : CKR_OK;
}

// Pulls the readers.
CK_RV closeAllSessions(CK_SLOT_ID /*slot*/) {
  readers = 0;
  return CKR_OK;
}

// The reader of slot 2 is gone, but not its slot.
CK_RV getSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* /*info*/) {
  return slot == 1 ? CKR_OK : CKR_TOKEN_NOT_PRESENT;
}

CK_RV begin(CK_SESSION_HANDLE /*session*/, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE /*key*/) {
  length = mechanism->mechanism;
  refused = false;
  return CKR_OK;
}

// Tells the length to those who offered too little room. A module that writes through the null
// pointer of an earlier question ends the process; this one answers with an error.
CK_RV end(CK_SESSION_HANDLE /*session*/, CK_BYTE* /*in*/, CK_ULONG /*inLen*/, CK_BYTE* out,
          CK_ULONG* outLen) {
  const CK_ULONG room = *outLen;
  *outLen = length;
  if (out == nullptr) return refused ? CKR_OK : CKR_FUNCTION_FAILED;
  refused = room < length;
  if (refused) return CKR_BUFFER_TOO_SMALL;
  std::memset(out, 'x', length);
  return CKR_OK;
}

CK_FUNCTION_LIST list;

}  // namespace

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** functionList) {
  list.C_Initialize = initialize;
  list.C_Finalize = finalize;
  list.C_GetSlotList = getSlotList;
  list.C_GetSlotInfo = getSlotInfo;
  list.C_CloseAllSessions = closeAllSessions;
  list.C_SignInit = begin;
  list.C_Sign = end;
  list.C_DecryptInit = begin;
  list.C_Decrypt = end;
  *functionList = &list;
  return CKR_OK;
}
