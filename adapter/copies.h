// SPDX-License-Identifier: Apache-2.0
// The state that all copies of this library in one process share. Each class loader of a virtual
// machine has a copy. Several may stand before one module, and none may end it under the others.
// This part knows no handles and calls no module.
#ifndef QUARVEL_ADAPTER_COPIES_H_
#define QUARVEL_ADAPTER_COPIES_H_

#include <pthread.h>

#include <atomic>

#include "pkcs11.h"

namespace adapter::copies {

/// The state of one module. `turns` guards the members below it.
struct Shared {
  std::atomic<const CK_FUNCTION_LIST*> list = nullptr;  // identifies the module; null: a free place
  std::atomic<unsigned long> beginnings = 0;            // times that the module was initialised
  pthread_mutex_t turns = PTHREAD_MUTEX_INITIALIZER;    // also held in calls that take turns
  unsigned long copies = 0;                             // copies that have the last beginning
  bool isForeign = false;                               // the last beginning is somebody else's
  bool isSerial = false;                                // calls take turns
};

/// The state of a module that this copy shares with no other.
extern Shared alone;

/// Returns the state of the module with this list, never null. It lies in the table of the eldest
/// copy in the process. Each copy looks for the eldest once, by soname, under which musl does not
/// find it. Without an eldest, or if its table has another layout, the state lies in this copy's
/// table. It is `alone` if all places are taken.
Shared* find(const CK_FUNCTION_LIST* list);

/// Frees the locks in the child of a fork, where no thread holds one.
void freeLocks();

}  // namespace adapter::copies

#endif  // QUARVEL_ADAPTER_COPIES_H_
