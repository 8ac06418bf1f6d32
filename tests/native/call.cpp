#include "call.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

/// Standard output while this lives. Calls are too many to make a file on disk for each.
class Captured {
 public:
  Captured() {
    std::fflush(stdout);
    dup2(memory, STDOUT_FILENO);
  }
  std::string end() {
    std::fflush(stdout);
    std::string text(static_cast<std::size_t>(lseek(memory, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(memory, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(ftruncate(memory, 0), 0);
    lseek(memory, 0, SEEK_SET);
    dup2(outside, STDOUT_FILENO);
    return text;
  }

 private:
  static inline const int outside = dup(STDOUT_FILENO);
  static inline const int memory = memfd_create("output", 0);
};

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
  if (receiver.empty()) {
    receiver = name.starts_with("Module.")    ? "module"
               : name.starts_with("Slot.")    ? "slot"
               : name.starts_with("Session.") ? "session"
                                              : "key";
  }
  std::vector<jvalue> values = parse("L" + called.parameters, receiver + ", " + arguments);
  const jobject self = values.front().l;
  values.erase(values.begin());
  scripted::calls.clear();

  Outcome outcome;
  outcome.run = std::move(run);
  Captured captured;
  hooks::begin(&outcome.run);
  const jvalue result = called.invoke(hooked, self, values);
  hooks::end();
  outcome.output = outcome.marked = captured.end();
  for (auto mark = outcome.run.marks.rbegin(); mark != outcome.run.marks.rend(); ++mark) {
    outcome.marked.insert(std::min(mark->printed, outcome.output.size()), "<" + mark->what + ">");
  }
  const std::string number = "exc number ";
  if (const std::size_t at = outcome.output.rfind(number); at != std::string::npos) {
    const std::size_t from = at + number.size();
    outcome.code = outcome.output.substr(from, outcome.output.find('.', from) - from);
  }

  outcome.exception = takeException();
  outcome.value = outcome.result = shown(called.result, result);
  if (!outcome.exception.empty()) outcome.result += " ! " + outcome.exception;
  outcome.moduleCalls = scripted::calls;
  java()->PopLocalFrame(nullptr);
  EXPECT_EQ(join(outcome.run.violations), "") << name;
  EXPECT_EQ(outcome.run.blocks, 0u) << name << " leaks";
  return outcome;
}

FreshModule::FreshModule() {
  scripted::reset();
  debug = 0;
  CK_FUNCTION_LIST_PTR list = nullptr;
  EXPECT_EQ(bridge::loadLib(scripted::file().c_str(), &list), CKR_OK);
  EXPECT_EQ(bridge::initLib(), CKR_OK);
  scripted::calls.clear();
}

FreshModule::~FreshModule() {
  debug = 0;
  bridge::finalizeLib();
}
