// SPDX-License-Identifier: Apache-2.0
// Signs on musl, where no Java is at hand: the library loads a module through the adapter, starts
// and ends it, for what little of a JNI environment that takes, and the adapter signs with the
// token's one private key. musl LIBRARY ADAPTER PIN, the adapter's module by its own variable; the
// text "data" is signed, and the signature goes to standard output.
#include <dlfcn.h>
#include <jni.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define REQUIRE(held) ((held) ? (void)0 : fail(#held))
static void fail(const char* what) {
  const char* reason = dlerror();
  fprintf(stderr, "musl: not so: %s %s\n", what, reason != NULL ? reason : "");
  exit(1);
}

// ---- The environment: a string is its characters, and a class is looked up for an exception ----

static const char* stringChars(JNIEnv* env, jstring string, jboolean* copied) {
  return (const char*)string;
}
static void releaseChars(JNIEnv* env, jstring string, const char* chars) {}
static jclass findClass(JNIEnv* env, const char* name) {
  fail(name);
  return NULL;
}
static const struct JNINativeInterface_ functions = {.GetStringUTFChars = stringChars,
                                                     .ReleaseStringUTFChars = releaseChars,
                                                     .FindClass = findClass};
static JNIEnv env = &functions;

// ---- What the client of Debian 11 wants of glibc; reach.sh makes the other checked functions one ----

void* __memcpy_chk(void* to, const void* from, size_t size, size_t room) {
  return memcpy(to, from, size);
}
void uncalled(void) { fail("a function of glibc goes uncalled"); }
int __register_atfork(void) { return 0; }  // nobody forks

int main(int argc, char** argv) {
  REQUIRE(argc == 4);
  void* library = dlopen(argv[1], RTLD_NOW);
  REQUIRE(library);
#define METHOD(name) dlsym(library, "Java_it_quarvel_pkcs11_nat_NativePKCS11_" #name)
  jlong (*load)(JNIEnv*, jclass, jstring) = METHOD(loadPKCS11Library);
  void (*initialize)(JNIEnv*, jobject) = METHOD(libInitialize);
  void (*finalize)(JNIEnv*, jobject) = METHOD(libFinalize);
  REQUIRE(load && initialize && finalize);

  CK_FUNCTION_LIST* module = (CK_FUNCTION_LIST*)load(&env, NULL, (jstring)argv[2]);
  initialize(&env, NULL);
  CK_SLOT_ID slot;
  CK_SESSION_HANDLE session;
  CK_OBJECT_CLASS class = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE isPrivate = {CKA_CLASS, &class, sizeof class};
  CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, NULL, 0};
  CK_OBJECT_HANDLE key;
  CK_BYTE signature[512];
  CK_ULONG slots = 1, keys, length = sizeof signature;
  REQUIRE(module->C_GetSlotList(CK_TRUE, &slot, &slots) == CKR_OK && slots == 1);
  REQUIRE(module->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &session) == CKR_OK);
  REQUIRE(module->C_Login(session, CKU_USER, (CK_BYTE*)argv[3], strlen(argv[3])) == CKR_OK);
  REQUIRE(module->C_FindObjectsInit(session, &isPrivate, 1) == CKR_OK);
  REQUIRE(module->C_FindObjects(session, &key, 1, &keys) == CKR_OK && keys == 1);
  REQUIRE(module->C_FindObjectsFinal(session) == CKR_OK);
  REQUIRE(module->C_SignInit(session, &mechanism, key) == CKR_OK);
  REQUIRE(module->C_Sign(session, (CK_BYTE*)"data", 4, signature, &length) == CKR_OK);
  finalize(&env, NULL);
  return fwrite(signature, 1, length, stdout) == length ? 0 : 1;
}
