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
  std::string result;  // "3", "null", "void", ...; then " ! " and the message of an exception
  std::vector<std::string> moduleCalls;
  std::string output;               // on standard output
  std::string marked;               // the same with <marks> of what was given back, freed or raised
  std::string code;                 // the return value in the trace of an exception, hexadecimal
  hooks::Run run;
};

/// Calls a native method on the handle object of its class, with a fresh record of module calls.
/// Expects what holds for every run: no violation, nothing held, heap balanced.
/// @param arguments separated by commas
/// @param receiver in place of that object
Outcome call(const std::string& name, const std::string& arguments, hooks::Run run = {},
             const jobject* receiver = nullptr);

/// The same on the scripted module, initialised for this call and finalised after it.
/// @param prepare called before the call, to bend the script
Outcome callFresh(
    const std::string& name, const std::string& arguments, hooks::Run run = {},
    const std::function<void()>& prepare = [] {}, const jobject* receiver = nullptr);

/// Loads and initialises the scripted module with `debug` off, its record empty after it.
void freshModule();
void shutModule();

#endif  // QUARVEL_TESTS_NATIVE_CALL_H_
