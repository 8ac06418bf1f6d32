// SPDX-License-Identifier: Apache-2.0
#include "hooks.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <type_traits>

#include "scripted.h"
#include "values.h"

// The functions that the library may use. Java's variadic entries arrive as their V forms.
// clang-format off
#define QUARVEL_FALLIBLE(X)                                                                       \
  X(FindClass) X(GetFieldID) X(GetMethodID) X(NewObjectV) X(CallIntMethodV) X(CallBooleanMethodV) \
  X(CallObjectMethodV) X(NewStringUTF) X(GetStringUTFChars) X(NewByteArray) X(NewIntArray)        \
  X(NewObjectArray) X(GetObjectArrayElement) X(GetByteArrayElements) X(GetIntArrayElements)
// These cannot fail with the arguments that the library gives them.
#define QUARVEL_INFALLIBLE(X)                                                                 \
  X(GetObjectClass) X(IsInstanceOf) X(GetIntField) X(GetObjectField) X(Throw) X(ThrowNew)     \
  X(ExceptionCheck) X(GetArrayLength) X(SetObjectArrayElement) X(GetByteArrayRegion)          \
  X(SetByteArrayRegion) X(SetIntArrayRegion) X(ReleaseStringUTFChars)                         \
  X(ReleaseByteArrayElements) X(ReleaseIntArrayElements)
// clang-format on

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* block);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_dlopen(const char* file, int mode);
int __real_dlclose(void* library);
}

namespace hooks {

Run* run = nullptr;

namespace {

JNIEnv* realEnv = nullptr;

struct Block {
  std::size_t size;
  std::string name;  // of a block too large to be an attribute's value
};
std::map<void*, Block> blocks;
std::size_t largeBlocks = 0;

void violation(const std::string& text) { run->violations.push_back(text); }

// ---- Java arrays and strings handed out ----

/// By copy: what the virtual machine handed out, and its size.
std::map<const void*, std::pair<void*, std::size_t>> held;

std::string shown(const char* chars, std::size_t /*size*/) { return chars; }
std::string shown(const jbyte* bytes, std::size_t size) { return scripted::data(bytes, size); }
std::string shown(const jint* types, std::size_t size) {
  std::vector<std::string> list;
  for (std::size_t i = 0; i < size / sizeof *types; ++i) list.push_back(std::to_string(types[i]));
  return "{" + join(list) + "}";
}

/// A copy in a block of its own, so that sanitizers see each access beyond it.
template <typename Element>
Element* handOut(Element* real, std::size_t size) {
  void* copy = __real_malloc(size);
  held[std::memcpy(copy, real, size)] = {const_cast<std::remove_const_t<Element>*>(real), size};
  return static_cast<Element*>(copy);
}

/// Takes a copy back. @return what the virtual machine handed out, with the copy's contents
template <typename Element>
Element* takeBack(Element* copy) {
  const auto taken = held.extract(copy);
  if (taken.empty()) realEnv->FatalError("given back, but not taken");
  const auto [real, size] = taken.mapped();
  event("release " + shown(copy, size).substr(0, 99));
  std::memcpy(real, copy, size);
  __real_free(const_cast<std::remove_const_t<Element>*>(copy));
  return static_cast<Element*>(real);
}

// ---- The hooked entries ----

std::string lastFunction;

/// Holds one call to the rules of JNI.
void check(const std::string& function) {
  const bool worksWithException = function.starts_with("Release") || function == "ExceptionCheck";
  if (!worksWithException && realEnv->ExceptionCheck() != JNI_FALSE) {
    violation(function + " with an exception pending");
  }
  const bool ranJavaCode = lastFunction.starts_with("Call");
  if (ranJavaCode != (function == "ExceptionCheck")) {
    violation(function + " right after " + lastFunction);
  }
  lastFunction = function;
}

/// How a call reads: what it looks up shows, without package and brackets.
std::string reads(std::string function, auto... args) {
  if (function.starts_with("Throw")) return "raise";
  if (function.ends_with("V")) function.pop_back();
  std::string name;
  [[maybe_unused]] const auto take = [&](auto arg) {
    if constexpr (std::is_same_v<decltype(arg), const char*>) name = name.empty() ? arg : name;
  };
  if (function != "NewStringUTF") (take(args), ...);
  if (name == "<init>") name = "init";
  return function + (name.empty() ? "" : " " + name.substr(name.rfind('/') + 1));
}

template <scripted::Name name, typename Function>
struct Hook;
template <scripted::Name name, typename R, typename... Args>
struct Hook<name, R (*)(JNIEnv*, Args...)> {
  static inline R (*behind)(JNIEnv*, Args...);

  static R call(JNIEnv* /*env*/, Args... args) {
    check(name.chars);
    if (!event(reads(name.chars, args...))) return behind(realEnv, args...);
    // Which error the virtual machine raises makes no difference to the library.
    realEnv->ThrowNew(realEnv->FindClass("java/lang/OutOfMemoryError"), "injected");
    return R();
  }
};

std::size_t sizeOf(jstring /*string*/, const char* chars) { return std::strlen(chars) + 1; }
std::size_t sizeOf(jarray array, const auto* elements) {
  return static_cast<std::size_t>(realEnv->GetArrayLength(array)) * sizeof *elements;
}

/// GetStringUTFChars, GetByteArrayElements and the like, which fail by null alone.
template <scripted::Name name, typename Element, typename From>
struct Hook<name, Element* (*)(JNIEnv*, From, jboolean*)> {
  static inline Element* (*behind)(JNIEnv*, From, jboolean*);

  static Element* call(JNIEnv* /*env*/, From from, jboolean* isCopy) {
    check(name.chars);
    if (event(name.chars)) return nullptr;
    Element* real = behind(realEnv, from, isCopy);
    return handOut(real, sizeOf(from, real));
  }
};

/// Their counterparts. The elements of a byte[] are to be copied back, those of an int[] not.
template <scripted::Name name, typename From, typename Element, typename... Mode>
struct Hook<name, void (*)(JNIEnv*, From, Element*, Mode...)> {
  static inline void (*behind)(JNIEnv*, From, Element*, Mode...);

  static void call(JNIEnv* /*env*/, From from, Element* elements, Mode... mode) {
    check(name.chars);
    const bool rightMode = ((mode == (std::is_same_v<From, jintArray> ? JNI_ABORT : 0)) && ...);
    if (!rightMode) violation(std::string(name.chars) + " in the wrong mode");
    behind(realEnv, from, takeBack(elements), mode...);
  }
};

}  // namespace

bool event(const std::string& what) {
  if (run == nullptr) return false;
  std::printf("<%s>", what.c_str());
  const bool like = !run->failingLike.empty() && what.starts_with(run->failingLike);
  if (like) run->failingLike.clear();
  return (++run->events == run->failing || like) && canFail(what);
}

bool canFail(const std::string& event) {
#define QUARVEL_NAME(NAME) #NAME,
  static const std::set<std::string> fallible = {QUARVEL_FALLIBLE(QUARVEL_NAME) "allocate"};
  const std::string name = event.substr(0, event.find(' '));
  return fallible.contains(name) || fallible.contains(name + "V");
}

JNIEnv* hookedEnv(JNIEnv* real) {
  static JNINativeInterface_ table;
  static JNIEnv env;
  realEnv = real;
  void (*trap)() = [] { realEnv->FatalError("a JNI function that the library does not use"); };
  for (std::size_t at = 0; at < sizeof table; at += sizeof trap) {
    std::memcpy(reinterpret_cast<char*>(&table) + at, &trap, sizeof trap);
  }
#define QUARVEL_HOOK(NAME)                                           \
  Hook<#NAME, decltype(table.NAME)>::behind = real->functions->NAME; \
  table.NAME = Hook<#NAME, decltype(table.NAME)>::call;
  QUARVEL_FALLIBLE(QUARVEL_HOOK)
  QUARVEL_INFALLIBLE(QUARVEL_HOOK)
  env.functions = &table;
  return &env;
}

void begin(Run* next) {
  lastFunction.clear();
  largeBlocks = 0;
  run = next;
  scripted::onCall = [](const std::string& call) { event(call); };
}

void end() {
  for (const auto& taken : held)
    violation(std::to_string(taken.second.second) + " bytes not given back");
  for (const auto& [block, taken] : blocks) violation("not freed: " + taken.name);
  held.clear();
  blocks.clear();
  run = nullptr;
}

}  // namespace hooks

// ---- The C heap and the dynamic linker, by the linker's --wrap ----

static void* allocate(std::size_t size, void* (*take)(std::size_t)) {
  hooks::Run* run = hooks::run;
  if (run == nullptr) return take(size);
  std::string name;
  if (size >= sizeof(CK_ATTRIBUTE)) name = "block " + std::to_string(++hooks::largeBlocks);
  const bool fails = hooks::event(name.empty() ? "allocate" : "allocate " + name);
  void* block = fails ? nullptr : take(size);
  if (block == nullptr) return nullptr;
  hooks::blocks[block] = {size, name};
  return block;
}

extern "C" void* __wrap_malloc(std::size_t size) {
  return allocate(size, [](std::size_t n) {
    void* block = __real_malloc(n);
    if (block != nullptr && n < 1 << 20) std::memset(block, 0xDD, n);  // as a used heap has it
    return block;
  });
}

extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  return allocate(count * size, [](std::size_t n) { return __real_calloc(n, 1); });
}

extern "C" void __wrap_free(void* block) {
  if (hooks::run != nullptr && block != nullptr) {
    const auto found = hooks::blocks.find(block);
    if (found == hooks::blocks.end()) return hooks::violation("freed, but not taken");
    const auto& [size, name] = found->second;
    hooks::event("free " + (name.empty() ? scripted::data(block, size) : name));
    hooks::blocks.erase(found);
  }
  __real_free(block);
}

extern "C" void* __wrap_dlopen(const char* file, int mode) {
  hooks::event("dlopen " + std::string(mode == RTLD_LAZY ? "lazy" : "otherwise"));
  return __real_dlopen(file, mode);
}

extern "C" int __wrap_dlclose(void* library) {
  hooks::event("dlclose");
  return __real_dlclose(library);
}
