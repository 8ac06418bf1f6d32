// The virtual machine of the tests, and the handle objects on which methods are called.
#ifndef QUARVEL_TESTS_NATIVE_JVM_H_
#define QUARVEL_TESTS_NATIVE_JVM_H_

#include <jni.h>

#include <string>

/// Starts the virtual machine of QUARVEL_JVM (a libjvm.so) in this process.
/// @return false after printing why it cannot
bool startJava();

/// The real environment of this thread.
JNIEnv* java();

jobject newObject(const std::string& name, const std::string& signature, auto... args) {
  const jclass cl = java()->FindClass(name.c_str());
  return java()->NewObject(cl, java()->GetMethodID(cl, "<init>", signature.c_str()), args...);
}

inline const std::string kPackage = "it/quarvel/pkcs11/nat/";

/// A new handle object, kept for the rest of the process; its class and that of its owner without
/// the package.
jobject newHandle(const std::string& name, const std::string& owner, jobject of, jint handle);

/// Handle objects: module, slot 7, session 5, in it the object 9 and another, -9.
struct Objects {
  jobject module, slot, session, object, other;
};
const Objects& objects();

#endif  // QUARVEL_TESTS_NATIVE_JVM_H_
