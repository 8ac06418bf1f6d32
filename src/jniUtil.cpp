#include "jniUtil.h"

#include <cstdint>
#include <cstring>

#include "trace.h"

namespace {

constexpr char kExceptionClass[] = "it/quarvel/pkcs11/PKCS11Exception";
constexpr char kSessionType[] = "Lit/quarvel/pkcs11/nat/NativePKCS11Session;";

constexpr CK_RV kLargestCode = CKR_VENDOR_DEFINED - 1;

/// Raises an exception made by its constructor `signature` from `args`.
template <typename... Args>
void raise(JNIEnv* env, const char* signature, Args... args) {
  const jobject exception = newObject(env, kExceptionClass, signature, args...);
  if (exception == nullptr) return;
  env->Throw(static_cast<jthrowable>(exception));
  traceLine(" Done");
}

/// A field of a handle object; null with an exception pending for a null object or no such field.
jfieldID handleField(JNIEnv* env, jobject obj, const char* name, const char* type) {
  if (obj == nullptr) {
    throwCKExc(env, CKR_ARGUMENTS_BAD);
    return nullptr;
  }
  return env->GetFieldID(env->GetObjectClass(obj), name, type);
}

std::optional<CK_ULONG> readHandle(JNIEnv* env, jobject obj, const char* name) {
  const jfieldID field = handleField(env, obj, name, "I");
  if (field == nullptr) return std::nullopt;
  return J2CK_INT(env->GetIntField(obj, field));
}

int setValue(CK_ATTRIBUTE* ckAttr, void* value, CK_ULONG size) {
  ckAttr->pValue = value;
  ckAttr->ulValueLen = size;
  return 1;
}

/// Fills the entry with a copy of `copied` bytes, the first `size` of which are its value.
int setCopy(CK_ATTRIBUTE* ckAttr, const void* bytes, std::size_t copied, std::size_t size) {
  void* value = std::malloc(copied);
  if (value == nullptr) return 0;
  std::memcpy(value, bytes, copied);
  return setValue(ckAttr, value, size);
}

int setString(JNIEnv* env, jstring string, CK_ATTRIBUTE* ckAttr) {
  const char* utf_str = takeChars(env, string, "Internal error (creating String)");
  if (utf_str == nullptr) return 0;
  const std::size_t size = std::strlen(utf_str);
  const int res = setCopy(ckAttr, utf_str, size + 1, size);
  env->ReleaseStringUTFChars(string, utf_str);
  return res;
}

int setByteArray(JNIEnv* env, jbyteArray array, CK_ATTRIBUTE* ckAttr) {
  const jsize size = env->GetArrayLength(array);
  void* value = std::malloc(static_cast<std::size_t>(size));
  if (value == nullptr) return 0;
  env->GetByteArrayRegion(array, 0, size, static_cast<jbyte*>(value));
  return setValue(ckAttr, value, J2CK_INT(size));
}

int setInteger(JNIEnv* env, jclass cl, jobject obj, CK_ATTRIBUTE* ckAttr) {
  const jmethodID intValue = env->GetMethodID(cl, "intValue", "()I");
  if (intValue == nullptr) return 0;
  const CK_ULONG value = J2CK_INT(env->CallIntMethod(obj, intValue));
  if (env->ExceptionCheck() != JNI_FALSE) return 0;
  return setCopy(ckAttr, &value, sizeof value, sizeof value);
}

int setBoolean(JNIEnv* env, jclass cl, jobject obj, CK_ATTRIBUTE* ckAttr) {
  const jmethodID booleanValue = env->GetMethodID(cl, "booleanValue", "()Z");
  if (booleanValue == nullptr) return 0;
  const CK_BBOOL value = J2CK_BOOL(env->CallBooleanMethod(obj, booleanValue));
  if (env->ExceptionCheck() != JNI_FALSE) return 0;
  return setCopy(ckAttr, &value, sizeof value, sizeof value);
}

int setBigInteger(JNIEnv* env, jclass cl, jobject obj, CK_ATTRIBUTE* ckAttr) {
  const jmethodID toByteArray = env->GetMethodID(cl, "toByteArray", "()[B");
  if (toByteArray == nullptr) return 0;
  const jobject array = env->CallObjectMethod(obj, toByteArray);
  if (env->ExceptionCheck() != JNI_FALSE || array == nullptr) return 0;

  CK_ATTRIBUTE whole;
  if (setByteArray(env, static_cast<jbyteArray>(array), &whole) == 0) return 0;
  auto* bytes = static_cast<CK_BYTE*>(whole.pValue);
  const CK_ULONG size = whole.ulValueLen;
  // A leading zero byte only carries the sign, which PKCS#11 big integers do not have.
  if (size == 0 || bytes[0] != 0) return setValue(ckAttr, bytes, size);
  const int res = setCopy(ckAttr, bytes + 1, size - 1, size - 1);
  std::free(bytes);
  return res;
}

int setDate(JNIEnv* env, jint type, jobject date, CK_ATTRIBUTE* ckAttr) {
  jclass formatCl = nullptr;
  const jobject formatter = newDateFormat(env, &formatCl);
  if (formatter == nullptr) return 0;
  const jmethodID format =
      env->GetMethodID(formatCl, "format", "(Ljava/util/Date;)Ljava/lang/String;");
  if (format == nullptr) return 0;
  const jobject text = env->CallObjectMethod(formatter, format, date);
  if (env->ExceptionCheck() != JNI_FALSE || text == nullptr) return 0;
  return J2CK_ATTR(env, type, text, ckAttr);
}

}  // namespace

// ---- Exceptions ----

void throwExc(JNIEnv* env, const char* msg) {
  TRACE("JNI: Throwing vendor defined exc '%s'...", msg);
  const jclass cl = env->FindClass(kExceptionClass);
  if (cl == nullptr) return;
  env->ThrowNew(cl, msg);
  traceLine(" Done");
}

void throwCKExc(JNIEnv* env, CK_RV errCode) {
  if (errCode == CKR_OK) {
    throwExc(env, "Unknown internal error");
    return;
  }
  TRACE("JNI: Throwing exc number %lx...", errCode);
  if (errCode > kLargestCode) {
    throwExc(env, kInternalError);
    return;
  }
  raise(env, "(I)V", CK2J_INT(errCode));
}

void throwCKExcAS(JNIEnv* env, CK_RV errCode) {
  if (errCode == CKR_OK) {
    throwExc(env, "Unknown internal error");
    return;
  }
  TRACE("JNI: Throwing exc number %lx...", errCode);
  const jboolean vendor = errCode > kLargestCode ? JNI_TRUE : JNI_FALSE;
  raise(env, "(IZ)V", CK2J_INT(errCode), vendor);
}

bool throwIfFailed(JNIEnv* env, CK_RV ckRv) {
  if (ckRv != CKR_OK) throwCKExc(env, ckRv);
  return ckRv != CKR_OK;
}

void notSupported(JNIEnv* env) { throwExc(env, "Not supported"); }

// ---- Handles ----

std::optional<CK_SLOT_ID> getSlotID(JNIEnv* env, jobject slot) {
  return readHandle(env, slot, "slotID");
}

std::optional<CK_SESSION_HANDLE> getSessionID(JNIEnv* env, jobject session) {
  return readHandle(env, session, "sessionID");
}

std::optional<CK_OBJECT_HANDLE> getObjectID(JNIEnv* env, jobject obj) {
  return readHandle(env, obj, "objectID");
}

std::optional<CK_SESSION_HANDLE> getObjSessionID(JNIEnv* env, jobject obj) {
  const jfieldID session = handleField(env, obj, "session", kSessionType);
  if (session == nullptr) return std::nullopt;
  return getSessionID(env, env->GetObjectField(obj, session));
}

// ---- Scalar conversions ----

bool fitsJavaArray(JNIEnv* env, CK_ULONG count, CK_RV refusal) {
  return !throwIfFailed(env, count <= INT32_MAX ? CKR_OK : refusal);
}

// ---- New Java objects ----

Constructor findConstructor(JNIEnv* env, const char* className, const char* signature) {
  const jclass cl = env->FindClass(className);
  if (cl == nullptr) return {nullptr, nullptr};
  return {cl, env->GetMethodID(cl, "<init>", signature)};
}

jobject newSession(JNIEnv* env, jobject slot, CK_SESSION_HANDLE handle) {
  return newObject(env, "it/quarvel/pkcs11/nat/NativePKCS11Session",
                   "(Lit/quarvel/pkcs11/nat/NativePKCS11Slot;I)V", slot, CK2J_SESSION(handle));
}

jobject newTokenObject(JNIEnv* env, jobject session, CK_OBJECT_HANDLE handle) {
  return newObject(env, kTokenObjectClass, kTokenObjectInit, session, CK2J_INT(handle));
}

jobjectArray newKeyPair(JNIEnv* env, jobject session, CK_OBJECT_HANDLE pubKey,
                        CK_OBJECT_HANDLE prvKey) {
  TRACE("JNI: creating 2 jobject PKCS11Object...");
  const Constructor costr = findConstructor(env, kTokenObjectClass, kTokenObjectInit);
  if (costr.init == nullptr) return nullptr;
  const jobject temp1 = env->NewObject(costr.cl, costr.init, session, CK2J_INT(pubKey));
  if (temp1 == nullptr) return nullptr;
  const jobject temp2 = env->NewObject(costr.cl, costr.init, session, CK2J_INT(prvKey));
  if (temp2 == nullptr) return nullptr;
  const jclass elementCl = env->FindClass("java/lang/Object");
  if (elementCl == nullptr) return nullptr;
  const jobjectArray keyPair = env->NewObjectArray(2, elementCl, nullptr);
  if (keyPair == nullptr) return nullptr;
  env->SetObjectArrayElement(keyPair, 0, temp1);
  env->SetObjectArrayElement(keyPair, 1, temp2);
  traceLine("OK");
  return keyPair;
}

jobject newDateFormat(JNIEnv* env, jclass* formatCl) {
  const Constructor costr =
      findConstructor(env, "java/text/SimpleDateFormat", "(Ljava/lang/String;)V");
  if (costr.init == nullptr) return nullptr;
  *formatCl = costr.cl;
  const jstring pattern = env->NewStringUTF("yyyyMMdd");
  return pattern != nullptr ? env->NewObject(costr.cl, costr.init, pattern) : nullptr;
}

// ---- Java strings and arrays held for one call ----

const char* takeChars(JNIEnv* env, jstring string, const char* msg) {
  const char* chars = string != nullptr ? env->GetStringUTFChars(string, nullptr) : nullptr;
  if (chars == nullptr) throwExc(env, msg);
  return chars;
}

jbyte* takeBytes(JNIEnv* env, jbyteArray array) {
  if (array == nullptr) {
    throwCKExc(env, CKR_ARGUMENTS_BAD);
    return nullptr;
  }
  jbyte* elements = env->GetByteArrayElements(array, nullptr);
  if (elements == nullptr) throwExc(env, kOutOfMemory);
  return elements;
}

jbyte* takeInput(JNIEnv* env, jbyteArray array, jint length) {
  if (array == nullptr || length < 0 || length > env->GetArrayLength(array)) {
    throwCKExc(env, CKR_ARGUMENTS_BAD);
    return nullptr;
  }
  return takeBytes(env, array);
}

void releaseBytes(JNIEnv* env, jbyteArray array, jbyte* elements) {
  env->ReleaseByteArrayElements(array, elements, 0);
}

// ---- Attribute templates ----

int J2CK_ATTR(JNIEnv* env, jint type, jobject obj, CK_ATTRIBUTE* ckAttr) {
  // In the order in which they are tested: the first class that the value belongs to decides.
  enum { kString, kByteArray, kInteger, kBoolean, kBigInteger, kDate, kClasses };
  constexpr const char* kClassNames[kClasses] = {"java/lang/String",     "[B",
                                                 "java/lang/Integer",    "java/lang/Boolean",
                                                 "java/math/BigInteger", "java/util/Date"};
  ckAttr->type = J2CK_INT(type);
  if (obj == nullptr) return 0;
  for (int i = 0; i < kClasses; ++i) {
    const jclass cl = env->FindClass(kClassNames[i]);
    if (cl == nullptr) return 0;
    if (env->IsInstanceOf(obj, cl) == JNI_FALSE) continue;
    switch (i) {
      case kString:
        return setString(env, static_cast<jstring>(obj), ckAttr);
      case kByteArray:
        return setByteArray(env, static_cast<jbyteArray>(obj), ckAttr);
      case kInteger:
        return setInteger(env, cl, obj, ckAttr);
      case kBoolean:
        return setBoolean(env, cl, obj, ckAttr);
      case kBigInteger:
        return setBigInteger(env, cl, obj, ckAttr);
      default:
        return setDate(env, type, obj, ckAttr);
    }
  }
  return 0;
}

bool templateLength(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    const char* msg, CK_ULONG* ckCount) {
  if (types != nullptr && values != nullptr) {
    *ckCount = J2CK_INT(env->GetArrayLength(types));
    const CK_ULONG valueCount = J2CK_INT(env->GetArrayLength(values));
    const bool more = surplus == Surplus::kIgnored && valueCount > *ckCount;
    if (valueCount == *ckCount || more) return true;
  }
  throwExc(env, msg);
  return false;
}

CK_ATTRIBUTE* allocateTemplate(CK_ULONG ckCount) {
  return static_cast<CK_ATTRIBUTE*>(
      std::malloc(ckCount * (sizeof(CK_ATTRIBUTE) + sizeof(ValueBlock))));
}

CK_ATTRIBUTE* newTemplate(JNIEnv* env, CK_ULONG ckCount) {
  CK_ATTRIBUTE* ckAttr = allocateTemplate(ckCount);
  if (ckAttr == nullptr) throwExc(env, kOutOfMemory);
  return ckAttr;
}

jint* takeTypes(JNIEnv* env, jintArray types) {
  jint* elements = env->GetIntArrayElements(types, nullptr);
  if (elements == nullptr) throwExc(env, kOutOfMemory);
  return elements;
}

void releaseTypes(JNIEnv* env, jintArray types, jint* elements) {
  env->ReleaseIntArrayElements(types, elements, JNI_ABORT);
}

jint* fillTemplate(JNIEnv* env, jintArray types, jobjectArray values, CK_ATTRIBUTE* ckAttr,
                   CK_ULONG ckCount) {
  jint* attrA = takeTypes(env, types);
  if (attrA == nullptr) return nullptr;
  for (CK_ULONG i = 0; i < ckCount; ++i) {
    const jobject curVal = env->GetObjectArrayElement(values, static_cast<jsize>(i));
    if (J2CK_ATTR(env, attrA[i], curVal, &ckAttr[i]) != 0) {
      valueBlocks(ckAttr, ckCount)[i] = ckAttr[i].pValue;
      continue;
    }
    TRACE("\nERROR: cannot parse passed object %li\n", i);
    releaseTypes(env, types, attrA);
    while (i > 0) std::free(valueBlocks(ckAttr, ckCount)[--i]);
    return nullptr;
  }
  return attrA;
}

jint* buildTemplate(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    CK_ATTRIBUTE** ckAttr, CK_ULONG* ckCount) {
  if (!templateLength(env, types, values, surplus, kDifferentLength, ckCount)) return nullptr;
  *ckAttr = newTemplate(env, *ckCount);
  if (*ckAttr == nullptr) return nullptr;
  jint* attrA = fillTemplate(env, types, values, *ckAttr, *ckCount);
  if (attrA == nullptr) std::free(*ckAttr);
  return attrA;
}

void freeValues(CK_ATTRIBUTE* ckAttr, CK_ULONG ckCount) {
  for (CK_ULONG i = 0; i < ckCount; ++i) std::free(valueBlocks(ckAttr, ckCount)[i]);
}

void freeTemplate(CK_ATTRIBUTE* ckAttr, CK_ULONG ckCount) {
  freeValues(ckAttr, ckCount);
  std::free(ckAttr);
}
