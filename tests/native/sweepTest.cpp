// SPDX-License-Identifier: Apache-2.0
// Sweeps over all native methods: every step fails in turn, every argument is bad in turn.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "call.h"

namespace {

using scripted::script;

const std::string kOutOfMemory = "Internal error: Out of memory";

// What call() itself checks of every run: no JNI call with an exception pending, arrays and strings
// given back once and in the stated mode, the heap balanced.
Outcome callFresh(const auto&... arguments) {
  const FreshModule fresh;
  return call(arguments...);
}

TEST(Sweep, EveryJniFunctionAndEveryAllocationFailsOnce) {
  std::size_t jniFaults = 0;
  std::size_t heapFaults = 0;
  for (const Method& method : methods()) {
    const Outcome good = callFresh(method);
    for (std::size_t step = 1; step <= good.run.jni.size(); ++step) {
      const auto& [function, moduleCalls] = good.run.jni[step - 1];
      if (!hooks::canFail(function)) continue;
      ++jniFaults;
      SCOPED_TRACE(method.name + ", step " + std::to_string(step) + ": " + function);
      const Outcome outcome = callFresh(method, hooks::Run{.failJni = step});
      EXPECT_NE(outcome.exception, "");
      EXPECT_EQ(function.ends_with("ArrayElements"), outcome.exception == kOutOfMemory);
      EXPECT_EQ(outcome.moduleCalls.size(), moduleCalls) << "the module was reached";
    }
    for (std::size_t step = 1; step <= good.run.allocations.size(); ++step) {
      ++heapFaults;
      SCOPED_TRACE(method.name + ", allocation " + std::to_string(step));
      const Outcome outcome = callFresh(method, hooks::Run{.failHeap = step});
      EXPECT_EQ(outcome.value, failureValue(method));
      const std::size_t made = outcome.moduleCalls.size();
      const bool isAnswer = made != 0 && made < good.moduleCalls.size();
      const bool isValue = made == 0 && good.run.allocations[step - 1] < sizeof(CK_ATTRIBUTE);
      EXPECT_EQ(outcome.exception, isAnswer ? "Internal error" : isValue ? "" : kOutOfMemory);
    }
  }
  std::printf("faults injected: %zu in JNI functions, %zu in allocations\n", jniFaults, heapFaults);
}

TEST(Sweep, EveryModuleFunctionFails) {
  const std::map<CK_RV, std::string> answers = {
      {0x30, "CKR_DEVICE_ERROR (0x30)"},
      {0x7FFFFFFF, "CKR 0x7FFFFFFF"},
      {0x80000000, "Internal error"},
      {0x100000030, "Internal error"}};
  // These report a failure in their own way, which contract.txt states.
  const std::set<std::string> particular = {
      "Module.libFinalize", "Module.getRSAcredential", "Session.getIdentrusObject"};
  std::size_t faults = 0;
  for (const Method& method : methods()) {
    const std::vector<std::string> calls = callFresh(method).moduleCalls;
    for (std::size_t step = 0; step < calls.size(); ++step) {
      for (const auto& [answer, message] : answers) {
        ++faults;
        SCOPED_TRACE(method.name + ", " + calls[step] + ", " + message);
        const FreshModule fresh;
        script.failFrom = step + 1;
        script.failWith = answer;
        const Outcome outcome = call(method);
        const bool ignored = calls[step].starts_with("C_FindObjectsFinal");
        EXPECT_TRUE(ignored || particular.contains(method.name) || outcome.exception == message)
            << outcome.result;
      }
    }
  }
  std::printf("faults injected: %zu in module functions\n", faults);
}

TEST(Sweep, EveryArgumentIsBadOnce) {
  const std::map<char, std::string> huge = {{'S', "\"x\"*1048576"}, {'B', "[41*1048576]"}};
  std::size_t cases = 0;
  for (const Method& method : methods()) {
    for (std::size_t at = 0; at < method.parameters.size(); ++at) {
      std::vector<std::string> values = valuesOf(method.parameters[at]);
      if (huge.contains(method.parameters[at])) values.push_back(huge.at(method.parameters[at]));
      for (const std::string& value : values) {
        ++cases;
        std::vector<std::string> arguments = goodArguments(method);
        arguments[at] = value;
        SCOPED_TRACE(method.name + "(" + join(arguments) + ")");
        callFresh(method.name, join(arguments));
      }
    }
  }
  std::printf("argument cases: %zu\n", cases);
}

TEST(Sweep, HandleObjectsWithoutSessionAndWithNegativeHandles) {
  const std::map<std::string, std::string> receivers = {
      {"null", ""}, {"orphan", ""}, {"negative", "0xFFFFFFFFFFFFFFFB"}};
  for (const auto& [receiver, handle] : receivers) {
    for (const Method& method : methods()) {
      if (!method.name.starts_with("Object.") || method.refused) continue;
      const Outcome outcome = callFresh(method, hooks::Run(), receiver);
      EXPECT_EQ(outcome.exception, handle == "" ? "CKR_ARGUMENTS_BAD (0x7)" : "") << method.name;
      for (const std::string& made : outcome.moduleCalls) {
        EXPECT_NE(made.find("(" + handle + ", 0xFFFFFFFFFFFFFFF7"), std::string::npos) << made;
      }
    }
  }
}

}  // namespace
