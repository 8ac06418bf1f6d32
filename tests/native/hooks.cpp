#include "hooks.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <type_traits>

#include "scripted.h"
#include "values.h"

// The functions that the library may use. Java's variadic entries arrive as their V forms.
// clang-format off
#define QUARVEL_JNI(X)                                                                          \
  X(FindClass) X(GetObjectClass) X(IsInstanceOf) X(GetFieldID) X(GetIntField) X(GetObjectField) \
  X(GetMethodID) X(NewObjectV) X(CallIntMethodV) X(CallBooleanMethodV) X(CallObjectMethodV)     \
  X(Throw) X(ThrowNew) X(ExceptionCheck) X(NewStringUTF) X(GetStringUTFChars)                   \
  X(ReleaseStringUTFChars) X(GetArrayLength) X(NewByteArray) X(NewIntArray) X(NewObjectArray)   \
  X(GetObjectArrayElement) X(SetObjectArrayElement) X(GetByteArrayElements)                     \
  X(ReleaseByteArrayElements) X(GetIntArrayElements) X(ReleaseIntArrayElements)                 \
  X(GetByteArrayRegion) X(SetByteArrayRegion) X(SetIntArrayRegion)
// clang-format on

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* block);
void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void __wrap_free(void* block);
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

long outputStart = 0;
/// Records what happens now, and after how much output.
void mark(const std::string& what) {
  run->marks.push_back({what, static_cast<std::size_t>(std::ftell(stdout) - outputStart)});
}

void violation(const std::string& text) { run->violations.push_back(text); }

[[noreturn]] void giveUp(const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  std::abort();
}

// ---- Java arrays and strings handed out ----

struct Held {
  std::string by;  // the function that took it
  void* real;      // what the virtual machine handed out
  std::size_t size;
};
std::map<const void*, Held> held;

/// A copy in a block of its own, so that sanitizers see each access beyond it.
template <typename Element>
Element* handOut(const char* by, Element* real, jsize count) {
  const std::size_t size = static_cast<std::size_t>(count) * sizeof(Element);
  void* copy = __real_malloc(size);
  held[std::memcpy(copy, real, size)] = {
      by, const_cast<void*>(static_cast<const void*>(real)), size};
  return static_cast<Element*>(copy);
}

std::string shown(const std::string& by, const void* elements, std::size_t size) {
  if (by == "GetStringUTFChars") return static_cast<const char*>(elements);
  if (by == "GetByteArrayElements") return scripted::data(elements, size);
  std::vector<std::string> list;
  const auto* types = static_cast<const jint*>(elements);
  for (std::size_t i = 0; i < size / sizeof *types; ++i) list.push_back(std::to_string(types[i]));
  return "{" + join(list) + "}";
}

/// Takes a copy back. @return what the virtual machine handed out, with the copy's contents
template <typename Element>
Element* takeBack(const std::string& by, Element* copy) {
  const auto found = held.find(copy);
  if (found == held.end() || found->second.by != by) giveUp("given back, but not taken by " + by);
  const Held taken = found->second;
  held.erase(found);
  mark("release " + shown(by, copy, taken.size));
  std::memcpy(taken.real, copy, taken.size);
  __real_free(const_cast<void*>(static_cast<const void*>(copy)));
  return static_cast<Element*>(taken.real);
}

// ---- The hooked entries ----

std::string lastFunction;

/// Counts and checks one call. @return whether it is to fail
bool enter(const std::string& function) {
  run->jni.push_back({function, scripted::calls.size()});
  const bool worksWithException = function.starts_with("Release") || function == "ExceptionCheck";
  if (!worksWithException && realEnv->ExceptionCheck() != JNI_FALSE) {
    violation(function + " with an exception pending");
  }
  const bool ranJavaCode = lastFunction.starts_with("Call");
  if (ranJavaCode != (function == "ExceptionCheck")) {
    violation(function + " right after " + lastFunction);
  }
  lastFunction = function;
  return run->jni.size() == run->failJni && canFail(function);
}

/// Raises the error that the virtual machine raises when the function fails.
void raiseFailure(const std::string& function) {
  if (function == "GetStringUTFChars" || function.ends_with("ArrayElements")) return;  // null alone
  const std::map<std::string, const char*> errors = {
      {"FindClass", "java/lang/NoClassDefFoundError"},
      {"GetFieldID", "java/lang/NoSuchFieldError"},
      {"GetMethodID", "java/lang/NoSuchMethodError"},
      {"GetObjectArrayElement", "java/lang/ArrayIndexOutOfBoundsException"}};
  const auto found = errors.find(function);
  const char* error = found != errors.end()          ? found->second
                      : function.starts_with("Call") ? "java/lang/IllegalStateException"
                                                     : "java/lang/OutOfMemoryError";
  realEnv->ThrowNew(realEnv->FindClass(error), "injected");
}

template <scripted::Name name, typename Function>
struct Hook;
template <scripted::Name name, typename R, typename... Args>
struct Hook<name, R (*)(JNIEnv*, Args...)> {
  static inline R (*behind)(JNIEnv*, Args...);

  static R call(JNIEnv* /*env*/, Args... args) {
    if (!enter(name.chars)) return behind(realEnv, args...);
    raiseFailure(name.chars);
    return R();
  }
};

/// What stands behind the entries that hand out copies or leave a mark.
void replaceEntries(JNINativeInterface_* table) {
  table->Throw = [](JNIEnv* env, jthrowable exception) {
    mark("raise");
    return env->Throw(exception);
  };
  table->ThrowNew = [](JNIEnv* env, jclass cl, const char* message) {
    mark("raise");
    return env->ThrowNew(cl, message);
  };
  table->GetStringUTFChars = [](JNIEnv* env, jstring string, jboolean* /*isCopy*/) {
    const char* chars = env->GetStringUTFChars(string, nullptr);
    return handOut("GetStringUTFChars", chars, static_cast<jsize>(std::strlen(chars) + 1));
  };
  table->ReleaseStringUTFChars = [](JNIEnv* env, jstring string, const char* chars) {
    env->ReleaseStringUTFChars(string, takeBack("GetStringUTFChars", chars));
  };
  table->GetByteArrayElements = [](JNIEnv* env, jbyteArray array, jboolean* /*isCopy*/) {
    return handOut("GetByteArrayElements", env->GetByteArrayElements(array, nullptr),
                   env->GetArrayLength(array));
  };
  table->ReleaseByteArrayElements = [](JNIEnv* env, jbyteArray array, jbyte* elements, jint mode) {
    if (mode != 0) violation("elements of a byte[] not copied back");
    env->ReleaseByteArrayElements(array, takeBack("GetByteArrayElements", elements), mode);
  };
  table->GetIntArrayElements = [](JNIEnv* env, jintArray array, jboolean* /*isCopy*/) {
    return handOut("GetIntArrayElements", env->GetIntArrayElements(array, nullptr),
                   env->GetArrayLength(array));
  };
  table->ReleaseIntArrayElements = [](JNIEnv* env, jintArray array, jint* elements, jint mode) {
    if (mode != JNI_ABORT) violation("elements of an int[] copied back");
    env->ReleaseIntArrayElements(array, takeBack("GetIntArrayElements", elements), mode);
  };
}

}  // namespace

bool canFail(const std::string& function) {
  // The others cannot fail with the arguments that the library gives them.
  for (const char* infallible :
       {"GetObjectClass", "IsInstanceOf", "GetIntField", "GetObjectField", "Throw", "ThrowNew",
        "ExceptionCheck", "GetArrayLength", "SetObjectArrayElement", "GetByteArrayRegion",
        "SetByteArrayRegion", "SetIntArrayRegion"}) {
    if (function == infallible) return false;
  }
  return !function.starts_with("Release");
}

JNIEnv* hookedEnv(JNIEnv* real) {
  static JNINativeInterface_ table;
  static JNIEnv env;
  realEnv = real;
  JNINativeInterface_ behind = *real->functions;
  replaceEntries(&behind);
  void (*trap)() = [] { giveUp("a JNI function was called that the library does not use"); };
  for (std::size_t at = 0; at < sizeof table; at += sizeof trap) {
    std::memcpy(reinterpret_cast<char*>(&table) + at, &trap, sizeof trap);
  }
#define QUARVEL_HOOK(NAME)                                 \
  Hook<#NAME, decltype(table.NAME)>::behind = behind.NAME; \
  table.NAME = Hook<#NAME, decltype(table.NAME)>::call;
  QUARVEL_JNI(QUARVEL_HOOK)
  env.functions = &table;
  return &env;
}

void begin(Run* next) {
  lastFunction.clear();
  outputStart = std::ftell(stdout);
  largeBlocks = 0;
  run = next;
}

void end() {
  Run* ended = run;
  for (const auto& [elements, by] : held) ended->violations.push_back("not given back: " + by.by);
  held.clear();
  ended->blocks = blocks.size();
  blocks.clear();
  run = nullptr;
}

}  // namespace hooks

// ---- The C heap, by the linker's --wrap ----

static void* allocate(void* (*take)(std::size_t, std::size_t), std::size_t count,
                      std::size_t size) {
  hooks::Run* run = hooks::run;
  if (run == nullptr) return take(count, size);
  run->allocations.push_back(count * size);
  if (run->allocations.size() == run->failHeap) return nullptr;
  void* block = take(count, size);
  if (block == nullptr) return nullptr;
  std::string name;
  if (count * size >= sizeof(CK_ATTRIBUTE)) name = "block " + std::to_string(++hooks::largeBlocks);
  hooks::blocks[block] = {count * size, name};
  return block;
}

void* __wrap_malloc(std::size_t size) {
  return allocate(
      [](std::size_t n, std::size_t) {
        void* block = __real_malloc(n);
        if (block != nullptr && n < 1 << 20) std::memset(block, 0xDD, n);  // as a used heap has it
        return block;
      },
      size, 1);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return allocate(__real_calloc, count, size);
}

void __wrap_free(void* block) {
  if (hooks::run != nullptr && block != nullptr) {
    const auto found = hooks::blocks.find(block);
    if (found == hooks::blocks.end()) {
      hooks::run->violations.push_back("freed, but not taken");
      return;
    }
    const auto& [size, name] = found->second;
    hooks::mark("free " + (name.empty() ? scripted::data(block, size) : name));
    hooks::blocks.erase(found);
  }
  __real_free(block);
}
