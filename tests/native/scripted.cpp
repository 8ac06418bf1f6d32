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

/// Fills the outputs: new handles, letters from A to Z over and over in every information
/// structure, the script's output in a buffer.
struct Outputs {
  static CK_RV fill() { return CKR_OK; }
  static CK_RV fill(CK_BYTE* out, CK_ULONG* size) {
    if (out != nullptr) std::memset(out, 0xEE, *size);
    return give(CKR_OK, script.output, out, size);
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
      bytes[i] = static_cast<CK_BYTE>('A' + i % 26);
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
  // clang-format off
#define PLAIN(NAME) list.NAME = plain<#NAME>;
  PLAIN(C_Initialize) PLAIN(C_Finalize) PLAIN(C_OpenSession) PLAIN(C_CloseSession)
  PLAIN(C_CloseAllSessions) PLAIN(C_InitPIN) PLAIN(C_SetPIN) PLAIN(C_Login) PLAIN(C_Logout)
  PLAIN(C_CreateObject) PLAIN(C_DestroyObject) PLAIN(C_SetAttributeValue) PLAIN(C_FindObjectsInit)
  PLAIN(C_FindObjectsFinal) PLAIN(C_SignInit) PLAIN(C_EncryptInit) PLAIN(C_DecryptInit)
  PLAIN(C_Sign) PLAIN(C_Encrypt) PLAIN(C_Decrypt) PLAIN(C_GenerateKey) PLAIN(C_GenerateKeyPair)
  PLAIN(C_WrapKey) PLAIN(C_UnwrapKey) PLAIN(C_GetInfo) PLAIN(C_GetSlotInfo) PLAIN(C_GetTokenInfo)
  PLAIN(C_GetMechanismInfo) PLAIN(C_GetSessionInfo) PLAIN(C_GetObjectSize)
      // clang-format on
      list.C_GetAttributeValue = getAttributeValue;
  list.C_FindObjects = findObjects;
  list.C_GetSlotList = listed<"C_GetSlotList", &Script::slots>;
  list.C_GetMechanismList = listed<"C_GetMechanismList", &Script::mechanisms>;
  if (char* sizes = std::getenv("QUARVEL_LIES"); sizes != nullptr) {
    const CK_ULONG first = std::strtoul(sizes, &sizes, 0);
    script.lies = {first, std::strtoul(sizes, nullptr, 0)};
  }
  const char* number = std::getenv("QUARVEL_MISBEHAVIOUR");
  misbehaviours().at(number != nullptr ? std::strtoul(number, nullptr, 10) : 0).install();
}

[[maybe_unused]] static const bool ready = (reset(), true);

}  // namespace scripted

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR functionList) {
  *functionList = scripted::handedOut;
  return scripted::report("C_GetFunctionList");
}
