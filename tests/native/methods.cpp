#include "methods.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <type_traits>

#include "it_quarvel_pkcs11_nat_NativePKCS11.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Object.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Slot.h"

namespace {

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
  std::fprintf(stderr, "no native method %s: name it in methods()\n", name.c_str());
  std::abort();
}

std::string failureValue(const Method& method) {
  static const std::map<char, std::string> byType = {
      {'V', "void"}, {'Z', "false"}, {'I', "-1"}, {'J', "0"}};
  if (method.refused && method.result == 'I' && method.name != "Session.signFinal") return "0";
  const auto found = byType.find(method.result);
  return found != byType.end() ? found->second : "null";
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
