#include "hooks.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <type_traits>

#include "scripted.h"

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

// ---- Java arrays and strings handed out ----

constexpr std::size_t kGuard = 16;
constexpr unsigned char kGuardByte = 0xC5;

struct Held {
  std::string by;  // the function that took it
  std::size_t size;
};
std::map<void*, Held> held;

void violation(const std::string& text) { run->violations.push_back(text); }

/// A copy between guard bytes, so that a write beyond the array shows.
void* handOut(const std::string& by, const void* bytes, std::size_t size) {
  auto* block = static_cast<unsigned char*>(__real_malloc(size + 2 * kGuard));
  std::memset(block, kGuardByte, size + 2 * kGuard);
  std::memcpy(block + kGuard, bytes, size);
  held[block + kGuard] = {by, size};
  return block + kGuard;
}

std::string shown(const std::string& by, const unsigned char* elements, std::size_t size) {
  if (by == "GetStringUTFChars") return reinterpret_cast<const char*>(elements);
  if (by == "GetByteArrayElements") return scripted::data(elements, size);
  std::string list;
  for (const unsigned char* at = elements; at < elements + size; at += sizeof(jint)) {
    jint value;
    std::memcpy(&value, at, sizeof value);
    list += (list.empty() ? "" : ", ") + std::to_string(value);
  }
  return "{" + list + "}";
}

/// Takes elements back. @return what they hold; nothing when they are not held
std::string takeBack(const std::string& by, const void* elements) {
  const auto found = held.find(const_cast<void*>(elements));
  if (found == held.end() || found->second.by != by) {
    violation("given back, but not held: elements of " + by);
    return "";
  }
  auto* block = static_cast<unsigned char*>(found->first) - kGuard;
  const std::size_t size = found->second.size;
  const auto intact = [](unsigned char byte) { return byte == kGuardByte; };
  if (!std::all_of(block, block + kGuard, intact) ||
      !std::all_of(block + kGuard + size, block + 2 * kGuard + size, intact)) {
    violation("written beyond the elements of " + by);
  }
  mark("release " + shown(by, block + kGuard, size));
  const std::string contents(reinterpret_cast<char*>(block) + kGuard, size);
  held.erase(found);
  __real_free(block);
  return contents;
}

/// GetByteArrayElements and GetIntArrayElements.
template <typename Element>
Element* copyOut(const char* by, jarray array) {
  const auto size = static_cast<std::size_t>(realEnv->GetArrayLength(array));
  void* elements = realEnv->GetPrimitiveArrayCritical(array, nullptr);
  void* copy = handOut(by, elements, size * sizeof(Element));
  realEnv->ReleasePrimitiveArrayCritical(array, elements, JNI_ABORT);
  return static_cast<Element*>(copy);
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
    void* copy = handOut("GetStringUTFChars", chars, std::strlen(chars) + 1);
    env->ReleaseStringUTFChars(string, chars);
    return static_cast<const char*>(copy);
  };
  table->ReleaseStringUTFChars = [](JNIEnv*, jstring, const char* chars) {
    takeBack("GetStringUTFChars", chars);
  };
  table->GetByteArrayElements = [](JNIEnv*, jbyteArray array, jboolean* /*isCopy*/) {
    return copyOut<jbyte>("GetByteArrayElements", array);
  };
  table->ReleaseByteArrayElements = [](JNIEnv* env, jbyteArray array, jbyte* elements, jint mode) {
    if (mode != 0) violation("elements of a byte[] not copied back");
    const std::string contents = takeBack("GetByteArrayElements", elements);
    const jthrowable pending = env->ExceptionOccurred();
    env->ExceptionClear();
    env->SetByteArrayRegion(array, 0, static_cast<jsize>(contents.size()),
                            reinterpret_cast<const jbyte*>(contents.data()));
    if (pending != nullptr) env->Throw(pending);
  };
  table->GetIntArrayElements = [](JNIEnv*, jintArray array, jboolean* /*isCopy*/) {
    return copyOut<jint>("GetIntArrayElements", array);
  };
  table->ReleaseIntArrayElements = [](JNIEnv*, jintArray, jint* elements, jint mode) {
    if (mode != JNI_ABORT) violation("elements of an int[] copied back");
    takeBack("GetIntArrayElements", elements);
  };
}

[[noreturn]] void forbidden() {
  std::fprintf(stderr, "a JNI function was called that the library does not use\n");
  std::abort();
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
  void (*trap)() = forbidden;
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
