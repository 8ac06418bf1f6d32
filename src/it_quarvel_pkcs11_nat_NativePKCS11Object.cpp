// SPDX-License-Identifier: Apache-2.0
// The native methods of NativePKCS11Object: one token object and its attributes.
#include "it_quarvel_pkcs11_nat_NativePKCS11Object.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <optional>

#include "jniUtil.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

constexpr std::size_t kTableSize = 17;
using Table = std::array<jint, kTableSize>;
constexpr std::size_t kDateSize = 8;

/// The types, then -1 up to the table's size.
constexpr Table table(std::initializer_list<jint> types) {
  Table slots;
  slots.fill(-1);
  std::copy(types.begin(), types.end(), slots.begin());
  return slots;
}

// Which attribute types the generic getter reads as which Java type. The fill of -1 counts as an
// entry: the type -1 is read as an int.
constexpr Table J_INT = table({CKA_CLASS, CKA_CERTIFICATE_TYPE, CKA_KEY_TYPE, CKA_MODULUS_BITS,
                               CKA_VALUE_BITS, CKA_VALUE_LEN});
constexpr Table J_BOOL =
    table({CKA_TOKEN, CKA_PRIVATE, CKA_SENSITIVE, CKA_ENCRYPT, CKA_DECRYPT, CKA_WRAP, CKA_UNWRAP,
           CKA_SIGN, CKA_SIGN_RECOVER, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_DERIVE, CKA_EXTRACTABLE,
           CKA_LOCAL, CKA_NEVER_EXTRACTABLE, CKA_ALWAYS_SENSITIVE, CKA_MODIFIABLE});
constexpr Table J_STR = table({CKA_LABEL, CKA_APPLICATION});
constexpr Table J_BYTE = table(
    {CKA_VALUE, CKA_ISSUER, CKA_SERIAL_NUMBER, CKA_SUBJECT, CKA_ID, CKA_EC_PARAMS, CKA_EC_POINT});
constexpr Table J_DATE = table({0x0AC, CKA_END_DATE});
constexpr Table J_BIGI =
    table({CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2,
           CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT, CKA_PRIME, CKA_SUBPRIME, CKA_BASE});

constexpr bool isIn(jint val, const Table& list) {
  return std::find(list.begin(), list.end(), val) != list.end();
}

enum class JavaType : unsigned char { kInt, kBool, kString, kByteArray, kDate, kBigInteger, kNone };

/// The first table that lists the attribute type decides.
constexpr JavaType findJavaType(jint attr) {
  return isIn(attr, J_INT)    ? JavaType::kInt
         : isIn(attr, J_BOOL) ? JavaType::kBool
         : isIn(attr, J_STR)  ? JavaType::kString
         : isIn(attr, J_BYTE) ? JavaType::kByteArray
         : isIn(attr, J_DATE) ? JavaType::kDate
         : isIn(attr, J_BIGI) ? JavaType::kBigInteger
                              : JavaType::kNone;
}

// A hundred comparisons would be a twentieth of a read, so the compiler makes them for the types
// up to the largest in a table.
constexpr auto kJavaTypes = [] {
  std::array<JavaType, CKA_EC_POINT + 1> types = {};
  jint attr = 0;
  for (JavaType& type : types) type = findJavaType(attr++);
  return types;
}();

JavaType javaType(jint attr) {
  const auto at = static_cast<std::size_t>(attr);
  return at < kJavaTypes.size() ? kJavaTypes[at] : findJavaType(attr);
}

struct Handles {
  CK_SESSION_HANDLE session;
  CK_OBJECT_HANDLE object;
};

/// The object's handle and that of its session; empty with an exception pending.
std::optional<Handles> readHandles(JNIEnv* env, jobject obj) {
  const std::optional<CK_OBJECT_HANDLE> ckObj = getObjectID(env, obj);
  if (!ckObj) return std::nullopt;
  const std::optional<CK_SESSION_HANDLE> ckSessionID = getObjSessionID(env, obj);
  if (!ckSessionID) return std::nullopt;
  return Handles{*ckSessionID, *ckObj};
}

/// The same, traced; what follows the start text of every method but the date getter.
std::optional<Handles> readHandlesTraced(JNIEnv* env, jobject obj) {
  const std::optional<Handles> handles = readHandles(env, obj);
  if (handles) TRACE("(obj= %li)(ses=%li)\n", handles->object, handles->session);
  return handles;
}

/// One attribute value as the bridge returned it: `size` bytes and a zero byte after them.
struct Value {
  HeapBlock<CK_BYTE> bytes;  // null after a failure, with an exception pending
  CK_ULONG size = 0;
};

Value readValue(JNIEnv* env, const Handles& handles, jint attr) {
  CK_ATTRIBUTE ckAttr = {J2CK_INT(attr), nullptr, 0};
  const CK_RV ckRv = bridge::getAttributeValue(handles.session, handles.object, &ckAttr);
  if (throwIfFailed(env, ckRv)) return {};
  return {HeapBlock<CK_BYTE>(static_cast<CK_BYTE*>(ckAttr.pValue)), ckAttr.ulValueLen};
}

/// The opening of every getter but that of dates: start text, handles, their trace, the value.
/// @param kind how the start text names the Java type
Value readTraced(JNIEnv* env, jobject obj, jint attr, const char* kind) {
  TRACE("JNI: start PKCS11Object.getAttr(%li) %s... ", static_cast<long>(attr), kind);
  const std::optional<Handles> handles = readHandlesTraced(env, obj);
  return handles ? readValue(env, *handles, attr) : Value();
}

/// The value of a type that has no empty ones: refuses one with the message `msg`.
Value refuseEmpty(JNIEnv* env, Value value, const char* msg) {
  if (value.bytes == nullptr || value.size != 0) return value;
  throwExc(env, msg);
  return {};
}

/// @return empty with an exception pending
std::optional<jboolean> readBool(JNIEnv* env, jobject obj, jint attr) {
  const Value value = refuseEmpty(env, readTraced(env, obj, attr, "Bool"), "VOID boolean field");
  if (value.bytes == nullptr) return std::nullopt;
  return CK2J_BOOL(value.bytes[0]);
}

/// @return empty with an exception pending
std::optional<jint> readInt(JNIEnv* env, jobject obj, jint attr) {
  const Value value = refuseEmpty(env, readTraced(env, obj, attr, "Int"), "VOID int field");
  if (value.bytes == nullptr) return std::nullopt;
  // A module built with a narrower integer returns fewer bytes; padded with zeros they read right.
  CK_ULONG number = 0;
  std::memcpy(&number, value.bytes.get(), std::min<CK_ULONG>(value.size, sizeof number));
  return CK2J_INT(number);
}

jstring readString(JNIEnv* env, jobject obj, jint attr) {
  const Value value = readTraced(env, obj, attr, "String");
  if (value.bytes == nullptr) return nullptr;
  if (!fitsJavaArray(env, value.size, bridge::CKR_ZOV_NOSPACE)) return nullptr;
  return env->NewStringUTF(reinterpret_cast<const char*>(value.bytes.get()));
}

/// A byte[] of `lead` zero bytes and the value; null with an exception pending.
jbyteArray newByteArray(JNIEnv* env, const Value& value, jint lead) {
  if (!fitsJavaArray(env, value.size + J2CK_INT(lead), bridge::CKR_ZOV_NOSPACE)) return nullptr;
  const jsize size = CK2J_INT(value.size);
  const jbyteArray array = env->NewByteArray(lead + size);
  if (array == nullptr) return nullptr;
  env->SetByteArrayRegion(array, lead, size, reinterpret_cast<const jbyte*>(value.bytes.get()));
  return array;
}

jbyteArray readByteArray(JNIEnv* env, jobject obj, jint attr) {
  const Value value = readTraced(env, obj, attr, "ByteArray");
  return value.bytes != nullptr ? newByteArray(env, value, 0) : nullptr;
}

/// The first eight bytes of a value as text. Some tokens store digit values in place of ASCII
/// digits; the first byte, which is not 0, tells.
void dateText(const CK_BYTE* bytes, char (&date)[kDateSize + 1]) {
  const int offset = bytes[0] <= 9 ? '0' : 0;
  for (std::size_t i = 0; i < kDateSize; ++i) date[i] = static_cast<char>(bytes[i] + offset);
  date[kDateSize] = '\0';
}

jobject readDate(JNIEnv* env, jobject obj, jint attr) {
  constexpr char kVoid[] = "VOID Date field";
  TRACE("JNI: start PKCS11Object.getDateAttr(%li)... ", static_cast<long>(attr));
  const std::optional<Handles> handles = readHandles(env, obj);
  if (!handles) return nullptr;
  const Value value = refuseEmpty(env, readValue(env, *handles, attr), kVoid);
  if (value.bytes == nullptr) return nullptr;
  if (value.bytes[0] == 0) traceLine("strelen(ckDatePtr) = 0!");
  if (value.bytes[0] == 0 || value.size < kDateSize) {
    throwExc(env, kVoid);
    return nullptr;
  }
  char date[kDateSize + 1];
  dateText(value.bytes.get(), date);

  TRACE("JNI: creating jobject Date...");
  jclass formatCl = nullptr;
  const jobject format = newDateFormat(env, &formatCl);
  if (format == nullptr) return nullptr;
  const jmethodID parse =
      env->GetMethodID(formatCl, "parse", "(Ljava/lang/String;)Ljava/util/Date;");
  if (parse == nullptr) return nullptr;
  const jstring text = env->NewStringUTF(date);
  if (text == nullptr) return nullptr;
  const jobject result = env->CallObjectMethod(format, parse, text);
  if (env->ExceptionCheck() != JNI_FALSE) return nullptr;
  traceLine("OK");
  return result;
}

jobject readBigInteger(JNIEnv* env, jobject obj, jint attr) {
  const Value value =
      refuseEmpty(env, readTraced(env, obj, attr, "BigInt"), "VOID BigInteger field");
  if (value.bytes == nullptr) return nullptr;
  // A new array is all zeros, so the leading byte that keeps the number positive is there already.
  const jbyteArray magnitude = newByteArray(env, value, 1);
  if (magnitude == nullptr) return nullptr;
  TRACE("JNI: creating jobject BigInteger...");
  return created(newObject(env, "java/math/BigInteger", "([B)V", magnitude));
}

/// The value as a new Integer; null with an exception pending.
jobject readInteger(JNIEnv* env, jobject obj, jint attr) {
  const std::optional<jint> intVal = readInt(env, obj, attr);
  if (!intVal) return nullptr;
  TRACE("JNI: creating jobject Integer...");
  return created(newObject(env, "java/lang/Integer", "(I)V", *intVal));
}

/// The value as a new Boolean; null with an exception pending.
jobject readBoolean(JNIEnv* env, jobject obj, jint attr) {
  const std::optional<jboolean> boolVal = readBool(env, obj, attr);
  if (!boolVal) return nullptr;
  TRACE("JNI: creating jobject Boolean...");
  return created(newObject(env, "java/lang/Boolean", "(Z)V", *boolVal));
}

/// Sets one attribute to the `size` bytes at `ckVal`.
void setScalar(JNIEnv* env, jobject obj, jint attr, void* ckVal, CK_ULONG size) {
  TRACE("JNI: start PKCS11Object.setAttr(%li)... ", static_cast<long>(attr));
  const std::optional<Handles> handles = readHandlesTraced(env, obj);
  if (!handles) return;
  CK_ATTRIBUTE ckAttr = {J2CK_INT(attr), ckVal, size};
  throwIfFailed(env, bridge::setAttributeValue(handles->session, handles->object, &ckAttr, 1));
}

}  // namespace

// ---- The object as a whole ----

QUARVEL_NOT_SUPPORTED(jobject, Object_copy, jobject, jintArray, jobjectArray)

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_destroy(JNIEnv* env,
                                                                             jobject obj) {
  TRACE("JNI: start PKCS11Object.destroy... ");
  const std::optional<Handles> handles = readHandlesTraced(env, obj);
  if (handles) throwIfFailed(env, bridge::destroyObject(handles->session, handles->object));
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_size(JNIEnv* env,
                                                                          jobject obj) {
  TRACE("JNI: start PKCS11Object.size... ");
  const std::optional<Handles> handles = readHandlesTraced(env, obj);
  CK_ULONG ckSize = 0;
  if (!handles ||
      throwIfFailed(env, bridge::getObjectSize(handles->session, handles->object, &ckSize))) {
    return -1;
  }
  return CK2J_INT(ckSize);
}

// ---- Reading attributes ----

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getAttributeValue(
    JNIEnv* env, jobject obj, jint attr) {
  switch (javaType(attr)) {
    case JavaType::kInt:
      return readInteger(env, obj, attr);
    case JavaType::kBool:
      return readBoolean(env, obj, attr);
    case JavaType::kString:
      return readString(env, obj, attr);
    case JavaType::kByteArray:
      return readByteArray(env, obj, attr);
    case JavaType::kDate:
      return readDate(env, obj, attr);
    case JavaType::kBigInteger:
      return readBigInteger(env, obj, attr);
    case JavaType::kNone:
      break;
  }
  throwExc(env, "Object type not valid");
  return nullptr;
}

JNIEXPORT jboolean JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getBoolAttributeValue(
    JNIEnv* env, jobject obj, jint attr) {
  return readBool(env, obj, attr).value_or(JNI_FALSE);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getIntAttributeValue(
    JNIEnv* env, jobject obj, jint attr) {
  return readInt(env, obj, attr).value_or(-1);
}

JNIEXPORT jstring JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getStringAttributeValue(
    JNIEnv* env, jobject obj, jint attr) {
  return readString(env, obj, attr);
}

JNIEXPORT jbyteArray JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getByteArrayAttributeValue(JNIEnv* env, jobject obj,
                                                                         jint attr) {
  return readByteArray(env, obj, attr);
}

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getDateAttributeValue(
    JNIEnv* env, jobject obj, jint attr) {
  return readDate(env, obj, attr);
}

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_getBigIntegerAttributeValue(
    JNIEnv* env, jobject obj, jint attr) {
  return readBigInteger(env, obj, attr);
}

// ---- Writing attributes ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_setAttributeValue(
    JNIEnv* env, jobject obj, jint attr, jobject value) {
  TRACE("JNI: start PKCS11Object.setAttr(%li)... ", static_cast<long>(attr));
  const std::optional<Handles> handles = readHandlesTraced(env, obj);
  if (!handles) return;
  CK_ATTRIBUTE ckAttr;
  if (J2CK_ATTR(env, attr, value, &ckAttr) == 0) {
    traceLine("\nERROR: cannot parse passed object");
    return;
  }
  HeapBlock<CK_BYTE> ckVal(static_cast<CK_BYTE*>(ckAttr.pValue));  // the module may write to it
  const CK_RV ckRv = bridge::setAttributeValue(handles->session, handles->object, &ckAttr, 1);
  ckVal.reset();
  throwIfFailed(env, ckRv);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_setAttributeValues(
    JNIEnv* env, jobject obj, jintArray attrArray, jobjectArray valArray) {
  TRACE("JNI: start PKCS11Object.setAttrValues... ");
  const std::optional<Handles> handles = readHandlesTraced(env, obj);
  if (!handles) return;
  Template ckAttr;
  const Types attrA = buildTemplate(env, attrArray, valArray, Surplus::kRefused, ckAttr);
  if (attrA == nullptr) return;
  throwIfFailed(env, bridge::setAttributeValue(
                         handles->session, handles->object, ckAttr.get(), entryCount(ckAttr)));
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_setBoolAttributeValue(
    JNIEnv* env, jobject obj, jint attr, jboolean value) {
  CK_BBOOL ckVal = J2CK_BOOL(value);
  setScalar(env, obj, attr, &ckVal, sizeof ckVal);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Object_setIntAttributeValue(
    JNIEnv* env, jobject obj, jint attr, jint value) {
  CK_ULONG ckVal = J2CK_INT(value);
  setScalar(env, obj, attr, &ckVal, sizeof ckVal);
}
