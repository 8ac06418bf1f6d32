// SPDX-License-Identifier: Apache-2.0
#include "methods.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <type_traits>
#include <typeindex>

#include "it_quarvel_pkcs11_nat_NativePKCS11.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Object.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Slot.h"
#include "scripted.h"

namespace {

/// The letter of a JNI type; see Method.
template <typename T>
char letter() {
  static const std::map<std::type_index, char> letters = {
      {typeid(void), 'V'},      {typeid(jint), 'I'},         {typeid(jboolean), 'Z'},
      {typeid(jlong), 'J'},     {typeid(jstring), 'S'},      {typeid(jbyteArray), 'B'},
      {typeid(jintArray), 'A'}, {typeid(jobjectArray), 'O'}, {typeid(jobject), 'L'}};
  return letters.at(typeid(T));
}

// All members of a jvalue begin at its first byte.
template <typename T>
T pick(const jvalue& value) {
  T picked;
  std::memcpy(&picked, &value, sizeof picked);
  return picked;
}

template <typename R, typename Self, typename... Args>
Method describe(const std::string& name, bool refused, R (*native)(JNIEnv*, Self, Args...)) {
  const auto invoke = [=](JNIEnv* env, jobject self, const std::vector<jvalue>& values) -> jvalue {
    jvalue result = {};
    const auto pass = [&]<std::size_t... i>(std::index_sequence<i...>) {
      return native(env, static_cast<Self>(self), pick<Args>(values[i])...);
    };
    if constexpr (std::is_void_v<R>) {
      pass(std::index_sequence_for<Args...>());
    } else {
      const R value = pass(std::index_sequence_for<Args...>());
      std::memcpy(&result, &value, sizeof value);
    }
    return result;
  };
  return {name, std::string{letter<Args>()...}, letter<R>(), refused, invoke};
}

}  // namespace

const std::vector<Method>& methods() {
#define QUARVEL_METHOD(REFUSED, CLASS, NAME)                              \
  describe(*#CLASS != '\0' ? #CLASS "." #NAME : "Module." #NAME, REFUSED, \
           Java_it_quarvel_pkcs11_nat_NativePKCS11##CLASS##_##NAME),
  static const std::vector<Method> all = {
#include "methods.inc"  // one of them for each method in src/
  };
  return all;
}

const Method& method(const std::string& name) {
  const auto found = std::ranges::find(methods(), name, &Method::name);
  if (found == methods().end()) throw std::invalid_argument("no native method " + name);
  return *found;
}

std::string failureValue(const Method& method) {
  static const std::map<char, std::string> byType = {
      {'V', "void"}, {'Z', "false"}, {'I', "-1"}, {'J', "0"}};
  if (method.refused && method.result == 'I' && method.name != "Session.signFinal") return "0";
  const auto found = byType.find(method.result);
  return found != byType.end() ? found->second : "null";
}

const std::vector<std::string>& valuesOf(char type) {
  static const std::map<char, std::vector<std::string>> byType = {
      {'I',
       {"1", "-1", "0", "3", "4", "5", "17", "0x80", "0x111", "0x120", "-2147483648",
        "2147483647"}},
      {'J', {"1", "-1", "0", "5"}},
      {'Z', {"true", "false"}},
      {'S',
       {"\"1234\"", "null", "\"\"", "\"/nowhere\"", "\"\xC0\x80\"", "\"\xED\xA0\x80\"",
        "\"\xED\xA0\xBD\xED\xB8\x80\""}},
      {'B', {"[32 30 31 33]", "null", "[]", "[00]", "[ff*300]"}},
      {'A',
       {"{3, 0x11, 0x100, 1, 0x122, 0x110}", "null", "{}", "{3}", "{0, -1, 3}",
        "{3, 0x11, 0x100, 1, 0x122, 0x110, 5}"}},
      {'O',
       {"{\"label\", [01 02], 3, true, big[00 ff], date20130305}", "null", "{}", "{\"x\"}",
        "{1, true, null}", "{foreign}", "{null, null, null, null, null, null}",
        "{\"x\", foreign, 3, true, object, null}", "{\"\", [], 0, false, big[00], null, 1}"}},
      {'L', {"object", "null", "object2", "\"text\"", "7", "foreign", "big[80]"}}};
  return byType.at(type);
}

std::vector<std::string> goodArguments(const Method& method) {
  if (method.name == "Module.loadPKCS11Library") return {"\"" + scripted::file() + "\""};
  if (method.name == "Module.getRSAcredential") return {"\"found\"", "1", "\"1234\""};
  if (method.name == "Object.getAttributeValue") return {"0x121"};
  if (method.name == "Object.setAttributeValue") return {"3", "\"label\""};
  std::vector<std::string> arguments;
  for (const char type : method.parameters) arguments.push_back(valuesOf(type).front());
  return arguments;
}
