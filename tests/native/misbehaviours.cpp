// SPDX-License-Identifier: Apache-2.0
// The ways in which the scripted module misbehaves, each with a name.
#include "scripted.h"

namespace scripted {

const std::vector<Misbehaviour>& misbehaviours() {
  static const std::vector<Misbehaviour> all = {
      {"behaves", [] {}},
      {"writes up to the room it was given",
       [] { script.claim = [](CK_ULONG room) { return room; }; }},
      {"claims an output of all ones",
       [] { script.claim = [](CK_ULONG) { return ~CK_ULONG{0}; }; }},
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
      {"writes texts of stray continuation bytes", [] { script.filler = 0xBF; }},
      {"writes texts of unfinished sequences", [] { script.filler = 0xE2; }},
      {"writes texts of bytes that no encoding has", [] { script.filler = 0xFF; }},
      {"moves the value of an attribute to its own memory", [] { script.movesValues = true; }},
      {"writes into the templates that it is given", [] { script.spoilsTemplates = true; }},
      {"writes its outputs and then fails",
       [] {
         script.answers = {{"C_OpenSession", 6}, {"C_GetSlotList", 6}};
       }},
      {"answers -1 after its second call",
       [] { script.failFrom = 3, script.failWith = ~CK_RV{0}; }},
      {"answers -1 to everything", [] { script.failFrom = 1, script.failWith = ~CK_RV{0}; }},
  };
  return all;
}

}  // namespace scripted
