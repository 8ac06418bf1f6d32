// Signs on musl, where no Java is at hand: the library opens a module through the adapter and lists
// its slots for what little of a JNI environment that takes, the adapter signs, the library ends
// it. musl LIBRARY ADAPTER TOKEN_LABEL PIN KEY_LABEL, the adapter's module by its own variable; the
// text "data" is signed, and the signature goes to standard output.
#include <dlfcn.h>
#include <jni.h>
#include <p11-kit/pkcs11.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static CK_SLOT_ID slots[16];
static jsize count;

static void require(int held, const char* what) {
  if (held) return;
  fprintf(stderr, "musl: %s\n", what);
  exit(1);
}

// ---- The environment: names are their own classes and strings ----

static const char* stringChars(JNIEnv* env, jstring string, jboolean* copied) {
  return (const char*)string;
}
static void releaseChars(JNIEnv* env, jstring string, const char* chars) {}
static jclass findClass(JNIEnv* env, const char* name) {
  require(strstr(name, "Exception") == NULL, "the library raises an exception");
  return (jclass)name;
}
static jmethodID methodOf(JNIEnv* env, jclass class, const char* name, const char* type) {
  return (jmethodID)name;
}
static jobjectArray newArray(JNIEnv* env, jsize length, jclass class, jobject initial) {
  require(length <= 16, "too many slots");
  count = length;
  return (jobjectArray)slots;
}
static jobject newSlot(JNIEnv* env, jclass class, jmethodID init, va_list arguments) {
  va_arg(arguments, jobject);
  return (jobject)(intptr_t)va_arg(arguments, jint);
}
static void setElement(JNIEnv* env, jobjectArray array, jsize index, jobject slot) {
  slots[index] = (CK_SLOT_ID)(intptr_t)slot;
}

static const struct JNINativeInterface_ functions = {
    .GetStringUTFChars = stringChars,
    .ReleaseStringUTFChars = releaseChars,
    .FindClass = findClass,
    .GetMethodID = methodOf,
    .NewObjectArray = newArray,
    .NewObjectV = newSlot,
    .SetObjectArrayElement = setElement};
static JNIEnv env = &functions;

static void* load(const char* file) {
  void* library = dlopen(file, RTLD_NOW);
  require(library != NULL, library != NULL ? "" : dlerror());
  return library;
}
static void* method(void* library, const char* name) {
  char symbol[100];
  snprintf(symbol, sizeof symbol, "Java_it_quarvel_pkcs11_nat_NativePKCS11_%s", name);
  void* found = dlsym(library, symbol);
  require(found != NULL, symbol);
  return found;
}

// ---- What a program does ----

static void sign(CK_FUNCTION_LIST* module, CK_SLOT_ID slot, char* pin, char* label) {
  CK_SESSION_HANDLE session;
  CK_OBJECT_CLASS class = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE key[] = {{CKA_CLASS, &class, sizeof class}, {CKA_LABEL, label, strlen(label)}};
  CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, NULL, 0};
  CK_OBJECT_HANDLE object;
  CK_BYTE signature[512];
  CK_ULONG found, length = sizeof signature;
  require(module->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &session) == CKR_OK &&
              module->C_Login(session, CKU_USER, (CK_BYTE*)pin, strlen(pin)) == CKR_OK &&
              module->C_FindObjectsInit(session, key, 2) == CKR_OK &&
              module->C_FindObjects(session, &object, 1, &found) == CKR_OK && found == 1 &&
              module->C_FindObjectsFinal(session) == CKR_OK &&
              module->C_SignInit(session, &mechanism, object) == CKR_OK &&
              module->C_Sign(session, (CK_BYTE*)"data", 4, signature, &length) == CKR_OK,
          "no signature");
  fwrite(signature, 1, length, stdout);
}

int main(int argc, char** argv) {
  require(argc == 6, "wants LIBRARY ADAPTER TOKEN_LABEL PIN KEY_LABEL");
  void* library = load(argv[1]);
  jlong (*loadModule)(JNIEnv*, jclass, jstring) = method(library, "loadPKCS11Library");
  void (*initialize)(JNIEnv*, jobject) = method(library, "libInitialize");
  jobjectArray (*getSlotList)(JNIEnv*, jobject, jboolean) = method(library, "getSlotList");
  void (*finalize)(JNIEnv*, jobject) = method(library, "libFinalize");

  CK_FUNCTION_LIST* module = (CK_FUNCTION_LIST*)loadModule(&env, NULL, (jstring)argv[2]);
  initialize(&env, NULL);
  require(getSlotList(&env, NULL, JNI_TRUE) != NULL, "no slots");
  jsize i = 0;
  for (CK_TOKEN_INFO token; i < count; ++i) {
    if (module->C_GetTokenInfo(slots[i], &token) == CKR_OK &&
        strncmp((char*)token.label, argv[3], strlen(argv[3])) == 0)
      break;
  }
  require(i < count, "no such token");
  sign(module, slots[i], argv[4], argv[5]);
  finalize(&env, NULL);
  return 0;
}
