// SPDX-License-Identifier: Apache-2.0
// One call of a native method under test, and all that it did.
#ifndef QUARVEL_TESTS_NATIVE_CALL_H_
#define QUARVEL_TESTS_NATIVE_CALL_H_

#include <functional>

#include "hooks.h"
#include "jvm.h"
#include "methods.h"
#include "scripted.h"
#include "values.h"

struct Outcome {
  std::string value;      // "3", "null", "void", ...
  std::string exception;  // its message
  std::string result;     // both, with " ! " between them where there is an exception
  std::string did;        // in order: what was printed, and each event as <mark>
  std::string untraced;   // the same of the untraced call of callFresh
};

/// What was done without what was printed, and the other way round.
std::vector<std::string> eventsOf(const std::string& did);
std::string printedOf(std::string did);

/// Calls a native method on the handle object of its class. Expects what holds for every run: no
/// violation, nothing held, heap balanced, and a result never goes with an exception.
/// @param arguments separated by commas
/// @param receiver in place of that object, as Values.java names it
Outcome call(const std::string& name, const std::string& arguments, hooks::Run run = {},
             std::string receiver = "");

/// A call on a fresh module each, untraced and traced: expects that all but what is printed agrees.
/// @param prepare what each module and its script are to be like
/// @return the traced one
Outcome callFresh(
    const std::string& name, const std::string& arguments, const hooks::Run& run = {},
    const std::function<void()>& prepare = [] {}, const std::string& receiver = "");
Outcome callFresh(
    const Method& method, const hooks::Run& run = {}, const std::function<void()>& prepare = [] {},
    const std::string& receiver = "");

/// The scripted module, loaded and initialised anew, with `debug` off; finalised at scope exit.
struct FreshModule {
  FreshModule();
  ~FreshModule();
};

#endif  // QUARVEL_TESTS_NATIVE_CALL_H_
