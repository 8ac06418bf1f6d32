// The bare C calls: what an operation costs a C program, without Java in the loop. Each method
// makes `calls` operations with the module that the process has already initialised.
#include "Bare.h"

#include <dlfcn.h>
#include <jni.h>

#include <cstdlib>
#include <vector>

#include "pkcs11.h"

namespace {

CK_FUNCTION_LIST_PTR p11 = nullptr;

using InitFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
using DataFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG*);

/// A refusal would make every figure worthless.
void require(CK_RV rv) {
  if (rv != CKR_OK) std::abort();
}

jlong repeat(JNIEnv* env, jlong session, jlong key, jlong mech, jbyteArray data, jint room,
             jint calls, InitFunction init, DataFunction function) {
  std::vector<CK_BYTE> in(static_cast<std::size_t>(env->GetArrayLength(data)));
  env->GetByteArrayRegion(data, 0, static_cast<jsize>(in.size()),
                          reinterpret_cast<jbyte*>(in.data()));
  std::vector<CK_BYTE> out(static_cast<std::size_t>(room));
  CK_MECHANISM mechanism = {static_cast<CK_MECHANISM_TYPE>(mech), nullptr, 0};
  CK_ULONG total = 0;
  for (jint i = 0; i < calls; ++i) {
    require(init(static_cast<CK_ULONG>(session), &mechanism, static_cast<CK_ULONG>(key)));
    CK_ULONG outLen = out.size();
    require(function(static_cast<CK_ULONG>(session), in.data(), in.size(), out.data(), &outLen));
    total += outLen;
  }
  return static_cast<jlong>(total);
}

}  // namespace

void JNICALL Java_Bare_open(JNIEnv* env, jclass, jstring module) {
  const char* path = env->GetStringUTFChars(module, nullptr);
  void* symbol = dlsym(dlopen(path, RTLD_LAZY), "C_GetFunctionList");
  env->ReleaseStringUTFChars(module, path);
  require(reinterpret_cast<CK_C_GetFunctionList>(symbol)(&p11));
}

jlong JNICALL Java_Bare_sign(JNIEnv* env, jclass, jlong session, jlong key, jlong mech,
                             jbyteArray data, jint room, jint calls) {
  return repeat(env, session, key, mech, data, room, calls, p11->C_SignInit, p11->C_Sign);
}

jlong JNICALL Java_Bare_encrypt(JNIEnv* env, jclass, jlong session, jlong key, jlong mech,
                                jbyteArray data, jint room, jint calls) {
  return repeat(env, session, key, mech, data, room, calls, p11->C_EncryptInit, p11->C_Encrypt);
}

jlong JNICALL Java_Bare_decrypt(JNIEnv* env, jclass, jlong session, jlong key, jlong mech,
                                jbyteArray data, jint room, jint calls) {
  return repeat(env, session, key, mech, data, room, calls, p11->C_DecryptInit, p11->C_Decrypt);
}

jlong JNICALL Java_Bare_search(JNIEnv*, jclass, jlong session, jlong objectClass, jint batch,
                               jint calls) {
  CK_OBJECT_CLASS wanted = static_cast<CK_OBJECT_CLASS>(objectClass);
  CK_ATTRIBUTE attribute = {CKA_CLASS, &wanted, sizeof wanted};
  std::vector<CK_OBJECT_HANDLE> objects(static_cast<std::size_t>(batch));
  const auto handle = static_cast<CK_SESSION_HANDLE>(session);
  CK_ULONG total = 0;
  for (jint i = 0; i < calls; ++i) {
    require(p11->C_FindObjectsInit(handle, &attribute, 1));
    CK_ULONG count = 0;
    do {
      require(p11->C_FindObjects(handle, objects.data(), objects.size(), &count));
      total += count;
    } while (count != 0);
    require(p11->C_FindObjectsFinal(handle));
  }
  return static_cast<jlong>(total);
}
