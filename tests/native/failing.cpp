// SPDX-License-Identifier: Apache-2.0
// SoftHSM2 on which one change of the token fails: the file "failing" in TOKEN_DIR counts down to it.
// A creation is refused for an attribute, so that SoftHSM2 leaves a part of the object behind.
#include <dlfcn.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "pkcs11.h"

namespace {

CK_FUNCTION_LIST functions;
CK_FUNCTION_LIST* real;

bool fails() {
  const std::string file = std::string(std::getenv("TOKEN_DIR")) + "/failing";
  int left = -1;
  std::ifstream(file) >> left;
  std::ofstream(file) << left - 1;
  return left == 0;
}

CK_RV create(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count,
             CK_OBJECT_HANDLE* object) {
  std::vector<CK_ATTRIBUTE> all(attributes, attributes + count);
  CK_BBOOL local = CK_TRUE;
  if (fails()) all.insert(all.begin(), {CKA_LOCAL, &local, 1});
  return real->C_CreateObject(session, all.data(), all.size(), object);
}

CK_RV set(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes,
          CK_ULONG count) {
  return fails() ? CKR_DEVICE_MEMORY
                 : real->C_SetAttributeValue(session, object, attributes, count);
}

CK_RV destroy(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  return fails() ? CKR_DEVICE_MEMORY : real->C_DestroyObject(session, object);
}

}  // namespace

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  void* module = dlopen("/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW);
  auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
  CK_RV result = get(&real);
  functions = *real;
  functions.C_CreateObject = create;
  functions.C_SetAttributeValue = set;
  functions.C_DestroyObject = destroy;
  *list = &functions;
  return result;
}
