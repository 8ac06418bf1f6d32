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
constinit std::atomic<copies::Shared*> shared = &copies::alone;
constinit std::atomic<unsigned long> beginning = kNone;
constinit std::atomic<pthread_mutex_t*> turns = nullptr;
constinit std::atomic<int> closings = 0;
constinit Line lines[32] = {};

namespace {

constinit std::atomic<pthread_t> visitors[64] = {};  // threads inside `load`; 0: a free place

/// A thread on its way through `load`. It is not welcome if it is there already: then the real
/// module leads back to this library. Threads do not wait for each other, since they may meet in
/// such a circle too.
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

/// Reads the file beside this library, without a line end. The text is empty if it is too long or
/// cannot be read.
/// @return whether there is such a file
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

bool isInside() {
  const void* self = __builtin_thread_pointer();
  const auto& inside = lineOf(self).inside;
  return std::count(std::begin(inside), std::end(inside), self) != 0;
}

Closing::Closing() {
  ++closings;
  for (const Line& line : lines) {
    for (const auto& place : line.inside) {
      while (place != nullptr) usleep(1000);
    }
    while (line.more > 0) usleep(1000);
  }
}

CK_RV load() {
  if (isInitialised()) return CKR_OK;
  const Visit visit;
  if (!visit.isWelcome()) return CKR_FUNCTION_REJECTED;

  char stored[PATH_MAX];
  const char* path = readPath(stored) ? stored : secure_getenv("QUARVEL_PKCS11_ADAPTED_MODULE");
  // The dynamic linker takes an empty name for the program itself, and copies names to the stack.
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

namespace {

/// Asks the module to initialise with locking, and then without. A caller who sets pReserved and
/// asks for no locking has its arguments passed on once, unchanged: the module may read pReserved
/// only if it is asked to lock.
/// @return the value of C_Initialize; `canLock` is set if the module locks
CK_RV begin(const CK_C_INITIALIZE_ARGS* arguments, bool* canLock) {
  const CK_C_Initialize function = functionOf(&CK_FUNCTION_LIST::C_Initialize);
  if (function == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;

  CK_C_INITIALIZE_ARGS given = {};
  if (arguments != nullptr) given = *arguments;
  if (given.pReserved != nullptr && (given.flags & CKF_OS_LOCKING_OK) == 0) {
    return function(&given);
  }
  CK_C_INITIALIZE_ARGS locking = given;
  locking.flags |= CKF_OS_LOCKING_OK;
  const CK_RV rv = function(&locking);
  *canLock = rv != CKR_CANT_LOCK && rv != CKR_ARGUMENTS_BAD;
  if (*canLock) return rv;

  CK_C_INITIALIZE_ARGS plain = {};
  plain.flags = given.flags & ~CK_FLAGS{CKF_OS_LOCKING_OK};
  plain.pReserved = given.pReserved;
  return function(arguments != nullptr ? &plain : nullptr);
}

/// The modules that break when threads call at once, although they say that they lock, by the texts
/// of C_GetInfo.
constexpr struct {
  const char *manufacturer, *library;
} kFragile[] = {
    {"IBM", "Meta PKCS11 LIBRARY"},                  // opencryptoki: searches crash
    {"tpm2-software.github.io", "TPM2.0 Cryptoki"},  // loses sessions, and crashes
};

/// Tells whether a field holds this text, filled up with blanks.
bool says(const CK_UTF8CHAR (&field)[32], const char* text) {
  char padded[sizeof field + 1];
  std::snprintf(padded, sizeof padded, "%-32s", text);
  return std::memcmp(field, padded, sizeof field) == 0;
}

bool isFragile() {
  CK_INFO info = {};
  const CK_C_GetInfo function = functionOf(&CK_FUNCTION_LIST::C_GetInfo);
  if (function == nullptr || function(&info) != CKR_OK) return false;
  return std::ranges::any_of(kFragile, [&](const auto& known) {
    return says(info.manufacturerID, known.manufacturer) &&
           says(info.libraryDescription, known.library);
  });
}

/// Tells whether calls shall take turns: if the environment says so, else if the module is known to
/// need it.
bool wantsTurns() {
  const char* said = secure_getenv("QUARVEL_PKCS11_ADAPTER_SERIAL");
  return said != nullptr ? std::strcmp(said, "0") != 0 : isFragile();
}

}  // namespace

CK_RV initialize(const CK_C_INITIALIZE_ARGS* arguments) {
  copies::Shared* module = copies::find(list);
  const Lock lock(&module->turns);
  bool canLock = false;
  const CK_RV rv = begin(arguments, &canLock);
  if (rv == CKR_OK) {
    module->copies = 0;
  } else if (rv != CKR_CRYPTOKI_ALREADY_INITIALIZED || isInitialised()) {
    return rv;
  }
  if (module->copies == 0) {
    ++module->beginnings;
    module->isForeign = rv != CKR_OK;
    module->isSerial = module->isForeign || !canLock || wantsTurns();
  }
  ++module->copies;
  shared = module;
  turns = module->isSerial ? &module->turns : nullptr;
  beginning = module->beginnings.load();
  return CKR_OK;
}

CK_RV Sharing::end(void* reserved) {
  if (!isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  beginning = kNone;
  if (--shared.load()->copies > 0 || shared.load()->isForeign) return CKR_OK;
  const CK_C_Finalize function = functionOf(&CK_FUNCTION_LIST::C_Finalize);
  return function != nullptr ? function(reserved) : CKR_FUNCTION_NOT_SUPPORTED;
}

void freeLocks() {
  copies::freeLocks();
  for (auto& visitor : visitors) visitor = 0;
  for (Line& line : lines) {
    for (auto& place : line.inside) place = nullptr;
    line.more = 0;
  }
  if (closings != 0 && isInitialised()) {
    beginning = kNone;
    --shared.load()->copies;
  }
  closings = 0;
}

}  // namespace adapter::module
