// SPDX-License-Identifier: Apache-2.0
// The adapter's sources are linked into this program and stand in front of the scripted module.
// Tests of loading load copies of the libraries.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "scripted.h"

using scripted::script;
using H = CK_ULONG;  // any handle or number
using Handles = std::vector<H>;
static CK_FUNCTION_LIST& module = scripted::list;

// ---- The heap of the adapter: what it holds, and when it runs dry ----

static std::atomic<long> heapBlocks = 0, heapLeft = -1;
static bool take() {
  if (heapLeft == 0) return false;
  --heapLeft;
  ++heapBlocks;
  return true;
}
extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void __real_free(void*);
void* __wrap_malloc(std::size_t n) { return take() ? __real_malloc(n) : nullptr; }
void* __wrap_calloc(std::size_t n, std::size_t m) { return take() ? __real_calloc(n, m) : nullptr; }
void __wrap_free(void* block) {
  heapBlocks -= block != nullptr;
  __real_free(block);
}
}

// ---- Calls ----

constexpr H kUnset = 99, kFailed = 98;  // instead of a count
constexpr CK_RV kOk = CKR_OK;           // as a module's functions return it
constexpr H kWide = 0x7F0000000010;
static const Handles kNoSession = {CKR_SESSION_HANDLE_INVALID};
static const Handles kNoObject = {CKR_OBJECT_HANDLE_INVALID};
static std::vector<std::string> calls;  // that the module saw, but for functions put in its list

static void reset() {
  scripted::reset();
  calls.clear();
  scripted::onCall = [](const std::string& call) { calls.push_back(call); };
}
static Handles seen;  // by the module's C_GetObjectSize: session and object
static constexpr auto succeed = [](auto...) { return kOk; };

class Adapter : public testing::Test {
 protected:
  Adapter() {
    reset();
    module.C_GetObjectSize = [](H session, H object, CK_ULONG*) {
      seen = {session, object};
      return kOk;
    };
    setenv("QUARVEL_PKCS11_ADAPTED_MODULE", scripted::file().c_str(), 1);
    EXPECT_EQ(C_GetFunctionList(&p11), CKR_OK);
    EXPECT_EQ(p11->C_Initialize(nullptr), CKR_OK);
  }
  ~Adapter() override {
    script = {};
    p11->C_Finalize(nullptr);
    EXPECT_EQ(heapBlocks, 0) << "leaked";
  }

  /// Opens a session, or makes an object, that the module knows as `real`. @return its number
  H open(H real, H slot = 7) {
    script.handle = real;
    EXPECT_EQ(p11->C_OpenSession(slot, 4, nullptr, nullptr, &made), CKR_OK);
    return made;
  }
  H make(H session, H real, CK_BBOOL onToken = CK_TRUE) {
    CK_ATTRIBUTE attribute = {CKA_TOKEN, &onToken, sizeof onToken};
    script.handle = real;
    EXPECT_EQ(p11->C_CreateObject(session, &attribute, 1, &made), CKR_OK);
    return made;
  }
  /// Makes a call with session and object. @return what the module sees of it, or the refusal
  Handles use(H session, H object) {
    const CK_RV rv = p11->C_GetObjectSize(session, object, &size);
    return rv == CKR_OK ? seen : Handles{rv};
  }
  /// Asks for so many objects each time. @return how many come
  Handles fetch(H session, const Handles& rooms) {
    Handles counts;
    for (const CK_ULONG room : rooms) {
      Handles some(room);
      CK_ULONG count = kUnset;
      if (p11->C_FindObjects(session, some.data(), room, &count) != CKR_OK) count = kFailed;
      counts.push_back(count);
      if (count <= room) found.insert(some.begin(), some.begin() + count);
    }
    return counts;
  }

  CK_FUNCTION_LIST* p11 = nullptr;
  std::set<H> found;
  // Calls need these arguments, whatever they hold.
  CK_MECHANISM mechanism = {};
  CK_BYTE bytes[8] = {};
  CK_ULONG size = 0;
  H made = 0;
};

static void inThreads(H count, auto act) {
  std::vector<std::jthread> threads;
  for (H i = 0; i < count; ++i) threads.emplace_back(act, i);
}

// ---- Handles ----

TEST_F(Adapter, NumbersHandlesThatDoNotFit) {
  const H session = open(kWide);
  EXPECT_EQ(use(session, 0), (Handles{kWide, 0})) << "no object has this handle yet";
  std::set<H> numbers;
  for (const H real :
       Handles{1, 0x3FFFFFFF, kWide, 0x40000001, 0x40000003, 0x7FFFFFFF, 0x80000000, 0, ~H{0}}) {
    const H number = make(session, real);
    EXPECT_TRUE(number > 0 && number < 0x80000000 && numbers.insert(number).second) << number;
    EXPECT_TRUE(number == real || real >= 0x40000000 || real == 0) << number;
    EXPECT_EQ(use(session, number), (Handles{kWide, real}));
    EXPECT_EQ(make(session, real), number) << "equal handles stay equal";
  }
  EXPECT_EQ(use(session, 0), kNoObject);
  EXPECT_EQ(make(session, 0x7FFFFFFF), 0x7FFFFFFF) << "free, so it stays";
  EXPECT_EQ(use(session, 0x90000000), (Handles{kWide, 0x90000000})) << "no number";

  // Slots, and the objects of two of them.
  static constexpr H kFilled = 0x4847464544434241;  // by the scripted C_GetSessionInfo
  script.slots = {5, 0x7FFFFFFE, kFilled};
  module.C_WaitForSlotEvent = [](CK_FLAGS, H* slot, void*) { return *slot = kFilled, kOk; };
  H slots[3], event;
  CK_SESSION_INFO info;
  EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, slots, &(size = 3)), CKR_OK);
  EXPECT_EQ(p11->C_WaitForSlotEvent(0, &event, nullptr), CKR_OK);
  EXPECT_EQ(p11->C_GetSessionInfo(session, &info), CKR_OK);
  EXPECT_EQ(Handles(slots, slots + 2), (Handles{5, 0x7FFFFFFE}));
  EXPECT_TRUE(slots[2] < 0x80000000 && event == slots[2] && info.slotID == slots[2]);
  const H other = open(kWide + 1, slots[2]);
  EXPECT_EQ(calls.back(), "C_OpenSession(0x4847464544434241, 4, null, null)");
  const H twin = make(other, kWide);
  EXPECT_EQ(use(other, twin), (Handles{kWide + 1, kWide}));
  EXPECT_EQ(use(session, twin), kNoObject) << "of the other slot";
  open(kWide + 2, 0x50000000);
  EXPECT_EQ(calls.back(), "C_OpenSession(1342177280, 4, null, null)") << "unknown";
}

TEST_F(Adapter, RefusesNumbersThatItNeverGaveOut) {
  const H s = open(kWide), key = make(s, kWide), none = 0x7FFFFFF0;
  calls.clear();
  EXPECT_EQ(use(none, key), kNoSession);
  EXPECT_EQ(use(s, none), kNoObject);
  EXPECT_EQ(p11->C_CloseSession(none), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(p11->C_DestroyObject(s, none), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(p11->C_SignInit(s, &mechanism, none), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(
      p11->C_WrapKey(s, &mechanism, none, key, nullptr, &size), CKR_WRAPPING_KEY_HANDLE_INVALID);
  EXPECT_EQ(p11->C_WrapKey(s, &mechanism, key, none, nullptr, &size), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(p11->C_UnwrapKey(s, &mechanism, none, nullptr, 0, nullptr, 0, &made),
            CKR_UNWRAPPING_KEY_HANDLE_INVALID);
  EXPECT_EQ(calls.size(), 0);
  make(s, 0);
  EXPECT_EQ(p11->C_SetOperationState(s, nullptr, 0, 0, 0), CKR_OK) << "0: no key";
  EXPECT_EQ(p11->C_DigestKey(s, key), CKR_FUNCTION_NOT_SUPPORTED) << "the module lacks it";
  EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(p11->C_CloseSession(1), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(p11->C_WaitForSlotEvent(0, &made, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(calls.back(), "C_Finalize(null)");
}

TEST_F(Adapter, ForgetsWhatEnds) {
  const H a = open(kWide), b = open(kWide + 1), gone = make(a, kWide), kept = make(a, kWide + 1);
  EXPECT_EQ(p11->C_DestroyObject(a, gone), CKR_OK);
  const H again = make(b, kWide);
  EXPECT_EQ(use(b, gone), kNoObject);
  EXPECT_EQ(use(b, again), (Handles{kWide + 1, kWide}));

  const H ofSession = make(a, kWide + 2, CK_FALSE), shared = make(a, kWide + 3, CK_FALSE);
  EXPECT_EQ(make(b, kWide + 3), shared);
  EXPECT_EQ(p11->C_CloseSession(a), CKR_OK);
  EXPECT_EQ(heapBlocks, 5) << "a slot, a session and three objects are held";
  EXPECT_EQ(use(a, kept), kNoSession);
  EXPECT_EQ(use(b, ofSession), kNoObject);
  EXPECT_EQ(use(b, shared), (Handles{kWide + 1, kWide + 3})) << "known in both sessions";
  const H reopened = open(kWide);
  EXPECT_EQ(use(reopened, kept), (Handles{kWide, kWide + 1}));
  EXPECT_NE(open(kWide), reopened) << "the module says that the earlier one is over";
  EXPECT_EQ(use(reopened, kept), kNoSession);

  const H other = open(kWide + 9, 8), its = make(other, kWide);
  EXPECT_EQ(p11->C_CloseAllSessions(7), CKR_OK);
  EXPECT_EQ(use(b, kept), kNoSession);
  EXPECT_EQ(use(open(kWide), kept), kNoObject) << "gone with the slot's last session";
  EXPECT_EQ(use(other, its), (Handles{kWide + 9, kWide}));
  EXPECT_EQ(p11->C_CloseSession(other), CKR_OK);
  const H last = open(kWide, 8);
  EXPECT_EQ(use(last, its), kNoObject);
  EXPECT_EQ(p11->C_Initialize(nullptr), CKR_OK) << "as after a fork";
  EXPECT_EQ(use(last, its), kNoSession);
}

TEST_F(Adapter, PutsBackWhatTheModuleDidNotEnd) {
  const H session = open(kWide), object = make(session, kWide, CK_FALSE);
  script.answers["*"] = CKR_GENERAL_ERROR;
  EXPECT_EQ(p11->C_DestroyObject(session, object), CKR_GENERAL_ERROR);
  EXPECT_EQ(p11->C_CloseSession(session), CKR_GENERAL_ERROR);
  EXPECT_EQ(p11->C_CloseAllSessions(7), CKR_GENERAL_ERROR);
  EXPECT_EQ(use(session, object), (Handles{kWide, kWide}));
  for (const CK_RV pulled : {CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED, CKR_DEVICE_REMOVED}) {
    script = {};
    const H number = open(kWide + 1);
    script.answers["*"] = pulled;
    EXPECT_EQ(p11->C_CloseSession(number), pulled);
    EXPECT_EQ(use(number, object), kNoSession);
  }
}

TEST_F(Adapter, UndoesWhatItHasNoMemoryFor) {
  const auto called = [](const char* call) { return std::ranges::count(calls, call); };
  for (int blocks = 0; blocks < 8; ++blocks) {
    p11->C_Finalize(nullptr);
    p11->C_Initialize(nullptr);
    calls.clear();
    heapLeft = blocks;
    script.handle = kWide;
    CK_RV rv = p11->C_OpenSession(7, 0, nullptr, nullptr, &made);
    if (rv == CKR_OK) {
      rv = p11->C_GenerateKeyPair(made, &mechanism, nullptr, 0, nullptr, 0, &made, &made);
    }
    heapLeft = -1;
    EXPECT_EQ(rv, blocks < 4 ? CKR_HOST_MEMORY : CKR_OK);
    EXPECT_EQ(calls.size(), blocks == 2 || blocks == 3 ? 4 : 2);
    EXPECT_EQ(called("C_CloseSession(0x7F0000000010)"), blocks < 2);
    for (const char* key : {"C_DestroyObject(0x7F0000000010, 0x7F0000000011)",
                            "C_DestroyObject(0x7F0000000010, 0x7F0000000012)"}) {
      EXPECT_EQ(called(key), blocks == 2 || blocks == 3) << "both keys of a pair or none";
    }
  }
}

// ---- The module's life ----

static std::atomic<int> inside;
static std::atomic<bool> haveMet;      // two calls at once
static std::atomic<int> patience{50};  // milliseconds that one waits for the other

static CK_RV meet(H, CK_BYTE*, CK_ULONG) {
  ++inside;
  for (int i = 0; i < patience && !haveMet; ++i) {
    haveMet = inside > 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return --inside, kOk;
}

TEST_F(Adapter, TakesTurnsWhereItMust) {
  static constexpr CK_FLAGS kAsked = CKF_OS_LOCKING_OK, kNoArguments = ~CK_FLAGS{0};
  static std::vector<CK_FLAGS> flags;  // of each C_Initialize
  static CK_INFO info;
  static CK_RV refusal;
  module.C_GetInfo = [](CK_INFO* told) { return *told = info, kOk; };
  module.C_Initialize = [](void* arguments) {
    const auto* given = static_cast<CK_C_INITIALIZE_ARGS*>(arguments);
    flags.push_back(given != nullptr ? given->flags : kNoArguments);
    return given != nullptr && (given->flags == kAsked || given->pReserved != nullptr)
               ? refusal
               : kOk;
  };
  module.C_SeedRandom = meet;
  CK_C_INITIALIZE_ARGS with = {nullptr, nullptr, nullptr, nullptr, 0, &with};
  const char *ibm = "IBM", *meta = "Meta PKCS11 LIBRARY", *tpm = "tpm2-software.github.io";
  for (const auto& [answer, arguments, environment, manufacturer, library, turns, expected] :
       std::initializer_list<std::tuple<CK_RV, void*, const char*, const char*, const char*, bool,
                                        std::vector<CK_FLAGS>>>{
           {CKR_CANT_LOCK, nullptr, nullptr, "", "", true, {kAsked, kNoArguments}},
           {CKR_ARGUMENTS_BAD, nullptr, "0", "", "", true, {kAsked, kNoArguments}},
           {CKR_OK, &with, nullptr, "", "", true, {0}},
           {CKR_OK, nullptr, nullptr, "", "", false, {kAsked}},
           {CKR_OK, nullptr, nullptr, ibm, meta, true, {kAsked}},
           {CKR_OK, nullptr, nullptr, tpm, "TPM2.0 Cryptoki", true, {kAsked}},
           {CKR_OK, nullptr, "0", ibm, meta, false, {kAsked}},
           {CKR_OK, nullptr, nullptr, tpm, meta, false, {kAsked}},
           {CKR_OK, nullptr, nullptr, ibm, "Meta PKCS11 LIBRARY 2", false, {kAsked}},
           {CKR_CRYPTOKI_ALREADY_INITIALIZED, nullptr, "0", "", "", true, {kAsked}}}) {
    p11->C_Finalize(nullptr);
    flags.clear();
    refusal = answer;
    if (environment != nullptr) setenv("QUARVEL_PKCS11_ADAPTER_SERIAL", environment, 1);
    for (auto& text : {info.manufacturerID, info.libraryDescription}) std::fill_n(text, 32, ' ');
    std::copy_n(manufacturer, strlen(manufacturer), info.manufacturerID);
    std::copy_n(library, strlen(library), info.libraryDescription);
    EXPECT_EQ(p11->C_Initialize(arguments), CKR_OK);
    unsetenv("QUARVEL_PKCS11_ADAPTER_SERIAL");
    haveMet = false;
    patience = turns ? 50 : 10000;
    inThreads(2, [this](H) { p11->C_SeedRandom(1, nullptr, 0); });
    EXPECT_EQ(haveMet, !turns) << manufacturer << library;
    EXPECT_EQ(flags, expected);
  }
  refusal = CKR_CANT_LOCK;
  EXPECT_EQ(p11->C_Initialize(&with), CKR_CANT_LOCK) << "with what it must not see when it locks";
}

TEST_F(Adapter, EndsWhenThreadsHaveReturned) {
  static std::atomic<bool> inside, mayLeave;
  module.C_SeedRandom = [](H, CK_BYTE*, CK_ULONG) {
    for (inside = true; !mayLeave;) std::this_thread::yield();
    return inside = false, kOk;
  };
  module.C_Finalize = [](void*) {
    EXPECT_FALSE(inside);
    return kOk;
  };
  const H session = open(kWide);
  std::jthread caller([&] { EXPECT_EQ(p11->C_SeedRandom(session, nullptr, 0), CKR_OK); });
  while (!inside) std::this_thread::yield();
  std::jthread closer([&] { EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK); });
  while (p11->C_Logout(session) == CKR_OK) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  mayLeave = true;
}

TEST_F(Adapter, AnswersAListWithRoomForNone) {
  EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, &made, &size), CKR_BUFFER_TOO_SMALL);
  // Some modules find an empty list too large for no room: they are asked for its size.
  EXPECT_EQ(calls.back(), "C_GetSlotList(1, null)");
  EXPECT_EQ(size, 2);
  script.slots.clear();
  EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, &made, &(size = 0)), CKR_OK);
}

// ---- What it lifts ----

TEST_F(Adapter, NarrowsTypes) {
  const H session = open(kWide), key = make(session, 0x21);
  CK_ATTRIBUTE attributes[] = {{CKA_LABEL, nullptr, 0}, {0xFFFFFFFF80000201, nullptr, 0}};
  module.C_GetAttributeValue = [](H, H, CK_ATTRIBUTE* given, CK_ULONG count) {
    for (CK_ULONG i = 0; i < count; ++i) given[i].ulValueLen = given[i].type;
    return kOk;
  };
  EXPECT_EQ(p11->C_GetAttributeValue(session, key, attributes, 2), CKR_OK);
  EXPECT_EQ(attributes[1].ulValueLen, 0x80000201);
  EXPECT_EQ(attributes[0].ulValueLen, CKA_LABEL);
  EXPECT_EQ(attributes[1].type, 0xFFFFFFFF80000201) << "the caller's own";
  EXPECT_EQ(p11->C_Login(session, 0xFFFFFFFF80000001, nullptr, 0), CKR_OK);
  EXPECT_EQ(calls.back(), "C_Login(0x7F0000000010, 0x80000001, null/0)");

  // Each function with a template. What is made of it gets a number.
  CK_ATTRIBUTE* wide = &attributes[1];
  H numbers[7];
  script.handle = kWide;
  calls.clear();
  for (const CK_RV rv :
       {p11->C_SetAttributeValue(session, key, wide, 1), p11->C_FindObjectsInit(session, wide, 1),
        p11->C_CreateObject(session, wide, 1, &numbers[0]),
        p11->C_CopyObject(session, key, wide, 1, &numbers[1]),
        p11->C_GenerateKey(session, &mechanism, wide, 1, &numbers[2]),
        p11->C_GenerateKeyPair(session, &mechanism, wide, 1, wide, 1, &numbers[3], &numbers[4]),
        p11->C_UnwrapKey(session, &mechanism, key, bytes, 1, wide, 1, &numbers[5]),
        p11->C_DeriveKey(session, &mechanism, key, wide, 1, &numbers[6])}) {
    EXPECT_EQ(rv, CKR_OK);
  }
  EXPECT_EQ(calls.size(), 8);
  for (const auto& call : calls) EXPECT_EQ(call.find("ffffffff"), std::string::npos) << call;
  for (const H number : numbers) EXPECT_LT(number, 0x80000000);
}

TEST_F(Adapter, CompletesMechanisms) {
  const H session = open(kWide), key = make(session, 0x21);
  static Handles given;  // the mechanism and the words of its parameter
  module.C_DecryptInit = [](H, CK_MECHANISM* mechanism, H) {
    const auto* words = static_cast<CK_ULONG*>(mechanism->pParameter);
    given.assign(words, words + mechanism->ulParameterLen / sizeof *words);
    given.insert(given.begin(), mechanism->mechanism);
    return kOk;
  };
  script.answers["C_GetMechanismInfo"] = CKR_MECHANISM_INVALID;
  for (const auto& [asked, expected] : std::initializer_list<std::pair<H, Handles>>{
           {0xFFFFFFFF80000041, {0x80000041}},
           {CKM_RSA_PKCS, {CKM_RSA_PKCS}},
           {CKM_RSA_PKCS_OAEP,
            {CKM_RSA_PKCS_OAEP, CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, 0, 0}},
           {CKM_SHA1_RSA_PKCS_PSS, {CKM_SHA1_RSA_PKCS_PSS, CKM_SHA_1, CKG_MGF1_SHA1, 20}},
           {CKM_SHA224_RSA_PKCS_PSS, {CKM_SHA224_RSA_PKCS_PSS, CKM_SHA224, CKG_MGF1_SHA224, 28}},
           {CKM_SHA256_RSA_PKCS_PSS, {CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 32}},
           {CKM_SHA384_RSA_PKCS_PSS, {CKM_SHA384_RSA_PKCS_PSS, CKM_SHA384, CKG_MGF1_SHA384, 48}},
           {CKM_SHA512_RSA_PKCS_PSS, {CKM_SHA512_RSA_PKCS_PSS, CKM_SHA512, CKG_MGF1_SHA512, 64}},
           {0xFFFFFFFFF5A04400,
            {CKM_RSA_PKCS_OAEP, CKM_SHA256, CKG_MGF1_SHA224, CKZ_DATA_SPECIFIED, 0, 0}},
           {0xF5A193FF, {CKM_RSA_PKCS_PSS, CKM_SHA512, CKG_MGF1_SHA512, 1023}},
           {0xF5A20C00, {CKM_SHA1_RSA_PKCS_PSS, CKM_SHA_1, CKG_MGF1_SHA384, 0}},
           // There is no such hash and no such kind, and OAEP has no salt.
           {0xF5A1A000, {0xF5A1A000}},
           {0xF5A30000, {0xF5A30000}},
           {0xF5A00001, {0xF5A00001}}}) {
    mechanism = {asked, nullptr, 0};
    EXPECT_EQ(p11->C_DecryptInit(session, &mechanism, key), CKR_OK);
    EXPECT_EQ(given, expected);
    mechanism = {asked, &size, sizeof size};
    EXPECT_EQ(p11->C_DecryptInit(session, &mechanism, key), CKR_OK);
    EXPECT_EQ(given, (Handles{asked & 0xFFFFFFFF, size})) << "the caller's own parameter";
  }
  EXPECT_EQ(p11->C_GetMechanismInfo(7, 0xF5A04400, nullptr), CKR_MECHANISM_INVALID);
  EXPECT_EQ(calls.back(), "C_GetMechanismInfo(7, 9)");
  script.answers.clear();
  mechanism = {0xF5A04400, nullptr, 0};
  EXPECT_EQ(p11->C_DecryptInit(session, &mechanism, key), CKR_OK);
  EXPECT_EQ(given, Handles{0xF5A04400}) << "the module has one of this number";
}

TEST_F(Adapter, LogsInForAnOperation) {
  const H session = open(kWide), key = make(session, 0x21);
  // The user types of the logins that a login becomes.
  static Handles users;
  module.C_Login = [](H, CK_USER_TYPE user, CK_BYTE*, CK_ULONG) {
    users.push_back(user);
    return CK_RV{user == CKU_USER ? CKR_USER_ALREADY_LOGGED_IN : CKR_PIN_INCORRECT};
  };
  const auto login = [&] {
    users.clear();
    users.push_back(p11->C_Login(session, CKU_USER, bytes, 3));
    return users;
  };
  const Handles once = {CKU_USER, CKR_USER_ALREADY_LOGGED_IN};
  const Handles twice = {CKU_USER, CKU_CONTEXT_SPECIFIC, CKR_PIN_INCORRECT};
  EXPECT_EQ(login(), once) << "nothing is under way";
  EXPECT_EQ(p11->C_SignInit(session, &mechanism, key), CKR_OK);
  EXPECT_EQ(login(), twice);
  EXPECT_EQ(p11->C_Sign(session, bytes, 1, nullptr, &size), CKR_OK);
  EXPECT_EQ(p11->C_Sign(session, bytes, 1, bytes, &(size = 1)), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(login(), twice) << "still under way";
  EXPECT_EQ(p11->C_Sign(session, bytes, 1, bytes, &(size = 3)), CKR_OK);
  EXPECT_EQ(login(), once);
  script.answers["C_SignInit"] = CKR_MECHANISM_INVALID;
  EXPECT_EQ(p11->C_SignInit(session, &mechanism, key), CKR_MECHANISM_INVALID);
  EXPECT_EQ(login(), once);
}

TEST_F(Adapter, ReadsAhead) {
  static Handles given;  // how many objects the module gave each time
  static H left;
  static CK_RV answer;
  module.C_FindObjects = [](H, H* objects, CK_ULONG room, CK_ULONG* count) {
    for (*count = 0; *count < room && left > 0; ++*count) objects[*count] = kWide + left--;
    given.push_back(*count);
    return std::exchange(answer, CKR_OK);
  };
  const H session = open(kWide);
  left = 150;
  EXPECT_EQ(fetch(session, {1, 1, 100, 1000, 1}), (Handles{1, 1, 100, 48, 0}));
  EXPECT_EQ(found.size(), 150);
  EXPECT_EQ(given, (Handles{64, 64, 22, 0}));

  left = 64;
  EXPECT_EQ(fetch(session, {60}), Handles{60});
  answer = CKR_DEVICE_ERROR;
  EXPECT_EQ(fetch(session, {60, 60, 60}), (Handles{4, kFailed, 0}));

  left = 10;
  EXPECT_EQ(fetch(session, {1}), Handles{1});
  script.answers["C_FindObjectsInit"] = CKR_OPERATION_ACTIVE;
  EXPECT_EQ(p11->C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(fetch(session, {1}), Handles{1}) << "the search is still active";
  EXPECT_EQ(p11->C_FindObjectsFinal(session), CKR_OK);
  EXPECT_EQ(fetch(session, {1}), Handles{0});
  module.C_FindObjects = [](H, H*, CK_ULONG room, CK_ULONG* count) {
    return *count = room + 1, kOk;
  };
  EXPECT_EQ(fetch(session, {1}), Handles{kFailed}) << "more than was asked for";
}

// ---- Loading ----

TEST(Loading, TellsWhyItFails) {
  namespace fs = std::filesystem;
  const fs::path folder = testing::TempDir() + "adapter" + std::to_string(getpid());
  const std::string a = folder / "a.so", b = folder / "b.so", module = folder / "module.so";
  fs::create_directory(folder);
  fs::copy(QUARVEL_ADAPTER, a);
  fs::copy(QUARVEL_ADAPTER, b);
  fs::copy(scripted::file(), module);
  std::ofstream(b + ".module") << a;
  const auto load = reinterpret_cast<CK_C_GetFunctionList>(
      dlsym(dlopen(a.c_str(), RTLD_NOW), "C_GetFunctionList"));
  CK_FUNCTION_LIST* list = nullptr;
  unsetenv("QUARVEL_PKCS11_ADAPTED_MODULE");
  EXPECT_EQ(load(&list), CKR_ARGUMENTS_BAD) << "nothing is named";
  setenv("QUARVEL_PKCS11_ADAPTED_MODULE", scripted::file().c_str(), 1);  // the file comes before it
  fs::create_symlink(a + ".module", a + ".module");
  EXPECT_EQ(load(&list), CKR_ARGUMENTS_BAD) << "the file is there and cannot be read";
  fs::remove(a + ".module");
  for (const auto& [named, rv] : std::initializer_list<std::pair<std::string, CK_RV>>{
           {"", CKR_ARGUMENTS_BAD},
           {std::string(5000, 'x'), CKR_ARGUMENTS_BAD},
           {folder / "absent", CKR_LIBRARY_LOAD_FAILED},
           {b + ".module", CKR_LIBRARY_LOAD_FAILED},  // no library
           {"libc.so.6", CKR_FUNCTION_NOT_SUPPORTED},
           {QUARVEL_SILENT, CKR_GENERAL_ERROR},
           {a, CKR_FUNCTION_REJECTED},
           {b, CKR_FUNCTION_REJECTED},
           {module + "\n", CKR_OK}}) {
    std::ofstream(a + ".module") << named;
    EXPECT_EQ(load(&list), rv) << named;
  }

  fs::remove_all(folder);
  unsetenv("QUARVEL_PKCS11_ADAPTED_MODULE");
  EXPECT_EQ(list->C_Initialize(nullptr), CKR_OK);
  EXPECT_EQ(load(&list), CKR_OK) << "not read while it is initialised";
  EXPECT_EQ(list->C_Finalize(nullptr), CKR_OK);
  EXPECT_NE(dlopen(module.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr)
      << "stays for threads that it left behind";
}

// ---- Copies in one process ----

static bool began;  // the module, by whomever
static std::atomic<bool> ends;
static std::vector<CK_FUNCTION_LIST*> copies;

/// Three copies of the library before one module. Their files are gone, and the eldest was loaded
/// for all.
class Copies : public testing::Test {
 protected:
  Copies() {
    reset();
    began = false;
    module.C_Initialize = [](void*) {
      return std::exchange(began, true) ? CK_RV{CKR_CRYPTOKI_ALREADY_INITIALIZED} : kOk;
    };
    module.C_Finalize = [](void*) {
      ends = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return began = false, script.failWith;
    };
    setenv("QUARVEL_PKCS11_ADAPTED_MODULE", scripted::file().c_str(), 1);
    for (int flags = RTLD_NOW | RTLD_GLOBAL; copies.size() < 3; flags = RTLD_NOW) {
      const auto file = testing::TempDir() + std::to_string(getpid()) + char('a' + copies.size());
      std::filesystem::copy(QUARVEL_ADAPTER, file);
      void* symbol = dlsym(dlopen(file.c_str(), flags), "C_GetFunctionList");
      std::filesystem::remove(file);
      reinterpret_cast<CK_C_GetFunctionList>(symbol)(&copies.emplace_back());
    }
  }
  void start(int i) {
    EXPECT_EQ(copies[i]->C_Initialize(nullptr), CKR_OK);
    script.handle = kWide + i;
    EXPECT_EQ(copies[i]->C_OpenSession(7, 4, nullptr, nullptr, &session[i]), CKR_OK);
    calls.clear();
  }
  H session[3];
};

TEST_F(Copies, EndTheModuleWithTheLast) {
  std::vector<int> order = {0, 1, 2};
  for (const bool isForeign : {false, true}) {
    do {
      began = isForeign;
      for (const int i : order) start(i);
      for (const int i : {0, 1, 2}) {
        EXPECT_EQ(copies[i]->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
        calls = {""};
        EXPECT_EQ(copies[i]->C_Finalize(nullptr), CKR_OK);
        const bool isLast = i == 2 && !isForeign;
        const std::string closed = "C_CloseSession(0x7F000000001" + std::to_string(i) + ")";
        EXPECT_EQ(calls.back(), isLast ? "" : closed) << "its own alone";
        EXPECT_EQ(began, !isLast);
      }
    } while (std::ranges::next_permutation(order).found);
  }
}

TEST_F(Copies, BeginAnewAfterAnEnd) {
  for (const int i : {0, 1}) start(i);
  EXPECT_EQ(copies[0]->C_CloseAllSessions(7), CKR_OK);
  EXPECT_EQ(calls, std::vector<std::string>{"C_CloseSession(0x7F0000000010)"});
  began = false;  // somebody else's end: our sessions may be others' by now
  start(2);
  EXPECT_EQ(copies[0]->C_CloseSession(session[0]), CKR_CRYPTOKI_NOT_INITIALIZED);
  for (const int i : {0, 1}) EXPECT_NE(copies[i]->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(copies[2]->C_CloseAllSessions(7), CKR_OK);
  EXPECT_EQ(calls, std::vector<std::string>{"C_CloseAllSessions(7)"});

  module.C_SeedRandom = [](H, CK_BYTE*, CK_ULONG) { return copies[2]->C_Finalize(nullptr); };
  EXPECT_EQ(copies[2]->C_SeedRandom(1, nullptr, 0), CKR_FUNCTION_FAILED) << "from inside";
  ends = false;
  std::jthread last([&] { EXPECT_EQ(copies[2]->C_CloseAllSessions(~H{0}), CKR_OK); });
  while (!ends) std::this_thread::yield();
  start(0);
  EXPECT_TRUE(began) << "when the last end is over";

  script.failWith = CKR_DEVICE_ERROR;
  EXPECT_EQ(copies[0]->C_Finalize(nullptr), CKR_DEVICE_ERROR);
  EXPECT_EQ(copies[0]->C_Logout(1), CKR_CRYPTOKI_NOT_INITIALIZED);
  began = true;
  start(1);
  EXPECT_EQ(copies[1]->C_Finalize(nullptr), CKR_OK) << "is left to whoever has it";
}

TEST_F(Copies, TakeTheSameTurnsInAChildToo) {
  setenv("QUARVEL_PKCS11_ADAPTER_SERIAL", "", 1);
  for (const int i : {1, 0}) start(i);
  unsetenv("QUARVEL_PKCS11_ADAPTER_SERIAL");
  module.C_SeedRandom = meet;
  haveMet = false;
  inThreads(2, [&](H i) { copies[i]->C_SeedRandom(session[i], nullptr, 0); });
  EXPECT_FALSE(haveMet);
  haveMet = true;
  std::jthread busy([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) copies[0]->C_SeedRandom(session[0], nullptr, 0);
  });
  for (int i = 0; i < 100; ++i) {
    if (fork() == 0) {
      alarm(20);
      _exit(copies[i % 2]->C_SeedRandom(session[i % 2], nullptr, 0) != CKR_OK ||
            copies[0]->C_Finalize(nullptr) != CKR_OK);
    }
    int status = -1;
    wait(&status);
    EXPECT_EQ(status, 0);
  }
}

// ---- Modules that misbehave, and many threads ----

TEST_F(Adapter, SurvivesModulesThatMisbehave) {
  for (const auto& misbehaviour : scripted::misbehaviours()) {
    SCOPED_TRACE(misbehaviour.name);
    scripted::reset();
    misbehaviour.install();
    H slots[8], session = 0, object = 0;
    mechanism = {CKM_SHA256_RSA_PKCS_PSS, nullptr, 0};
    p11->C_GetSlotList(CK_TRUE, slots, &(size = 8));
    for (int i = 0; i < 3; ++i) {
      CK_ATTRIBUTE attribute = {0xFFFFFFFF80000001, bytes, sizeof bytes};
      p11->C_OpenSession(7, 0, nullptr, nullptr, &session);
      p11->C_CreateObject(session, &attribute, 1, &object);
      p11->C_FindObjectsInit(session, &attribute, 1);
      for (const H count : fetch(session, Handles(100, 3))) EXPECT_NE(count, kUnset);
      p11->C_SignInit(session, &mechanism, object);
      p11->C_Sign(session, bytes, 8, bytes, &(size = 8));
      p11->C_GenerateKeyPair(session, &mechanism, &attribute, 1, &attribute, 1, &made, &made);
      p11->C_GetAttributeValue(session, object, &attribute, 1);
      p11->C_DestroyObject(session, object);
      if (i != 1) p11->C_CloseSession(session);
    }
  }
}

// This module serves many threads. Its sessions and objects are one kind of thing, and it hands out
// the lowest free handle.
static std::atomic<bool> things[64];  // by handle, whether it is there

static CK_RV makeThing(H* handle) {
  *handle = kWide;
  while (things[*handle - kWide].exchange(true)) ++*handle;
  return CKR_OK;
}
static CK_RV endThing(H handle) {
  const H index = handle - kWide;
  return index < std::size(things) && things[index].exchange(false) ? CKR_OK : CKR_GENERAL_ERROR;
}

TEST_F(Adapter, ServesManyThreads) {
  module.C_OpenSession = [](H, CK_FLAGS, void*, CK_NOTIFY, H* made) { return makeThing(made); };
  module.C_CreateObject = [](H, CK_ATTRIBUTE*, CK_ULONG, H* made) { return makeThing(made); };
  module.C_CloseSession = endThing;
  module.C_DestroyObject = [](H, H object) { return endThing(object); };
  module.C_GetObjectSize = [](H session, H object, CK_ULONG* real) {
    *real = object;
    return CK_RV{things[session - kWide] && things[object - kWide] ? CKR_OK : CKR_GENERAL_ERROR};
  };
  module.C_FindObjectsInit = succeed;
  module.C_FindObjects = [](H, H* objects, CK_ULONG room, CK_ULONG* count) {
    for (*count = 0; *count < room; ++*count) objects[*count] = kWide + *count;
    return kOk;
  };
  inThreads(8, [this](H thread) {
    H session = 0, object = 0, before = 0, after = 1, objects[5], count;
    for (int round = 0; round < 2000; ++round) {
      CK_RV rv = p11->C_OpenSession(thread % 2, 0, nullptr, nullptr, &session);
      rv |= p11->C_CreateObject(session, nullptr, 0, &object);
      rv |= p11->C_GetObjectSize(session, object, &before);
      rv |= p11->C_FindObjectsInit(session, nullptr, 0);
      rv |= p11->C_FindObjects(session, objects, 5, &count);
      rv |= p11->C_GetObjectSize(session, object, &after);
      rv |= p11->C_DestroyObject(session, object);
      rv |= p11->C_CloseSession(session);
      EXPECT_TRUE(rv == CKR_OK && before == after) << rv << ' ' << before << ' ' << after;
    }
  });
  EXPECT_EQ(std::count(std::begin(things), std::end(things), true), 0);
}
