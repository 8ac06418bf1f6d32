// The Java side of the tests: the virtual machine, Java values from C++ ones, readable results,
// and every native method callable by name.
#ifndef QUARVEL_TESTS_NATIVE_JAVA_H_
#define QUARVEL_TESTS_NATIVE_JAVA_H_

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

#include "hooks.h"
#include "scripted.h"

/// Starts the virtual machine of QUARVEL_JVM (a libjvm.so) in this process.
/// @return false after printing why it cannot
bool startJava();

/// The real environment of this thread.
JNIEnv* java();

// ---- Values ----
//
// Java values are written as text: null, true, 12, 0x1F, "text" (escapes \\n \\xNN; "x"*9 is nine
// of them), bytes [31 ff] (also [00*1200]), arrays {1, 2} and {"a", 3}. Among the elements of an
// Object[] numbers are Integers, and big[00 ff] is a BigInteger, date20130305 a Date, foreign a
// Long, number0 to number2 a HostileNumber, key and key2 the objects 9 and -9.

/// The Java value of a text whose type a letter says (see Method); moves `text` behind it.
jvalue parse(char type, const char** text);
/// The characters of a quoted text.
std::string unquote(const char** text);

// ---- Native methods ----

struct Method {
  std::string name;        // as Class.method, the class without "NativePKCS11"; Module for itself
  std::string parameters;  // a letter for each: I Z J, S String, B byte[], A int[], O Object[], L
  char result;             // the same, V for void
  bool refused;            // not offered: raises "Not supported"
  std::function<jvalue(JNIEnv*, jobject, const std::vector<jvalue>&)> invoke;
};

/// All native methods.
const std::vector<Method>& methods();
const Method& method(const std::string& name);
/// What a method returns beside an exception.
std::string failureValue(const Method& method);

/// Handle objects: module, slot 7, session 5, in it the object 9 and another, -9. They live as long
/// as the process.
struct Objects {
  jobject module, slot, session, object, other;
};
const Objects& objects();

struct Outcome {
  std::string result;  // "3", "null", "void", ...; then " ! " and the message of an exception
  std::vector<std::string> moduleCalls;
  std::vector<std::string> arrays;  // what the byte[] arguments hold afterwards
  std::string output;               // on standard output
  std::string marked;               // the same with <marks> of what was given back, freed or raised
  std::string code;                 // the return value in the trace of an exception, hexadecimal
  hooks::Run run;
};

/// Calls a native method on the handle object of its class, with a fresh record of module calls.
/// Expects what holds for every run: no violation, nothing held, heap balanced.
/// @param arguments separated by commas
/// @param receiver in place of that object
Outcome call(const std::string& name, const std::string& arguments, hooks::Run run = {},
             const jobject* receiver = nullptr);

/// A new handle object, kept for the rest of the process.
jobject newHandle(const std::string& name, const std::string& owner, jobject of, jint handle);

/// Arguments with which the method succeeds, one text each.
std::vector<std::string> goodArguments(const Method& method);
std::string join(const std::vector<std::string>& parts, const char* between = ", ");

/// The pending exception as text, and clears it: the message of a PKCS11Exception, else the class
/// name; empty when none is pending.
std::string takeException();

/// Any object reference as text, arrays by their elements.
std::string show(jobject object);

/// Loads and initialises the scripted module with `debug` off, its record empty after it.
void freshModule();
void shutModule();

#endif  // QUARVEL_TESTS_NATIVE_JAVA_H_
