// SPDX-License-Identifier: Apache-2.0
#include "jvm.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

static JNIEnv* javaEnv = nullptr;

JNIEnv* java() { return javaEnv; }

bool startJava() {
  const char* path = std::getenv("QUARVEL_JVM");
  void* library = path != nullptr ? dlopen(path, RTLD_NOW | RTLD_GLOBAL) : nullptr;
  void* create = library != nullptr ? dlsym(library, "JNI_CreateJavaVM") : nullptr;
  if (create == nullptr) {
    std::fprintf(stderr, "QUARVEL_JVM must name a libjvm.so (%s)\n", dlerror());
    return false;
  }
  std::vector<std::string> options = {
      "-Djava.class.path=" QUARVEL_CLASS_PATH, "-Duser.timezone=Europe/Rome", "-Xms64m", "-Xmx64m",
      "-XX:+AlwaysPreTouch"};
  if (const char* more = std::getenv("QUARVEL_JVM_OPTION")) options.emplace_back(more);
  std::vector<JavaVMOption> list;
  for (std::string& option : options) list.push_back({option.data(), nullptr});
  JavaVMInitArgs args = {JNI_VERSION_10, static_cast<jint>(list.size()), list.data(), JNI_FALSE};
  JavaVM* vm = nullptr;
  const auto createVm = reinterpret_cast<jint (*)(JavaVM**, void**, void*)>(create);
  return createVm(&vm, reinterpret_cast<void**>(&javaEnv), &args) == JNI_OK;
}
