// SPDX-License-Identifier: Apache-2.0
#include "pkcs11Bridge.h"

#include <dlfcn.h>
#include <linux/limits.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "trace.h"

int debug = 0;

namespace bridge {

CK_FUNCTION_LIST_PTR pFunctionList = nullptr;
void* hLibrary = nullptr;
int loaded = 0;

namespace {

// Whether pFunctionList came from the last loadLib and its module has not been closed since. The
// list alone cannot tell: a failed load and finalizeLib leave the earlier pointer in place.
bool listUsable = false;

// What a module's C_GetFunctionList finds in pFunctionList: neither null nor any module's list, so
// that what it wrote, the list in use before or null, can be told from nothing written.
CK_FUNCTION_LIST unwritten = {};

/// Makes a call that may run a module's code to start or to end, and puts the thread's
/// floating-point control word back after it: code linked with -ffast-math switches denormals off
/// when it is loaded, and Java would compute wrong from then on.
template <typename Call>
auto keepFloatingPoint(Call call) {
#if defined(__x86_64__)
  const unsigned control = __builtin_ia32_stmxcsr();
  const auto result = call();
  __builtin_ia32_ldmxcsr(control);
#elif defined(__aarch64__)
  const unsigned control = __builtin_aarch64_get_fpcr();
  const auto result = call();
  __builtin_aarch64_set_fpcr(control);
#else
  const auto result = call();  // no such word is known of other processors
#endif
  return result;
}

/// The module's function behind `entry`, null when the module or its list lacks it.
template <typename Function>
Function functionOf(Function CK_FUNCTION_LIST::*entry) {
  return pFunctionList != nullptr ? pFunctionList->*entry : nullptr;
}

/// The start of every call-through: refusal or trace, then the function.
/// @param text what to trace, or a function that traces it with arguments
/// @return CKR_OK with `function` set, CKR_ZOV_NOTINIT or CKR_ZOV_NOFUNCPTR
template <typename Text, typename Function>
[[gnu::always_inline]] inline CK_RV begin(Text text, Function CK_FUNCTION_LIST::*entry,
                                          Function* function) {
  if (loaded == 0) return CKR_ZOV_NOTINIT;
  if constexpr (std::is_invocable_v<Text>) {
    text();
  } else {
    TRACE("%s", text);
  }
  *function = functionOf(entry);
  return *function != nullptr ? CKR_OK : CKR_ZOV_NOFUNCPTR;
}

/// A whole call-through.
/// @param done traces what came of the call
template <typename Text, typename Function, typename Done, typename... Args>
CK_RV callThrough(Text text, Function CK_FUNCTION_LIST::*entry, Done done, Args... args) {
  Function function;
  if (const CK_RV refusal = begin(text, entry, &function); refusal != CKR_OK) return refusal;
  const CK_RV ckRv = function(args...);
  done();
  return ckRv;
}

/// The common one, which traces no more than its end.
template <typename Text, typename Function, typename... Args>
CK_RV call(Text text, Function CK_FUNCTION_LIST::*entry, Args... args) {
  return callThrough(
      text, entry, [] { traceLine(" Done"); }, args...);
}

/// The one of a function whose last argument is the length of its output.
template <typename Function, typename... Args>
CK_RV callWithOutput(const char* text, Function CK_FUNCTION_LIST::*entry, CK_ULONG* outLen,
                     Args... args) {
  return callThrough(
      text, entry, [=] { TRACE(" Done(out=%li)\n", *outLen); }, args..., outLen);
}

/// A block of `size` bytes that are zero, so that a module that then writes less than it says
/// discloses nothing of the heap; null without memory.
void* allocateZeroed(std::size_t size) {
  // glibc's calloc is slow for the sizes of nearly all lists and values, and g++ would turn malloc
  // and memset into it if it saw that the block is the same. Large blocks come zeroed at no cost.
  constexpr std::size_t kSmall = 4096;
  if (size > kSmall) return std::calloc(size, 1);
  void* block = std::malloc(size);
  asm("" : "+r"(block));
  if (block != nullptr) std::memset(block, 0, size);
  return block;  // NOLINT(clang-analyzer-unix.Malloc): hidden from the analyser as well
}

/// The two calls that read a list of 8-byte items into a block of its own.
/// @param selector the argument before list and counter
/// @param traceCount called with the return value of the first call
template <typename Function, typename Selector, typename TraceCount>
CK_RV readList(const char* text, Function CK_FUNCTION_LIST::*entry, Selector selector,
               CK_ULONG** items, CK_ULONG* pCounter, TraceCount traceCount) {
  Function function;
  if (const CK_RV refusal = begin(text, entry, &function); refusal != CKR_OK) return refusal;

  CK_RV ckRv = function(selector, nullptr, pCounter);
  traceCount(ckRv);
  if (ckRv != CKR_OK) return ckRv;

  const CK_ULONG room = *pCounter;
  if (room > SIZE_MAX / sizeof(CK_ULONG)) return CKR_ZOV_NOSPACE;
  *items = static_cast<CK_ULONG*>(allocateZeroed(room * sizeof(CK_ULONG)));
  if (*items == nullptr) return CKR_ZOV_NOSPACE;

  ckRv = function(selector, *items, pCounter);
  traceLine(" Done");
  if (ckRv == CKR_OK && *pCounter > room) ckRv = CKR_BUFFER_TOO_SMALL;
  if (ckRv != CKR_OK) std::free(*items);
  return ckRv;
}

CK_ULONG length(CK_CHAR_PTR pin) { return std::strlen(reinterpret_cast<const char*>(pin)); }

unsigned long address(const void* pointer) { return reinterpret_cast<unsigned long>(pointer); }

}  // namespace

// ---- Module lifecycle ----

CK_RV loadLib(const char* libName, CK_FUNCTION_LIST_PTR* pFuncList) {
  listUsable = false;
  TRACE("JNI:BRIDGE: Start loading library...");
  // The dynamic linker copies the name to the stack, which a text of megabytes would overflow. A
  // longer name opens no file, but where its ${PLATFORM} expands to less; that is given up.
  const bool fits = std::strlen(libName) < PATH_MAX;
  hLibrary = fits ? keepFloatingPoint([=] { return dlopen(libName, RTLD_LAZY); }) : nullptr;
  TRACE(" Done: %lx\n", address(hLibrary));
  if (hLibrary == nullptr) return CKR_ZOV_NOFUNCPTR;

  TRACE("JNI:BRIDGE: Getting FuncList address...");
  void* symbol = dlsym(hLibrary, "C_GetFunctionList");
  TRACE(" Done: %lx\n", address(symbol));
  if (symbol == nullptr) return CKR_ZOV_NOFUNCPTR;

  TRACE("JNI:BRIDGE: Calling FuncList...");
  const CK_FUNCTION_LIST_PTR earlier = pFunctionList;
  pFunctionList = &unwritten;
  const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(symbol);
  const CK_RV ckRv = keepFloatingPoint([=] { return getFunctionList(&pFunctionList); });
  const bool written = pFunctionList != &unwritten;
  if (!written) pFunctionList = earlier;
  TRACE(" Done: %lx\n", address(pFunctionList));
  if (ckRv != CKR_OK) return ckRv;
  if (!written || pFunctionList == nullptr) return CKR_ZOV_NOFUNCPTR;

  listUsable = true;
  *pFuncList = pFunctionList;
  return CKR_OK;
}

CK_RV initLib() {
  TRACE("JNI:BRIDGE: Initializing...");
  const CK_C_Initialize function =
      listUsable ? functionOf(&CK_FUNCTION_LIST::C_Initialize) : nullptr;
  if (function == nullptr) return CKR_ZOV_NOFUNCPTR;
  const CK_RV ckRv = keepFloatingPoint([=] { return function(nullptr); });
  TRACE(" Done: %li\n", ckRv);
  if (ckRv == CKR_OK) loaded = 1;
  return ckRv;
}

CK_RV finalizeLib() {
  TRACE("JNI:BRIDGE: Finalizing...");
  if (!listUsable) {
    loaded = 0;
    return CKR_ZOV_NOFUNCPTR;
  }
  const CK_C_Finalize function = functionOf(&CK_FUNCTION_LIST::C_Finalize);
  if (function == nullptr) return CKR_ZOV_NOFUNCPTR;
  const CK_RV ckRv = keepFloatingPoint([=] { return function(nullptr); });
  TRACE(" Done: %li\n", ckRv);
  TRACE("JNI:BRIDGE: It's ok the dlclose ???");
  keepFloatingPoint([] { return dlclose(hLibrary); });
  TRACE("JNI:BRIDGE: It's ok the dlclose !!!");
  listUsable = false;
  loaded = 0;
  return ckRv;
}

// ---- Call-throughs ----

CK_RV getInfo(CK_INFO* pCkInfo) {
  return call("JNI:BRIDGE: Calling C_GetInfo...", &CK_FUNCTION_LIST::C_GetInfo, pCkInfo);
}

CK_RV getSlotList(CK_SLOT_ID_PTR* slots, CK_BBOOL tokenIn, CK_ULONG* pCounter) {
  return readList(
      "JNI:BRIDGE: Calling C_GetSlotList...", &CK_FUNCTION_LIST::C_GetSlotList, tokenIn, slots,
      pCounter, [=](CK_RV ckRv) { TRACE(" (slots=%li)... %li", *pCounter, ckRv); });
}

CK_RV getSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* pCkSlotInfo) {
  return call(
      "JNI:BRIDGE: Calling C_GetSlotInfo...", &CK_FUNCTION_LIST::C_GetSlotInfo, slot, pCkSlotInfo);
}

CK_RV getTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* pCkTokenInfo) {
  return call("JNI:BRIDGE: Calling C_GetTokenInfo...", &CK_FUNCTION_LIST::C_GetTokenInfo, slot,
              pCkTokenInfo);
}

CK_RV getMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE_PTR* mechs, CK_ULONG* pCounter) {
  return readList(
      "JNI:BRIDGE: Calling C_GetMechanismList...", &CK_FUNCTION_LIST::C_GetMechanismList, slot,
      mechs, pCounter, [=](CK_RV) { TRACE("(mechs=%li)...\n", *pCounter); });
}

CK_RV getMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE mach, CK_MECHANISM_INFO* pCkMechInfo) {
  return call("JNI:BRIDGE: Calling C_GetMechanismInfo...", &CK_FUNCTION_LIST::C_GetMechanismInfo,
              slot, mach, pCkMechInfo);
}

CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE* pSession) {
  return callThrough(
      "JNI:BRIDGE: Calling C_OpenSession...", &CK_FUNCTION_LIST::C_OpenSession,
      [=] { TRACE(" Done(session=%li)\n", *pSession); }, slot, flags, nullptr, nullptr, pSession);
}

CK_RV closeAllSessions(CK_SLOT_ID slot) {
  return call(
      "JNI:BRIDGE: Calling C_CloseAllSessions...", &CK_FUNCTION_LIST::C_CloseAllSessions, slot);
}

CK_RV closeSession(CK_SESSION_HANDLE session) {
  return call("JNI:BRIDGE: Calling C_CloseSession...", &CK_FUNCTION_LIST::C_CloseSession, session);
}

CK_RV getSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO* pCkSessionInfo) {
  return call("JNI:BRIDGE: Calling C_GetSessionInfo...", &CK_FUNCTION_LIST::C_GetSessionInfo,
              session, pCkSessionInfo);
}

CK_RV initPin(CK_SESSION_HANDLE session, CK_CHAR_PTR newPin) {
  return call("JNI:BRIDGE: Calling C_InitPIN...", &CK_FUNCTION_LIST::C_InitPIN, session, newPin,
              length(newPin));
}

CK_RV setPin(CK_SESSION_HANDLE session, CK_CHAR_PTR oldPin, CK_CHAR_PTR newPin) {
  return call("JNI:BRIDGE: Calling C_SetPIN...", &CK_FUNCTION_LIST::C_SetPIN, session, oldPin,
              length(oldPin), newPin, length(newPin));
}

CK_RV setPinellips(CK_SESSION_HANDLE session, CK_BYTE_PTR oldPin, CK_ULONG oldPinLen,
                   CK_BYTE_PTR newPin, CK_ULONG newPinLen) {
  return call(
      [=] {
        TRACE("JNI:BRIDGE: Calling C_SetPIN...");
        TRACE("JNI:BRIDGE: Calling C_SetPIN (len=%i)...", static_cast<int>(oldPinLen));
        TRACE("JNI:BRIDGE: Calling C_SetPIN (len=%i)...", static_cast<int>(newPinLen));
      },
      &CK_FUNCTION_LIST::C_SetPIN, session, oldPin, oldPinLen, newPin, newPinLen);
}

CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_CHAR_PTR pPin) {
  return call(
      [=] { TRACE("JNI:BRIDGE: Calling C_Login (l=%i)...", static_cast<int>(length(pPin))); },
      &CK_FUNCTION_LIST::C_Login, session, user, pPin, length(pPin));
}

CK_RV loginellips(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_BYTE_PTR pPin,
                  CK_ULONG pPinLen) {
  return call([=] { TRACE("JNI:BRIDGE: Calling C_Login (len=%i)...", static_cast<int>(pPinLen)); },
              &CK_FUNCTION_LIST::C_Login, session, user, pPin, pPinLen);
}

CK_RV loginAuthPath(CK_SESSION_HANDLE session, CK_USER_TYPE user) {
  return call("JNI:BRIDGE: Calling C_Login...", &CK_FUNCTION_LIST::C_Login, session, user, nullptr,
              CK_ULONG{0});
}

CK_RV logout(CK_SESSION_HANDLE session) {
  return call("JNI:BRIDGE: Calling C_Logout ...", &CK_FUNCTION_LIST::C_Logout, session);
}

CK_RV findObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attr, CK_ULONG count) {
  return call("JNI:BRIDGE: Calling C_FindObjectsInit ...", &CK_FUNCTION_LIST::C_FindObjectsInit,
              session, attr, count);
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* pObj) {
  CK_ULONG count = 0;
  const auto done = [&] {
    TRACE(" Done(found=%li)\n", count);
    if (count == 0) *pObj = CK_INVALID_HANDLE;
  };
  return callThrough("JNI:BRIDGE: Calling C_FindObjects ...", &CK_FUNCTION_LIST::C_FindObjects,
                     done, session, pObj, CK_ULONG{1}, &count);
}

CK_RV findObjectsFinal(CK_SESSION_HANDLE session) {
  return call(
      "JNI:BRIDGE: Calling C_FindObjectsFinal ...", &CK_FUNCTION_LIST::C_FindObjectsFinal, session);
}

CK_RV createObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* phObj, CK_ATTRIBUTE* attr,
                   CK_ULONG count) {
  return call("JNI:BRIDGE: Calling C_CreateObject...", &CK_FUNCTION_LIST::C_CreateObject, hSession,
              attr, count, phObj);
}

CK_RV destroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj) {
  return call(
      "JNI:BRIDGE: Calling C_DestroyObject...", &CK_FUNCTION_LIST::C_DestroyObject, hSession, hObj);
}

CK_RV getObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj, CK_ULONG* pSize) {
  return call("JNI:BRIDGE: Calling C_GetObjectSize...", &CK_FUNCTION_LIST::C_GetObjectSize,
              hSession, hObj, pSize);
}

CK_RV getAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj, CK_ATTRIBUTE* attr) {
  CK_C_GetAttributeValue function;
  const CK_RV refusal =
      begin([=] { TRACE("JNI:BRIDGE: Calling C_GetAttributeValue %lx ...", attr->type); },
            &CK_FUNCTION_LIST::C_GetAttributeValue, &function);
  if (refusal != CKR_OK) return refusal;

  attr->pValue = nullptr;
  attr->ulValueLen = 0;
  CK_RV ckRv = function(hSession, hObj, attr, 1);
  TRACE("(len=%li)...", attr->ulValueLen);
  if (ckRv != CKR_OK) return ckRv;

  const CK_ULONG room = attr->ulValueLen;
  if (room == SIZE_MAX) return CKR_ZOV_NOSPACE;
  auto* value = static_cast<CK_BYTE*>(allocateZeroed(room + 1));
  if (value == nullptr) return CKR_ZOV_NOSPACE;

  attr->pValue = value;
  ckRv = function(hSession, hObj, attr, 1);
  attr->pValue = value;  // whatever the module made of it: this block is what the caller frees
  if (ckRv == CKR_OK && attr->ulValueLen > room) ckRv = CKR_BUFFER_TOO_SMALL;
  if (ckRv == CKR_OK) value[attr->ulValueLen] = 0;
  traceLine(" Done");
  if (ckRv != CKR_OK) std::free(value);
  return ckRv;
}

CK_RV setAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObj, CK_ATTRIBUTE* attr,
                        CK_ULONG count) {
  return call("JNI:BRIDGE: Calling C_SetAttributeValue...", &CK_FUNCTION_LIST::C_SetAttributeValue,
              hSession, hObj, attr, count);
}

CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_OBJECT_HANDLE key) {
  return call(
      "JNI:BRIDGE: Calling C_SignInit ...", &CK_FUNCTION_LIST::C_SignInit, session, mech, key);
}

CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE_PTR inData, CK_ULONG inLen, CK_BYTE_PTR outData,
           CK_ULONG* outLen) {
  return callWithOutput("JNI:BRIDGE: Calling C_Sign ...", &CK_FUNCTION_LIST::C_Sign, outLen,
                        session, inData, inLen, outData);
}

CK_RV encryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_OBJECT_HANDLE key) {
  return call("JNI:BRIDGE: Calling C_EncryptInit ...", &CK_FUNCTION_LIST::C_EncryptInit, session,
              mech, key);
}

CK_RV encrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR inData, CK_ULONG inLen, CK_BYTE_PTR outData,
              CK_ULONG* outLen) {
  return callWithOutput("JNI:BRIDGE: Calling C_Encrypt ...", &CK_FUNCTION_LIST::C_Encrypt, outLen,
                        session, inData, inLen, outData);
}

CK_RV decryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_OBJECT_HANDLE key) {
  return call("JNI:BRIDGE: Calling C_DecryptInit ...", &CK_FUNCTION_LIST::C_DecryptInit, session,
              mech, key);
}

CK_RV decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR inData, CK_ULONG inLen, CK_BYTE_PTR outData,
              CK_ULONG* outLen) {
  return callWithOutput("JNI:BRIDGE: Calling C_Decrypt ...", &CK_FUNCTION_LIST::C_Decrypt, outLen,
                        session, inData, inLen, outData);
}

CK_RV wrapKey(CK_SESSION_HANDLE session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hWrappingKey,
              CK_OBJECT_HANDLE hKey, CK_BYTE_PTR outData, CK_ULONG* outLen) {
  return callWithOutput("JNI:BRIDGE: Calling C_WrapKey ...", &CK_FUNCTION_LIST::C_WrapKey, outLen,
                        session, pMechanism, hWrappingKey, hKey, outData);
}

CK_RV unwrapKey(CK_SESSION_HANDLE session, CK_MECHANISM_PTR pMechanism,
                CK_OBJECT_HANDLE hUnwrappingKey, CK_BYTE_PTR pWrappedKey, CK_ULONG ulWrappedKeyLen,
                CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey) {
  return callThrough(
      "JNI:BRIDGE: Calling C_UnwrapKey ...", &CK_FUNCTION_LIST::C_UnwrapKey, [] {}, session,
      pMechanism, hUnwrappingKey, pWrappedKey, ulWrappedKeyLen, pTemplate, ulAttributeCount, phKey);
}

CK_RV generateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM* mech, CK_ATTRIBUTE* pubAttr,
                      CK_ULONG pubLen, CK_ATTRIBUTE* prvAttr, CK_ULONG prvLen,
                      CK_OBJECT_HANDLE* pubKey, CK_OBJECT_HANDLE* prvKey) {
  return call("JNI:BRIDGE: Calling C_GenerateKeyPair ...", &CK_FUNCTION_LIST::C_GenerateKeyPair,
              session, mech, pubAttr, pubLen, prvAttr, prvLen, pubKey, prvKey);
}

CK_RV generateKey(CK_SESSION_HANDLE ckSessionNum, CK_MECHANISM_PTR ckMech, CK_ATTRIBUTE_PTR ckAttr,
                  CK_ULONG ckLen, CK_OBJECT_HANDLE_PTR ckKey) {
  return call("JNI:BRIDGE: Calling C_GenerateKey ...", &CK_FUNCTION_LIST::C_GenerateKey,
              ckSessionNum, ckMech, ckAttr, ckLen, ckKey);
}

CK_RV getRSACred(CK_CHAR_PTR /*alias*/, CK_ULONG /*aliasLen*/, CK_FLAGS /*flags*/,
                 CK_CHAR_PTR /*pPin*/, CK_ULONG /*pPinLen*/, CK_SLOT_ID_PTR /*pSlotID*/,
                 CK_SESSION_HANDLE_PTR /*pSession*/, CK_OBJECT_HANDLE_PTR /*pPrivateHandle*/,
                 CK_OBJECT_HANDLE_PTR /*pPublicHandle*/,
                 CK_OBJECT_HANDLE_PTR /*pCertificateHandle*/) {
  TRACE("Funzionalit\xE0 non implementata!");  // ISO-8859-1, the encoding of this one text
  return static_cast<CK_RV>(-1);
}

}  // namespace bridge
