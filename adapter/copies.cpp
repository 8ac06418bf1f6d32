// SPDX-License-Identifier: Apache-2.0
#include "copies.h"

#include <dlfcn.h>

// Other copies find it by this name, which so stands for the layout. Protected: one that was loaded
// for all would else take the place of the others' own, and their fork handlers would meet in it.
struct Copies {
  adapter::copies::Shared places[32];  // taken in order and never given back
};
extern "C" [[gnu::visibility("protected")]] Copies quarvel_pkcs11_adapter_copies_1;
constinit Copies quarvel_pkcs11_adapter_copies_1;

namespace adapter::copies {

constinit Shared alone;

namespace {

constinit std::atomic<Copies*> eldest = nullptr;  // null until it was looked for

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
