// The scripted module as a token with faults of real ones, which the inspector has to show for what
// they are: objects that are numbered from 0, success with the length -1 for an attribute that is
// not there, a mechanism of its own and one that cannot be described, a label that is no UTF-8, and
// an end that takes the process with it.
#include <cstdlib>
#include <cstring>

#include "scripted.h"

namespace scripted {

const std::vector<Misbehaviour>& misbehaviours() {
  static const std::vector<Misbehaviour> all = {
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
