// SPDX-License-Identifier: Apache-2.0
// What stands between the library and its surroundings in a test, and records in one stream what
// the library does: a copy of the JNI function table whose entries check and fail on demand, the C
// heap with a balance that can run dry, the dynamic linker, the scripted module.
#ifndef QUARVEL_TESTS_NATIVE_HOOKS_H_
#define QUARVEL_TESTS_NATIVE_HOOKS_H_

#include <jni.h>

#include <string>
#include <vector>

namespace hooks {

/// What one run of a native method is to meet.
struct Run {
  std::size_t failing = 0;  // the number of the event that fails, from 1; 0: none
  std::string failingLike;  // or the first event that begins so
  std::size_t events = 0;   // up to now

  std::vector<std::string> violations;  // of the rules of JNI, of give-back modes, of the heap
};

/// The run of this moment; null outside a native method under test.
extern Run* run;

/// Records an event of the run as <mark> on standard output, where it stands in one order with all
/// others and with what is printed. Without a run nothing happens.
/// @return whether it is to fail
bool event(const std::string& what);

/// Whether a failure of the event can be simulated here.
bool canFail(const std::string& event);

/// An environment over `real` that hooks every JNI function the library may use and allows no
/// other.
JNIEnv* hookedEnv(JNIEnv* real);

/// Begins and ends the run whose events are recorded.
void begin(Run* next);
void end();

}  // namespace hooks

#endif  // QUARVEL_TESTS_NATIVE_HOOKS_H_
