// Java values from text and as text.
//
// They are written null, true, 12, 0x1F, "text" (escapes \\n \\xNN; "x"*9 is nine of them), bytes
// [31 ff] (also [00*1200]), arrays {1, 2} and {"a", 3}. Among the elements of an Object[] numbers
// are Integers, and big[00 ff] is a BigInteger, date20130305 a Date, foreign a Long, number0 to
// number2 a HostileNumber, key and key2 the objects 9 and -9.
#ifndef QUARVEL_TESTS_NATIVE_VALUES_H_
#define QUARVEL_TESTS_NATIVE_VALUES_H_

#include <jni.h>

#include <string>
#include <vector>

/// One value for each letter of `types` (see Method), from texts separated by commas.
std::vector<jvalue> parse(const std::string& types, const std::string& texts);

/// The characters of a quoted text; moves `text` behind it.
std::string unquote(const char** text);

/// Any reference as text, arrays by their elements; with handle objects to whom they belong.
std::string show(jobject object);

/// The pending exception as text, and clears it: the message of a PKCS11Exception, else the class
/// name; empty when none is pending.
std::string takeException();

std::string join(const std::vector<std::string>& parts, const char* between = ", ");

#endif  // QUARVEL_TESTS_NATIVE_VALUES_H_
