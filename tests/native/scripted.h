// SPDX-License-Identifier: Apache-2.0
// A PKCS#11 module for tests, loaded by path like any other: reports every call with its arguments
// and answers what the script says. A test may also replace entries of `list`.
#ifndef QUARVEL_TESTS_NATIVE_SCRIPTED_H_
#define QUARVEL_TESTS_NATIVE_SCRIPTED_H_

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "pkcs11.h"

namespace scripted {

using Bytes = std::vector<CK_BYTE>;

struct Script {
  std::map<std::string, CK_RV> answers;  // by function name, "*" for every function
  std::size_t failFrom =
      0;  // the call of this number from now on, and all after it, answer failWith
  CK_RV failWith = CKR_OK;
  std::vector<CK_ULONG> slots = {7, 8};
  std::vector<CK_ULONG> mechanisms = {0, 1, 6};
  Bytes value = {'2', '0', '1', '5', '1', '2', '3', '1'};  // of every attribute
  std::vector<CK_ULONG> found = {0x21};                    // each search call takes the first
  CK_ULONG handle = 0x11;                      // of the next new session or object, then one more
  Bytes output = {0xA1, 0xA2, 0xA3};           // of signing, encryption, decryption and wrapping
  std::vector<CK_ULONG> lies;                  // what the first and second call report as size
  CK_ULONG (*claim)(CK_ULONG room) = nullptr;  // what every output that fills its room has as size
  CK_BYTE filler = 0;                          // of every information structure, instead of letters
  bool movesValues = false, spoilsTemplates = false;  // of what is read, of what is given
};

extern Script script;
extern void (*onCall)(const std::string& call);  // told of every call with its arguments
extern CK_FUNCTION_LIST list;
extern CK_FUNCTION_LIST_PTR handedOut;  // by C_GetFunctionList

/// A text as a template argument.
template <std::size_t n>
struct Name {
  char chars[n];
  constexpr Name(const char (&from)[n]) { std::copy(from, from + n, chars); }
};

/// Bytes as a report shows them.
std::string data(const void* bytes, CK_ULONG size);

/// The file that this module is.
std::string file();

/// Good behaviour: a fresh script and all functions in the list. Then the misbehaviour is installed
/// that has the number in the environment variable QUARVEL_MISBEHAVIOUR, without it the first; with
/// "names" in that variable the process prints all names, in order, and ends. QUARVEL_LIES has the
/// two sizes to report.
void reset();

/// One way to misbehave: replaces entries of the list or bends the script.
struct Misbehaviour {
  const char* name;
  void (*install)();
};
/// All that this build of the module knows, from a file beside it.
const std::vector<Misbehaviour>& misbehaviours();

}  // namespace scripted

#endif  // QUARVEL_TESTS_NATIVE_SCRIPTED_H_
