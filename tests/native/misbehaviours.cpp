// SPDX-License-Identifier: Apache-2.0
// The ways in which the scripted module misbehaves, each with a name.
#include <cstring>
#include <tuple>

#include "scripted.h"

namespace scripted {

namespace {

// One for functions of any parameters; the compiler takes the version that fits the entry.

/// Fills the output buffer up to its end.
constexpr auto fillTheRoom = [](auto... args) {
  const std::tuple all(args...);
  const auto out = std::get<sizeof...(args) - 2>(all);
  if (out != nullptr) std::memset(out, 0xEE, *(args, ...));
  return CK_RV{CKR_OK};
};

/// Claims more output than there can be.
constexpr auto claimAll = [](auto... args) {
  *(args, ...) = ~CK_ULONG{0};
  return CK_RV{CKR_OK};
};

/// Replaces the functions with an output buffer at their end.
template <auto function>
void replaceOutputs() {
  list.C_Sign = list.C_Encrypt = list.C_Decrypt = function;
  list.C_WrapKey = function;
}

/// Every other value of a template points nowhere, the others to memory of the module's own.
CK_RV spoil() { return CKR_OK; }
template <typename First, typename... Rest>
CK_RV spoil(First first, Rest... rest) {
  static CK_BYTE own[8];
  if constexpr (std::is_same_v<First, CK_ATTRIBUTE*>) {
    const CK_ULONG count = std::get<0>(std::tuple{rest...});
    for (CK_ULONG i = 0; i < count; ++i) first[i] = {0, i % 2 == 0 ? own : nullptr, sizeof own};
  }
  return spoil(rest...);
}

/// Fills an information structure with the byte.
template <unsigned char byte, typename... Args>
CK_RV fillInfo(Args... args) {
  const auto info = (args, ...);
  std::memset(info, byte, sizeof *info);
  return CKR_OK;
}
template <unsigned char byte>
void fillTexts() {
  list.C_GetInfo = fillInfo<byte>;
  list.C_GetSlotInfo = fillInfo<byte>;
  list.C_GetTokenInfo = fillInfo<byte>;
}

template <std::size_t call>
void failFrom() {
  script.failFrom = call;
  script.failWith = ~CK_RV{0};
}

}  // namespace

// bench/hostile.sh reads the names, each at the start of its line, in the order of their
// numbers.
const std::vector<Misbehaviour>& misbehaviours() {
  static const std::vector<Misbehaviour> all = {
      {"behaves", [] {}},
      {"writes up to the room it was given", replaceOutputs<fillTheRoom>},
      {"claims an output of all ones", replaceOutputs<claimAll>},
      {"hands out handle 0", [] { script.handle = 0; }},
      {"hands out all ones", [] { script.handle = ~CK_ULONG{0} - 1; }},
      {"finds more than was asked for",
       [] {
         list.C_FindObjects =
             [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* object, CK_ULONG, CK_ULONG* count) {
               *object = *count = ~CK_ULONG{0};
               return CK_RV{CKR_OK};
             };
       }},
      {"writes texts of stray continuation bytes", fillTexts<0xBF>},
      {"writes texts of unfinished sequences", fillTexts<0xE2>},
      {"writes texts of bytes that no encoding has", fillTexts<0xFF>},
      {"moves the value of an attribute to its own memory",
       [] { list.C_GetAttributeValue = spoil; }},
      {"writes into the templates that it is given",
       [] {
         list.C_FindObjectsInit = spoil;
         list.C_SetAttributeValue = spoil;
         list.C_CreateObject = spoil;
         list.C_GenerateKey = spoil;
         list.C_GenerateKeyPair = spoil;
         list.C_UnwrapKey = spoil;
       }},
      {"writes its outputs and then fails",
       [] {
         list.C_OpenSession =
             [](CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* session) {
               *session = 3;
               return CK_RV{CKR_FUNCTION_FAILED};
             };
         list.C_GetSlotList = [](CK_BBOOL, CK_SLOT_ID* slots, CK_ULONG* count) {
           *count = 1;
           if (slots != nullptr) *slots = 1;
           return CK_RV{slots != nullptr ? CKR_FUNCTION_FAILED : CKR_OK};
         };
       }},
      {"answers -1 after its second call", failFrom<3>},
      {"answers -1 to everything", failFrom<1>},
  };
  return all;
}

}  // namespace scripted
