// SPDX-License-Identifier: Apache-2.0
// The real module: finding and loading it, its life, and whose turn it is to call it. Knows no
// handles.
#ifndef QUARVEL_ADAPTER_MODULE_H_
#define QUARVEL_ADAPTER_MODULE_H_

#include <pthread.h>

#include <atomic>

#include "copies.h"
#include "pkcs11.h"

namespace adapter {

class Lock {
 public:
  /// Without a mutex there is nothing to hold.
  explicit Lock(pthread_mutex_t* mutex) : mutex_(mutex) {
    if (mutex_ != nullptr) pthread_mutex_lock(mutex_);
  }
  ~Lock() {
    if (mutex_ != nullptr) pthread_mutex_unlock(mutex_);
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

namespace module {

extern std::atomic<CK_FUNCTION_LIST*> list;

/// The real module's function, null when it or its module is not there.
template <typename Function>
Function functionOf(Function CK_FUNCTION_LIST::*entry) {
  const CK_FUNCTION_LIST* loaded = list.load(std::memory_order_acquire);
  return loaded != nullptr ? loaded->*entry : nullptr;
}

inline constexpr unsigned long kNone = ~0UL;
extern std::atomic<copies::Shared*> shared;   // what all copies know of the module
extern std::atomic<unsigned long> beginning;  // the one of the module that is this copy's, or kNone
extern std::atomic<pthread_mutex_t*> turns;   // null where any number of calls gets in at once
extern std::atomic<int> closings;             // ends of the module under way, or waiting to be

/// Whether this copy has the module initialised, and nobody has ended that and begun anew since.
inline bool isInitialised() { return shared.load()->beginnings == beginning; }

/// Threads between the start and the return of a call. Each takes a place on a cache line that it
/// shares with few others, so that processors do not wait for each other.
struct alignas(64) Line {
  static constexpr int kPlaces = 7;
  std::atomic<const void*> inside[kPlaces];  // by thread pointer
  std::atomic<long> more;                    // for whom there was no place
};
extern Line lines[32];

inline Line& lineOf(const void* thread) {
  return lines[reinterpret_cast<CK_ULONG>(thread) * 0x9E3779B97F4A7C15U >> 59];
}

/// A call from its start to its return. The end of the module waits for it, or it does not get in.
class Call {
 public:
  Call() {
    const void* self = __builtin_thread_pointer();
    Line& line = lineOf(self);
    for (auto& place : line.inside) {
      const void* none = nullptr;
      if (!place.compare_exchange_strong(none, self)) continue;
      place_ = &place;
      return;
    }
    ++(*(more_ = &line.more));
  }
  ~Call() {
    if (place_ != nullptr) {
      place_->store(nullptr, std::memory_order_release);
    } else {
      --*more_;
    }
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  /// Whether the module is initialised and shall stay so.
  bool getsIn() const { return closings == 0 && isInitialised(); }

 private:
  std::atomic<const void*>* place_ = nullptr;
  std::atomic<long>* more_ = nullptr;
};

/// Whether this thread is inside a call, which called back. Unknown of one without a place.
bool isInside();

/// The end of the module: nobody is, or comes, inside while this lives.
class Closing {
 public:
  /// Waits for calls that are under way, however long they take.
  Closing();
  ~Closing() { --closings; }
  Closing(const Closing&) = delete;
  Closing& operator=(const Closing&) = delete;
};

/// Held while the real module is called.
class Turn : Lock {
 public:
  Turn() : Lock(turns.load(std::memory_order_acquire)) {}
};

/// Held instead of a turn while it counts who else has the module: no copy joins, leaves or ends
/// it.
class Sharing : Lock {
 public:
  Sharing() : Lock(&shared.load()->turns) {}

  /// Whether others have this beginning as well.
  bool isShared() const { return shared.load()->copies > 1 || shared.load()->isForeign; }

  /// C_Finalize by the last copy, unless somebody else began it. Whatever it answers, no call gets
  /// in until `initialize`: a module that fails to end may have ended. @return its value; CKR_OK
  /// where others keep it; CKR_CRYPTOKI_NOT_INITIALIZED where this copy has not begun it
  CK_RV end(void* reserved);
};

/// Loads the real module and fetches its function list, afresh while nothing is initialised. Its
/// path stands in a file beside this library, named as it with ".module" added, else in
/// QUARVEL_PKCS11_ADAPTED_MODULE. It is never closed: threads and thread-local destructors that it
/// leaves behind need its code.
/// @return CKR_ARGUMENTS_BAD: no path, one of PATH_MAX and more, or a file that cannot be read;
/// CKR_LIBRARY_LOAD_FAILED: the dynamic linker refused it; CKR_FUNCTION_NOT_SUPPORTED: it has no
/// C_GetFunctionList; CKR_FUNCTION_REJECTED: it is, or leads back to, this library;
/// CKR_GENERAL_ERROR: it succeeded without a list; else what its C_GetFunctionList returned
CK_RV load();

/// C_Initialize with the caller's own arguments, null included, and locking asked for. Where the
/// module refuses that, or is known to break under threads, calls take turns; also with
/// QUARVEL_PKCS11_ADAPTER_SERIAL in the environment, whose value 0 means the opposite. A module
/// that another copy has initialised is joined. One that somebody else in the process has, or that
/// an earlier end could not end, is as well: calls take turns, and it is not ended.
CK_RV initialize(const CK_C_INITIALIZE_ARGS* arguments);

/// Frees, in the child of a fork, the locks of the threads that it does not have, and ends their
/// calls. An end that the fork interrupted counts as done.
void freeLocks();

}  // namespace module

}  // namespace adapter

#endif  // QUARVEL_ADAPTER_MODULE_H_
