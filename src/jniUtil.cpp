// SPDX-License-Identifier: Apache-2.0
#include "jniUtil.h"

#include <cstdint>

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

int setString(JNIEnv* env, jobject obj, CK_ATTRIBUTE* ckAttr) {
  const Chars utf_str =
      takeChars(env, static_cast<jstring>(obj), "Internal error (creating String)");
  if (utf_str == nullptr) return 0;
  const std::size_t size = std::strlen(utf_str.get());
  return setCopy(ckAttr, utf_str.get(), size + 1, size);
}

int setByteArray(JNIEnv* env, jobject obj, CK_ATTRIBUTE* ckAttr) {
  auto* const array = static_cast<jbyteArray>(obj);
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
  if (setByteArray(env, array, &whole) == 0) return 0;
  HeapBlock<CK_BYTE> bytes(static_cast<CK_BYTE*>(whole.pValue));
  const CK_ULONG size = whole.ulValueLen;
  // A leading zero byte only carries the sign, which PKCS#11 big integers do not have.
  if (size == 0 || bytes[0] != 0) return setValue(ckAttr, bytes.release(), size);
  return setCopy(ckAttr, &bytes[1], size - 1, size - 1);
}

int setDate(JNIEnv* env, jobject date, CK_ATTRIBUTE* ckAttr) {
  jclass formatCl = nullptr;
  const jobject formatter = newDateFormat(env, &formatCl);
  if (formatter == nullptr) return 0;
  const jmethodID format =
      env->GetMethodID(formatCl, "format", "(Ljava/util/Date;)Ljava/lang/String;");
  if (format == nullptr) return 0;
  const jobject text = env->CallObjectMethod(formatter, format, date);
  if (env->ExceptionCheck() != JNI_FALSE || text == nullptr) return 0;
  return J2CK_ATTR(env, CK2J_INT(ckAttr->type), text, ckAttr);
}

void trace(Steps steps, const char* text) {
  if (steps == Steps::kTraced) traceLine(text);
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
  if (count <= INT32_MAX) return true;
  throwCKExc(env, refusal);
  return false;
}

// ---- New Java objects ----

Constructor findConstructor(JNIEnv* env, const char* className, const char* signature) {
  const jclass cl = env->FindClass(className);
  if (cl == nullptr) return {nullptr, nullptr};
  return {cl, env->GetMethodID(cl, "<init>", signature)};
}

jobject newSlot(JNIEnv* env, const Constructor& slotCostr, jobject module, CK_SLOT_ID slotID) {
  const jint slotN = CK2J_SLOT(slotID);
  TRACE(" value= %li ...", static_cast<long>(slotN));
  return env->NewObject(slotCostr.cl, slotCostr.init, module, slotN);
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

// ---- Attribute templates ----

int J2CK_ATTR(JNIEnv* env, jint type, jobject obj, CK_ATTRIBUTE* ckAttr) {
  ckAttr->type = J2CK_INT(type);
  if (obj == nullptr) return 0;
  // The first class that the value belongs to decides. One that cannot be found ends the chain.
  jclass cl = nullptr;
  bool found = true;
  const auto isA = [&](const char* className) {
    if (found) cl = env->FindClass(className);
    found = cl != nullptr;
    return found && env->IsInstanceOf(obj, cl) != JNI_FALSE;
  };
  if (isA("java/lang/String")) return setString(env, obj, ckAttr);
  if (isA("[B")) return setByteArray(env, obj, ckAttr);
  if (isA("java/lang/Integer")) return setInteger(env, cl, obj, ckAttr);
  if (isA("java/lang/Boolean")) return setBoolean(env, cl, obj, ckAttr);
  if (isA("java/math/BigInteger")) return setBigInteger(env, cl, obj, ckAttr);
  if (isA("java/util/Date")) return setDate(env, obj, ckAttr);
  return 0;
}

bool templateLength(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    const char* msg, CK_ULONG* ckCount, Steps steps) {
  bool agreed = types != nullptr && values != nullptr;
  if (agreed) {
    *ckCount = J2CK_INT(env->GetArrayLength(types));
    const CK_ULONG valueCount = J2CK_INT(env->GetArrayLength(values));
    agreed = valueCount == *ckCount || (surplus == Surplus::kIgnored && valueCount > *ckCount);
  }
  trace(steps, "JNI: ckLen OK");
  if (!agreed) throwExc(env, msg);
  return agreed;
}

Template newTemplate(JNIEnv* env, CK_ULONG ckCount, Steps steps) {
  void* block = std::malloc(ckCount * (sizeof(CK_ATTRIBUTE) + sizeof(void*)));
  trace(steps, "JNI: ckAttr OK");
  if (block == nullptr) throwExc(env, kOutOfMemory);
  return Template(static_cast<CK_ATTRIBUTE*>(block), {ckCount});
}

Types fillTemplate(JNIEnv* env, jintArray types, jobjectArray values, Template& ckAttr,
                   Steps steps) {
  Types attrA(env->GetIntArrayElements(types, nullptr), {env, types});
  if (attrA == nullptr) {
    throwExc(env, kOutOfMemory);
    return {};
  }
  trace(steps, "JNI: attrA OK");
  FreeTemplate& owned = ckAttr.get_deleter();
  void** const blocks = owned.values(ckAttr.get());
  for (CK_ULONG i = 0; i < owned.count; ++i) {
    trace(steps, "JNI: inside loop");
    const jobject curVal = env->GetObjectArrayElement(values, static_cast<jsize>(i));
    trace(steps, "JNI: temp1 OK");
    if (J2CK_ATTR(env, attrA[i], curVal, &ckAttr[i]) == 0) {
      trace(steps, "JNI: res?...... KO");
      TRACE("\nERROR: cannot parse passed object %li\n", i);
      attrA.reset();
      if (steps == Steps::kQuiet) {
        while (owned.filled > 0) std::free(blocks[--owned.filled]);
      }
      return {};
    }
    trace(steps, "JNI: res?...... OK");
    blocks[owned.filled++] = ckAttr[i].pValue;
  }
  trace(steps, "JNI: array OK");
  return attrA;
}

Types buildTemplate(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    Template& ckAttr, Steps steps) {
  CK_ULONG ckCount = 0;
  if (!templateLength(env, types, values, surplus, kDifferentLength, &ckCount, steps)) return {};
  ckAttr = newTemplate(env, ckCount, steps);
  return ckAttr != nullptr ? fillTemplate(env, types, values, ckAttr, steps) : Types();
}
