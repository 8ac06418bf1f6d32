// SPDX-License-Identifier: Apache-2.0
// The state that all copies of this library in one process share. Each class loader of a virtual
// machine has a copy, and several may stand before one module, which must not end under the others.
// Knows no handles and calls no module.
#ifndef QUARVEL_ADAPTER_COPIES_H_
#define QUARVEL_ADAPTER_COPIES_H_

#include <pthread.h>

#include <atomic>

#include "pkcs11.h"

namespace adapter::copies {

/// What all copies know of one module. `turns` guards what stands below it.
struct Shared {
  std::atomic<const CK_FUNCTION_LIST*> list = nullptr;  // by which it is known; null: a free place
  std::atomic<unsigned long> beginnings = 0;            // how often it was initialised
  pthread_mutex_t turns = PTHREAD_MUTEX_INITIALIZER;    // also held in calls that take turns
  unsigned long copies = 0;                             // that share the last beginning
  bool isForeign = false;                               // no copy made that
  bool isSerial = false;                                // calls take turns
};

/// The one of a copy that is alone with its module.
extern Shared alone;

/// The one of the module with this list, in the eldest copy of the process. That is looked for
/// once, by a name that musl does not know it by. Without an eldest that has a table of this layout
/// it is in this copy; `alone` where all places are taken.
Shared* find(const CK_FUNCTION_LIST* list);

/// Frees the locks in the child of a fork, where no thread holds one.
void freeLocks();

}  // namespace adapter::copies

#endif  // QUARVEL_ADAPTER_COPIES_H_
