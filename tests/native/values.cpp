// SPDX-License-Identifier: Apache-2.0
#include "values.h"

#include "jvm.h"

namespace {

jobject checked(jobject result) {
  if (java()->ExceptionCheck() != JNI_FALSE) {
    java()->ExceptionDescribe();
    java()->FatalError("Values.java");
  }
  return result;
}

/// Calls a method of Values.java.
jobject call(const char* name, const char* signature, auto... args) {
  const auto values = static_cast<jclass>(checked(java()->FindClass("Values")));
  const jmethodID method = java()->GetStaticMethodID(values, name, signature);
  checked(nullptr);
  return checked(java()->CallStaticObjectMethod(values, method, args...));
}

}  // namespace

std::vector<jvalue> parse(const std::string& types, const std::string& texts) {
  const auto all = static_cast<jobjectArray>(call(
      "parse", "(Ljava/lang/String;Ljava/lang/String;)[Ljava/lang/Object;",
      java()->NewStringUTF(types.c_str()), java()->NewStringUTF(texts.c_str())));
  const jmethodID longValue =
      java()->GetMethodID(java()->FindClass("java/lang/Long"), "longValue", "()J");
  std::vector<jvalue> values;
  for (const char type : types) {
    jvalue value = {.l = java()->GetObjectArrayElement(all, static_cast<jsize>(values.size()))};
    // An int or a boolean is the lower part of a long.
    if (std::string("IJZ").find(type) != std::string::npos)
      value.j = java()->CallLongMethod(value.l, longValue);
    checked(nullptr);
    values.push_back(value);
  }
  return values;
}

std::string show(jobject object) {
  const auto text =
      static_cast<jstring>(call("show", "(Ljava/lang/Object;)Ljava/lang/String;", object));
  const char* chars = java()->GetStringUTFChars(text, nullptr);
  const std::string shown(chars);
  java()->ReleaseStringUTFChars(text, chars);
  return shown;
}

std::string takeException() {
  const jthrowable exception = java()->ExceptionOccurred();
  java()->ExceptionClear();
  return exception != nullptr ? show(exception) : "";
}

std::string join(const std::vector<std::string>& parts, const char* between) {
  std::string joined;
  for (const std::string& part : parts) joined += (&part == &parts[0] ? "" : between) + part;
  return joined;
}
