// SPDX-License-Identifier: Apache-2.0
// Java values from text and as text, in the forms of Values.java.
#ifndef QUARVEL_TESTS_NATIVE_VALUES_H_
#define QUARVEL_TESTS_NATIVE_VALUES_H_

#include <jni.h>

#include <string>
#include <vector>

/// One value for each letter of `types` (see Method), from texts separated by commas.
std::vector<jvalue> parse(const std::string& types, const std::string& texts);

/// Any reference as text.
std::string show(jobject object);

/// The pending exception as text, and clears it; empty when none is pending.
std::string takeException();

std::string join(const std::vector<std::string>& parts, const char* between = ", ");

#endif  // QUARVEL_TESTS_NATIVE_VALUES_H_
