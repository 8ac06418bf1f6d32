// SPDX-License-Identifier: Apache-2.0
// The floor: the measured native methods written by hand. Each makes exactly the JNI calls that its
// contract demands, and calls the module straight through its function list. It has no trace and no
// layers, and checks nothing but the module's return value. The floor's cost is the contract's
// doing; whatever the library costs above it is the library's own. The last section calls the
// module as a C program does, without Java in the loop.
#include <dlfcn.h>
#include <jni.h>

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "Bare.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Object.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Slot.h"
#include "pkcs11.h"

#define NATIVE(name) JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11##name

namespace {

CK_FUNCTION_LIST_PTR p11 = nullptr;

CK_ULONG widen(jint value) { return static_cast<CK_ULONG>(value); }
jint narrow(CK_ULONG value) { return static_cast<jint>(value); }
jint version(CK_VERSION value) { return value.major * 256 + value.minor; }
CK_BYTE_PTR bytes(const void* data) { return static_cast<CK_BYTE_PTR>(const_cast<void*>(data)); }

template <typename T>
T* allocate(CK_ULONG count) {
  return static_cast<T*>(std::malloc(count * sizeof(T)));
}

/// Returns a function that creates objects of a class. This looks class and constructor up before
/// the arguments are made.
auto constructor(JNIEnv* env, const char* className, const char* signature) {
  const jclass cl = env->FindClass(className);
  const jmethodID init = env->GetMethodID(cl, "<init>", signature);
  return [=](auto... args) { return env->NewObject(cl, init, args...); };
}

auto objects(JNIEnv* env) {
  return constructor(env, "it/quarvel/pkcs11/nat/NativePKCS11Object",
                     "(Lit/quarvel/pkcs11/nat/NativePKCS11Session;I)V");
}

/// @return whether the module refused; the exception is then pending
bool refused(JNIEnv* env, CK_RV rv) {
  if (rv == CKR_OK) return false;
  const auto create = constructor(env, "it/quarvel/pkcs11/PKCS11Exception", "(I)V");
  env->Throw(static_cast<jthrowable>(create(narrow(rv))));
  return true;
}

CK_ULONG handle(JNIEnv* env, jobject obj, const char* field) {
  return widen(env->GetIntField(obj, env->GetFieldID(env->GetObjectClass(obj), field, "I")));
}

template <std::size_t size>
jstring text(JNIEnv* env, const CK_CHAR (&field)[size]) {
  char* copy = allocate<char>(size + 1);
  std::memcpy(copy, field, size);
  copy[size] = '\0';
  const jstring string = env->NewStringUTF(copy);
  std::free(copy);
  return string;
}

// ---- Templates ----

bool isA(JNIEnv* env, jobject obj, const char* className, jclass* cl) {
  *cl = env->FindClass(className);
  return env->IsInstanceOf(obj, *cl) != JNI_FALSE;
}

void copyOut(CK_ATTRIBUTE* entry, const void* value, CK_ULONG size) {
  entry->pValue = std::malloc(size);
  std::memcpy(entry->pValue, value, size);
  entry->ulValueLen = size;
}

/// Converts a value, whose class it tests in the order of the contract; the measured templates hold
/// no others than these four.
void convert(JNIEnv* env, jint type, jobject obj, CK_ATTRIBUTE* entry) {
  jclass cl;
  entry->type = widen(type);
  if (isA(env, obj, "java/lang/String", &cl)) {
    const auto string = static_cast<jstring>(obj);
    const char* chars = env->GetStringUTFChars(string, nullptr);
    copyOut(entry, chars, std::strlen(chars) + 1);
    --entry->ulValueLen;
    env->ReleaseStringUTFChars(string, chars);
  } else if (isA(env, obj, "[B", &cl)) {
    const auto array = static_cast<jbyteArray>(obj);
    const jsize size = env->GetArrayLength(array);
    entry->pValue = allocate<jbyte>(widen(size));
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

/// Makes a template. The contract asks for the lengths of both arrays; those given here agree.
struct Template {
  Template(JNIEnv* env, jintArray types, jobjectArray values) {
    count = widen(env->GetArrayLength(types));
    if (widen(env->GetArrayLength(values)) != count) std::abort();
    entries = allocate<CK_ATTRIBUTE>(count);
    jint* elements = env->GetIntArrayElements(types, nullptr);
    for (CK_ULONG i = 0; i < count; ++i) {
      convert(env, elements[i], env->GetObjectArrayElement(values, narrow(i)), &entries[i]);
    }
    env->ReleaseIntArrayElements(types, elements, JNI_ABORT);
  }
  ~Template() {
    for (CK_ULONG i = 0; i < count; ++i) std::free(entries[i].pValue);
    std::free(entries);
  }

  CK_ULONG count;
  CK_ATTRIBUTE* entries;
};

// ---- Attribute values ----

/// Makes an array of the value's bytes behind `zeros` zero bytes.
jbyteArray toArray(JNIEnv* env, const CK_ATTRIBUTE& value, jint zeros) {
  const jint size = narrow(value.ulValueLen);
  const jbyteArray array = env->NewByteArray(zeros + size);
  env->SetByteArrayRegion(array, zeros, size, static_cast<const jbyte*>(value.pValue));
  return array;
}

jobject toObject(JNIEnv* env, const CK_ATTRIBUTE& value) {
  const char* chars = static_cast<const char*>(value.pValue);
  if (value.type == CKA_LABEL) return env->NewStringUTF(chars);
  if (value.type == CKA_ID) return toArray(env, value, 0);
  if (value.type == CKA_MODULUS) {
    const jbyteArray magnitude = toArray(env, value, 1);
    return constructor(env, "java/math/BigInteger", "([B)V")(magnitude);
  }
  if (value.type == CKA_END_DATE) {
    const jclass cl = env->FindClass("java/text/SimpleDateFormat");
    const jmethodID init = env->GetMethodID(cl, "<init>", "(Ljava/lang/String;)V");
    const jobject format = env->NewObject(cl, init, env->NewStringUTF("yyyyMMdd"));
    const jmethodID parse = env->GetMethodID(cl, "parse", "(Ljava/lang/String;)Ljava/util/Date;");
    return env->CallObjectMethod(format, parse, env->NewStringUTF(chars));
  }
  if (value.type == CKA_CLASS) {
    CK_ULONG number;
    std::memcpy(&number, chars, sizeof number);
    return constructor(env, "java/lang/Integer", "(I)V")(narrow(number));
  }
  const jboolean set = *chars != 0 ? JNI_TRUE : JNI_FALSE;
  return constructor(env, "java/lang/Boolean", "(Z)V")(set);
}

// ---- Signing, encryption, decryption ----

using InitFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
using DataFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG*);

void start(JNIEnv* env, jobject session, jint mech, jobject key, InitFunction function) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  const CK_OBJECT_HANDLE keyId = handle(env, key, "objectID");
  CK_MECHANISM mechanism = {widen(mech), nullptr, 0};
  refused(env, function(id, &mechanism, keyId));
}

/// Finishes an operation. The room for the output is `inLen` for encrypt, otherwise the array's
/// length, which takes a call.
jint transform(JNIEnv* env, jobject session, jbyteArray in, jint inLen, jbyteArray out,
               bool roomIsLength, DataFunction function) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  jbyte* input = env->GetByteArrayElements(in, nullptr);
  jbyte* output = env->GetByteArrayElements(out, nullptr);
  CK_ULONG outLen = widen(roomIsLength ? env->GetArrayLength(out) : inLen);
  const CK_RV rv = function(id, bytes(input), widen(inLen), bytes(output), &outLen);
  env->ReleaseByteArrayElements(in, input, 0);
  env->ReleaseByteArrayElements(out, output, 0);
  return refused(env, rv) ? -1 : narrow(outLen);
}

}  // namespace

#define OPERATION(begin, finish, initFunction, dataFunction, roomIsLength)                       \
  void NATIVE(Session_##begin)(JNIEnv * env, jobject session, jint mech, jobject, jobject key) { \
    start(env, session, mech, key, p11->initFunction);                                           \
  }                                                                                              \
  jint NATIVE(Session_##finish)(                                                                 \
      JNIEnv * env, jobject session, jbyteArray in, jint, jint inLen, jbyteArray out, jint) {    \
    return transform(env, session, in, inLen, out, roomIsLength, p11->dataFunction);             \
  }

OPERATION(signInit, sign, C_SignInit, C_Sign, true)
OPERATION(encryptInit, encrypt, C_EncryptInit, C_Encrypt, false)
OPERATION(decryptInit, decrypt, C_DecryptInit, C_Decrypt, true)

// ---- The module ----

jlong NATIVE(_loadPKCS11Library)(JNIEnv* env, jclass, jstring libName) {
  const char* path = env->GetStringUTFChars(libName, nullptr);
  void* symbol = dlsym(dlopen(path, RTLD_LAZY), "C_GetFunctionList");
  env->ReleaseStringUTFChars(libName, path);
  reinterpret_cast<CK_C_GetFunctionList>(symbol)(&p11);
  return reinterpret_cast<jlong>(p11);
}

jstring NATIVE(_getBridgeVersion)(JNIEnv* env, jobject) { return env->NewStringUTF("1.16"); }

void NATIVE(_libInitialize)(JNIEnv* env, jobject) { refused(env, p11->C_Initialize(nullptr)); }

jobject NATIVE(_getInfo)(JNIEnv* env, jobject) {
  CK_INFO info;
  if (refused(env, p11->C_GetInfo(&info))) return nullptr;
  const auto create = constructor(
      env, "it/quarvel/pkcs11/PKCS11Info", "(ILjava/lang/String;ILjava/lang/String;I)V");
  return create(version(info.cryptokiVersion), text(env, info.manufacturerID), narrow(info.flags),
                text(env, info.libraryDescription), version(info.libraryVersion));
}

jobjectArray NATIVE(_getSlotList)(JNIEnv* env, jobject module, jboolean tokenIn) {
  CK_ULONG count;
  if (refused(env, p11->C_GetSlotList(tokenIn, nullptr, &count))) return nullptr;
  auto* slots = allocate<CK_SLOT_ID>(count);
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

jobject NATIVE(Slot_getTokenInfo)(JNIEnv* env, jobject slot) {
  CK_TOKEN_INFO info;
  if (refused(env, p11->C_GetTokenInfo(handle(env, slot, "slotID"), &info))) return nullptr;
  const auto create = constructor(env, "it/quarvel/pkcs11/PKCS11TokenInfo",
                                  "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
                                  "Ljava/lang/String;IIIIIIIIIIIIILjava/lang/String;)V");
  return create(
      text(env, info.label), text(env, info.manufacturerID), text(env, info.model),
      text(env, info.serialNumber), narrow(info.flags), narrow(info.ulMaxSessionCount),
      narrow(info.ulSessionCount), narrow(info.ulMaxRwSessionCount), narrow(info.ulRwSessionCount),
      narrow(info.ulMaxPinLen), narrow(info.ulMinPinLen), narrow(info.ulTotalPublicMemory),
      narrow(info.ulFreePublicMemory), narrow(info.ulTotalPrivateMemory),
      narrow(info.ulFreePrivateMemory), version(info.hardwareVersion),
      version(info.firmwareVersion), text(env, info.utcTime));
}

jintArray NATIVE(Slot_getMechanismList)(JNIEnv* env, jobject slot) {
  const CK_SLOT_ID id = handle(env, slot, "slotID");
  CK_ULONG count;
  if (refused(env, p11->C_GetMechanismList(id, nullptr, &count))) return nullptr;
  auto* types = allocate<CK_ULONG>(count);
  if (refused(env, p11->C_GetMechanismList(id, types, &count))) std::abort();
  auto* ints = static_cast<char*>(static_cast<void*>(types));  // narrowed in place
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

jobject NATIVE(Session_getInfo)(JNIEnv* env, jobject session) {
  CK_SESSION_INFO info;
  const CK_RV rv = p11->C_GetSessionInfo(handle(env, session, "sessionID"), &info);
  if (refused(env, rv)) return nullptr;
  const auto create = constructor(env, "it/quarvel/pkcs11/PKCS11SessionInfo", "(III)V");
  return create(narrow(info.state), narrow(info.flags), narrow(info.ulDeviceError));
}

void NATIVE(Session_login)(JNIEnv* env, jobject session, jboolean isSO, jstring pin) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  const char* chars = env->GetStringUTFChars(pin, nullptr);
  const CK_USER_TYPE user = isSO != JNI_FALSE ? CKU_SO : CKU_USER;
  refused(env, p11->C_Login(id, user, bytes(chars), std::strlen(chars)));
  env->ReleaseStringUTFChars(pin, chars);
}

void NATIVE(Session_logout)(JNIEnv* env, jobject session) {
  refused(env, p11->C_Logout(handle(env, session, "sessionID")));
}

void NATIVE(Session_findObjectsInit)(JNIEnv* env, jobject session, jintArray types,
                                     jobjectArray values) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  const Template wanted(env, types, values);
  refused(env, p11->C_FindObjectsInit(id, wanted.entries, wanted.count));
}

jobject NATIVE(Session_findObject)(JNIEnv* env, jobject session) {
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  const CK_RV rv = p11->C_FindObjects(handle(env, session, "sessionID"), &object, 1, &count);
  if (refused(env, rv) || count == 0) return nullptr;
  return objects(env)(session, narrow(object));
}

void NATIVE(Session_findObjectsFinal)(JNIEnv* env, jobject session) {
  refused(env, p11->C_FindObjectsFinal(handle(env, session, "sessionID")));
}

jobject NATIVE(Session_createObject)(JNIEnv* env, jobject session, jintArray types,
                                     jobjectArray values) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  const Template attributes(env, types, values);
  CK_OBJECT_HANDLE object;
  const CK_RV rv = p11->C_CreateObject(id, attributes.entries, attributes.count, &object);
  return refused(env, rv) ? nullptr : objects(env)(session, narrow(object));
}

jobjectArray NATIVE(Session_generateKeyPair)(JNIEnv* env, jobject session, jint mech, jobject,
                                             jintArray pubTypes, jobjectArray pubValues,
                                             jintArray prvTypes, jobjectArray prvValues) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  CK_MECHANISM mechanism = {widen(mech), nullptr, 0};
  const Template pub(env, pubTypes, pubValues);
  const Template prv(env, prvTypes, prvValues);
  CK_OBJECT_HANDLE pubKey;
  CK_OBJECT_HANDLE prvKey;
  const CK_RV rv = p11->C_GenerateKeyPair(
      id, &mechanism, pub.entries, pub.count, prv.entries, prv.count, &pubKey, &prvKey);
  if (refused(env, rv)) return nullptr;
  const auto create = objects(env);
  const jobject pubObject = create(session, narrow(pubKey));
  const jobject prvObject = create(session, narrow(prvKey));
  const jobjectArray pair = env->NewObjectArray(2, env->FindClass("java/lang/Object"), nullptr);
  env->SetObjectArrayElement(pair, 0, pubObject);
  env->SetObjectArrayElement(pair, 1, prvObject);
  return pair;
}

jint NATIVE(Session_wrapKey)(JNIEnv* env, jobject session, jint mech, jobject, jobject wrappingKey,
                             jobject key, jbyteArray out, jint) {
  const CK_SESSION_HANDLE id = handle(env, session, "sessionID");
  const CK_OBJECT_HANDLE keyId = handle(env, key, "objectID");
  const CK_OBJECT_HANDLE wrappingKeyId = handle(env, wrappingKey, "objectID");
  CK_MECHANISM mechanism = {widen(mech), nullptr, 0};
  jbyte* output = env->GetByteArrayElements(out, nullptr);
  CK_ULONG outLen = widen(env->GetArrayLength(out));
  const CK_RV rv = p11->C_WrapKey(id, &mechanism, wrappingKeyId, keyId, bytes(output), &outLen);
  env->ReleaseByteArrayElements(out, output, 0);
  return refused(env, rv) ? -1 : narrow(outLen);
}

// ---- Objects ----

jobject NATIVE(Object_getAttributeValue)(JNIEnv* env, jobject obj, jint attr) {
  const CK_OBJECT_HANDLE object = handle(env, obj, "objectID");
  const jfieldID field = env->GetFieldID(
      env->GetObjectClass(obj), "session", "Lit/quarvel/pkcs11/nat/NativePKCS11Session;");
  const CK_SESSION_HANDLE session = handle(env, env->GetObjectField(obj, field), "sessionID");
  CK_ATTRIBUTE value = {widen(attr), nullptr, 0};
  if (refused(env, p11->C_GetAttributeValue(session, object, &value, 1))) return nullptr;
  char* chars = allocate<char>(value.ulValueLen + 1);
  value.pValue = chars;
  if (refused(env, p11->C_GetAttributeValue(session, object, &value, 1))) std::abort();
  chars[value.ulValueLen] = '\0';
  const jobject result = toObject(env, value);
  std::free(chars);
  return result;
}

// ---- Bare C ----

/// Aborts on a refusal, which would make every figure worthless.
static void require(CK_RV rv) {
  if (rv != CKR_OK) std::abort();
}

/// Takes a module that the process has already initialised.
void JNICALL Java_Bare_open(JNIEnv* env, jclass cl, jstring module) {
  Java_it_quarvel_pkcs11_nat_NativePKCS11_loadPKCS11Library(env, cl, module);
}

void JNICALL Java_Bare_transform(JNIEnv* env, jclass, jchar kind, jlong session, jlong key,
                                 jlong mechanismType, jbyteArray data, jint room, jint calls) {
  for (jint i = 0; kind == 'L' && i < calls; ++i) require(p11->C_Logout(session));
  if (kind == 'L') return;
  std::vector<jbyte> in(env->GetArrayLength(data));
  env->GetByteArrayRegion(data, 0, env->GetArrayLength(data), in.data());
  auto* input = reinterpret_cast<CK_BYTE*>(in.data());
  std::vector<CK_BYTE> out(room);
  CK_MECHANISM mechanism = {static_cast<CK_MECHANISM_TYPE>(mechanismType), nullptr, 0};
  const auto [init, finish] =
      kind == 'S'   ? std::pair(p11->C_SignInit, p11->C_Sign)
      : kind == 'E' ? std::pair(p11->C_EncryptInit, p11->C_Encrypt)
                    : std::pair(p11->C_DecryptInit, p11->C_Decrypt);
  for (jint i = 0; i < calls; ++i) {
    CK_ULONG outLen = out.size();
    require(init(session, &mechanism, key));
    require(finish(session, input, in.size(), out.data(), &outLen));
  }
}

void JNICALL Java_Bare_search(JNIEnv*, jclass, jlong session, jint batch, jint calls) {
  CK_OBJECT_CLASS wanted = CKO_SECRET_KEY;
  CK_ATTRIBUTE attribute = {CKA_CLASS, &wanted, sizeof wanted};
  std::vector<CK_OBJECT_HANDLE> objects(batch);
  for (jint i = 0; i < calls; ++i) {
    require(p11->C_FindObjectsInit(session, &attribute, 1));
    for (CK_ULONG count = 1; count != 0;) {
      require(p11->C_FindObjects(session, objects.data(), objects.size(), &count));
    }
    require(p11->C_FindObjectsFinal(session));
  }
}
