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
void throwExc(JNIEnv* env, const char* msg);

/// Raises PKCS11Exception for a return value: 1 to 0x7FFFFFFF as its code, every larger value as
/// the message "Internal error", 0 as "Unknown internal error".
void throwCKExc(JNIEnv* env, CK_RV errCode);

/// Raises PKCS11Exception with the low 32 bits of a return value and whether it exceeds 0x7FFFFFFF;
/// for 0 as throwCKExc.
void throwCKExcAS(JNIEnv* env, CK_RV errCode);

/// Raises what throwCKExc raises, for a value other than CKR_OK.
/// @return whether it raised
bool throwIfFailed(JNIEnv* env, CK_RV ckRv);

/// Raises the refusal of a method that the library does not offer.
void notSupported(JNIEnv* env);

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
/// the copy of the bytes "Internal error: Out of memory" is raised
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

/// The modified UTF-8 characters of a string, zero-terminated, for ReleaseStringUTFChars; null
/// after raising PKCS11Exception with `msg` (a null string, or characters not to be had).
const char* takeChars(JNIEnv* env, jstring string, const char* msg = kInternalError);

/// The elements of an array, for releaseBytes; null after raising CKR_ARGUMENTS_BAD (a null array)
/// or "Internal error: Out of memory" (elements not to be had).
jbyte* takeBytes(JNIEnv* env, jbyteArray array);

/// The same for input of which `length` bytes are used: also refuses a length that is negative or
/// exceeds the array.
jbyte* takeInput(JNIEnv* env, jbyteArray array, jint length);

/// Copies the elements back and gives them up.
void releaseBytes(JNIEnv* env, jbyteArray array, jbyte* elements);

/// The elements as the module's bytes.
inline CK_BYTE_PTR moduleBytes(jbyte* elements) { return reinterpret_cast<CK_BYTE_PTR>(elements); }
/// Characters as the module's bytes; PKCS#11 declares what it only reads without const.
inline CK_BYTE_PTR moduleBytes(const char* chars) {
  return reinterpret_cast<CK_BYTE_PTR>(const_cast<char*>(chars));
}

// ---- Attribute templates ----
//
// A template is a C heap array of CK_ATTRIBUTE; each value is a C heap block of its own. Behind the
// entries the same block remembers the values, since a module may write to the entries.

using ValueBlock = void*;

/// The values of a template of ckCount entries, in their order.
inline ValueBlock* valueBlocks(CK_ATTRIBUTE* ckAttr, CK_ULONG ckCount) {
  return reinterpret_cast<ValueBlock*>(ckAttr + ckCount);
}

/// Fills one entry from a Java value: String, byte[], Integer, Boolean, BigInteger or Date. The
/// type is set in any case; pValue and ulValueLen only on success, when the caller owns the block.
/// @return 1; 0 for a value that cannot be converted, which raises nothing by itself (a String
/// whose characters cannot be had raises "Internal error (creating String)")
int J2CK_ATTR(JNIEnv* env, jint type, jobject obj, CK_ATTRIBUTE* ckAttr);

/// What becomes of values without a type.
enum class Surplus { kRefused, kIgnored };

/// Reads the number of entries from the arrays of types and values.
/// @return false after raising `msg` for a null array or lengths that do not go together
bool templateLength(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    const char* msg, CK_ULONG* ckCount);

/// Room for ckCount entries (also for 0) and their values' addresses in the C heap; null without
/// memory, with nothing raised.
CK_ATTRIBUTE* allocateTemplate(CK_ULONG ckCount);

/// The same, raising "Internal error: Out of memory".
CK_ATTRIBUTE* newTemplate(JNIEnv* env, CK_ULONG ckCount);

/// The elements of the types, for releaseTypes; null after raising "Internal error: Out of memory".
jint* takeTypes(JNIEnv* env, jintArray types);
/// Gives the elements up; nothing is copied back.
void releaseTypes(JNIEnv* env, jintArray types, jint* elements);

/// Fills all ckCount entries in order.
/// @return the elements of `types`, still held; null after giving everything back but the entry
/// array when one value cannot be converted (see J2CK_ATTR) or the types cannot be had
jint* fillTemplate(JNIEnv* env, jintArray types, jobjectArray values, CK_ATTRIBUTE* ckAttr,
                   CK_ULONG ckCount);

/// The whole template procedure: templateLength, newTemplate, fillTemplate.
/// @return as fillTemplate, with the template in *ckAttr; on null there is nothing to free
jint* buildTemplate(JNIEnv* env, jintArray types, jobjectArray values, Surplus surplus,
                    CK_ATTRIBUTE** ckAttr, CK_ULONG* ckCount);

/// Frees the values of entries 0 to ckCount - 1.
void freeValues(CK_ATTRIBUTE* ckAttr, CK_ULONG ckCount);
/// Frees values and entries.
void freeTemplate(CK_ATTRIBUTE* ckAttr, CK_ULONG ckCount);

#endif  // QUARVEL_SRC_JNIUTIL_H_
