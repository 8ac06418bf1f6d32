// SPDX-License-Identifier: Apache-2.0
// One call of a native method under test, and all that it did.
#ifndef QUARVEL_TESTS_NATIVE_CALL_H_
#define QUARVEL_TESTS_NATIVE_CALL_H_

#include "hooks.h"
#include "jvm.h"
#include "methods.h"
#include "scripted.h"
#include "values.h"

struct Outcome {
  std::string value;      // "3", "null", "void", ...
  std::string exception;  // its message
  std::string result;     // both, with " ! " between them where there is an exception
  std::vector<std::string> moduleCalls;
  std::string output;  // on standard output
  std::string marked;  // the same with <marks> of what was given back, freed or raised
  std::string code;    // the return value in the trace of an exception, hexadecimal
  hooks::Run run;
};

/// Calls a native method on the handle object of its class, with a fresh record of module calls.
/// Expects what holds for every run: no violation, nothing held, heap balanced, and a result never
/// goes with an exception.
/// @param arguments separated by commas
/// @param receiver in place of that object, as Values.java names it
Outcome call(const std::string& name, const std::string& arguments, hooks::Run run = {},
             std::string receiver = "");

/// The same with arguments with which the method succeeds.
Outcome call(const Method& method, hooks::Run run = {}, const std::string& receiver = "");

/// The scripted module, loaded and initialised anew, its record empty, with `debug` off; finalised
/// at scope exit.
struct FreshModule {
  FreshModule();
  ~FreshModule();
};

#endif  // QUARVEL_TESTS_NATIVE_CALL_H_
