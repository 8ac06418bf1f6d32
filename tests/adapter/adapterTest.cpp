// The adapter's sources, linked into this program, in front of the scripted module; where loading
// is the matter, copies of the libraries.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
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
static bool takeBlock() {
  if (heapLeft == 0) return false;
  if (heapLeft > 0) --heapLeft;
  ++heapBlocks;
  return true;
}
extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void __real_free(void*);
void* __wrap_malloc(std::size_t n) { return takeBlock() ? __real_malloc(n) : nullptr; }
void* __wrap_calloc(std::size_t n, std::size_t m) {
  return takeBlock() ? __real_calloc(n, m) : nullptr;
}
void __wrap_free(void* block) {
  if (block != nullptr) --heapBlocks;
  __real_free(block);
}
}

static Handles seen;  // by the module's C_GetObjectSize: session and object
static constexpr auto succeed = [](auto...) { return CK_RV{CKR_OK}; };

class Adapter : public testing::Test {
 protected:
  Adapter() {
    scripted::reset();
    module.C_GetObjectSize = [](H session, H object, CK_ULONG*) {
      seen = {session, object};
      return CK_RV{CKR_OK};
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

  /// A new session or object that the module knows as `real`; its number.
  H open(H real, H slot = 7) {
    H number = 0;
    script.handle = real;
    EXPECT_EQ(p11->C_OpenSession(slot, 4, nullptr, nullptr, &number), CKR_OK);
    return number;
  }
  H make(H session, H real, CK_BBOOL onToken = CK_TRUE) {
    CK_ATTRIBUTE attribute = {CKA_TOKEN, &onToken, sizeof onToken};
    H number = 0;
    script.handle = real;
    EXPECT_EQ(p11->C_CreateObject(session, &attribute, 1, &number), CKR_OK);
    return number;
  }
  /// What the module sees of a call with session and object, or the refusal.
  Handles use(H session, H object) {
    const CK_RV rv = p11->C_GetObjectSize(session, object, &size);
    return rv == CKR_OK ? seen : Handles{rv};
  }
  /// How many objects come when `room` of them are asked for, or "error".
  std::string fetch(H session, CK_ULONG room) {
    Handles some(room);
    CK_ULONG count = 99;
    const CK_RV rv = p11->C_FindObjects(session, some.data(), room, &count);
    for (CK_ULONG i = 0; rv == CKR_OK && i < count; ++i) found.push_back(some[i]);
    return rv == CKR_OK ? std::to_string(count) : "error";
  }

  CK_FUNCTION_LIST* p11 = nullptr;
  Handles found;
  // Arguments that calls need.
  CK_MECHANISM mechanism = {};
  CK_BYTE bytes[8] = {};
  CK_ULONG size = 0;
  H made = 0;
};

constexpr H kWide = 0x7F0000000010;
static const Handles kNoSession = {CKR_SESSION_HANDLE_INVALID};
static const Handles kNoObject = {CKR_OBJECT_HANDLE_INVALID};

// ---- Handles ----

TEST_F(Adapter, NumbersHandlesThatDoNotFit) {
  const H session = open(kWide);
  EXPECT_EQ(use(session, 0), (Handles{kWide, 0})) << "no object has this handle yet";
  const Handles reals = {
      1, 0x3FFFFFFF, kWide, 0x40000001, 0x40000003, 0x7FFFFFFF, 0x80000000, 0, ~H{0}};
  std::set<H> numbers;
  for (const H real : reals) {
    const H number = make(session, real);
    EXPECT_TRUE(number > 0 && number < 0x80000000) << number;
    EXPECT_TRUE(numbers.insert(number).second) << number;
    EXPECT_EQ(use(session, number), (Handles{kWide, real}));
    EXPECT_EQ(make(session, real), number) << "equal handles stay equal";
    if (real < 0x40000000 && real != 0) {
      EXPECT_EQ(number, real);
    }
  }
  EXPECT_EQ(use(session, 0), kNoObject);
  EXPECT_EQ(make(session, 0x7FFFFFFF), 0x7FFFFFFF) << "free, so it stays";
  EXPECT_EQ(use(session, 0x90000000), (Handles{kWide, 0x90000000})) << "no number";

  // Slots, and the objects of two of them.
  script.slots = {5, 0x7FFFFFFE, 0x80000005};
  module.C_WaitForSlotEvent = [](CK_FLAGS, H* slot, void*) {
    return *slot = 0x80000005, CK_RV{CKR_OK};
  };
  module.C_GetSessionInfo = [](H, CK_SESSION_INFO* info) {
    return info->slotID = 0x80000005, CK_RV{CKR_OK};
  };
  H slots[3], event;
  CK_ULONG count = 3;
  CK_SESSION_INFO info;
  EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
  EXPECT_EQ(p11->C_WaitForSlotEvent(0, &event, nullptr), CKR_OK);
  EXPECT_EQ(p11->C_GetSessionInfo(session, &info), CKR_OK);
  EXPECT_EQ(Handles(slots, slots + 2), (Handles{5, 0x7FFFFFFE}));
  EXPECT_TRUE(slots[2] < 0x80000000 && event == slots[2] && info.slotID == slots[2]);
  const H other = open(kWide + 1, slots[2]), twin = make(other, kWide);
  EXPECT_EQ(
      scripted::calls[scripted::calls.size() - 2], "C_OpenSession(0x80000005, 4, null, null)");
  EXPECT_EQ(use(other, twin), (Handles{kWide + 1, kWide}));
  EXPECT_EQ(use(session, twin), kNoObject) << "of the other slot";
  EXPECT_EQ(p11->C_OpenSession(0x50000000, 4, nullptr, nullptr, &event), CKR_OK);
  EXPECT_EQ(scripted::calls.back(), "C_OpenSession(1342177280, 4, null, null)") << "unknown";
}

TEST_F(Adapter, RefusesNumbersThatItNeverGaveOut) {
  module.C_SetOperationState = succeed;
  const H s = open(kWide), key = make(s, kWide), none = 0x7FFFFFF0;
  scripted::calls.clear();
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
  EXPECT_EQ(scripted::calls.size(), 0);
  make(s, 0);
  EXPECT_EQ(p11->C_SetOperationState(s, nullptr, 0, key, 0), CKR_OK) << "0: no key";
  EXPECT_EQ(p11->C_DigestKey(s, key), CKR_FUNCTION_NOT_SUPPORTED) << "the module lacks it";
  EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(p11->C_CloseSession(s), CKR_CRYPTOKI_NOT_INITIALIZED);
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
  EXPECT_EQ(use(a, kept), kNoSession);
  EXPECT_EQ(use(b, ofSession), kNoObject);
  EXPECT_EQ(use(b, shared), (Handles{kWide + 1, kWide + 3})) << "known in both sessions";
  const H reopened = open(kWide);
  EXPECT_NE(reopened, a);
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
  for (const char* end :
       {"C_DestroyObject", "C_CloseSession", "C_CloseAllSessions", "C_Finalize"}) {
    script.answers[end] = CKR_GENERAL_ERROR;
  }
  EXPECT_EQ(p11->C_DestroyObject(session, object), CKR_GENERAL_ERROR);
  EXPECT_EQ(p11->C_CloseSession(session), CKR_GENERAL_ERROR);
  EXPECT_EQ(p11->C_CloseAllSessions(7), CKR_GENERAL_ERROR);
  EXPECT_EQ(p11->C_Finalize(nullptr), CKR_GENERAL_ERROR);
  EXPECT_EQ(use(session, object), (Handles{kWide, kWide}));
  for (const CK_RV pulled : {CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED, CKR_DEVICE_REMOVED}) {
    const H number = open(kWide + 1);
    script.answers["C_CloseSession"] = pulled;
    EXPECT_EQ(p11->C_CloseSession(number), pulled);
    EXPECT_EQ(use(number, object), kNoSession);
  }
}

TEST_F(Adapter, UndoesWhatItHasNoMemoryFor) {
  for (int blocks = 0; blocks < 8; ++blocks) {
    p11->C_Finalize(nullptr);
    p11->C_Initialize(nullptr);
    scripted::calls.clear();
    H session = 0;
    heapLeft = blocks;
    script.handle = kWide;
    CK_RV rv = p11->C_OpenSession(7, 0, nullptr, nullptr, &session);
    if (rv == CKR_OK) {
      rv = p11->C_GenerateKeyPair(session, &mechanism, nullptr, 0, nullptr, 0, &made, &made);
    }
    heapLeft = -1;
    EXPECT_EQ(rv, blocks < 4 ? CKR_HOST_MEMORY : CKR_OK);
    const auto destroyed = std::ranges::count_if(
        scripted::calls, [](const auto& call) { return call.starts_with("C_DestroyObject"); });
    const auto closed = std::ranges::count(scripted::calls, "C_CloseSession(0x7F0000000010)");
    EXPECT_EQ(closed, blocks < 2 ? 1 : 0);
    EXPECT_EQ(destroyed, blocks == 2 || blocks == 3 ? 2 : 0) << "both keys of a pair or none";
  }
}

TEST_F(Adapter, HoldsNoMoreThanIsOpen) {
  module.C_FindObjects = [](H, H* objects, CK_ULONG room, CK_ULONG* count) {
    for (*count = 0; *count < room; ++*count) objects[*count] = kWide + *count;
    return CK_RV{CKR_OK};
  };
  open(kWide - 1);  // keeps the slot's numbers
  const auto round = [&] {
    const H session = open(kWide);
    EXPECT_EQ(fetch(session, 1000), "1000");
    for (H i = 100; i < 110; ++i) make(session, kWide + i, CK_FALSE);
    EXPECT_EQ(p11->C_CloseSession(session), CKR_OK);
    return heapBlocks.load();
  };
  const long first = round();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(round(), first);
}

// ---- The module's life ----

TEST_F(Adapter, TakesTurnsWhereTheModuleCannotLock) {
  static std::vector<CK_FLAGS> flags;  // of each C_Initialize; all ones: no arguments
  static std::atomic<int> inside, mostInside;
  static void* kept = nullptr;
  module.C_Initialize = [](void* arguments) {
    const auto* given = static_cast<CK_C_INITIALIZE_ARGS*>(arguments);
    flags.push_back(given != nullptr ? given->flags : ~CK_FLAGS{0});
    EXPECT_TRUE(given == nullptr || given->pReserved == kept);
    return flags.back() == CKF_OS_LOCKING_OK ? script.answers["C_Initialize"] : CKR_OK;
  };
  module.C_SeedRandom = [](H, CK_BYTE*, CK_ULONG) {
    mostInside = std::max(mostInside.load(), ++inside);
    std::this_thread::yield();
    --inside;
    return CK_RV{CKR_OK};
  };
  CK_C_INITIALIZE_ARGS arguments = {};
  const char* const kSerial = "QUARVEL_PKCS11_ADAPTER_SERIAL";
  for (const CK_RV refusal :
       {CKR_CANT_LOCK, CKR_ARGUMENTS_BAD, CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_OK}) {
    p11->C_Finalize(nullptr);
    script.answers["C_Initialize"] = refusal;
    if (refusal == CKR_OK) setenv(kSerial, "", 1);
    arguments.pReserved = kept = refusal == CKR_CANT_LOCK ? &arguments : nullptr;
    EXPECT_EQ(p11->C_Initialize(kept), CKR_OK);
    unsetenv(kSerial);
    const H session = open(kWide);
    std::vector<std::jthread> threads(4);
    for (auto& thread : threads) {
      thread = std::jthread([&] {
        for (int i = 0; i < 1000; ++i) p11->C_SeedRandom(session, nullptr, 0);
      });
    }
    threads.clear();
    EXPECT_EQ(mostInside, 1);
    if (refusal != CKR_CRYPTOKI_ALREADY_INITIALIZED) continue;
    // Somebody else's: they keep it, but not our sessions.
    EXPECT_EQ(p11->C_Initialize(nullptr), refusal);
    scripted::calls.clear();
    EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(scripted::calls, std::vector<std::string>{"C_CloseSession(0x7F0000000010)"});
  }
  const CK_FLAGS asked = CKF_OS_LOCKING_OK, none = ~CK_FLAGS{0};
  EXPECT_EQ(flags, (std::vector{asked, CK_FLAGS{0}, asked, none, asked, asked, asked}));
}

TEST_F(Adapter, WorksInAChildWhileItsParentIsBusy) {
  const H session = open(kWide), object = make(session, kWide);
  module.C_GetObjectSize = succeed;
  std::atomic<bool> stop = false;
  std::jthread busy([&] {
    while (!stop) p11->C_GetObjectSize(session, object, nullptr);
  });
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0)
      _exit(alarm(20) + static_cast<int>(p11->C_GetObjectSize(session, object, nullptr)));
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  stop = true;
}

TEST_F(Adapter, AnswersAListWithRoomForNone) {
  module.C_GetSlotList = [](CK_BBOOL, H* slots, CK_ULONG* count) {
    if (slots != nullptr) return CK_RV{CKR_BUFFER_TOO_SMALL};  // as some do for an empty list too
    *count = script.slots.size();
    return CK_RV{CKR_OK};
  };
  EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, &made, &size), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 2);
  script.slots.clear();
  EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, &made, &(size = 0)), CKR_OK);
}

// ---- What it lifts ----

TEST_F(Adapter, NarrowsTypesAndCompletesMechanisms) {
  const H session = open(kWide), key = make(session, 0x21);
  CK_ATTRIBUTE attributes[] = {{0xFFFFFFFF80000201, nullptr, 0}, {CKA_LABEL, nullptr, 0}};
  module.C_GetAttributeValue = [](H, H, CK_ATTRIBUTE* given, CK_ULONG) {
    given[0].ulValueLen = given[0].type;
    given[1].ulValueLen = given[1].type;
    return CK_RV{CKR_OK};
  };
  EXPECT_EQ(p11->C_GetAttributeValue(session, key, attributes, 2), CKR_OK);
  EXPECT_EQ(attributes[0].ulValueLen, 0x80000201);
  EXPECT_EQ(attributes[1].ulValueLen, CKA_LABEL);
  EXPECT_EQ(attributes[0].type, 0xFFFFFFFF80000201) << "the caller's own";
  EXPECT_EQ(p11->C_Login(session, 0xFFFFFFFF80000001, nullptr, 0), CKR_OK);
  EXPECT_EQ(scripted::calls.back(), "C_Login(0x7F0000000010, 0x80000001, null/0)");

  static Handles given;  // the mechanism and the words of its parameter
  module.C_DecryptInit = [](H, CK_MECHANISM* mechanism, H) {
    given = {mechanism->mechanism};
    const auto* words = static_cast<CK_ULONG*>(mechanism->pParameter);
    given.insert(given.end(), words, words + mechanism->ulParameterLen / sizeof *words);
    return CK_RV{CKR_OK};
  };
  for (const Handles& standard :
       {Handles{0xFFFFFFFF80000041}, Handles{CKM_RSA_PKCS},
        Handles{CKM_RSA_PKCS_OAEP, CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, 0, 0},
        Handles{CKM_SHA1_RSA_PKCS_PSS, CKM_SHA_1, CKG_MGF1_SHA1, 20},
        Handles{CKM_SHA224_RSA_PKCS_PSS, CKM_SHA224, CKG_MGF1_SHA224, 28},
        Handles{CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 32},
        Handles{CKM_SHA384_RSA_PKCS_PSS, CKM_SHA384, CKG_MGF1_SHA384, 48},
        Handles{CKM_SHA512_RSA_PKCS_PSS, CKM_SHA512, CKG_MGF1_SHA512, 64}}) {
    mechanism = {standard[0], nullptr, 0};
    EXPECT_EQ(p11->C_DecryptInit(session, &mechanism, key), CKR_OK);
    EXPECT_EQ(given.front(), standard.front() & 0xFFFFFFFF);
    EXPECT_TRUE(std::equal(given.begin() + 1, given.end(), standard.begin() + 1, standard.end()));
    mechanism = {standard[0], &size, sizeof size};
    EXPECT_EQ(p11->C_DecryptInit(session, &mechanism, key), CKR_OK);
    EXPECT_EQ(given, (Handles{standard[0] & 0xFFFFFFFF, size})) << "the caller's own parameter";
  }
}

TEST_F(Adapter, LogsInForAnOperation) {
  const H session = open(kWide), key = make(session, 0x21);
  const auto sign = [&](CK_BYTE* out, CK_ULONG room) {
    return p11->C_Sign(session, bytes, 1, out, &room);
  };
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
  EXPECT_EQ(sign(nullptr, 0), CKR_OK);
  EXPECT_EQ(sign(bytes, 1), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(login(), twice) << "still under way";
  EXPECT_EQ(sign(bytes, 3), CKR_OK);
  EXPECT_EQ(login(), once);
  script.answers["C_SignInit"] = CKR_MECHANISM_INVALID;
  EXPECT_EQ(p11->C_SignInit(session, &mechanism, key), CKR_MECHANISM_INVALID);
  EXPECT_EQ(login(), once);
}

TEST_F(Adapter, ReadsAhead) {
  static int asked;
  static H left;
  static CK_RV answer;
  module.C_FindObjects = [](H, H* objects, CK_ULONG room, CK_ULONG* count) {
    ++asked;
    for (*count = 0; *count < room && left > 0; ++*count) objects[*count] = kWide + left--;
    return std::exchange(answer, CKR_OK);
  };
  const H session = open(kWide);
  std::vector<std::string> fetched;
  left = 150;
  for (int i = 0; i <= 150; ++i) fetched.push_back(fetch(session, 1));
  EXPECT_EQ(fetched.front() + fetched[149] + fetched[150], "110");
  EXPECT_EQ(std::set(found.begin(), found.end()).size(), 150);
  EXPECT_EQ(asked, 4) << "64, 64, 22, 0";

  left = 150;
  fetched = {fetch(session, 1000), fetch(session, 1000)};
  EXPECT_EQ(fetched, (std::vector<std::string>{"150", "0"}));
  left = 64;
  fetched = {fetch(session, 60)};
  answer = CKR_DEVICE_ERROR;
  for (const CK_ULONG room : {60, 60, 60}) fetched.push_back(fetch(session, room));
  EXPECT_EQ(fetched, (std::vector<std::string>{"60", "4", "error", "0"}));

  left = 10;
  fetched = {fetch(session, 1)};
  script.answers["C_FindObjectsInit"] = CKR_OPERATION_ACTIVE;
  EXPECT_EQ(p11->C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
  fetched.push_back(fetch(session, 1));
  EXPECT_EQ(p11->C_FindObjectsFinal(session), CKR_OK);
  fetched.push_back(fetch(session, 1));
  EXPECT_EQ(fetched, (std::vector<std::string>{"1", "1", "0"})) << "the search was still active";
}

// ---- Loading ----

TEST(Loading, TellsWhyItFails) {
  namespace fs = std::filesystem;
  const fs::path folder = testing::TempDir() + "adapter" + std::to_string(getpid());
  const std::string a = folder / "a.so", b = folder / "b.so", link = folder / "link.so",
                    module = folder / "module.so", text = folder / "text";
  fs::create_directory(folder);
  for (const std::string& copy : {a, b}) fs::copy(QUARVEL_ADAPTER, copy);
  fs::copy(scripted::file(), module);
  fs::create_symlink(a, link);
  std::ofstream(text) << "not a library";
  std::ofstream(b + ".module") << a;
  const auto load = [&](CK_FUNCTION_LIST** list) {
    void* library = dlopen(a.c_str(), RTLD_NOW);
    const CK_RV rv =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"))(list);
    if (rv != CKR_OK) dlclose(library);
    return rv;
  };
  CK_FUNCTION_LIST* list = nullptr;
  unsetenv("QUARVEL_PKCS11_ADAPTED_MODULE");
  EXPECT_EQ(load(&list), CKR_ARGUMENTS_BAD) << "nothing is named";
  setenv("QUARVEL_PKCS11_ADAPTED_MODULE", scripted::file().c_str(), 1);  // the file comes before it
  for (const auto& [named, rv] : std::initializer_list<std::pair<std::string, CK_RV>>{
           {"", CKR_ARGUMENTS_BAD},
           {std::string(5000, 'x'), CKR_ARGUMENTS_BAD},
           {folder / "absent", CKR_LIBRARY_LOAD_FAILED},
           {text, CKR_LIBRARY_LOAD_FAILED},
           {"libc.so.6", CKR_FUNCTION_NOT_SUPPORTED},
           {QUARVEL_SILENT, CKR_GENERAL_ERROR},
           {a, CKR_FUNCTION_REJECTED},
           {link, CKR_FUNCTION_REJECTED},
           {b, CKR_FUNCTION_REJECTED},
           {module + "\n", CKR_OK}}) {
    std::ofstream(a + ".module") << named;
    EXPECT_EQ(load(&list), rv) << named;
  }

  fs::remove_all(folder);
  unsetenv("QUARVEL_PKCS11_ADAPTED_MODULE");
  EXPECT_EQ(list->C_Initialize(nullptr), CKR_OK);
  CK_FUNCTION_LIST* again = nullptr;
  EXPECT_EQ(list->C_GetFunctionList(&again), CKR_OK) << "not read while it is initialised";
  EXPECT_EQ(again, list);
  EXPECT_EQ(list->C_Finalize(nullptr), CKR_OK);
  dlclose(dlopen(a.c_str(), RTLD_NOW | RTLD_NOLOAD));
  EXPECT_NE(dlopen(module.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr)
      << "stays for threads that it left behind";
}

// ---- Modules that misbehave, and many threads ----

TEST_F(Adapter, SurvivesModulesThatMisbehave) {
  for (const auto& misbehaviour : scripted::misbehaviours()) {
    SCOPED_TRACE(misbehaviour.name);
    scripted::reset();
    misbehaviour.install();
    H slots[8], session = 0, object = 0;
    CK_ATTRIBUTE attribute = {0xFFFFFFFF80000001, bytes, sizeof bytes};
    mechanism = {CKM_SHA256_RSA_PKCS_PSS, nullptr, 0};
    p11->C_GetSlotList(CK_TRUE, slots, &(size = 8));
    p11->C_GetMechanismList(7, slots, &(size = 8));
    for (int i = 0; i < 3; ++i) {
      p11->C_OpenSession(7, 0, nullptr, nullptr, &session);
      p11->C_CreateObject(session, &attribute, 1, &object);
      p11->C_GetAttributeValue(session, object, &attribute, 1);
      attribute = {0xFFFFFFFF80000001, bytes, sizeof bytes};
      p11->C_FindObjectsInit(session, &attribute, 1);
      for (int j = 0; j < 100; ++j) EXPECT_NE(fetch(session, 3), "99");
      p11->C_SignInit(session, &mechanism, object);
      p11->C_Sign(session, bytes, 8, bytes, &(size = 8));
      p11->C_WrapKey(session, &mechanism, object, object, bytes, &(size = 8));
      p11->C_GenerateKeyPair(session, &mechanism, &attribute, 1, &attribute, 1, &made, &made);
      p11->C_DestroyObject(session, object);
      if (i != 1) p11->C_CloseSession(session);
    }
  }
}

// A module for many threads. Its sessions and objects are one kind of thing; the lowest free handle
// is handed out at once anew, and each thing has a name of its own, which C_GetObjectSize tells.
static std::array<std::atomic<H>, 64> things;  // the names by handle, 0 for a free one

static CK_RV makeThing(H* handle) {
  static std::atomic<H> lastName;
  const H name = ++lastName;
  std::size_t at = 0;
  for (H none = 0; !things[at].compare_exchange_strong(none, name); none = 0) ++at;
  *handle = kWide + at;
  return CKR_OK;
}
static CK_RV endThing(H handle) {
  return things.at(handle - kWide).exchange(0) != 0 ? CKR_OK : CKR_GENERAL_ERROR;
}

TEST_F(Adapter, ServesManyThreads) {
  module.C_OpenSession = [](H, CK_FLAGS, void*, CK_NOTIFY, H* made) { return makeThing(made); };
  module.C_CreateObject = [](H, CK_ATTRIBUTE*, CK_ULONG, H* made) { return makeThing(made); };
  module.C_CloseSession = endThing;
  module.C_DestroyObject = [](H, H object) { return endThing(object); };
  module.C_GetObjectSize = [](H session, H object, CK_ULONG* name) {
    *name = things.at(object - kWide);
    return CK_RV{*name != 0 && things.at(session - kWide) != 0 ? CKR_OK : CKR_GENERAL_ERROR};
  };
  module.C_FindObjectsInit = succeed;
  module.C_FindObjects = [](H, H* objects, CK_ULONG room, CK_ULONG* count) {
    *count = 0;
    for (H at = 0; at < things.size() && *count < room; ++at) {
      if (things[at] != 0) objects[(*count)++] = kWide + at;
    }
    return CK_RV{CKR_OK};
  };
  module.C_SignInit = succeed;
  std::vector<std::jthread> threads;
  for (H slot = 0; slot < 8; ++slot) {
    threads.emplace_back([this, slot] {
      H session = 0, object = 0, before = 0, after = 1, objects[5];
      CK_ULONG count;
      CK_MECHANISM own = {};
      for (int round = 0; round < 2000; ++round) {
        CK_RV rv = p11->C_OpenSession(slot % 2, 0, nullptr, nullptr, &session);
        rv |= p11->C_CreateObject(session, nullptr, 0, &object);
        rv |= p11->C_GetObjectSize(session, object, &before);
        rv |= p11->C_FindObjectsInit(session, nullptr, 0);
        rv |= p11->C_FindObjects(session, objects, 5, &count);
        rv |= p11->C_SignInit(session, &own, object);
        rv |= p11->C_GetObjectSize(session, object, &after);
        rv |= p11->C_DestroyObject(session, object);
        rv |= p11->C_CloseSession(session);
        EXPECT_TRUE(rv == CKR_OK && before == after) << rv << ' ' << before << ' ' << after;
      }
    });
  }
}
