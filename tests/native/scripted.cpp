// SPDX-License-Identifier: Apache-2.0
#include "scripted.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace scripted {

Script script;
void (*onCall)(const std::string& call);
CK_FUNCTION_LIST list;
CK_FUNCTION_LIST_PTR handedOut;

namespace {

// ---- How calls read ----

std::string text(const char* format, unsigned long value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

std::string number(CK_ULONG value) { return text(value <= 0x7FFFFFFF ? "%lu" : "0x%lX", value); }

std::string entries(const CK_ATTRIBUTE* attr, CK_ULONG count) {
  if (attr == nullptr) return "null/" + number(count);
  std::string shown;
  for (CK_ULONG i = 0; i < count; ++i) {
    shown += (i == 0 ? "" : ", ") + text("%lx:", attr[i].type) +
             data(attr[i].pValue, attr[i].ulValueLen);
  }
  return "{" + shown + "}";
}

/// The arguments of a call. An input buffer shows with the length behind it, an output buffer with
/// its room; other outputs do not show.
struct Arguments {
  std::string shown;

  void add() {}
  void add(CK_ATTRIBUTE* attr, CK_ULONG count, auto... rest) { add(entries(attr, count), rest...); }
  void add(CK_BYTE* bytes, CK_ULONG size, auto... rest) { add(data(bytes, size), rest...); }
  void add(CK_BYTE* bytes, CK_ULONG* room) { add(static_cast<void*>(bytes), *room); }
  void add(CK_MECHANISM* mechanism, auto... rest) {
    const bool plain = mechanism->pParameter == nullptr && mechanism->ulParameterLen == 0;
    const char* with = plain ? "" : " with parameter";
    add("mech " + number(mechanism->mechanism) + with, rest...);
  }
  void add(std::integral auto value, auto... rest) { add(number(value), rest...); }
  template <typename Output>
  requires std::is_class_v<Output> || std::is_same_v<Output, CK_ULONG>
  void add(Output* /*output*/, auto... rest) { add(rest...); }
  void add(auto pointer, auto... rest) {
    add(std::string(pointer == nullptr ? "null" : "pointer"), rest...);
  }
  void add(const std::string& part, auto... rest) {
    shown += (shown.empty() ? "" : ", ") + part;
    add(rest...);
  }
};

/// Reports a call and finds its answer.
CK_RV report(const std::string& function, auto... args) {
  Arguments arguments;
  arguments.add(args...);
  if (onCall != nullptr) onCall(function + "(" + arguments.shown + ")");
  if (script.failFrom == 1) return script.failWith;
  if (script.failFrom != 0) --script.failFrom;
  const auto found = script.answers.find(script.answers.contains(function) ? function : "*");
  return found != script.answers.end() ? found->second : CKR_OK;
}

// ---- Answers ----

/// Writes a size, and up to the room that there is, also when the answer is a failure.
template <typename Item>
CK_RV give(CK_RV rv, const std::vector<Item>& from, Item* to, CK_ULONG* size) {
  const CK_ULONG room = *size;
  const bool lies = !script.lies.empty();
  *size = lies ? script.lies.at(to == nullptr ? 0 : 1) : from.size();
  if (to == nullptr) return rv;
  std::copy_n(from.begin(), std::min<CK_ULONG>(room, from.size()), to);
  return rv == CKR_OK && !lies && room < from.size() ? CKR_BUFFER_TOO_SMALL : rv;
}

/// Every other value of a template points nowhere, the others to memory of the module's own.
void spoil(CK_ATTRIBUTE* attr, CK_ULONG count) {
  static CK_BYTE own[8];
  for (CK_ULONG i = 0; i < count; ++i) attr[i] = {0, i % 2 == 0 ? own : nullptr, sizeof own};
}

/// Fills the outputs: new handles, letters from A to Z over and over in every information
/// structure, the script's output in a buffer.
struct Outputs {
  static CK_RV fill() { return CKR_OK; }
  static CK_RV fill(CK_BYTE* out, CK_ULONG* size) {
    if (out != nullptr) std::memset(out, 0xEE, *size);
    if (script.claim == nullptr) return give(CKR_OK, script.output, out, size);
    *size = script.claim(*size);
    return CKR_OK;
  }
  static CK_RV fill(CK_ATTRIBUTE* attr, CK_ULONG count, auto... rest) {
    if (script.spoilsTemplates) spoil(attr, count);
    return fill(rest...);
  }
  static CK_RV fill(CK_ULONG* handle, auto... rest) {
    *handle = script.handle++;
    return fill(rest...);
  }
  template <typename Info>
  requires std::is_class_v<Info>
  static CK_RV fill(Info* info) {
    auto* bytes = reinterpret_cast<CK_BYTE*>(info);
    for (std::size_t i = 0; bytes != nullptr && i < sizeof *info; ++i)
      bytes[i] = script.filler != 0 ? script.filler : static_cast<CK_BYTE>('A' + i % 26);
    return CKR_OK;
  }
  static CK_RV fill(auto /*input*/, auto... rest) { return fill(rest...); }
};

/// A function that reports and writes its outputs, also when it fails.
template <Name name, typename... Args>
CK_RV plain(Args... args) {
  const CK_RV rv = report(name.chars, args...);
  const CK_RV filled = Outputs::fill(args...);
  return rv != CKR_OK ? rv : filled;
}

template <Name name, auto items>
CK_RV listed(auto selector, CK_ULONG* to, CK_ULONG* count) {
  return give(report(name.chars, selector, static_cast<void*>(to)), script.*items, to, count);
}

CK_RV getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attr,
                        CK_ULONG count) {
  const CK_RV rv = report("C_GetAttributeValue", session, object, attr, count);
  if (script.movesValues) spoil(attr, count);
  if (script.movesValues) return rv;
  return give(rv, script.value, static_cast<CK_BYTE*>(attr->pValue), &attr->ulValueLen);
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* object, CK_ULONG room,
                  CK_ULONG* count) {
  const CK_RV rv = report("C_FindObjects", session, room);
  *object = 0xEE;
  if (script.found.empty()) return rv;
  *count = 1;
  *object = script.found.front();
  script.found.erase(script.found.begin());
  return rv;
}

// Its types are those of a function that reads the buffer.
CK_RV generateRandom(CK_SESSION_HANDLE session, CK_BYTE* out, CK_ULONG room) {
  std::fill_n(out, out != nullptr ? room : 0, 0xEE);
  return report("C_GenerateRandom", session, static_cast<void*>(out), room);
}

}  // namespace

std::string data(const void* bytes, CK_ULONG size) {
  if (bytes == nullptr) return "null/" + number(size);
  if (size > 32) return "[" + number(size) + " bytes]";
  std::string shown;
  for (CK_ULONG i = 0; i < size; ++i) {
    shown += text(i == 0 ? "%02lx" : " %02lx", static_cast<const CK_BYTE*>(bytes)[i]);
  }
  return "[" + shown + "]";
}

std::string file() {
  Dl_info info;
  return dladdr(&list, &info) != 0 ? info.dli_fname : "";
}

void reset() {
  script = {};
  handedOut = &list;
  list = {};
  // All that come without a line below, but for C_DigestKey, which a test of the adapter wants
  // missing.
  // clang-format off
#define X(NAME) list.C_##NAME = plain<"C_" #NAME>;
  X(Initialize) X(Finalize) X(GetInfo) X(GetSlotInfo) X(GetTokenInfo) X(GetMechanismInfo)
  X(InitToken) X(InitPIN) X(SetPIN) X(OpenSession) X(CloseSession) X(CloseAllSessions)
  X(GetSessionInfo) X(GetOperationState) X(SetOperationState) X(Login) X(Logout) X(CreateObject)
  X(CopyObject) X(DestroyObject) X(GetObjectSize) X(SetAttributeValue) X(FindObjectsInit)
  X(FindObjectsFinal) X(EncryptInit) X(Encrypt) X(EncryptUpdate) X(EncryptFinal) X(DecryptInit)
  X(Decrypt) X(DecryptUpdate) X(DecryptFinal) X(DigestInit) X(Digest) X(DigestUpdate)
  X(DigestFinal) X(SignInit) X(Sign) X(SignUpdate) X(SignFinal) X(SignRecoverInit) X(SignRecover)
  X(VerifyInit) X(Verify) X(VerifyUpdate) X(VerifyFinal) X(VerifyRecoverInit) X(VerifyRecover)
  X(DigestEncryptUpdate) X(DecryptDigestUpdate) X(SignEncryptUpdate) X(DecryptVerifyUpdate)
  X(GenerateKey) X(GenerateKeyPair) X(WrapKey) X(UnwrapKey) X(DeriveKey) X(SeedRandom)
  X(GetFunctionStatus) X(CancelFunction) X(WaitForSlotEvent)
#undef X
      // clang-format on
      list.C_GetAttributeValue = getAttributeValue;
  list.C_FindObjects = findObjects;
  list.C_GetSlotList = listed<"C_GetSlotList", &Script::slots>;
  list.C_GetMechanismList = listed<"C_GetMechanismList", &Script::mechanisms>;
  list.C_GenerateRandom = generateRandom;
  if (char* sizes = std::getenv("QUARVEL_LIES"); sizes != nullptr) {
    const CK_ULONG first = std::strtoul(sizes, &sizes, 0);
    script.lies = {first, std::strtoul(sizes, nullptr, 0)};
  }
  const char* chosen = std::getenv("QUARVEL_MISBEHAVIOUR");
  const std::string number = chosen != nullptr ? chosen : "0";
  if (number == "names") {
    for (const Misbehaviour& misbehaviour : misbehaviours()) std::puts(misbehaviour.name);
    std::exit(0);
  }
  misbehaviours().at(std::stoul(number)).install();
}

[[maybe_unused]] static const bool ready = (reset(), true);

}  // namespace scripted

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR functionList) {
  *functionList = scripted::handedOut;
  return scripted::report("C_GetFunctionList");
}
