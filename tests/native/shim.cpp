// SPDX-License-Identifier: Apache-2.0
// A module that stands before the one of QUARVEL_PKCS11_MODULE. It notes in the file "calls" of
// TOKEN_DIR the calls that it can alter, one a line, and alters what the file "shim" there says by
// words NAME=VALUE:
//   C_Decrypt=0x30    what this function answers; C_Login:2 is the login for one operation alone
//   model=other       a text of the token info, as are label, manufacturerID, serialNumber
//   slots=both        each slot has the token of the first one; "second": the first one has none
//   pause=1           how many seconds it takes before it answers
//   after=C_Login     tokens are the true ones, but for the time just after this call
// The file "failing" counts down to a change of the token that fails. Of a creation SoftHSM2 leaves
// a part behind then.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "pkcs11.h"

namespace {

CK_FUNCTION_LIST* module;
std::string last;

std::string path(const char* name) { return std::string(std::getenv("TOKEN_DIR")) + "/" + name; }

/// What the file says for a name, empty when it says nothing.
std::string said(const std::string& name) {
  std::ifstream file(path("shim"));
  for (std::string word; file >> word;) {
    if (word.starts_with(name + "=")) return word.substr(name.size() + 1);
  }
  return "";
}

template <typename Call>
CK_RV answer(const std::string& name, Call call) {
  last = name;
  std::ofstream(path("calls"), std::ios::app) << name << '\n';
  sleep(std::atoi(said("pause").c_str()));
  const std::string code = said(name);
  return code.empty() ? call() : std::stoul(code, nullptr, 0);
}

template <std::size_t size>
void alter(CK_UTF8CHAR (&text)[size], const char* name) {
  std::string changed = said(name);
  if (changed.empty()) return;
  changed.resize(size, ' ');
  std::copy_n(changed.begin(), size, text);
}

/// The slot whose token a slot has, none where it has none.
std::optional<CK_SLOT_ID> behind(CK_SLOT_ID slot) {
  const std::string which = said("slots");
  if (which.empty()) return slot;
  CK_SLOT_ID slots[8];
  CK_ULONG count = std::size(slots);
  module->C_GetSlotList(CK_TRUE, slots, &count);
  if (which == "second" && slot == slots[0]) return std::nullopt;
  return slots[0];
}

CK_RV tokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
  const std::string after = said("after");
  if (!after.empty() && after != last) return module->C_GetTokenInfo(slot, info);
  const auto other = behind(slot);
  if (!other) return CKR_TOKEN_NOT_PRESENT;
  const CK_RV rv = module->C_GetTokenInfo(*other, info);
  alter(info->label, "label");
  alter(info->manufacturerID, "manufacturerID");
  alter(info->model, "model");
  alter(info->serialNumber, "serialNumber");
  return rv;
}

/// The functions that the files alter, under the names of the module's.
#define QUARVEL_NOTED(NAME) \
  list.NAME = [](auto... args) { return answer(#NAME, [=] { return module->NAME(args...); }); }
#define QUARVEL_FAILING(NAME) \
  list.NAME = [](auto... args) { return fails() ? CKR_DEVICE_MEMORY : module->NAME(args...); }

bool fails() {
  int left = -1;
  std::ifstream(path("failing")) >> left;
  std::ofstream(path("failing")) << left - 1;
  return left == 0;
}

CK_RV create(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count,
             CK_OBJECT_HANDLE* object) {
  std::vector<CK_ATTRIBUTE> all(attributes, attributes + count);
  CK_BBOOL local = CK_TRUE;
  if (fails()) all.insert(all.begin(), {CKA_LOCAL, &local, 1});  // which no creation takes
  return module->C_CreateObject(session, all.data(), all.size(), object);
}

}  // namespace

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** given) {
  void* file = dlopen(std::getenv("QUARVEL_PKCS11_MODULE"), RTLD_NOW);
  const auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(file, "C_GetFunctionList"));
  if (const CK_RV rv = getList(&module); rv != CKR_OK) return rv;
  static CK_FUNCTION_LIST list;
  list = *module;
  last.clear();
  list.C_GetTokenInfo = tokenInfo;
  list.C_OpenSession = [](CK_SLOT_ID slot, auto... rest) {
    return answer("C_OpenSession",
                  [=] { return module->C_OpenSession(behind(slot).value_or(slot), rest...); });
  };
  list.C_Login = [](CK_SESSION_HANDLE session, CK_USER_TYPE user, auto... pin) {
    return answer(
        "C_Login:" + std::to_string(user), [=] { return module->C_Login(session, user, pin...); });
  };
  list.C_Finalize = [](void* reserved) {
    const CK_RV rv = module->C_Finalize(reserved);
    return answer("C_Finalize", [=] { return rv; });  // it has ended, whatever it answers
  };
  QUARVEL_NOTED(C_SetPIN);
  QUARVEL_NOTED(C_DecryptInit);
  QUARVEL_NOTED(C_Decrypt);
  list.C_CreateObject = create;
  QUARVEL_FAILING(C_SetAttributeValue);
  QUARVEL_FAILING(C_DestroyObject);
  *given = &list;
  return CKR_OK;
}
