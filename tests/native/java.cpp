#include "java.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <type_traits>

#include "it_quarvel_pkcs11_nat_NativePKCS11.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Object.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Slot.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

JNIEnv* javaEnv = nullptr;
JNIEnv* hooked = nullptr;

const std::string kPackage = "it/quarvel/pkcs11/nat/";

jobject newObject(const char* name, const char* signature, auto... args) {
  const jclass cl = javaEnv->FindClass(name);
  return javaEnv->NewObject(cl, javaEnv->GetMethodID(cl, "<init>", signature), args...);
}

// ---- Values from text ----

bool skip(const char** text, const char* token) {
  while (**text == ' ' || **text == ',') ++*text;
  const std::size_t size = std::strlen(token);
  const bool found = std::strncmp(*text, token, size) == 0;
  if (found) *text += size;
  return found;
}

jint parseInt(const char** text) {
  char* end = nullptr;
  const auto value = static_cast<jint>(std::strtol(*text, &end, 0));
  if (end == *text) {
    std::fprintf(stderr, "not a value: %s\n", *text);
    std::abort();
  }
  *text = end;
  return value;
}

jbyteArray parseBytes(const char** text) {
  std::vector<jbyte> bytes;
  while (!skip(text, "]")) {
    char* end = nullptr;
    bytes.push_back(static_cast<jbyte>(std::strtol(*text, &end, 16)));
    *text = end;
    if (skip(text, "*")) bytes.resize(static_cast<std::size_t>(parseInt(text)), bytes.back());
  }
  const auto size = static_cast<jsize>(bytes.size());
  const jbyteArray array = javaEnv->NewByteArray(size);
  javaEnv->SetByteArrayRegion(array, 0, size, bytes.data());
  return array;
}

jobject parseDate(const char** text) {
  const std::string digits(*text, 8);
  *text += 8;
  const jobject format = newObject(
      "java/text/SimpleDateFormat", "(Ljava/lang/String;)V", javaEnv->NewStringUTF("yyyyMMdd"));
  const jmethodID parse = javaEnv->GetMethodID(
      javaEnv->GetObjectClass(format), "parse", "(Ljava/lang/String;)Ljava/util/Date;");
  const jobject date =
      javaEnv->CallObjectMethod(format, parse, javaEnv->NewStringUTF(digits.c_str()));
  javaEnv->ExceptionCheck();
  return date;
}

jobject parseObject(const char** text) {
  if (skip(text, "null")) return nullptr;
  if (skip(text, "key2")) return objects().other;
  if (skip(text, "key")) return objects().object;
  if (skip(text, "true")) return newObject("java/lang/Boolean", "(Z)V", JNI_TRUE);
  if (skip(text, "false")) return newObject("java/lang/Boolean", "(Z)V", JNI_FALSE);
  if (skip(text, "foreign")) return newObject("java/lang/Long", "(J)V", jlong{1});
  if (skip(text, "number")) return newObject("HostileNumber", "(I)V", parseInt(text));
  if (skip(text, "date")) return parseDate(text);
  if (skip(text, "big[")) return newObject("java/math/BigInteger", "([B)V", parseBytes(text));
  if (skip(text, "[")) return parseBytes(text);
  if (**text == '"') {
    std::string characters = unquote(text);
    if (skip(text, "*")) characters.resize(static_cast<std::size_t>(parseInt(text)), 'x');
    return javaEnv->NewStringUTF(characters.c_str());
  }
  return newObject("java/lang/Integer", "(I)V", parseInt(text));
}

template <typename Item>
std::vector<Item> parseItems(const char** text, Item (*item)(const char**)) {
  std::vector<Item> items;
  while (!skip(text, "}")) items.push_back(item(text));
  return items;
}

jarray parseArray(char type, const char** text) {
  if (type == 'A') {
    const std::vector<jint> ints = parseItems(text, parseInt);
    const auto size = static_cast<jsize>(ints.size());
    const jintArray array = javaEnv->NewIntArray(size);
    javaEnv->SetIntArrayRegion(array, 0, size, ints.data());
    return array;
  }
  const std::vector<jobject> items = parseItems(text, parseObject);
  const auto size = static_cast<jsize>(items.size());
  const jobjectArray array =
      javaEnv->NewObjectArray(size, javaEnv->FindClass("java/lang/Object"), nullptr);
  for (jsize i = 0; i < size; ++i) {
    javaEnv->SetObjectArrayElement(array, i, items[static_cast<std::size_t>(i)]);
  }
  return array;
}

// ---- The table of native methods ----

template <typename T, typename... Known>
constexpr std::size_t indexIn() {
  const bool same[] = {std::is_same_v<T, Known>...};
  return static_cast<std::size_t>(std::find(std::begin(same), std::end(same), true) - same);
}

/// The letter of a JNI type; see Method.
template <typename T>
constexpr char letter() {
  return "VIZJSBAOL"[indexIn<T, void, jint, jboolean, jlong, jstring, jbyteArray, jintArray,
                             jobjectArray>()];
}

// All members of a jvalue begin at its first byte.
template <typename T>
T pick(const jvalue& value) {
  T picked;
  std::memcpy(&picked, &value, sizeof picked);
  return picked;
}
template <typename T>
jvalue wrap(T value) {
  jvalue wrapped = {};
  std::memcpy(&wrapped, &value, sizeof value);
  return wrapped;
}

template <typename R, typename Self, typename... Args>
Method describe(const std::string& name, bool refused, R (*native)(JNIEnv*, Self, Args...)) {
  const auto invoke = [=](JNIEnv* env, jobject self, const std::vector<jvalue>& values) -> jvalue {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
      const auto receiver = static_cast<Self>(self);
      if constexpr (std::is_void_v<R>) {
        native(env, receiver, pick<Args>(values[i])...);
        return jvalue{};
      } else {
        return wrap<R>(native(env, receiver, pick<Args>(values[i])...));
      }
    }
    (std::index_sequence_for<Args...>());
  };
  return {name, std::string{letter<Args>()...}, letter<R>(), refused, invoke};
}

const jobject& receiverOf(const std::string& name) {
  if (name.starts_with("Module.")) return objects().module;
  if (name.starts_with("Slot.")) return objects().slot;
  return name.starts_with("Session.") ? objects().session : objects().object;
}

std::string shown(char type, const jvalue& value) {
  switch (type) {
    case 'V':
      return "void";
    case 'I':
      return std::to_string(value.i);
    case 'J':
      return std::to_string(value.j);
    case 'Z':
      return value.z != 0 ? "true" : "false";
    default:
      return show(value.l);
  }
}

}  // namespace

// clang-format off
const std::vector<Method>& methods() {
#define QUARVEL_METHOD(PREFIX, REFUSED, CLASS, NAME) \
  describe(PREFIX #NAME, REFUSED, Java_it_quarvel_pkcs11_nat_NativePKCS11##CLASS##_##NAME)
#define MODULE(NAME, ...) QUARVEL_METHOD("Module.", 0 __VA_ARGS__, , NAME)
#define SLOT(NAME, ...) QUARVEL_METHOD("Slot.", 0 __VA_ARGS__, Slot, NAME)
#define SESSION(NAME) QUARVEL_METHOD("Session.", 0, Session, NAME)
#define REFUSED(NAME) QUARVEL_METHOD("Session.", 1, Session, NAME)
#define OBJECT(NAME, ...) QUARVEL_METHOD("Object.", 0 __VA_ARGS__, Object, NAME)
  static const std::vector<Method> all = {
      MODULE(loadPKCS11Library), MODULE(libInitialize), MODULE(libFinalize),
      MODULE(getBridgeVersion), MODULE(getInfo), MODULE(getSlotList), MODULE(waitForSlotEvent, +1),
      MODULE(getRSAcredential), SLOT(getInfo), SLOT(getTokenInfo), SLOT(getTokenSN),
      SLOT(getMechanismList), SLOT(getMechanismInfo), SLOT(initToken, +1), SLOT(openSession),
      SLOT(closeAllSessions), SESSION(close), SESSION(getInfo), SESSION(login), SESSION(logout),
      SESSION(initPIN), SESSION(setPIN), SESSION(signInit), SESSION(sign), SESSION(encryptInit),
      SESSION(encrypt), SESSION(decryptInit), SESSION(decrypt), REFUSED(signUpdate),
      REFUSED(signFinal), REFUSED(getOperationState), REFUSED(setOperationState),
      REFUSED(encryptUpdate), REFUSED(encryptFinal), REFUSED(decryptUpdate), REFUSED(decryptFinal),
      REFUSED(digestInit), REFUSED(digest), REFUSED(digestUpdate), REFUSED(digestKey),
      REFUSED(digestFinal), REFUSED(signRecoverInit), REFUSED(signRecover), REFUSED(verifyInit),
      REFUSED(verify), REFUSED(verifyUpdate), REFUSED(verifyFinal), REFUSED(verifyRecoverInit),
      REFUSED(verifyRecover), REFUSED(digestEncryptUpdate), REFUSED(decryptDigestUpdate),
      REFUSED(signEncryptUpdate), REFUSED(decryptVerifyUpdate), REFUSED(deriveKey),
      REFUSED(seedRandom), REFUSED(generateRandom), REFUSED(getFunctionStatus),
      REFUSED(cancelFunction), SESSION(findObjectsInit), SESSION(findObject),
      SESSION(findObjectsFinal), SESSION(loginellips), SESSION(setPINellips),
      SESSION(loginAuthPath), SESSION(getCardStatus), SESSION(setCardStatus),
      SESSION(getIdentrusObject), SESSION(generateKeyPair), SESSION(generateKeyPairOB),
      SESSION(createObject), SESSION(installCertificate), SESSION(generateKey), SESSION(wrapKey),
      SESSION(unwrapKey), OBJECT(copy, +1), OBJECT(destroy), OBJECT(size), OBJECT(getAttributeValue),
      OBJECT(getBoolAttributeValue), OBJECT(getIntAttributeValue), OBJECT(getStringAttributeValue),
      OBJECT(getByteArrayAttributeValue), OBJECT(getDateAttributeValue),
      OBJECT(getBigIntegerAttributeValue), OBJECT(setAttributeValue), OBJECT(setAttributeValues),
      OBJECT(setBoolAttributeValue), OBJECT(setIntAttributeValue)};
  return all;
}
// clang-format on

const Method& method(const std::string& name) {
  for (const Method& candidate : methods()) {
    if (candidate.name == name) return candidate;
  }
  std::fprintf(stderr, "no native method %s\n", name.c_str());
  std::abort();
}

std::string failureValue(const Method& method) {
  switch (method.result) {
    case 'V':
      return "void";
    case 'Z':
      return "false";
    case 'I':
      return method.refused && method.name != "Session.signFinal" ? "0" : "-1";
    case 'J':
      return "0";
    default:
      return "null";
  }
}

bool startJava() {
  const char* path = std::getenv("QUARVEL_JVM");
  void* library = path != nullptr ? dlopen(path, RTLD_NOW | RTLD_GLOBAL) : nullptr;
  void* create = library != nullptr ? dlsym(library, "JNI_CreateJavaVM") : nullptr;
  if (create == nullptr) {
    std::fprintf(stderr, "QUARVEL_JVM must name a libjvm.so (%s)\n", dlerror());
    return false;
  }
  std::vector<std::string> options = {
      "-Djava.class.path=" QUARVEL_CLASS_PATH,
      "-Duser.timezone=Europe/Rome",
      "-Djava.library.path=" QUARVEL_LIBRARY_DIR,
      "-Xms64m",
      "-Xmx64m",
      "-XX:+AlwaysPreTouch"};
  if (const char* more = std::getenv("QUARVEL_JVM_OPTION")) options.emplace_back(more);
  std::vector<JavaVMOption> optionList;
  for (std::string& option : options) optionList.push_back({option.data(), nullptr});
  JavaVMInitArgs args = {
      JNI_VERSION_10, static_cast<jint>(optionList.size()), optionList.data(), JNI_FALSE};
  JavaVM* vm = nullptr;
  const auto createVm = reinterpret_cast<jint (*)(JavaVM**, void**, void*)>(create);
  if (createVm(&vm, reinterpret_cast<void**>(&javaEnv), &args) != JNI_OK) return false;
  hooked = hooks::hookedEnv(javaEnv);
  return true;
}

JNIEnv* java() { return javaEnv; }

jobject newHandle(const std::string& name, const std::string& owner, jobject of, jint handle) {
  const std::string signature = "(L" + kPackage + owner + ";I)V";
  return javaEnv->NewGlobalRef(newObject((kPackage + name).c_str(), signature.c_str(), of, handle));
}

const Objects& objects() {
  static const Objects all = [] {
    Objects made = {};
    made.module = javaEnv->NewGlobalRef(newObject((kPackage + "NativePKCS11").c_str(), "()V"));
    made.slot = newHandle("NativePKCS11Slot", "NativePKCS11", made.module, 7);
    made.session = newHandle("NativePKCS11Session", "NativePKCS11Slot", made.slot, 5);
    made.object = newHandle("NativePKCS11Object", "NativePKCS11Session", made.session, 9);
    made.other = newHandle("NativePKCS11Object", "NativePKCS11Session", made.session, -9);
    return made;
  }();
  return all;
}

std::string unquote(const char** text) {
  std::string unquoted;
  for (++*text; **text != '"'; ++*text) {
    if (**text != '\\') {
      unquoted += **text;
    } else if (*++*text == 'n') {
      unquoted += '\n';
    } else if (**text == 'x') {
      unquoted += static_cast<char>(std::stoi(std::string(*text + 1, 2), nullptr, 16));
      *text += 2;
    } else {
      unquoted += **text;
    }
  }
  ++*text;
  return unquoted;
}

jvalue parse(char type, const char** text) {
  skip(text, "");
  if (type == 'Z')
    return skip(text, "true") ? wrap(JNI_TRUE) : (skip(text, "false"), wrap(JNI_FALSE));
  if (type == 'I') return wrap(parseInt(text));
  if (type == 'J') return wrap(jlong{parseInt(text)});
  return wrap<jobject>(skip(text, "{") ? parseArray(type, text) : parseObject(text));
}

std::string join(const std::vector<std::string>& parts, const char* between) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : between) + part;
  return joined;
}

/// What `accessor` of a handle object returns, one of the levels above.
jobject owner(jobject handle, const char* accessor, const char* type) {
  const std::string signature = "()L" + kPackage + type + ";";
  const jclass cl = javaEnv->GetObjectClass(handle);
  const jmethodID id = javaEnv->GetMethodID(cl, accessor, signature.c_str());
  const jobject found = javaEnv->CallObjectMethod(handle, id);
  javaEnv->ExceptionCheck();
  return found;
}

/// Where the handle objects in a result belong: to the receiver's own, or which one else.
std::string showOwners(jobject object) {
  const auto is = [&](const char* type) {
    return javaEnv->IsInstanceOf(object, javaEnv->FindClass(type)) != JNI_FALSE;
  };
  const auto isA = [&](const char* type) { return is((kPackage + type).c_str()); };
  if (object == nullptr) return "";
  if (is("[Ljava/lang/Object;")) {
    const auto array = static_cast<jobjectArray>(object);
    std::set<std::string> all;
    for (jsize i = 0; i < javaEnv->GetArrayLength(array); ++i) {
      all.insert(showOwners(javaEnv->GetObjectArrayElement(array, i)));
    }
    all.erase("");
    return join({all.begin(), all.end()}, ";");
  }
  if (isA("NativePKCS11Object")) {
    const jobject session = owner(object, "session", "NativePKCS11Session");
    return javaEnv->IsSameObject(session, objects().session) != JNI_FALSE
               ? " in this session"
               : " in " + show(session) + showOwners(session);
  }
  if (isA("NativePKCS11Session")) {
    const jobject slot = owner(object, "slot", "NativePKCS11Slot");
    return javaEnv->IsSameObject(slot, objects().slot) != JNI_FALSE
               ? " on this slot"
               : " on " + show(slot) + showOwners(slot);
  }
  if (!isA("NativePKCS11Slot")) return "";
  const jobject module = owner(object, "module", "NativePKCS11");
  return javaEnv->IsSameObject(module, objects().module) != JNI_FALSE
             ? " of this module"
             : " of another module";
}

std::string show(jobject object) {
  const jclass arrays = javaEnv->FindClass("java/util/Arrays");
  const jmethodID deepToString =
      javaEnv->GetStaticMethodID(arrays, "deepToString", "([Ljava/lang/Object;)Ljava/lang/String;");
  const jobjectArray holder =
      javaEnv->NewObjectArray(1, javaEnv->FindClass("java/lang/Object"), object);
  const auto text =
      static_cast<jstring>(javaEnv->CallStaticObjectMethod(arrays, deepToString, holder));
  javaEnv->ExceptionCheck();
  const char* chars = javaEnv->GetStringUTFChars(text, nullptr);
  const std::string shown(chars + 1, std::strlen(chars) - 2);
  javaEnv->ReleaseStringUTFChars(text, chars);
  return shown;
}

std::string takeException() {
  const jthrowable exception = javaEnv->ExceptionOccurred();
  if (exception == nullptr) return "";
  javaEnv->ExceptionClear();
  const std::string prefix = "it.quarvel.pkcs11.PKCS11Exception: ";
  const std::string text = show(exception);
  return text.starts_with(prefix) ? text.substr(prefix.size()) : text.substr(0, text.find(':'));
}

Outcome call(const std::string& name, const std::string& arguments, hooks::Run run,
             const jobject* receiver) {
  const Method& called = method(name);
  javaEnv->PushLocalFrame(1024);
  std::vector<jvalue> values;
  const char* text = arguments.c_str();
  for (const char type : called.parameters) values.push_back(parse(type, &text));
  skip(&text, "");
  EXPECT_STREQ(text, "") << name;
  scripted::calls.clear();

  Outcome outcome;
  outcome.run = std::move(run);
  testing::internal::CaptureStdout();
  hooks::begin(&outcome.run);
  const jvalue result =
      called.invoke(hooked, receiver != nullptr ? *receiver : receiverOf(name), values);
  hooks::end();
  outcome.output = outcome.marked = testing::internal::GetCapturedStdout();
  for (auto mark = outcome.run.marks.rbegin(); mark != outcome.run.marks.rend(); ++mark) {
    outcome.marked.insert(std::min(mark->printed, outcome.output.size()), "<" + mark->what + ">");
  }
  const std::string number = "exc number ";
  if (const std::size_t at = outcome.output.rfind(number); at != std::string::npos) {
    const std::size_t from = at + number.size();
    outcome.code = outcome.output.substr(from, outcome.output.find('.', from) - from);
  }

  const std::string exception = takeException();
  outcome.result = shown(called.result, result) +
                   (called.result == 'L' || called.result == 'O' ? showOwners(result.l) : "") +
                   (exception.empty() ? "" : " ! " + exception);
  outcome.moduleCalls = scripted::calls;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (called.parameters[i] == 'B') outcome.arrays.push_back(show(values[i].l));
  }
  javaEnv->PopLocalFrame(nullptr);
  EXPECT_EQ(join(outcome.run.violations), "") << name;
  EXPECT_EQ(outcome.run.blocks, 0u) << name << " leaks";
  return outcome;
}

std::vector<std::string> goodArguments(const Method& method) {
  if (method.name == "Module.loadPKCS11Library") return {"\"" QUARVEL_SCRIPTED "\""};
  if (method.name == "Module.getRSAcredential") return {"\"found\"", "1", "\"1234\""};
  if (method.name == "Object.getAttributeValue") return {"0x121"};
  if (method.name == "Object.setAttributeValue") return {"3", "\"label\""};
  const std::map<char, std::string> byType = {
      {'I', "1"},
      {'J', "1"},
      {'Z', "true"},
      {'S', "\"1234\""},
      {'B', "[32 30 31 33]"},
      {'A', "{3, 0x11, 0x100, 1, 0x122, 0x110}"},
      {'O', "{\"label\", [01 02], 3, true, big[00 ff], date20130305}"},
      {'L', "key"}};
  std::vector<std::string> arguments;
  for (const char type : method.parameters) arguments.push_back(byType.at(type));
  return arguments;
}

void freshModule() {
  scripted::reset();
  debug = 0;
  CK_FUNCTION_LIST_PTR list = nullptr;
  ASSERT_EQ(bridge::loadLib(QUARVEL_SCRIPTED, &list), CKR_OK);
  ASSERT_EQ(bridge::initLib(), CKR_OK);
  scripted::calls.clear();
}

void shutModule() {
  debug = 0;
  bridge::finalizeLib();
}
