// SPDX-License-Identifier: Apache-2.0
#include "module.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace adapter::module {

constinit std::atomic<CK_FUNCTION_LIST*> list = nullptr;
constinit std::atomic<bool> isInitialised = false;
constinit std::atomic<bool> isSerial = false;
constinit std::atomic<long> callsUnderWay = 0;
constinit std::atomic<long> closings = 0;
constinit pthread_mutex_t turns = PTHREAD_MUTEX_INITIALIZER;

namespace {

constinit bool shared = false;  // as `turns` guards it

constinit std::atomic<pthread_t> visitors[64] = {};  // threads inside `load`; 0: a free place

/// A thread on its way through `load`. It finds itself there already when the real module leads
/// back to this library. Threads do not wait for each other, since they may meet in such a circle
/// too.
class Visit {
 public:
  Visit() {
    const pthread_t self = pthread_self();
    if (std::count(std::begin(visitors), std::end(visitors), self) != 0) return;
    for (auto& visitor : visitors) {
      pthread_t none = 0;
      if (!visitor.compare_exchange_strong(none, self)) continue;
      place_ = &visitor;
      return;
    }
  }
  ~Visit() {
    if (place_ != nullptr) *place_ = 0;
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

  bool isWelcome() const { return place_ != nullptr; }

 private:
  std::atomic<pthread_t>* place_ = nullptr;
};

/// The text of the file beside this library, without a line end; empty where it is too long, or
/// cannot be read. @return whether there is such a file
bool readPath(char (&path)[PATH_MAX]) {
  Dl_info self;
  if (dladdr(&list, &self) == 0) return false;
  if (std::snprintf(path, sizeof path, "%s.module", self.dli_fname) >= PATH_MAX) return false;
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0 && errno == ENOENT) return false;
  ssize_t length = read(file, path, sizeof path);
  if (file >= 0) close(file);
  if (length > 0 && path[length - 1] == '\n') --length;
  path[length > 0 && length < PATH_MAX ? length : 0] = '\0';
  return true;
}

}  // namespace

Closing::Closing() {
  ++closings;
  while (callsUnderWay > 0) usleep(1000);
}

CK_RV load() {
  if (isInitialised) return CKR_OK;
  const Visit visit;
  if (!visit.isWelcome()) return CKR_FUNCTION_REJECTED;

  char stored[PATH_MAX];
  const char* path = readPath(stored) ? stored : secure_getenv("QUARVEL_PKCS11_ADAPTED_MODULE");
  // To the dynamic linker an empty name is the program itself, and it copies names to the stack.
  if (path == nullptr || *path == '\0' || std::strlen(path) >= PATH_MAX) return CKR_ARGUMENTS_BAD;

  void* library = dlopen(path, RTLD_NOW);
  if (library == nullptr) return CKR_LIBRARY_LOAD_FAILED;
  void* symbol = dlsym(library, "C_GetFunctionList");
  if (symbol == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;

  CK_FUNCTION_LIST* loaded = nullptr;
  const CK_RV rv = reinterpret_cast<CK_C_GetFunctionList>(symbol)(&loaded);
  if (rv != CKR_OK) return rv;
  if (loaded == nullptr) return CKR_GENERAL_ERROR;
  list = loaded;
  return CKR_OK;
}

CK_RV initialize(const CK_C_INITIALIZE_ARGS* arguments) {
  const Lock lock(&turns);
  const CK_C_Initialize function = functionOf(&CK_FUNCTION_LIST::C_Initialize);
  if (function == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;

  CK_C_INITIALIZE_ARGS given = {};
  if (arguments != nullptr) given = *arguments;
  CK_C_INITIALIZE_ARGS locking = given;
  locking.flags |= CKF_OS_LOCKING_OK;
  CK_RV rv = function(&locking);
  bool serial = secure_getenv("QUARVEL_PKCS11_ADAPTER_SERIAL") != nullptr;
  if (rv == CKR_CANT_LOCK || rv == CKR_ARGUMENTS_BAD) {
    CK_C_INITIALIZE_ARGS plain = {};
    plain.flags = given.flags & ~CK_FLAGS{CKF_OS_LOCKING_OK};
    plain.pReserved = given.pReserved;
    rv = function(arguments != nullptr ? &plain : nullptr);
    serial = true;
  }
  const bool foreign = rv == CKR_CRYPTOKI_ALREADY_INITIALIZED && !isInitialised;
  if (foreign) rv = CKR_OK;
  if (rv != CKR_OK) return rv;
  shared = foreign;
  isSerial = serial || foreign;
  isInitialised = true;
  return CKR_OK;
}

bool isShared() {
  const Lock lock(&turns);
  return shared;
}

CK_RV finalize(void* reserved) {
  const Lock lock(&turns);
  const CK_C_Finalize function = functionOf(&CK_FUNCTION_LIST::C_Finalize);
  const CK_RV rv = shared                ? CKR_OK
                   : function != nullptr ? function(reserved)
                                         : CKR_FUNCTION_NOT_SUPPORTED;
  isInitialised = shared = false;
  isSerial = false;
  return rv;
}

void freeLocks() {
  pthread_mutex_init(&turns, nullptr);
  for (auto& visitor : visitors) visitor = 0;
  if (closings != 0) isInitialised = false;
  callsUnderWay = closings = 0;
}

}  // namespace adapter::module
