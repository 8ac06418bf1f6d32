// SPDX-License-Identifier: Apache-2.0
// The Java side of the native code: the contract with the Java classes, conversions between
// PKCS#11 and Java values, attribute templates, exceptions. Knows nothing of the module.
//
// Nothing is cached: every use looks its class and members up by name, and no global reference is
// taken. Unless it says otherwise, a function that fails leaves exactly one Java exception pending,
// and its caller then only gives back what it holds and returns.
#ifndef QUARVEL_SRC_JNIUTIL_H_
#define QUARVEL_SRC_JNIUTIL_H_

#include <jni.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <tuple>

#include "pkcs11.h"
#include "trace.h"

struct Free {
  void operator()(void* block) const { std::free(block); }
};
/// A block of the C heap, freed at scope exit.
template <typename T>
using HeapBlock = std::unique_ptr<T[], Free>;

// ---- Exceptions ----

inline constexpr char kInternalError[] = "Internal error";
inline constexpr char kOutOfMemory[] = "Internal error: Out of memory";
inline constexpr char kDifferentLength[] = "Different array length";

/// Raises PKCS11Exception with the message `msg`.
[[gnu::cold]] void throwExc(JNIEnv* env, const char* msg);

/// Raises PKCS11Exception for a return value: 1 to 0x7FFFFFFF as its code, every larger value as
/// the message kInternalError, 0 as a message of its own.
[[gnu::cold]] void throwCKExc(JNIEnv* env, CK_RV errCode);

/// Raises PKCS11Exception with the low 32 bits of a return value and whether it exceeds 0x7FFFFFFF;
/// for 0 as throwCKExc.
void throwCKExcAS(JNIEnv* env, CK_RV errCode);

/// Raises what throwCKExc raises, for a value other than CKR_OK.
/// @return whether it raised
bool throwIfFailed(JNIEnv* env, CK_RV ckRv);

/// Defines a native method that is refused with `message` and returns `value`; `method` is its
/// class and name, after the value come its parameter types, the receiver first.
#define QUARVEL_REFUSED(Result, method, message, value, ...)                \
  JNIEXPORT Result JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11##method( \
      JNIEnv* env, __VA_ARGS__) {                                           \
    throwExc(env, message);                                                 \
    return value;                                                           \
  }
/// The same for nearly all of them: "Not supported", and null, false or 0.
#define QUARVEL_NOT_SUPPORTED(Result, method, ...) \
  QUARVEL_REFUSED(Result, method, "Not supported", Result(), __VA_ARGS__)

// ---- Handles ----
//
// Each reads a 32-bit field of a Java handle object and widens it with its sign. A null object, or
// a null session inside an object, raises CKR_ARGUMENTS_BAD; a class without the field leaves the
// virtual machine's own error. The result is then empty.

std::optional<CK_SLOT_ID> getSlotID(JNIEnv* env, jobject slot);
std::optional<CK_SESSION_HANDLE> getSessionID(JNIEnv* env, jobject session);
std::optional<CK_OBJECT_HANDLE> getObjectID(JNIEnv* env, jobject obj);
/// The handle of the session that `obj` belongs to.
std::optional<CK_SESSION_HANDLE> getObjSessionID(JNIEnv* env, jobject obj);

// ---- Scalar conversions ----

/// A version as major * 256 + minor.
inline jint CK2J_VER(CK_VERSION ver) { return ver.major * 256 + ver.minor; }
/// The low 32 bits.
inline jint CK2J_INT(CK_ULONG val) { return static_cast<jint>(val); }
inline jint CK2J_SLOT(CK_SLOT_ID val) { return static_cast<jint>(val); }
inline jint CK2J_SESSION(CK_SESSION_HANDLE val) { return static_cast<jint>(val); }
inline jint CK2J_FLAGS(CK_FLAGS flags) { return static_cast<jint>(flags); }
inline jboolean CK2J_BOOL(CK_BBOOL val) { return val != 0 ? JNI_TRUE : JNI_FALSE; }
inline jlong CK2J_PTR(CK_FUNCTION_LIST_PTR ptr) { return reinterpret_cast<jlong>(ptr); }

/// The byte unchanged.
inline CK_BBOOL J2CK_BOOL(jboolean boolVal) { return boolVal; }
/// Widened with the sign.
inline CK_FLAGS J2CK_FLAGS(jint flags) { return static_cast<CK_FLAGS>(flags); }
inline CK_ULONG J2CK_INT(jint value) { return static_cast<CK_ULONG>(value); }

/// A Java string of the `size` bytes at `str`, up to a NUL if they hold one; nothing is trimmed.
/// @return null after printing an error line when the string cannot be made; without memory for
/// the copy of the bytes kOutOfMemory is raised
inline jstring CK2J_STR(JNIEnv* env, const CK_CHAR* str, int size) {
  constexpr char kError[] = "JNI:##########ERROR CK2J_STR################";
  const auto length = static_cast<std::size_t>(size);
  const HeapBlock<char> text(static_cast<char*>(std::malloc(length + 1)));
  if (text == nullptr) {
    std::puts(kError);
    throwExc(env, kOutOfMemory);
    return nullptr;
  }
  std::memcpy(text.get(), str, length);
  text[length] = '\0';
  const jstring string = env->NewStringUTF(text.get());
  if (string == nullptr) std::puts(kError);
  return string;
}

/// The same for a whole text field of a PKCS#11 structure.
template <std::size_t size>
jstring CK2J_STR(JNIEnv* env, const CK_CHAR (&field)[size]) {
  return CK2J_STR(env, field, static_cast<int>(size));
}

/// Whether `count` elements fit a Java array; raises PKCS11Exception if not, for the return value
/// `refusal` that stands for it.
bool fitsJavaArray(JNIEnv* env, CK_ULONG count, CK_RV refusal);

// ---- New Java objects ----

inline constexpr char kSlotClass[] = "it/quarvel/pkcs11/nat/NativePKCS11Slot";
inline constexpr char kSlotInit[] = "(Lit/quarvel/pkcs11/nat/NativePKCS11;I)V";
inline constexpr char kTokenObjectClass[] = "it/quarvel/pkcs11/nat/NativePKCS11Object";
inline constexpr char kTokenObjectInit[] = "(Lit/quarvel/pkcs11/nat/NativePKCS11Session;I)V";

/// Ends the trace line of an object's creation, unless it failed.
/// @return the object
inline jobject created(jobject object) {
  if (object != nullptr) traceLine("OK");
  return object;
}

/// A class with one of its constructors.
struct Constructor {
  jclass cl;
  jmethodID init;  // null when class or constructor is missing
};

Constructor findConstructor(JNIEnv* env, const char* className, const char* signature);

/// The constructor's argument that `value` stands for: itself, but a string for a text field.
/// @param made cleared when the string cannot be made; while it is false nothing is attempted
template <typename T>
T constructorArgument(JNIEnv* /*env*/, T value, bool* /*made*/) {
  return value;
}
template <std::size_t size>
jstring constructorArgument(JNIEnv* env, const CK_CHAR (&field)[size], bool* made) {
  const jstring string = *made ? CK2J_STR(env, field) : nullptr;
  *made = string != nullptr;
  return string;
}

/// A new object from class name, constructor signature and arguments: JNI types as the signature
/// states them, and text fields of a PKCS#11 structure for strings, made in this order when class
/// and constructor have been found.
/// @return null with an exception pending
template <typename... Args>
jobject newObject(JNIEnv* env, const char* className, const char* signature, const Args&... args) {
  const Constructor costr = findConstructor(env, className, signature);
  if (costr.init == nullptr) return nullptr;
  bool made = true;
  // Braces, unlike parentheses, evaluate from left to right.
  const std::tuple values{constructorArgument(env, args, &made)...};
  if (!made) return nullptr;
  const auto construct = [&](auto... value) {
    return env->NewObject(costr.cl, costr.init, value...);
  };
  return std::apply(construct, values);
}

/// A new NativePKCS11Slot for the ID, by the constructor of kSlotInit; traces the number that Java
/// gets. Null with the virtual machine's error.
jobject newSlot(JNIEnv* env, const Constructor& slotCostr, jobject module, CK_SLOT_ID slotID);

/// A new NativePKCS11Session for the handle, on `slot`; null with the virtual machine's error.
jobject newSession(JNIEnv* env, jobject slot, CK_SESSION_HANDLE handle);

/// A new NativePKCS11Object for the handle, in `session`; null with the virtual machine's error.
jobject newTokenObject(JNIEnv* env, jobject session, CK_OBJECT_HANDLE handle);

/// A new Object[2] of NativePKCS11Object, public key first, and its trace; null with the virtual
/// machine's error pending.
jobjectArray newKeyPair(JNIEnv* env, jobject session, CK_OBJECT_HANDLE pubKey,
                        CK_OBJECT_HANDLE prvKey);

/// A new SimpleDateFormat for the pattern "yyyyMMdd" (default time zone, lenient).
/// @param formatCl receives its class
/// @return null with the virtual machine's error pending
jobject newDateFormat(JNIEnv* env, jclass* formatCl);

// ---- Java strings and arrays held for one call ----
//
// Each owner gives what it holds back at scope exit; where the order matters, its reset() does. The
// takers are forced inline: as calls they cost a tenth of the shortest encryption.

struct ReleaseChars {
  JNIEnv* env;
  jstring string;
  void operator()(const char* chars) const { env->ReleaseStringUTFChars(string, chars); }
};
/// The modified UTF-8 characters of a string, zero-terminated.
using Chars = std::unique_ptr<const char[], ReleaseChars>;

struct ReleaseBytes {
  JNIEnv* env;
  jbyteArray array;
  void operator()(jbyte* elements) const { env->ReleaseByteArrayElements(array, elements, 0); }
};
/// The elements of a byte[], copied back when they are given up.
using Bytes = std::unique_ptr<jbyte[], ReleaseBytes>;

struct ReleaseTypes {
  JNIEnv* env;
  jintArray array;
  void operator()(jint* elements) const {
    env->ReleaseIntArrayElements(array, elements, JNI_ABORT);
  }
};
/// The elements of an int[] of attribute types; nothing is copied back.
using Types = std::unique_ptr<jint[], ReleaseTypes>;

/// The characters of a string that is not null; null when they cannot be had, with nothing raised.
inline Chars charsOf(JNIEnv* env, jstring string) {
  return Chars(env->GetStringUTFChars(string, nullptr), {env, string});
}

/// The characters of a string; null after raising PKCS11Exception with `msg` (a null string, or
/// characters not to be had).
[[gnu::always_inline]] inline Chars takeChars(JNIEnv* env, jstring string,
                                              const char* msg = kInternalError) {
  Chars chars = string != nullptr ? charsOf(env, string) : Chars();
  if (chars == nullptr) throwExc(env, msg);
  return chars;
}

/// The elements of an array; null after raising CKR_ARGUMENTS_BAD (a null array) or "Internal
/// error: Out of memory" (elements not to be had).
[[gnu::always_inline]] inline Bytes takeBytes(JNIEnv* env, jbyteArray array) {
  if (array == nullptr) {
    throwCKExc(env, CKR_ARGUMENTS_BAD);
    return {};
  }
  Bytes elements(env->GetByteArrayElements(array, nullptr), {env, array});
  if (elements == nullptr) throwExc(env, kOutOfMemory);
  return elements;
}

/// The same for an array of which the module uses the first `length` bytes: raises `refusal` for a
/// length that is negative or exceeds the array.
[[gnu::always_inline]] inline Bytes takeBytes(JNIEnv* env, jbyteArray array, jint length,
                                              CK_RV refusal) {
  if (array != nullptr && (length < 0 || length > env->GetArrayLength(array))) {
    throwCKExc(env, refusal);
    return {};
  }
  return takeBytes(env, array);
}

/// The elements as the module's bytes.
inline CK_BYTE_PTR moduleBytes(const Bytes& elements) {
  return reinterpret_cast<CK_BYTE_PTR>(elements.get());
}
/// Characters as the module's bytes; PKCS#11 declares what it only reads without const.
inline CK_BYTE_PTR moduleBytes(const Chars& chars) {
  return reinterpret_cast<CK_BYTE_PTR>(const_cast<char*>(chars.get()));
}

// ---- Attribute templates ----

/// Fills one entry from a Java value: String, byte[], Integer, Boolean, BigInteger or Date. The
/// type is set in any case; pValue and ulValueLen only on success, when the caller owns the block.
/// @return 1; 0 for a value that cannot be converted, which raises nothing by itself (but a String
/// whose characters cannot be had does)
int J2CK_ATTR(JNIEnv* env, jint type, jobject obj, CK_ATTRIBUTE* ckAttr);

/// The memory of a template. Its value blocks are remembered behind its entries, in the same heap
/// block, since a module may write to the entries.
struct FreeTemplate {
  CK_ULONG count = 0;   // of entries
  CK_ULONG filled = 0;  // of them, from the first on, with a value

  void** values(CK_ATTRIBUTE* ckAttr) const { return reinterpret_cast<void**>(ckAttr + count); }
  void freeValues(CK_ATTRIBUTE* ckAttr) {
    for (CK_ULONG i = 0; i < filled; ++i) std::free(values(ckAttr)[i]);
    filled = 0;
  }
  void operator()(CK_ATTRIBUTE* ckAttr) {
    freeValues(ckAttr);
    std::free(ckAttr);
  }
};
/// A C heap array of entries; each value that fillTemplate made is a C heap block of its own.
using Template = std::unique_ptr<CK_ATTRIBUTE[], FreeTemplate>;

inline CK_ULONG entryCount(const Template& ckAttr) { return ckAttr.get_deleter().count; }
/// Frees the values alone, in their order.
inline void freeValues(Template& ckAttr) { ckAttr.get_deleter().freeValues(ckAttr.get()); }

/// The treatment of values without a type.
enum class Surplus { kRefused, kIgnored };

/// Whether the filling of a template traces each of its steps, as that of generateKey does.
enum class Steps { kQuiet, kTraced };

/// Reads the number of entries from the arrays of types and values.
/// @return false after raising `msg` for a null array or lengths that do not go together
bool templateLength(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    const char* msg, CK_ULONG* ckCount, Steps steps = Steps::kQuiet);

/// Room for ckCount entries (also for 0); null after raising kOutOfMemory.
Template newTemplate(JNIEnv* env, CK_ULONG ckCount, Steps steps = Steps::kQuiet);

/// Fills all entries in order.
/// @return the elements of `types`, which go back when the caller drops them: at once when it only
/// compares them with null, after the module's call when it keeps them. Null when they cannot be
/// had (kOutOfMemory is raised) or a value cannot be converted (see J2CK_ATTR);
/// the values before it are freed then, the last first, with traced steps the first first
Types fillTemplate(JNIEnv* env, jintArray types, jobjectArray values, Template& ckAttr,
                   Steps steps = Steps::kQuiet);

/// The whole template procedure: templateLength, newTemplate, fillTemplate.
/// @return as fillTemplate; also null after raising kDifferentLength, or kOutOfMemory for the
/// entries
Types buildTemplate(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    Template& ckAttr, Steps steps = Steps::kQuiet);

#endif  // QUARVEL_SRC_JNIUTIL_H_
