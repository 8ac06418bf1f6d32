// SPDX-License-Identifier: Apache-2.0
// The real module: finding and loading it, its life, and whose turn it is to call it. Knows no
// handles.
#ifndef QUARVEL_ADAPTER_MODULE_H_
#define QUARVEL_ADAPTER_MODULE_H_

#include <pthread.h>

#include <atomic>

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
extern std::atomic<bool> isInitialised;
extern std::atomic<bool> isSerial;  // one call at a time gets in
extern pthread_mutex_t turns;

/// The real module's function, null when it or its module is not there.
template <typename Function>
Function functionOf(Function CK_FUNCTION_LIST::*entry) {
  const CK_FUNCTION_LIST* loaded = list.load(std::memory_order_acquire);
  return loaded != nullptr ? loaded->*entry : nullptr;
}

extern std::atomic<long> callsUnderWay;  // calls between their start and their return
extern std::atomic<long> closings;       // ends of the module under way, or waiting to be

/// A call from its start to its return. The end of the module waits for it, or it does not get in.
class Call {
 public:
  Call() { ++callsUnderWay; }
  ~Call() { --callsUnderWay; }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  /// Whether the module is initialised and shall stay so.
  bool getsIn() const { return closings == 0 && isInitialised; }
};

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
  Turn() : Lock(isSerial.load(std::memory_order_acquire) ? &turns : nullptr) {}
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
/// module refuses that, or the environment has QUARVEL_PKCS11_ADAPTER_SERIAL, calls take turns. A
/// module that somebody else in the process initialised is shared: calls take turns, and `finalize`
/// leaves it alone; so is one that an earlier `finalize` could not end.
CK_RV initialize(const CK_C_INITIALIZE_ARGS* arguments);

/// Whether the module is somebody else's to finalise.
bool isShared();

/// C_Finalize. Whatever it answers, no call gets in until `initialize`: a module that fails to end
/// may have ended. @return its value; CKR_OK for a shared module
CK_RV finalize(void* reserved);

/// In the child of a fork: locks of threads that it does not have are free, and their calls over.
/// An end amid which the fork came counts as one.
void freeLocks();

}  // namespace module

}  // namespace adapter

#endif  // QUARVEL_ADAPTER_MODULE_H_
