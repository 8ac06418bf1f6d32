// SPDX-License-Identifier: Apache-2.0
// The virtual machine of the tests.
#ifndef QUARVEL_TESTS_NATIVE_JVM_H_
#define QUARVEL_TESTS_NATIVE_JVM_H_

#include <jni.h>

/// Starts the virtual machine of QUARVEL_JVM (a libjvm.so) in this process.
/// @return false after printing why it cannot
bool startJava();

/// The real environment of this thread.
JNIEnv* java();

#endif  // QUARVEL_TESTS_NATIVE_JVM_H_
