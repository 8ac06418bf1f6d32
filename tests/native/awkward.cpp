// The scripted module with ways that real ones have, and that the Java half has to get along with.
#include <cstring>
#include <utility>

#include "scripted.h"

namespace scripted {

const std::vector<Misbehaviour>& misbehaviours() {
  static CK_ULONG length;  // of the result of the operation under way: the number of its mechanism
  static bool refused;     // whether there was too little room for that result
  static const std::vector<Misbehaviour> all = {
      {"is awkward", [] {
         list.C_Initialize = [](void*) {
           script.slots = {1, 2};
           return CK_RV{CKR_OK};
         };
         // No reader has a token. A list of none is refused as too long for its buffer.
         list.C_GetSlotList = [](CK_BBOOL tokenPresent, CK_SLOT_ID* slots, CK_ULONG* count) {
           *count = tokenPresent ? 0 : script.slots.size();
           if (slots != nullptr) std::copy_n(script.slots.begin(), *count, slots);
           return CK_RV{*count == 0 && slots != nullptr ? CKR_BUFFER_TOO_SMALL : CKR_OK};
         };
         // Pulls the readers.
         list.C_CloseAllSessions = [](CK_SLOT_ID) {
           script.slots.clear();
           return CK_RV{CKR_OK};
         };
         // The reader of slot 2 is gone, but not its slot.
         list.C_GetSlotInfo = [](CK_SLOT_ID slot, CK_SLOT_INFO*) {
           return CK_RV{slot == 1 ? CKR_OK : CKR_TOKEN_NOT_PRESENT};
         };
         list.C_SignInit = [](CK_SESSION_HANDLE, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE) {
           length = mechanism->mechanism;
           refused = false;
           return CK_RV{CKR_OK};
         };
         list.C_DecryptInit = list.C_SignInit;
         // Tells the length to those who offered too little room. A module that writes through the
         // null pointer of an earlier question ends the process; this one answers with an error.
         list.C_Sign = [](CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG* outLen) {
           const CK_ULONG room = std::exchange(*outLen, length);
           if (out == nullptr) return CK_RV{refused ? CKR_OK : CKR_FUNCTION_FAILED};
           refused = room < length;
           if (!refused) std::memset(out, 'x', length);
           return CK_RV{refused ? CKR_BUFFER_TOO_SMALL : CKR_OK};
         };
         list.C_Decrypt = list.C_Sign;
       }}};
  return all;
}

}  // namespace scripted
