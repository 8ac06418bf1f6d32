// The floor: the measured native methods written by hand, making exactly the JNI calls that the
// contract of each obliges it to make, and calling the module straight through its function list.
// No trace, no checks beside the module's return value, no layers. What the library costs above
// this is its own doing; what this costs is the contract's.
#include <dlfcn.h>
#include <jni.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "it_quarvel_pkcs11_nat_NativePKCS11.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Object.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Slot.h"
#include "pkcs11.h"

#define MODULE(name) JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11_##name
#define SLOT(name) JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_##name
#define SESSION(name) JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_##name
#define OBJECT(name) JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_##name

namespace {

CK_FUNCTION_LIST_PTR p11 = nullptr;

CK_ULONG widen(jint value) { return static_cast<CK_ULONG>(value); }
jint narrow(CK_ULONG value) { return static_cast<jint>(value); }
jint version(CK_VERSION value) { return value.major * 256 + value.minor; }
CK_BYTE_PTR bytes(const void* data) { return static_cast<CK_BYTE_PTR>(const_cast<void*>(data)); }

template <typename... Args>
jobject create(JNIEnv* env, const char* className, const char* signature, Args... args) {
  const jclass cl = env->FindClass(className);
  return env->NewObject(cl, env->GetMethodID(cl, "<init>", signature), args...);
}

/// @return whether the module refused; the exception is then pending
bool refused(JNIEnv* env, CK_RV rv) {
  if (rv == CKR_OK) return false;
  const jobject e = create(env, "it/quarvel/pkcs11/PKCS11Exception", "(I)V", narrow(rv));
  env->Throw(static_cast<jthrowable>(e));
  return true;
}

CK_ULONG handle(JNIEnv* env, jobject obj, const char* field) {
  return widen(env->GetIntField(obj, env->GetFieldID(env->GetObjectClass(obj), field, "I")));
}

CK_SESSION_HANDLE sessionOf(JNIEnv* env, jobject obj) {
  const jfieldID session = env->GetFieldID(env->GetObjectClass(obj), "session",
                                           "Lit/quarvel/pkcs11/nat/NativePKCS11Session;");
  return handle(env, env->GetObjectField(obj, session), "sessionID");
}

template <std::size_t size>
jstring text(JNIEnv* env, const CK_CHAR (&field)[size]) {
  auto* copy = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(copy, field, size);
  copy[size] = '\0';
  const jstring string = env->NewStringUTF(copy);
  std::free(copy);
  return string;
}

jobject tokenObject(JNIEnv* env, jobject session, CK_OBJECT_HANDLE object) {
  return create(env, "it/quarvel/pkcs11/nat/NativePKCS11Object",
                "(Lit/quarvel/pkcs11/nat/NativePKCS11Session;I)V", session, narrow(object));
}

bool isA(JNIEnv* env, jobject obj, const char* className, jclass* cl) {
  *cl = env->FindClass(className);
  return env->IsInstanceOf(obj, *cl) != JNI_FALSE;
}

void copyOut(CK_ATTRIBUTE* entry, const void* value, CK_ULONG size) {
  entry->pValue = std::malloc(size);
  std::memcpy(entry->pValue, value, size);
  entry->ulValueLen = size;
}

/// The value classes in the order in which the contract tests them; the measured templates hold no
/// others than these four.
void convert(JNIEnv* env, jint type, jobject obj, CK_ATTRIBUTE* entry) {
  jclass cl;
  entry->type = widen(type);
  if (isA(env, obj, "java/lang/String", &cl)) {
    const auto string = static_cast<jstring>(obj);
    const char* chars = env->GetStringUTFChars(string, nullptr);
    const std::size_t size = std::strlen(chars);
    copyOut(entry, chars, size + 1);
    entry->ulValueLen = size;
    env->ReleaseStringUTFChars(string, chars);
  } else if (isA(env, obj, "[B", &cl)) {
    const auto array = static_cast<jbyteArray>(obj);
    const jsize size = env->GetArrayLength(array);
    entry->pValue = std::malloc(static_cast<std::size_t>(size));
    env->GetByteArrayRegion(array, 0, size, static_cast<jbyte*>(entry->pValue));
    entry->ulValueLen = widen(size);
  } else if (isA(env, obj, "java/lang/Integer", &cl)) {
    const CK_ULONG value = widen(env->CallIntMethod(obj, env->GetMethodID(cl, "intValue", "()I")));
    copyOut(entry, &value, sizeof value);
  } else if (isA(env, obj, "java/lang/Boolean", &cl)) {
    const CK_BBOOL value = env->CallBooleanMethod(obj, env->GetMethodID(cl, "booleanValue", "()Z"));
    copyOut(entry, &value, sizeof value);
  } else {
    std::abort();
  }
}

struct Template {
  CK_ATTRIBUTE* entries;
  CK_ULONG count;
};

/// The lengths of both arrays are part of the contract; the arrays given here agree.
Template convert(JNIEnv* env, jintArray types, jobjectArray values) {
  const CK_ULONG count = widen(env->GetArrayLength(types));
  if (widen(env->GetArrayLength(values)) != count) std::abort();
  auto* entries = static_cast<CK_ATTRIBUTE*>(std::malloc(count * sizeof(CK_ATTRIBUTE)));
  jint* elements = env->GetIntArrayElements(types, nullptr);
  for (CK_ULONG i = 0; i < count; ++i) {
    convert(env, elements[i], env->GetObjectArrayElement(values, narrow(i)), &entries[i]);
  }
  env->ReleaseIntArrayElements(types, elements, JNI_ABORT);
  return {entries, count};
}

void release(const Template& attributes) {
  for (CK_ULONG i = 0; i < attributes.count; ++i) std::free(attributes.entries[i].pValue);
  std::free(attributes.entries);
}

using InitFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
using DataFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG*);

void start(JNIEnv* env, jobject session, jint mech, jobject key, InitFunction function) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  const CK_OBJECT_HANDLE handleOfKey = handle(env, key, "objectID");
  CK_MECHANISM mechanism = {widen(mech), nullptr, 0};
  refused(env, function(handleOfSession, &mechanism, handleOfKey));
}

/// The output's room is `inLen` for encrypt, the array's length (a call of its own) otherwise.
jint transform(JNIEnv* env, jobject session, jbyteArray in, jint inLen, jbyteArray out,
               bool roomIsLength, DataFunction function) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  jbyte* input = env->GetByteArrayElements(in, nullptr);
  jbyte* output = env->GetByteArrayElements(out, nullptr);
  CK_ULONG outLen = widen(roomIsLength ? env->GetArrayLength(out) : inLen);
  const CK_RV rv = function(handleOfSession, bytes(input), widen(inLen), bytes(output), &outLen);
  env->ReleaseByteArrayElements(in, input, 0);
  env->ReleaseByteArrayElements(out, output, 0);
  return refused(env, rv) ? -1 : narrow(outLen);
}

/// One attribute by two calls into a block of its own; no bytes after a refusal.
CK_ATTRIBUTE readValue(JNIEnv* env, jobject obj, jint attr) {
  const CK_OBJECT_HANDLE object = handle(env, obj, "objectID");
  const CK_SESSION_HANDLE session = sessionOf(env, obj);
  CK_ATTRIBUTE value = {widen(attr), nullptr, 0};
  if (refused(env, p11->C_GetAttributeValue(session, object, &value, 1))) return value;
  value.pValue = std::malloc(value.ulValueLen + 1);
  if (refused(env, p11->C_GetAttributeValue(session, object, &value, 1))) std::abort();
  static_cast<char*>(value.pValue)[value.ulValueLen] = '\0';
  return value;
}

jobject toDate(JNIEnv* env, const char* date) {
  const jclass cl = env->FindClass("java/text/SimpleDateFormat");
  const jmethodID init = env->GetMethodID(cl, "<init>", "(Ljava/lang/String;)V");
  const jobject format = env->NewObject(cl, init, env->NewStringUTF("yyyyMMdd"));
  const jmethodID parse = env->GetMethodID(cl, "parse", "(Ljava/lang/String;)Ljava/util/Date;");
  return env->CallObjectMethod(format, parse, env->NewStringUTF(date));
}

jobject toBigInteger(JNIEnv* env, const CK_ATTRIBUTE& value) {
  const jint size = narrow(value.ulValueLen);
  const jbyteArray magnitude = env->NewByteArray(size + 1);
  env->SetByteArrayRegion(magnitude, 1, size, static_cast<const jbyte*>(value.pValue));
  return create(env, "java/math/BigInteger", "([B)V", magnitude);
}

jbyteArray toByteArray(JNIEnv* env, const CK_ATTRIBUTE& value) {
  const jint size = narrow(value.ulValueLen);
  const jbyteArray array = env->NewByteArray(size);
  env->SetByteArrayRegion(array, 0, size, static_cast<const jbyte*>(value.pValue));
  return array;
}

jobject toInteger(JNIEnv* env, const CK_ATTRIBUTE& value) {
  CK_ULONG number;
  std::memcpy(&number, value.pValue, sizeof number);
  return create(env, "java/lang/Integer", "(I)V", narrow(number));
}

jobject toBoolean(JNIEnv* env, const CK_ATTRIBUTE& value) {
  const jboolean set = *static_cast<CK_BBOOL*>(value.pValue) != 0 ? JNI_TRUE : JNI_FALSE;
  return create(env, "java/lang/Boolean", "(Z)V", set);
}

}  // namespace

// ---- The module ----

jlong MODULE(loadPKCS11Library)(JNIEnv* env, jclass, jstring libName) {
  const char* path = env->GetStringUTFChars(libName, nullptr);
  void* symbol = dlsym(dlopen(path, RTLD_LAZY), "C_GetFunctionList");
  env->ReleaseStringUTFChars(libName, path);
  reinterpret_cast<CK_C_GetFunctionList>(symbol)(&p11);
  return reinterpret_cast<jlong>(p11);
}

void MODULE(libInitialize)(JNIEnv* env, jobject) { refused(env, p11->C_Initialize(nullptr)); }

jstring MODULE(getBridgeVersion)(JNIEnv* env, jobject) { return env->NewStringUTF("1.16"); }

jobject MODULE(getInfo)(JNIEnv* env, jobject) {
  CK_INFO info;
  if (refused(env, p11->C_GetInfo(&info))) return nullptr;
  return create(env, "it/quarvel/pkcs11/PKCS11Info", "(ILjava/lang/String;ILjava/lang/String;I)V",
                version(info.cryptokiVersion), text(env, info.manufacturerID), narrow(info.flags),
                text(env, info.libraryDescription), version(info.libraryVersion));
}

jobjectArray MODULE(getSlotList)(JNIEnv* env, jobject module, jboolean tokenIn) {
  CK_ULONG count;
  if (refused(env, p11->C_GetSlotList(tokenIn, nullptr, &count))) return nullptr;
  auto* slots = static_cast<CK_SLOT_ID*>(std::malloc(count * sizeof(CK_SLOT_ID)));
  if (refused(env, p11->C_GetSlotList(tokenIn, slots, &count))) std::abort();
  const jclass cl = env->FindClass("it/quarvel/pkcs11/nat/NativePKCS11Slot");
  const jmethodID init = env->GetMethodID(cl, "<init>", "(Lit/quarvel/pkcs11/nat/NativePKCS11;I)V");
  const jobjectArray array = env->NewObjectArray(narrow(count), cl, nullptr);
  for (CK_ULONG i = 0; i < count; ++i) {
    const jobject slot = env->NewObject(cl, init, module, narrow(slots[i]));
    env->SetObjectArrayElement(array, narrow(i), slot);
  }
  std::free(slots);
  return array;
}

// ---- Slots ----

jobject SLOT(getTokenInfo)(JNIEnv* env, jobject slot) {
  CK_TOKEN_INFO info;
  if (refused(env, p11->C_GetTokenInfo(handle(env, slot, "slotID"), &info))) return nullptr;
  return create(env, "it/quarvel/pkcs11/PKCS11TokenInfo",
                "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
                "IIIIIIIIIIIIILjava/lang/String;)V",
                text(env, info.label), text(env, info.manufacturerID), text(env, info.model),
                text(env, info.serialNumber), narrow(info.flags), narrow(info.ulMaxSessionCount),
                narrow(info.ulSessionCount), narrow(info.ulMaxRwSessionCount),
                narrow(info.ulRwSessionCount), narrow(info.ulMaxPinLen), narrow(info.ulMinPinLen),
                narrow(info.ulTotalPublicMemory), narrow(info.ulFreePublicMemory),
                narrow(info.ulTotalPrivateMemory), narrow(info.ulFreePrivateMemory),
                version(info.hardwareVersion), version(info.firmwareVersion),
                text(env, info.utcTime));
}

jintArray SLOT(getMechanismList)(JNIEnv* env, jobject slot) {
  const CK_SLOT_ID id = handle(env, slot, "slotID");
  CK_ULONG count;
  if (refused(env, p11->C_GetMechanismList(id, nullptr, &count))) return nullptr;
  auto* types = static_cast<CK_ULONG*>(std::malloc(count * sizeof(CK_ULONG)));
  if (refused(env, p11->C_GetMechanismList(id, types, &count))) std::abort();
  auto* ints = static_cast<char*>(static_cast<void*>(types));
  for (CK_ULONG i = 0; i < count; ++i) {
    const jint type = narrow(types[i]);
    std::memcpy(ints + i * sizeof type, &type, sizeof type);
  }
  const jintArray array = env->NewIntArray(narrow(count));
  env->SetIntArrayRegion(array, 0, narrow(count), static_cast<jint*>(static_cast<void*>(types)));
  std::free(types);
  return array;
}

// ---- Sessions ----

jobject SESSION(getInfo)(JNIEnv* env, jobject session) {
  CK_SESSION_INFO info;
  if (refused(env, p11->C_GetSessionInfo(handle(env, session, "sessionID"), &info))) {
    return nullptr;
  }
  return create(env, "it/quarvel/pkcs11/PKCS11SessionInfo", "(III)V", narrow(info.state),
                narrow(info.flags), narrow(info.ulDeviceError));
}

void SESSION(login)(JNIEnv* env, jobject session, jboolean isSO, jstring pin) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  const char* chars = env->GetStringUTFChars(pin, nullptr);
  refused(env, p11->C_Login(handleOfSession, isSO != JNI_FALSE ? CKU_SO : CKU_USER, bytes(chars),
                            std::strlen(chars)));
  env->ReleaseStringUTFChars(pin, chars);
}

void SESSION(logout)(JNIEnv* env, jobject session) {
  refused(env, p11->C_Logout(handle(env, session, "sessionID")));
}

void SESSION(signInit)(JNIEnv* env, jobject session, jint mech, jobject, jobject key) {
  start(env, session, mech, key, p11->C_SignInit);
}

jint SESSION(sign)(JNIEnv* env, jobject session, jbyteArray in, jint, jint inLen, jbyteArray out,
                   jint) {
  return transform(env, session, in, inLen, out, true, p11->C_Sign);
}

void SESSION(encryptInit)(JNIEnv* env, jobject session, jint mech, jobject, jobject key) {
  start(env, session, mech, key, p11->C_EncryptInit);
}

jint SESSION(encrypt)(JNIEnv* env, jobject session, jbyteArray in, jint, jint inLen, jbyteArray out,
                      jint) {
  return transform(env, session, in, inLen, out, false, p11->C_Encrypt);
}

void SESSION(decryptInit)(JNIEnv* env, jobject session, jint mech, jobject, jobject key) {
  start(env, session, mech, key, p11->C_DecryptInit);
}

jint SESSION(decrypt)(JNIEnv* env, jobject session, jbyteArray in, jint, jint inLen, jbyteArray out,
                      jint) {
  return transform(env, session, in, inLen, out, true, p11->C_Decrypt);
}

void SESSION(findObjectsInit)(JNIEnv* env, jobject session, jintArray types, jobjectArray values) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  if (types == nullptr && values == nullptr) {
    refused(env, p11->C_FindObjectsInit(handleOfSession, nullptr, 0));
    return;
  }
  const Template attributes = convert(env, types, values);
  refused(env, p11->C_FindObjectsInit(handleOfSession, attributes.entries, attributes.count));
  release(attributes);
}

jobject SESSION(findObject)(JNIEnv* env, jobject session) {
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  if (refused(env, p11->C_FindObjects(handle(env, session, "sessionID"), &object, 1, &count))) {
    return nullptr;
  }
  return count != 0 ? tokenObject(env, session, object) : nullptr;
}

void SESSION(findObjectsFinal)(JNIEnv* env, jobject session) {
  refused(env, p11->C_FindObjectsFinal(handle(env, session, "sessionID")));
}

jobject SESSION(createObject)(JNIEnv* env, jobject session, jintArray types, jobjectArray values) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  const Template attributes = convert(env, types, values);
  CK_OBJECT_HANDLE object;
  const CK_RV rv =
      p11->C_CreateObject(handleOfSession, attributes.entries, attributes.count, &object);
  const jobject result = refused(env, rv) ? nullptr : tokenObject(env, session, object);
  release(attributes);
  return result;
}

jobjectArray SESSION(generateKeyPair)(JNIEnv* env, jobject session, jint mech, jobject,
                                      jintArray pubTypes, jobjectArray pubValues,
                                      jintArray prvTypes, jobjectArray prvValues) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  CK_MECHANISM mechanism = {widen(mech), nullptr, 0};
  const Template pub = convert(env, pubTypes, pubValues);
  const Template prv = convert(env, prvTypes, prvValues);
  CK_OBJECT_HANDLE pubKey;
  CK_OBJECT_HANDLE prvKey;
  const CK_RV rv = p11->C_GenerateKeyPair(handleOfSession, &mechanism, pub.entries, pub.count,
                                          prv.entries, prv.count, &pubKey, &prvKey);
  jobjectArray pair = nullptr;
  if (!refused(env, rv)) {
    const jclass cl = env->FindClass("it/quarvel/pkcs11/nat/NativePKCS11Object");
    const jmethodID init =
        env->GetMethodID(cl, "<init>", "(Lit/quarvel/pkcs11/nat/NativePKCS11Session;I)V");
    const jobject pubObject = env->NewObject(cl, init, session, narrow(pubKey));
    const jobject prvObject = env->NewObject(cl, init, session, narrow(prvKey));
    pair = env->NewObjectArray(2, env->FindClass("java/lang/Object"), nullptr);
    env->SetObjectArrayElement(pair, 0, pubObject);
    env->SetObjectArrayElement(pair, 1, prvObject);
  }
  release(pub);
  release(prv);
  return pair;
}

jint SESSION(wrapKey)(JNIEnv* env, jobject session, jint mech, jobject, jobject wrappingKey,
                      jobject key, jbyteArray out, jint) {
  const CK_SESSION_HANDLE handleOfSession = handle(env, session, "sessionID");
  const CK_OBJECT_HANDLE handleOfKey = handle(env, key, "objectID");
  const CK_OBJECT_HANDLE handleOfWrappingKey = handle(env, wrappingKey, "objectID");
  CK_MECHANISM mechanism = {widen(mech), nullptr, 0};
  jbyte* output = env->GetByteArrayElements(out, nullptr);
  CK_ULONG outLen = widen(env->GetArrayLength(out));
  const CK_RV rv = p11->C_WrapKey(handleOfSession, &mechanism, handleOfWrappingKey, handleOfKey,
                                  bytes(output), &outLen);
  env->ReleaseByteArrayElements(out, output, 0);
  return refused(env, rv) ? -1 : narrow(outLen);
}

// ---- Objects ----

jobject OBJECT(getAttributeValue)(JNIEnv* env, jobject obj, jint attr) {
  const CK_ATTRIBUTE value = readValue(env, obj, attr);
  if (value.pValue == nullptr) return nullptr;
  jobject result = nullptr;
  switch (value.type) {
    case CKA_CLASS:
      result = toInteger(env, value);
      break;
    case CKA_LABEL:
      result = env->NewStringUTF(static_cast<const char*>(value.pValue));
      break;
    case CKA_ID:
      result = toByteArray(env, value);
      break;
    case CKA_MODULUS:
      result = toBigInteger(env, value);
      break;
    case CKA_END_DATE:
      result = toDate(env, static_cast<const char*>(value.pValue));
      break;
    default:
      result = toBoolean(env, value);
      break;
  }
  std::free(value.pValue);
  return result;
}
