// SPDX-License-Identifier: Apache-2.0
// The scripted module with ways of real ones: as the Java half has to get along with, and, as the
// second misbehaviour, as a token with faults that the inspector has to show for what they are:
// objects that are numbered from 0, success with the length -1 for an attribute that is not there,
// a mechanism of its own and one that cannot be described, a label that is no UTF-8, and an end
// that takes the process with it.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "scripted.h"

namespace scripted {

const std::vector<Misbehaviour>& misbehaviours() {
  static CK_ULONG length;  // of the result of the operation under way: the number of its mechanism
  static bool refused;     // whether there was too little room for that result
  static const std::vector<Misbehaviour> all = {
      {"is awkward",
       [] {
         script.slots = {1, 2};
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
       }},
      {"is odd", [] {
         script.slots = {1};
         script.mechanisms = {CKM_VENDOR_DEFINED + 1, CKM_AES_ECB};
         list.C_GetTokenInfo = [](CK_SLOT_ID, CK_TOKEN_INFO* info) {
           std::memset(info, ' ', offsetof(CK_TOKEN_INFO, flags));
           std::memcpy(info->label, "odd\x1b[31m", 8);
           info->flags = CKF_TOKEN_INITIALIZED;
           info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
           return CK_RV{CKR_OK};
         };
         list.C_GetMechanismInfo = [](CK_SLOT_ID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
           *info = {1, 0x80000000, CKF_SIGN};
           return CK_RV{type == CKM_VENDOR_DEFINED + 1 ? CKR_OK : CKR_DEVICE_ERROR};
         };
         list.C_CloseAllSessions = [](CK_SLOT_ID) -> CK_RV { std::abort(); };
         list.C_FindObjectsInit = [](CK_SESSION_HANDLE, CK_ATTRIBUTE*, CK_ULONG) {
           script.found = {0, 1, 2};
           return CK_RV{CKR_OK};
         };
         list.C_GetAttributeValue =
             [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attribute, CK_ULONG) {
               const CK_ULONG data = CKO_DATA;
               const CK_BYTE label[] = {'0', 0xe9, static_cast<CK_BYTE>('0' + object)};
               const void* value =
                   attribute->type == CKA_CLASS ? static_cast<const void*>(&data) : label;
               const CK_ULONG length = attribute->type == CKA_CLASS   ? sizeof data
                                       : attribute->type == CKA_LABEL ? sizeof label
                                                                      : CK_UNAVAILABLE_INFORMATION;
               if (attribute->pValue != nullptr && length <= attribute->ulValueLen) {
                 std::memcpy(attribute->pValue, value, length);
               }
               attribute->ulValueLen = length;
               return CK_RV{CKR_OK};
             };
       }}};
  return all;
}

}  // namespace scripted
