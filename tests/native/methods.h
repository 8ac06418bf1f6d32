// SPDX-License-Identifier: Apache-2.0
// Every native method, callable by name.
#ifndef QUARVEL_TESTS_NATIVE_METHODS_H_
#define QUARVEL_TESTS_NATIVE_METHODS_H_

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

struct Method {
  std::string name;        // as Class.method, the class without "NativePKCS11"; Module for itself
  std::string parameters;  // a letter for each: I Z J, S String, B byte[], A int[], O Object[], L
  char result;             // the same, V for void
  bool refused;            // not offered: raises "Not supported"
  std::function<jvalue(JNIEnv*, jobject, const std::vector<jvalue>&)> invoke;
};

/// All native methods.
const std::vector<Method>& methods();
const Method& method(const std::string& name);

/// What a method returns beside an exception.
std::string failureValue(const Method& method);

/// Values for a parameter of this type as Values.java writes them: a good one, then worse ones.
const std::vector<std::string>& valuesOf(char type);

/// Arguments with which the method succeeds.
std::vector<std::string> goodArguments(const Method& method);

#endif  // QUARVEL_TESTS_NATIVE_METHODS_H_
