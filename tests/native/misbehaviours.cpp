// The ways in which the scripted module misbehaves, each with a name.
#include <cstring>

#include "scripted.h"

namespace scripted {

namespace {

CK_RV fillTheRoom(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG* room) {
  if (out != nullptr) std::memset(out, 0xEE, *room);
  return CKR_OK;
}

CK_RV claimAll(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG* room) {
  *room = ~CK_ULONG{0};
  return CKR_OK;
}

/// Every other value points nowhere, the others to memory of the module's own.
CK_RV spoil(CK_ATTRIBUTE* attrs, CK_ULONG count) {
  static CK_BYTE own[8];
  for (CK_ULONG i = 0; i < count; ++i) attrs[i] = {0, i % 2 == 0 ? own : nullptr, sizeof own};
  return CKR_OK;
}

template <unsigned char byte>
void fillTexts() {
  list.C_GetInfo = [](CK_INFO* info) {
    std::memset(info, byte, sizeof *info);
    return CK_RV{CKR_OK};
  };
  list.C_GetSlotInfo = [](CK_SLOT_ID, CK_SLOT_INFO* info) {
    std::memset(info, byte, sizeof *info);
    return CK_RV{CKR_OK};
  };
  list.C_GetTokenInfo = [](CK_SLOT_ID, CK_TOKEN_INFO* info) {
    std::memset(info, byte, sizeof *info);
    return CK_RV{CKR_OK};
  };
}

void setData(decltype(CK_FUNCTION_LIST::C_Sign) function) {
  scripted::list.C_Sign = scripted::list.C_Encrypt = scripted::list.C_Decrypt = function;
}

}  // namespace

const std::vector<Misbehaviour>& misbehaviours() {
  static const std::vector<Misbehaviour> all = {
      {"behaves", [] {}},
      {"writes up to the room it was given",
       [] {
         setData(fillTheRoom);
         scripted::list.C_WrapKey =
             [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE, CK_BYTE* out,
                CK_ULONG* room) { return fillTheRoom(0, nullptr, 0, out, room); };
       }},
      {"claims an output of all ones",
       [] {
         setData(claimAll);
         scripted::list.C_WrapKey = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE,
                                       CK_OBJECT_HANDLE, CK_BYTE*, CK_ULONG* room) {
           *room = ~CK_ULONG{0};
           return CK_RV{CKR_OK};
         };
       }},
      {"hands out handle 0", [] { script.handle = 0; }},
      {"hands out all ones", [] { script.handle = ~CK_ULONG{0} - 1; }},
      {"finds more than was asked for",
       [] {
         scripted::list.C_FindObjects =
             [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* object, CK_ULONG, CK_ULONG* count) {
               *object = ~CK_ULONG{0};
               *count = ~CK_ULONG{0};
               return CK_RV{CKR_OK};
             };
       }},
      {"writes texts of stray continuation bytes", fillTexts<0xBF>},
      {"writes texts of unfinished sequences", fillTexts<0xE2>},
      {"writes texts of bytes that no encoding has", fillTexts<0xFF>},
      {"moves the value of an attribute to its own memory",
       [] {
         scripted::list.C_GetAttributeValue =
             [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attr, CK_ULONG) {
               static CK_BYTE own[8];
               attr->pValue = own;
               attr->ulValueLen = sizeof own;
               return CK_RV{CKR_OK};
             };
       }},
      {"writes into the templates that it is given",
       [] {
         scripted::list.C_FindObjectsInit = [](CK_SESSION_HANDLE, CK_ATTRIBUTE* attrs,
                                               CK_ULONG count) { return spoil(attrs, count); };
         scripted::list.C_SetAttributeValue =
             [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attrs, CK_ULONG count) {
               return spoil(attrs, count);
             };
         scripted::list.C_CreateObject = [](CK_SESSION_HANDLE, CK_ATTRIBUTE* attrs, CK_ULONG count,
                                            CK_OBJECT_HANDLE*) { return spoil(attrs, count); };
         scripted::list.C_GenerateKey =
             [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_ATTRIBUTE* attrs, CK_ULONG count,
                CK_OBJECT_HANDLE*) { return spoil(attrs, count); };
         scripted::list.C_GenerateKeyPair =
             [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_ATTRIBUTE* pub, CK_ULONG pubCount,
                CK_ATTRIBUTE* prv, CK_ULONG prvCount, CK_OBJECT_HANDLE*, CK_OBJECT_HANDLE*) {
               spoil(prv, prvCount);
               return spoil(pub, pubCount);
             };
         scripted::list.C_UnwrapKey = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE,
                                         CK_BYTE*, CK_ULONG, CK_ATTRIBUTE* attrs, CK_ULONG count,
                                         CK_OBJECT_HANDLE*) { return spoil(attrs, count); };
       }},
      {"writes its outputs and then fails",
       [] {
         scripted::list.C_OpenSession =
             [](CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) {
               *session = 3;
               return CK_RV{CKR_FUNCTION_FAILED};
             };
         scripted::list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* slots, CK_ULONG* count) {
           *count = 1;
           if (slots != nullptr) *slots = 1;
           return CK_RV{slots != nullptr ? CKR_FUNCTION_FAILED : CKR_OK};
         };
       }},
      {"answers -1 after its second call",
       [] {
         script.failFrom = 3;
         script.failWith = ~CK_RV{0};
       }},
      {"answers -1 to everything",
       [] {
         script.failFrom = 1;
         script.failWith = ~CK_RV{0};
       }},
  };
  return all;
}

}  // namespace scripted
