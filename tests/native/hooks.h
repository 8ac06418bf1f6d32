// SPDX-License-Identifier: Apache-2.0
// What stands between the library and its surroundings in a test: a copy of the JNI function table
// whose entries count, check and fail on demand, and the C heap with a balance that can run dry.
#ifndef QUARVEL_TESTS_NATIVE_HOOKS_H_
#define QUARVEL_TESTS_NATIVE_HOOKS_H_

#include <jni.h>

#include <string>
#include <vector>

namespace hooks {

struct Call {
  std::string function;
  std::size_t moduleCalls;  // made before it
};

/// What one run of a native method did, and which of its steps is to fail (counted from 1; 0:
/// none).
struct Run {
  std::size_t failJni = 0;
  std::size_t failHeap = 0;

  std::vector<Call> jni;
  std::vector<std::size_t> allocations;  // their sizes
  std::vector<std::string> violations;   // of the rules of JNI, of give-back modes, of the heap
};

/// The run of this moment; null outside a native method under test.
extern Run* run;

/// Whether a failure of the function can be simulated.
bool canFail(const std::string& function);

/// An environment over `real` that hooks every JNI function the library may use and allows no
/// other.
JNIEnv* hookedEnv(JNIEnv* real);

/// Begins and ends the run that hooks and heap report to. What is given back, freed or raised in
/// between leaves a mark on standard output, between the bytes 2 and 3.
void begin(Run* next);
void end();

}  // namespace hooks

#endif  // QUARVEL_TESTS_NATIVE_HOOKS_H_
