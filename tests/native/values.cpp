#include "values.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "jvm.h"

namespace {

// ---- From text ----

bool skip(const char** text, const char* token) {
  while (**text == ' ' || **text == ',') ++*text;
  const std::size_t size = std::strlen(token);
  const bool found = std::strncmp(*text, token, size) == 0;
  if (found) *text += size;
  return found;
}

jint number(const char** text, int base = 0) {
  char* end = nullptr;
  const auto value = static_cast<jint>(std::strtol(*text, &end, base));
  if (end == *text) {
    std::fprintf(stderr, "not a value: %s\n", *text);
    std::abort();
  }
  *text = end;
  return value;
}

jbyteArray bytes(const char** text) {
  std::vector<jbyte> all;
  while (!skip(text, "]")) {
    all.push_back(static_cast<jbyte>(number(text, 16)));
    if (skip(text, "*")) all.resize(static_cast<std::size_t>(number(text)), all.back());
  }
  const auto size = static_cast<jsize>(all.size());
  const jbyteArray array = java()->NewByteArray(size);
  java()->SetByteArrayRegion(array, 0, size, all.data());
  return array;
}

jobject string(const char** text) {
  std::string characters = unquote(text);
  if (skip(text, "*")) characters.resize(static_cast<std::size_t>(number(text)), 'x');
  return java()->NewStringUTF(characters.c_str());
}

jobject date(jint digits) {
  return newObject(
      "java/util/Date", "(III)V", digits / 10000 - 1900, digits / 100 % 100 - 1, digits % 100);
}

jobject value(const char** text) {
  if (skip(text, "null")) return nullptr;
  if (skip(text, "key2")) return objects().other;
  if (skip(text, "key")) return objects().object;
  if (skip(text, "true")) return newObject("java/lang/Boolean", "(Z)V", JNI_TRUE);
  if (skip(text, "false")) return newObject("java/lang/Boolean", "(Z)V", JNI_FALSE);
  if (skip(text, "foreign")) return newObject("java/lang/Long", "(J)V", jlong{1});
  if (skip(text, "number")) return newObject("HostileNumber", "(I)V", number(text));
  if (skip(text, "date")) return date(number(text));
  if (skip(text, "big[")) return newObject("java/math/BigInteger", "([B)V", bytes(text));
  if (skip(text, "[")) return bytes(text);
  if (**text == '"') return string(text);
  return newObject("java/lang/Integer", "(I)V", number(text));
}

jobject ints(const char** text) {
  std::vector<jint> all;
  while (!skip(text, "}")) all.push_back(number(text));
  const auto size = static_cast<jsize>(all.size());
  const jintArray array = java()->NewIntArray(size);
  java()->SetIntArrayRegion(array, 0, size, all.data());
  return array;
}

jobject elements(const char** text) {
  std::vector<jobject> all;
  while (!skip(text, "}")) all.push_back(value(text));
  const jobjectArray array = java()->NewObjectArray(
      static_cast<jsize>(all.size()), java()->FindClass("java/lang/Object"), nullptr);
  jsize i = 0;
  for (const jobject element : all) java()->SetObjectArrayElement(array, i++, element);
  return array;
}

jvalue argument(char type, const char** text) {
  jvalue parsed = {};
  if (type == 'Z') {
    parsed.z = skip(text, "true") ? JNI_TRUE : JNI_FALSE;
    if (parsed.z == JNI_FALSE) skip(text, "false");
  } else if (type == 'I' || type == 'J') {
    skip(text, "");
    parsed.j = number(text);  // an int is the lower half of it
  } else if (skip(text, "{")) {
    parsed.l = type == 'A' ? ints(text) : elements(text);
  } else {
    parsed.l = value(text);
  }
  return parsed;
}

// ---- As text ----

/// A class of handle objects and what its objects belong to.
struct Level {
  const char* type;
  const char* preposition;
  const char* accessor;
  const char* owner;
  jobject own;  // the one that the tests use
};

/// Where the handle objects in a result belong.
std::string belonging(jobject object) {
  const auto isA = [&](const std::string& type) {
    return java()->IsInstanceOf(object, java()->FindClass(type.c_str())) != JNI_FALSE;
  };
  if (object == nullptr) return "";
  if (isA("[Ljava/lang/Object;")) {
    const auto array = static_cast<jobjectArray>(object);
    std::set<std::string> all;
    for (jsize i = 0; i < java()->GetArrayLength(array); ++i) {
      all.insert(belonging(java()->GetObjectArrayElement(array, i)));
    }
    all.erase("");
    return join({all.begin(), all.end()}, ";");
  }
  for (const Level& level : std::initializer_list<Level>{
           {"NativePKCS11Object", " in ", "session", "NativePKCS11Session", objects().session},
           {"NativePKCS11Session", " on ", "slot", "NativePKCS11Slot", objects().slot},
           {"NativePKCS11Slot", " of ", "module", "NativePKCS11", objects().module}}) {
    if (!isA(kPackage + level.type)) continue;
    const std::string signature = "()L" + kPackage + level.owner + ";";
    const jmethodID accessor =
        java()->GetMethodID(java()->GetObjectClass(object), level.accessor, signature.c_str());
    const jobject owner = java()->CallObjectMethod(object, accessor);
    java()->ExceptionCheck();
    const bool own = java()->IsSameObject(owner, level.own) != JNI_FALSE;
    return level.preposition + (own ? std::string("this ") + level.accessor : show(owner));
  }
  return "";
}

}  // namespace

std::vector<jvalue> parse(const std::string& types, const std::string& texts) {
  std::vector<jvalue> values;
  const char* text = texts.c_str();
  for (const char type : types) values.push_back(argument(type, &text));
  if (skip(&text, ""); *text != '\0') number(&text);  // complains
  return values;
}

std::string unquote(const char** text) {
  std::string unquoted;
  for (++*text; **text != '"'; ++*text) {
    const bool escaped = **text == '\\';
    if (escaped) ++*text;
    if (escaped && **text == 'x') {
      unquoted += static_cast<char>(std::stoi(std::string(*text + 1, 2), nullptr, 16));
      *text += 2;
    } else {
      unquoted += escaped && **text == 'n' ? '\n' : **text;
    }
  }
  ++*text;
  return unquoted;
}

std::string show(jobject object) {
  const jclass arrays = java()->FindClass("java/util/Arrays");
  const jmethodID deepToString =
      java()->GetStaticMethodID(arrays, "deepToString", "([Ljava/lang/Object;)Ljava/lang/String;");
  const jobjectArray holder =
      java()->NewObjectArray(1, java()->FindClass("java/lang/Object"), object);
  const auto text =
      static_cast<jstring>(java()->CallStaticObjectMethod(arrays, deepToString, holder));
  java()->ExceptionCheck();
  const char* chars = java()->GetStringUTFChars(text, nullptr);
  const std::string shown(chars + 1, std::strlen(chars) - 2);
  java()->ReleaseStringUTFChars(text, chars);
  return shown + belonging(object);
}

std::string takeException() {
  const jthrowable exception = java()->ExceptionOccurred();
  if (exception == nullptr) return "";
  java()->ExceptionClear();
  const std::string prefix = "it.quarvel.pkcs11.PKCS11Exception: ";
  const std::string text = show(exception);
  return text.starts_with(prefix) ? text.substr(prefix.size()) : text.substr(0, text.find(':'));
}

std::string join(const std::vector<std::string>& parts, const char* between) {
  std::string joined;
  for (const std::string& part : parts) joined += (&part == &parts[0] ? "" : between) + part;
  return joined;
}
