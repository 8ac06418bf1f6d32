// SPDX-License-Identifier: Apache-2.0
// Sweeps over all native methods: every step fails in turn, every argument is bad in turn.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "call.h"
#include "jniUtil.h"
#include "pkcs11Bridge.h"

namespace {

using scripted::script;

// call() itself checks that every run makes no JNI call with an exception pending, gives arrays and
// strings back once and in the stated mode, and leaves the heap balanced.

/// @return where the first event from `at` on ends
std::size_t endOfEvent(const std::string& did, std::size_t at) {
  return did.find('>', did.find('<', at)) + 1;
}

bool isModuleCall(const std::string& event) { return event.starts_with("C_"); }

/// Holds a run in which something failed to the good one: it begins in the same way, and little
/// follows.
/// @param size of the beginning that both have, as traced
void expectBeginning(const Method& method, const Outcome& good, const Outcome& failed,
                     std::size_t size) {
  EXPECT_EQ(failed.did.substr(0, size), good.did.substr(0, size));
  const std::size_t common = eventsOf(good.did.substr(0, size)).size();
  std::size_t untraced = 0;
  for (std::size_t i = 0; i < common; ++i) untraced = endOfEvent(good.untraced, untraced);
  EXPECT_EQ(failed.untraced.substr(0, untraced), good.untraced.substr(0, untraced));
  // contract.txt states that the first ones go on after a failure, and that the others end a line
  // with OK.
  static const std::set<std::string> goOn = {
      "Session.getCardStatus", "Session.setCardStatus", "Session.getIdentrusObject"};
  static const std::set<std::string> okay = {
      "Session.createObject", "Session.generateKey", "Session.wrapKey"};
  const std::string rest = failed.did.substr(std::min(size, failed.did.size()));
  EXPECT_TRUE(rest.find("<C_") == std::string::npos || goOn.contains(method.name)) << rest;
  EXPECT_TRUE(rest.find("OK") == std::string::npos || okay.contains(method.name)) << rest;
  EXPECT_EQ(rest.find("<allocate"), std::string::npos) << rest;
}

/// What follows when the last call of the module answers 0x30: the end of its line, what is given
/// back, and the exception, before that or after it. Empty for what contract.txt states.
std::string restOfFailure(const Method& method, const std::string& goodRest) {
  static const std::set<std::string> raiseFirst = {
      "Module.loadPKCS11Library", "Session.login",
      "Session.initPIN",          "Session.setPIN",
      "Session.findObjectsInit",  "Session.generateKeyPair",
      "Session.generateKey",      "Object.setAttributeValues"};
  static const std::set<std::string> stated = {
      "Module.libInitialize",       "Module.libFinalize",
      "Session.setCardStatus",      "Session.getIdentrusObject",
      "Session.generateKeyPairOB",  "Session.createObject",
      "Session.installCertificate", "Session.wrapKey"};
  if (stated.contains(method.name)) return "";
  const std::string line =
      goodRest.substr(0, std::min(goodRest.find('<'), goodRest.find('\n') + 1));
  const std::string raised =
      "JNI: Throwing exc number 30...<FindClass PKCS11Exception><GetMethodID init><NewObject>"
      "<raise> Done\n";
  std::string givenBack;
  for (const std::string& event : eventsOf(goodRest)) {
    if (event.starts_with("release ") || event.starts_with("free ")) givenBack += "<" + event + ">";
    if (event.starts_with("allocate")) return line + raised;  // and not taken before
  }
  return line + (raiseFirst.contains(method.name) ? raised + givenBack : givenBack + raised);
}

/// A step of a good run.
struct Step {
  const Method& method;
  const Outcome& good;
  std::string event;
  std::size_t number;       // from 1
  std::size_t made, calls;  // of the module, up to here and in all
  std::size_t end;          // in what the good run did
};

/// Has the module fail from the step on, in each way. @return how many there are
std::size_t failModule(const Step& step) {
  static const std::map<CK_RV, std::string> answers = {
      {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR (0x30)"},
      {0x7FFFFFFF, "CKR 0x7FFFFFFF"},
      {0x80000000, kInternalError},
      {0x100000030, kInternalError}};
  // These report a failure of the module in their own way, which contract.txt states.
  static const std::set<std::string> particular = {
      "Module.libFinalize", "Session.getIdentrusObject"};
  for (const auto& [answer, message] : answers) {
    const Outcome outcome = callFresh(step.method, {}, [&, answer = answer] {
      script.failFrom = step.made;
      script.failWith = answer;
    });
    expectBeginning(step.method, step.good, outcome, step.end);
    const std::string rest = restOfFailure(step.method, step.good.did.substr(step.end));
    if (step.made == step.calls && answer == CKR_DEVICE_ERROR && !rest.empty()) {
      EXPECT_EQ(outcome.did.substr(step.end), rest);
    }
    const bool ignored = step.event.starts_with("C_FindObjectsFinal");
    EXPECT_TRUE(ignored || particular.contains(step.method.name) || outcome.exception == message)
        << outcome.result;
  }
  return answers.size();
}

/// Has a JNI function or an allocation fail.
void failStep(const Step& step) {
  const Outcome outcome = callFresh(step.method, {.failing = step.number});
  expectBeginning(step.method, step.good, outcome, step.end);
  EXPECT_EQ(outcome.value, failureValue(step.method));
  if (step.event.starts_with("allocate")) {
    const bool isAnswer = step.made != 0 && step.made < step.calls;
    const bool isValue = step.made == 0 && step.event == "allocate";
    EXPECT_EQ(outcome.exception, isAnswer ? kInternalError : isValue ? "" : kOutOfMemory);
  } else {
    EXPECT_NE(outcome.exception, "");
    EXPECT_EQ(step.event.ends_with("ArrayElements"), outcome.exception == kOutOfMemory);
  }
}

TEST(Sweep, EveryStepFailsOnce) {
  std::size_t jniFaults = 0, heapFaults = 0, moduleFaults = 0;
  for (const Method& method : methods()) {
    const Outcome good = callFresh(method);
    const std::vector<std::string> events = eventsOf(good.did);
    const std::size_t calls = std::ranges::count_if(events, isModuleCall);
    Step step = {method, good, "", 0, 0, calls, 0};
    for (const std::string& event : events) {
      step.event = event;
      ++step.number;
      step.end = endOfEvent(good.did, step.end);
      SCOPED_TRACE(method.name + ", event " + std::to_string(step.number) + ": " + event);
      if (isModuleCall(event)) {
        ++step.made;
        moduleFaults += failModule(step);
      } else if (hooks::canFail(event)) {
        ++(event.starts_with("allocate") ? heapFaults : jniFaults);
        failStep(step);
      }
    }
  }
  std::printf("faults injected: %zu in JNI functions, %zu in allocations\n", jniFaults, heapFaults);
  std::printf("faults injected: %zu in module functions\n", moduleFaults);
}

TEST(Sweep, EveryCallRefusesWithoutTheFunctionOrItsListOrInitialisation) {
  const std::map<std::string, std::function<void()>> lacking = {
      {"the function", [] { scripted::list = {}; }},
      {"its list", [] { bridge::pFunctionList = nullptr; }},
      {"initialisation", [] { bridge::loaded = 0; }}};
  const std::set<std::string> others = {"Module.loadPKCS11Library", "Module.libInitialize",
                                        "Module.libFinalize", "Session.getIdentrusObject"};
  for (const Method& method : methods()) {
    const Outcome good = callFresh(method);
    if (good.did.find("<C_") == std::string::npos || others.contains(method.name)) continue;
    for (const auto& [what, take] : lacking) {
      SCOPED_TRACE(method.name + " without " + what);
      const Outcome outcome = callFresh(method, {}, take);
      const bool initialised = what != "initialisation";
      const std::size_t begun = good.did.find(initialised ? "<C_" : "JNI:BRIDGE: Calling");
      expectBeginning(method, good, outcome, begun);
      EXPECT_FALSE(outcome.did.substr(begun).starts_with(" Done"));
      const std::string code = initialised ? "80000001" : "80000003";
      EXPECT_NE(outcome.did.find("exc number " + code + "..."), std::string::npos) << outcome.did;
    }
  }
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
      const Outcome outcome = callFresh(
          method, {}, [] {}, receiver);
      EXPECT_EQ(outcome.exception, handle == "" ? "CKR_ARGUMENTS_BAD (0x7)" : "") << method.name;
      for (const std::string& event : eventsOf(outcome.did)) {
        const bool passed = event.find("(" + handle + ", 0xFFFFFFFFFFFFFFF7") != std::string::npos;
        EXPECT_EQ(passed, isModuleCall(event) && !handle.empty()) << event;
      }
    }
  }
}

}  // namespace
