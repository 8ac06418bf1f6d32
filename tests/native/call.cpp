// SPDX-License-Identifier: Apache-2.0
#include "call.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

/// What `run` prints on standard output. Calls are too many to make a file on disk for each.
std::string printedBy(const std::function<void()>& run) {
  static const int outside = dup(STDOUT_FILENO);
  static const int memory = memfd_create("output", 0);
  std::fflush(stdout);
  dup2(memory, STDOUT_FILENO);
  run();
  std::fflush(stdout);
  dup2(outside, STDOUT_FILENO);
  std::string text(static_cast<std::size_t>(lseek(memory, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(memory, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(ftruncate(memory, 0), 0);
  lseek(memory, 0, SEEK_SET);
  return text;
}

std::string shown(char type, const jvalue& value) {
  return type == 'V'   ? "void"
         : type == 'I' ? std::to_string(value.i)
         : type == 'J' ? std::to_string(value.j)
         : type == 'Z' ? std::vector{"false", "true"}.at(value.z)  // no other is a boolean
                       : show(value.l);
}

}  // namespace

Outcome call(const std::string& name, const std::string& arguments, hooks::Run run,
             std::string receiver) {
  static JNIEnv* const hooked = hooks::hookedEnv(java());
  const Method& called = method(name);
  java()->PushLocalFrame(1024);
  if (receiver.empty()) receiver = name.substr(0, name.find('.'));
  receiver[0] = static_cast<char>(std::tolower(receiver[0]));
  std::vector<jvalue> values = parse("L" + called.parameters, receiver + ", " + arguments);
  const jobject self = values.front().l;
  values.erase(values.begin());

  Outcome outcome;
  jvalue result = {};
  outcome.did = printedBy([&] {
    hooks::begin(&run);
    result = called.invoke(hooked, self, values);
    hooks::end();
  });
  outcome.exception = takeException();
  outcome.value = outcome.result = shown(called.result, result);
  if (!outcome.exception.empty()) outcome.result += " ! " + outcome.exception;
  java()->PopLocalFrame(nullptr);
  EXPECT_EQ(join(run.violations), "") << name;
  EXPECT_TRUE(outcome.exception.empty() || outcome.value == failureValue(called)) << outcome.result;
  return outcome;
}

Outcome callFresh(const std::string& name, const std::string& arguments, const hooks::Run& run,
                  const std::function<void()>& prepare, const std::string& receiver) {
  const auto callOnce = [&](int tracing) {
    const FreshModule fresh;
    prepare();
    debug = tracing;
    return call(name, arguments, run, receiver);
  };
  const Outcome untraced = callOnce(0);
  Outcome outcome = callOnce(1);
  EXPECT_EQ(outcome.result, untraced.result);
  EXPECT_EQ(eventsOf(outcome.did), eventsOf(untraced.did));
  outcome.untraced = untraced.did;
  return outcome;
}

Outcome callFresh(const Method& method, const hooks::Run& run, const std::function<void()>& prepare,
                  const std::string& receiver) {
  return callFresh(method.name, join(goodArguments(method)), run, prepare, receiver);
}

std::vector<std::string> eventsOf(const std::string& did) {
  std::vector<std::string> events;
  for (std::size_t at = 0, end; (at = did.find('<', at)) != std::string::npos; at = end) {
    end = did.find('>', at);
    events.push_back(did.substr(at + 1, end - at - 1));
  }
  return events;
}

std::string printedOf(std::string did) {
  for (std::size_t at; (at = did.find('<')) != std::string::npos;) {
    did.erase(at, did.find('>', at) - at + 1);
  }
  return did;
}

FreshModule::FreshModule() {
  scripted::reset();
  debug = 0;
  CK_FUNCTION_LIST_PTR list = nullptr;
  EXPECT_EQ(bridge::loadLib(scripted::file().c_str(), &list), CKR_OK);
  EXPECT_EQ(bridge::initLib(), CKR_OK);
}

FreshModule::~FreshModule() {
  debug = 0;
  scripted::reset();
  bridge::pFunctionList = &scripted::list;
  bridge::finalizeLib();
}
