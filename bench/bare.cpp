// The bare C calls: what an operation costs a C program, without Java in the loop.
#include "Bare.h"

#include <dlfcn.h>
#include <jni.h>

#include <cstdlib>
#include <utility>
#include <vector>

#include "pkcs11.h"

namespace {

CK_FUNCTION_LIST_PTR p11 = nullptr;

/// A refusal would make every figure worthless.
void require(CK_RV rv) {
  if (rv != CKR_OK) std::abort();
}

}  // namespace

void JNICALL Java_Bare_open(JNIEnv* env, jclass, jstring module) {
  const char* path = env->GetStringUTFChars(module, nullptr);
  void* symbol = dlsym(dlopen(path, RTLD_LAZY), "C_GetFunctionList");
  env->ReleaseStringUTFChars(module, path);
  require(reinterpret_cast<CK_C_GetFunctionList>(symbol)(&p11));
}

void JNICALL Java_Bare_transform(JNIEnv* env, jclass, jchar kind, jlong session, jlong key,
                                 jlong mechanismType, jbyteArray data, jint room, jint calls) {
  std::vector<jbyte> in(env->GetArrayLength(data));
  env->GetByteArrayRegion(data, 0, env->GetArrayLength(data), in.data());
  auto* input = reinterpret_cast<CK_BYTE*>(in.data());
  std::vector<CK_BYTE> out(room);
  CK_MECHANISM mechanism = {static_cast<CK_MECHANISM_TYPE>(mechanismType), nullptr, 0};
  const auto [init, finish] = kind == 'S'   ? std::pair(p11->C_SignInit, p11->C_Sign)
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
