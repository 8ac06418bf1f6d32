// SPDX-License-Identifier: Apache-2.0
// The real module. This part finds, loads, initialises and ends it, notes the calls that are under
// way, and gives them their turns. It knows no handles.
#ifndef QUARVEL_ADAPTER_MODULE_H_
#define QUARVEL_ADAPTER_MODULE_H_

#include <pthread.h>

#include <atomic>

#include "copies.h"
#include "pkcs11.h"

namespace adapter {

class Lock {
 public:
  /// Holds nothing if the mutex is null.
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

/// Returns a function of the real module, null if the module is not loaded or lacks it.
template <typename Function>
Function functionOf(Function CK_FUNCTION_LIST::*entry) {
  const CK_FUNCTION_LIST* loaded = list.load(std::memory_order_acquire);
  return loaded != nullptr ? loaded->*entry : nullptr;
}

inline constexpr unsigned long kNone = ~0UL;
extern std::atomic<copies::Shared*> shared;   // the state of the module
extern std::atomic<unsigned long> beginning;  // the beginning that this copy has, or kNone
extern std::atomic<pthread_mutex_t*> turns;   // null if calls take no turns
extern std::atomic<int> closings;             // ends of the module that are under way or waiting

/// Tells whether this copy has the module initialised, and nobody has ended it and begun anew
/// since.
inline bool isInitialised() { return shared.load()->beginnings == beginning; }

/// Holds the threads between the start and the return of a call. Each takes a place on a cache line
/// that it shares with few others, so that processors do not wait for each other.
struct alignas(64) Line {
  static constexpr int kPlaces = 7;
  std::atomic<const void*> inside[kPlaces];  // their thread pointers; null: a free place
  std::atomic<long> more;                    // the number of threads that found no place
};
extern Line lines[32];

inline Line& lineOf(const void* thread) {
  return lines[reinterpret_cast<CK_ULONG>(thread) * 0x9E3779B97F4A7C15U >> 59];
}

/// A call from its start to its return: the end of the module waits for it, or it does not get in.
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

  /// Tells whether the module is initialised and nobody is ending it.
  bool getsIn() const { return closings == 0 && isInitialised(); }

 private:
  std::atomic<const void*>* place_ = nullptr;
  std::atomic<long>* more_ = nullptr;
};

/// Tells whether this thread is inside a call, from which the module has called back. False also
/// for a thread that found no place.
bool isInside();

/// The end of the module: while this lives, no thread is inside a call, and none gets in.
class Closing {
 public:
  /// Waits for calls that are under way, however long they take.
  Closing();
  ~Closing() { --closings; }
  Closing(const Closing&) = delete;
  Closing& operator=(const Closing&) = delete;
};

/// The turn of a thread, held while it calls the real module.
class Turn : Lock {
 public:
  Turn() : Lock(turns.load(std::memory_order_acquire)) {}
};

/// Held instead of a turn when it matters who else has the module: meanwhile no copy joins, leaves
/// or ends it.
class Sharing : Lock {
 public:
  Sharing() : Lock(&shared.load()->turns) {}

  /// Tells whether others have this beginning as well.
  bool isShared() const { return shared.load()->copies > 1 || shared.load()->isForeign; }

  /// Lets go of the module. The last copy calls C_Finalize, unless somebody else began. Whatever
  /// that answers, no call gets in until `initialize`: a module that fails to end may have ended.
  /// @return the value of C_Finalize, CKR_FUNCTION_NOT_SUPPORTED without one; CKR_OK if others keep
  /// the module; CKR_CRYPTOKI_NOT_INITIALIZED if this copy does not have it
  CK_RV end(void* reserved);
};

/// Loads the real module and fetches its function list, anew at each call until the module is
/// initialised. The file beside this library, with the library's name and ".module", holds the
/// path; without such a file, the environment variable QUARVEL_PKCS11_ADAPTED_MODULE does. The
/// module is never closed: threads and thread-local destructors that it leaves behind need its
/// code.
/// @return CKR_OK; CKR_ARGUMENTS_BAD: no path, one of PATH_MAX and more, or a file that cannot be
/// read; CKR_LIBRARY_LOAD_FAILED: the dynamic linker refused the module;
/// CKR_FUNCTION_NOT_SUPPORTED: the module has no C_GetFunctionList; CKR_FUNCTION_REJECTED: the
/// module is, or leads back to, this library, or 64 other threads are loading;
/// CKR_GENERAL_ERROR: C_GetFunctionList succeeded without a list; else what that returned
CK_RV load();

/// Calls C_Initialize with the caller's arguments, null included, and asks for locking. Calls take
/// turns if the module refuses that, if it is known to break under threads, or if
/// QUARVEL_PKCS11_ADAPTER_SERIAL is in the environment; its value 0 trusts the module's locking. A
/// module that another copy has initialised is joined. So is one that somebody else in the process
/// has initialised, or that an earlier end failed to end: calls then take turns, and no copy ends
/// it.
CK_RV initialize(const CK_C_INITIALIZE_ARGS* arguments);

/// Frees, in the child of a fork, the locks of the threads that it does not have, and ends their
/// calls. An end that the fork interrupted counts as done.
void freeLocks();

}  // namespace module

}  // namespace adapter

#endif  // QUARVEL_ADAPTER_MODULE_H_
