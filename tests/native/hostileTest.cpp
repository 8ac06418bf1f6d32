// SPDX-License-Identifier: Apache-2.0
// A module that misbehaves in every way that has a name here, and a random walk over all of it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <random>

#include "call.h"

namespace {

using scripted::script;

// What call() checks holds whatever the module does.
TEST(Hostile, EveryMisbehaviourInEveryMethod) {
  std::size_t cases = 0;
  const auto callAll = [&](const std::string& name, const std::function<void()>& misbehave) {
    for (const Method& method : methods()) {
      SCOPED_TRACE(method.name + ", the module " + name);
      const FreshModule fresh;
      misbehave();
      call(method.name, join(goodArguments(method)));
      ++cases;
    }
  };
  for (const auto& [name, install] : scripted::misbehaviours()) callAll(name, install);
  for (std::size_t size = 0; size <= 9; ++size) {
    for (const CK_BYTE byte : {0x00, 0x01, 0x31, 0x80, 0xFF}) {
      callAll("has short values", [=] { script.value.assign(size, byte); });
    }
  }
  std::printf("hostile cases: %zu\n", cases);
}

// ---- The random walk ----

std::size_t setting(const char* name, std::size_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::strtoul(value, nullptr, 10) : fallback;
}

/// The resident size of this process in KiB.
long residentSize() {
  long size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST(Hostile, RandomWalk) {
  const std::size_t calls = setting("QUARVEL_WALK_CALLS", 2000);
  const std::size_t seed = setting("QUARVEL_WALK_SEED", 1);
  std::printf("random walk: %zu calls, seed %zu\n", calls, seed);
  std::mt19937_64 random(seed);
  const auto below = [&](std::size_t limit) { return random() % limit; };
  const auto pick = [&](const auto& from) -> const auto& { return from[below(std::size(from))]; };

  long settled = 0;
  auto fresh = std::make_unique<FreshModule>();
  for (std::size_t i = 0; i < calls && !HasFailure(); ++i) {
    if (i == calls / 10) settled = residentSize();
    if (below(8) == 0) {  // another mood
      fresh.reset();
      fresh = std::make_unique<FreshModule>();
      pick(scripted::misbehaviours()).install();
      script.value.assign(below(20), static_cast<CK_BYTE>(random()));
      script.output.assign(below(8), 0xEE);
      script.slots.assign(below(5), random());
      if (below(4) == 0) script.failFrom = 1 + below(20);
      script.failWith = below(2) == 0 ? below(0x200) : random();
    }
    const Method& method = pick(methods());
    std::string arguments;
    for (const char type : method.parameters) arguments += pick(valuesOf(type)) + ", ";
    SCOPED_TRACE("call " + std::to_string(i) + ": " + method.name + "(" + arguments + ")");
    call(method.name, arguments, {.failing = below(3) == 0 ? 1 + below(40) : 0});
  }
  fresh.reset();
  scripted::reset();
  const long grown = residentSize() - settled;
  std::printf("resident size: %ld KiB after a tenth, %+ld at the end\n", settled, grown);
  // The virtual machine takes some hundred thousand calls to settle.
  EXPECT_LT(calls >= 1000000 ? grown : 0, 16 * 1024);
}

}  // namespace
