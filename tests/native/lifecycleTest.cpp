// SPDX-License-Identifier: Apache-2.0
// Loading, initialising and closing modules, and what a bad module cannot do to the bridge.
#include <gtest/gtest.h>
#include <stdio_ext.h>

#include <cfenv>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

#include "call.h"
#include "jniUtil.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

using scripted::script;

const std::string kLoad = "\"" + scripted::file() + "\"";

/// Whether the trace has an exception for the return value.
bool throws(const Outcome& outcome, const std::string& code) {
  return outcome.did.find("exc number " + code + "...") != std::string::npos;
}

/// Makes a row of calls: l load, i libInitialize, f libFinalize, c a call-through. An "Internal
/// error" must stand for the return value that fits the state of the bridge. @return the results
std::string run(const std::string& steps, const std::string& path = kLoad) {
  const std::map<char, std::string> methods = {
      {'l', "Module.loadPKCS11Library"},
      {'i', "Module.libInitialize"},
      {'f', "Module.libFinalize"},
      {'c', "Session.logout"}};
  std::vector<std::string> results;
  for (const char step : steps) {
    const char* code = step == 'c' && bridge::loaded == 0 ? "80000003" : "80000001";
    debug = 1;
    const Outcome outcome = call(methods.at(step), step == 'l' ? path : "");
    debug = 0;
    EXPECT_TRUE(outcome.exception != kInternalError || throws(outcome, code)) << outcome.did;
    EXPECT_TRUE(step == 'f' || outcome.did.find("<dlclose>") == std::string::npos);
    EXPECT_TRUE(step != 'f' || bridge::finalizeLib() == bridge::CKR_ZOV_NOFUNCPTR);
    results.push_back(outcome.result);
  }
  return join(results, "; ");
}

const std::string kRefused = std::string("void ! ") + kInternalError;

// The bridge starts, and ends, each of these tests without a usable module.
TEST(Lifecycle, BadModulesAreRefusedAndChangeNothing) {
  scripted::reset();
  const std::string refused = std::string("0 ! ") + kInternalError,
                    failed = "0 ! CKR_GENERAL_ERROR (0x5)";
  CK_FUNCTION_LIST* const list = &scripted::list;
  // A row has the path, what C_GetFunctionList answers and hands out, what comes of it, and whether
  // the library stays open.
  const std::vector<std::tuple<std::string, CK_RV, CK_FUNCTION_LIST*, std::string, bool>> modules =
      {{"\"" QUARVEL_CONTRACT "\"", CKR_OK, list, refused, false},
       {"\"libm.so.6\"", CKR_OK, list, refused, true},
       {kLoad, 5, list, failed, true},
       {kLoad, 5, nullptr, failed, true},
       {kLoad, CKR_OK, nullptr, refused, true},
       {"\"" QUARVEL_SILENT "\"", CKR_OK, list, refused, true}};
  for (const bool initialised : {false, true}) {
    for (const auto& [path, answer, handedOut, result, open] : modules) {
      SCOPED_TRACE(path + (initialised ? " over an initialised module" : ""));
      std::optional<FreshModule> earlier;
      if (initialised) earlier.emplace();
      script.answers = {{"C_GetFunctionList", answer}};
      scripted::handedOut = handedOut;
      EXPECT_EQ(run("l", path), result);
      EXPECT_EQ(bridge::hLibrary != nullptr, open);
      // Calls keep reaching an earlier module through its list, if the bad one left it in place,
      // and until libFinalize.
      EXPECT_EQ(
          run("ic"), kRefused + "; " + (initialised && handedOut != nullptr ? "void" : kRefused));
      EXPECT_EQ(run("fc"), "void; " + kRefused);
      EXPECT_EQ(bridge::loaded, 0);
      FreshModule();
    }
  }
}

TEST(Lifecycle, EveryOrderOfTheThreeMethods) {
  const std::string list = std::to_string(reinterpret_cast<jlong>(&scripted::list));
  scripted::reset();
  EXPECT_EQ(run("iffc"), kRefused + "; void; void; " + kRefused);
  EXPECT_EQ(run("lc"), list + "; " + kRefused);  // loaded, not initialised
  script.answers["C_Initialize"] = 0x30;
  EXPECT_EQ(run("ic"), "void ! CKR_DEVICE_ERROR (0x30); " + kRefused);
  script.answers.clear();
  EXPECT_EQ(run("ic"), "void; void");
  script.answers["C_Initialize"] = 0x191;
  EXPECT_EQ(run("ic"), "void ! CKR_CRYPTOKI_ALREADY_INITIALIZED (0x191); void");
  EXPECT_EQ(run("lc"), list + "; void");  // a second load keeps the bridge initialised
  scripted::list.C_Finalize = nullptr;
  EXPECT_EQ(run("fc"), "void; void");  // cannot be finalised: stays open
  scripted::reset();
  script.answers["C_Finalize"] = 5;
  EXPECT_EQ(run("fc"), "void; " + kRefused);  // closed although it failed
  EXPECT_EQ(run("if"), kRefused + "; void");
  run("l");
  scripted::list.C_Initialize = nullptr;
  EXPECT_EQ(run("if"), kRefused + "; void");
}

TEST(Lifecycle, TheEnvironmentSwitchesTheTraceOnAndRedirectsIt) {
  scripted::reset();
  std::ofstream("/var/tmp/vorlenk0.log") << "what is there stays\n";
  setenv("PKCS11_ZOV_DEBUG", "", 1);
  for (const char* time : {"first", "second"}) {
    const Outcome outcome = call("Module.loadPKCS11Library", kLoad);
    EXPECT_EQ(printedOf(outcome.did), "getenv done \nredirecting stdout to /var/tmp/vorlenk0.log ")
        << time;
    EXPECT_EQ(std::exchange(debug, 0), 1);
    EXPECT_NE(__flbf(stdout), 0);  // a crash inside a module leaves its last line in the log
  }
  unsetenv("PKCS11_ZOV_DEBUG");
  std::ostringstream log;
  log << std::ifstream("/var/tmp/vorlenk0.log").rdbuf();
  const std::string load = "setting debug to 1\nJNI: start loadPKCS11Library [(]arg= ";
  const std::string end = "JNI: end loadPKCS11Library\n";
  const std::regex loads("what is there stays\n(" + load + "[^)]*[)](\n[^\n]*){5}" + end + "){2}");
  EXPECT_TRUE(std::regex_match(printedOf(log.str()), loads)) << log.str();
}

// The silent module is linked with -ffast-math, the scripted one is made to round otherwise.
TEST(Lifecycle, ModulesDoNotChangeHowTheThreadComputes) {
  volatile double denormal = 5e-324, one = 1, little = 1e-20;
  scripted::reset();
  run("l", "\"" QUARVEL_SILENT "\"");
  EXPECT_NE(denormal * 3, 0);
  EXPECT_EQ(one - little, 1);
  run("l");
  scripted::list.C_Initialize = scripted::list.C_Finalize = [](void*) {
    std::fesetround(FE_TOWARDZERO);
    return CK_RV{CKR_OK};
  };
  for (const char* step : {"i", "f"}) {
    EXPECT_EQ(run(step), "void");
    EXPECT_EQ(one - little, 1) << step;
  }
  std::fesetround(FE_TONEAREST);
}

// ---- Exceptions for return values ----

TEST(Lifecycle, SuccessBecomesAnExceptionToo) {
  for (const auto raise : {throwCKExc, throwCKExcAS}) {
    raise(java(), CKR_OK);
    EXPECT_EQ(takeException(), "Unknown internal error");
  }
}

TEST(Lifecycle, TextsAreCopiedUpToTheirFirstNulAndKeepTheirBlanks) {
  const CK_CHAR field[] = {'a', 'b', ' ', '\0', 'c'};
  EXPECT_EQ(show(CK2J_STR(java(), field)), "ab ");
}

}  // namespace

// The linker's --wrap sends the credential lookups here: this one finds the alias "found...".
extern "C" {
decltype(bridge::getRSACred) __real_getRSACred, __wrap_getRSACred;
}
CK_RV __wrap_getRSACred(CK_CHAR_PTR alias, CK_ULONG aliasLen, CK_FLAGS flags, CK_CHAR_PTR pin,
                        CK_ULONG pinLen, CK_SLOT_ID* slot, CK_SESSION_HANDLE* session,
                        CK_OBJECT_HANDLE* privateKey, CK_OBJECT_HANDLE* publicKey,
                        CK_OBJECT_HANDLE* certificate) {
  const std::string name(reinterpret_cast<const char*>(alias));
  if (!name.starts_with("found")) {
    return __real_getRSACred(
        alias, aliasLen, flags, pin, pinLen, slot, session, privateKey, publicKey, certificate);
  }
  const std::string pinText = pin != nullptr ? reinterpret_cast<const char*>(pin) : "null";
  std::ostringstream call;
  call << "lookup(" << name << "/" << aliasLen << ", " << flags << ", " << pinText << "/" << pinLen;
  hooks::event(call.str() + ")");
  *slot = 7;
  *session = 5;
  *privateKey = 0x11;
  *publicKey = CK_INVALID_HANDLE;
  *certificate = 0x100000013;
  return script.answers["lookup"];
}
