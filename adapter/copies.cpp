// SPDX-License-Identifier: Apache-2.0
#include "copies.h"

#include <dlfcn.h>

// Other copies find this table by its name, which stands for its layout. It is protected: otherwise
// the table of a copy that was loaded with RTLD_GLOBAL would take the place of the other copies'
// own, and the fork handlers of all copies would meet in it.
struct Copies {
  adapter::copies::Shared places[32];  // taken in order and never given back
};
extern "C" [[gnu::visibility("protected")]] Copies quarvel_pkcs11_adapter_copies_1;
constinit Copies quarvel_pkcs11_adapter_copies_1;

namespace adapter::copies {

constinit Shared alone;

namespace {

constinit std::atomic<Copies*> eldest = nullptr;  // null until `find` has looked for it

Copies* findEldest() {
  void* library = dlopen("libquarvelpkcs11adapter.so", RTLD_NOLOAD | RTLD_LAZY);
  void* found = library != nullptr ? dlsym(library, "quarvel_pkcs11_adapter_copies_1") : nullptr;
  return found != nullptr ? static_cast<Copies*>(found) : &quarvel_pkcs11_adapter_copies_1;
}

}  // namespace

Shared* find(const CK_FUNCTION_LIST* list) {
  if (eldest == nullptr) eldest = findEldest();
  for (Shared& place : eldest.load()->places) {
    const CK_FUNCTION_LIST* held = nullptr;
    if (place.list.compare_exchange_strong(held, list) || held == list) return &place;
  }
  return &alone;
}

void freeLocks() {
  for (Shared& place : quarvel_pkcs11_adapter_copies_1.places) {
    pthread_mutex_init(&place.turns, nullptr);
  }
  pthread_mutex_init(&alone.turns, nullptr);
}

}  // namespace adapter::copies
