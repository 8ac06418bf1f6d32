// SPDX-License-Identifier: Apache-2.0
#include "functions.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

namespace adapter {

constinit Table Handles::table;
constinit pthread_mutex_t Handles::mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

using List = CK_FUNCTION_LIST;

/// Calls a function whose failure leaves nothing more to do.
template <typename Function, typename... Args>
void attempt(Function List::*entry, Args... args) {
  if (const Function function = module::functionOf(entry)) function(args...);
}

/// Lets `act` read or write the entry of an open session, under the lock.
template <typename Act>
void withSession(CK_SESSION_HANDLE number, Act act) {
  const Handles handles;
  if (SessionEntry* session = handles->findSession(number)) act(session);
}

void noteOperation(CK_SESSION_HANDLE number, bool operating) {
  withSession(number, [=](SessionEntry* session) { session->operating = operating; });
}

/// Tells whether one of the templates makes a token object. The keys of a pair count as one.
bool areOnToken(const Attributes* attributes) {
  for (; attributes != nullptr; attributes = attributes->before) {
    for (const CK_ATTRIBUTE& attribute : std::span(attributes->value, attributes->count)) {
      if (attribute.type == CKA_TOKEN && attribute.pValue != nullptr &&
          attribute.ulValueLen == sizeof(CK_BBOOL) &&
          *static_cast<const CK_BBOOL*>(attribute.pValue) != CK_FALSE) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

// ---- Roles ----

void SearchingSession::finish(Context* context) {
  if (context->rv != CKR_OK) return;
  withSession(context->number, [](SessionEntry* session) {
    session->ahead.begin = session->ahead.end = session->ahead.error = 0;
  });
}

void NewSession::finish(Context* context) {
  if (context->rv != CKR_OK || callers == nullptr) return;
  Entry* stale = nullptr;
  CK_SESSION_HANDLE number = handle;
  if (Handles()->openSession(context->slot, &number, &stale)) {
    *callers = number;
  } else {
    attempt(&List::C_CloseSession, handle);
    context->rv = CKR_HOST_MEMORY;
  }
  Table::release(stale);
}

void NewObject::finish(Context* context) {
  if (context->answer != CKR_OK || callers == nullptr) return;
  CK_OBJECT_HANDLE number = handle;
  bool isNumbered = isOwnNumber(Kind::object, number);
  if (!isNumbered) {
    const bool ofSession = !context->onToken && !areOnToken(context->attributes);
    const Handles handles;
    SessionEntry* session = handles->findSession(context->number);
    isNumbered = session != nullptr && handles->numberObject(session, ofSession, &number);
  }
  if (isNumbered && context->rv == CKR_OK) {
    *callers = number;
    context->made = this;
    return;
  }
  context->rv = CKR_HOST_MEMORY;
  const NewObject* twin = std::exchange(context->made, nullptr);
  attempt(&List::C_DestroyObject, context->session, handle);
  if (twin != nullptr) attempt(&List::C_DestroyObject, context->session, twin->handle);
}

void OperationKey::finish(Context* context) {
  if (context->rv != CKR_OK && context->rv != CKR_OPERATION_ACTIVE) {
    noteOperation(context->number, false);
  }
}

void Result::finish(Context* context) {
  if (value != nullptr && context->rv == CKR_BUFFER_TOO_SMALL) noteOperation(context->number, true);
}

namespace {

/// A hash as RSA mechanisms name it.
struct Hash {
  CK_MECHANISM_TYPE digest;
  CK_RSA_PKCS_MGF_TYPE mask;  // the mask generation with it
  CK_MECHANISM_TYPE pss;      // the mechanism that hashes with it and signs by PSS
  CK_ULONG length;            // of a digest, in bytes
};

constexpr Hash kHashes[] = {
    {CKM_SHA_1, CKG_MGF1_SHA1, CKM_SHA1_RSA_PKCS_PSS, 20},
    {CKM_SHA224, CKG_MGF1_SHA224, CKM_SHA224_RSA_PKCS_PSS, 28},
    {CKM_SHA256, CKG_MGF1_SHA256, CKM_SHA256_RSA_PKCS_PSS, 32},
    {CKM_SHA384, CKG_MGF1_SHA384, CKM_SHA384_RSA_PKCS_PSS, 48},
    {CKM_SHA512, CKG_MGF1_SHA512, CKM_SHA512_RSA_PKCS_PSS, 64},
};

/// The parts of a number of our own, in the vendor-defined range, that stands for a mechanism with
/// its parameter: the kind, the places in kHashes of the hash and of the mask's hash, and the bytes
/// of salt.
struct Coded {
  enum Kind : CK_ULONG { oaep = 0xF5A0, pssOfDigest, pssOfData };
  static constexpr CK_ULONG kMostSalt = 0x3FF;

  CK_ULONG kind, hash, mask, salt;

  /// Takes a number of our own apart. A mechanism that has a standard parameter is taken for the
  /// number of that: a mask by the same hash, and a salt of the hash's length.
  static constexpr Coded of(CK_MECHANISM_TYPE mechanism) {
    if (mechanism == CKM_RSA_PKCS_OAEP) return {oaep, 0, 0, 0};
    for (CK_ULONG i = 0; i < std::size(kHashes); ++i) {
      if (kHashes[i].pss == mechanism) return {pssOfData, i, i, kHashes[i].length};
    }
    return {mechanism >> 16, mechanism >> 13 & 7, mechanism >> 10 & 7, mechanism & kMostSalt};
  }

  /// Returns the mechanism that the number stands for; 0, which needs no parameter, if the number
  /// is none of ours.
  constexpr CK_MECHANISM_TYPE mechanism() const {
    if (std::max(hash, mask) >= std::size(kHashes)) return 0;
    if (kind == oaep && salt == 0) return CKM_RSA_PKCS_OAEP;
    if (kind == pssOfDigest) return CKM_RSA_PKCS_PSS;
    return kind == pssOfData ? kHashes[hash].pss : 0;
  }
};

/// Tells whether the module has a mechanism of this number for the session's slot.
bool isListed(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE mechanism) {
  CK_SLOT_ID slot = 0;
  withSession(session, [&](const SessionEntry* record) { slot = record->slot; });
  const auto function = module::functionOf(&List::C_GetMechanismInfo);
  const module::Turn turn;
  CK_MECHANISM_INFO info;
  return function != nullptr && function(slot, mechanism, &info) == CKR_OK;
}

}  // namespace

void Mechanism::amend(const Context* context) {
  copy = *value;
  value = &copy;
  copy.mechanism = narrowed(copy.mechanism);
  if (copy.pParameter != nullptr || copy.ulParameterLen != 0) return;
  const Coded coded = Coded::of(copy.mechanism);
  const CK_MECHANISM_TYPE meant = coded.mechanism();
  if (meant == 0) return;
  if (meant != copy.mechanism && isListed(context->number, copy.mechanism)) return;
  const CK_MECHANISM_TYPE hash = kHashes[coded.hash].digest;
  const CK_RSA_PKCS_MGF_TYPE mask = kHashes[coded.mask].mask;
  copy.mechanism = meant;
  copy.pParameter = &parameter;
  if (meant == CKM_RSA_PKCS_OAEP) {
    parameter.oaep = {hash, mask, CKZ_DATA_SPECIFIED, nullptr, 0};
    copy.ulParameterLen = sizeof parameter.oaep;
  } else {
    parameter.pss = {hash, mask, coded.salt};
    copy.ulParameterLen = sizeof parameter.pss;
  }
}

void Count::amend(Context* context) {
  Attributes* attributes = context->attributes;
  auto* copy = static_cast<CK_ATTRIBUTE*>(std::calloc(value, sizeof(CK_ATTRIBUTE)));
  if (copy == nullptr) {
    context->rv = CKR_HOST_MEMORY;
    return;
  }
  std::copy_n(attributes->value, value, copy);
  for (CK_ATTRIBUTE& attribute : std::span(copy, value)) attribute.type = narrowed(attribute.type);
  attributes->callers = std::exchange(attributes->value, copy);
}

namespace {

// ---- Functions of another shape ----

CK_RV initialize(void* arguments) {
  const CK_RV rv = module::initialize(static_cast<const CK_C_INITIALIZE_ARGS*>(arguments));
  if (rv == CKR_OK) Table::release(Handles()->takeAll());
  return rv;
}

constexpr CK_SLOT_ID kEverySlot = ~0UL;

/// Closes the sessions among the entries that were taken out of the table.
void closeSessions(const Entry* taken) {
  for (; taken != nullptr; taken = taken->siblings.next) {
    if (taken->kind == Kind::session) attempt(&List::C_CloseSession, taken->real);
    if (taken->kind == Kind::slot) closeSessions(taken->owned);
  }
}

/// Ends the module. Others who share it keep it, without our sessions.
CK_RV finalize(void* reserved) {
  if (module::isInside()) return CKR_FUNCTION_FAILED;
  const module::Closing closing;
  module::Sharing sharing;
  Entry* taken = Handles()->takeAll();
  if (module::isInitialised() && sharing.isShared()) closeSessions(taken);
  Table::release(taken);
  return sharing.end(reserved);
}

/// Closes our sessions with a slot; others who share the module keep theirs. With kEverySlot, which
/// is no slot's number, it ends the module, for callers who cannot see what C_Finalize answers.
CK_RV closeAllSessions(CK_SLOT_ID slot) {
  if (slot == kEverySlot) return finalize(nullptr);
  const module::Call underWay;
  if (!underWay.getsIn()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  const auto function = module::functionOf(&List::C_CloseAllSessions);
  if (function == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
  const module::Sharing sharing;
  Handles()->resolve(Kind::slot, &slot);
  Entry* taken = Handles()->takeSlotContents(slot);
  CK_RV rv = CKR_OK;
  if (sharing.isShared()) {
    closeSessions(taken);
  } else {
    rv = function(slot);
  }
  if (rv == CKR_OK) {
    Table::release(taken);
  } else {
    Handles()->putBack(taken);
  }
  return rv;
}

/// Reads a list of IDs. Room for none is passed on as the question for the number of IDs: some
/// modules find that room too small for an empty list.
template <auto entry, typename Selector>
CK_RV readList(typename Selector::Type selector, CK_ULONG* items, CK_ULONG* count) {
  const bool isForNone = items != nullptr && count != nullptr && *count == 0;
  const CK_RV rv = call<entry, Selector, Size, Size>(selector, isForNone ? nullptr : items, count);
  return rv == CKR_OK && isForNone && *count != 0 ? CKR_BUFFER_TOO_SMALL : rv;
}

CK_RV getSlotList(CK_BBOOL present, CK_SLOT_ID* slots, CK_ULONG* count) {
  const CK_ULONG room = slots != nullptr && count != nullptr ? *count : 0;
  const CK_RV rv = readList<&List::C_GetSlotList, Argument<CK_BBOOL>>(present, slots, count);
  if (rv != CKR_OK || room == 0) return rv;
  const Handles handles;
  for (CK_SLOT_ID& slot : std::span(slots, std::min(room, *count))) {
    if (!handles->numberSlot(&slot)) return CKR_HOST_MEMORY;
  }
  return CKR_OK;
}

/// Takes no turn and does not count as under way: the call waits, and neither other calls nor the
/// end of the module may wait for it.
CK_RV waitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* slot, void* reserved) {
  if (!module::isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  const CK_C_WaitForSlotEvent function = module::functionOf(&List::C_WaitForSlotEvent);
  if (function == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
  const CK_RV rv = function(flags, slot, reserved);
  if (rv != CKR_OK || slot == nullptr) return rv;
  return Handles()->numberSlot(slot) ? CKR_OK : CKR_HOST_MEMORY;
}

constexpr auto moduleGetMechanismInfo =
    call<&List::C_GetMechanismInfo, Slot, MechanismType, Argument<CK_MECHANISM_INFO*>>;

/// Answers a number of our own, unless the module has it, for the mechanism that it stands for.
CK_RV getMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  const CK_RV rv = moduleGetMechanismInfo(slot, type, info);
  const CK_MECHANISM_TYPE meant = Coded::of(narrowed(type)).mechanism();
  return rv == CKR_OK || meant == 0 ? rv : moduleGetMechanismInfo(slot, meant, info);
}

constexpr auto deriveKey =
    call<&List::C_DeriveKey, Session, Mechanism, Key, Attributes, Count, NewObject>;
constexpr auto moduleUnwrapKey = call<&List::C_UnwrapKey, Session, Mechanism, UnwrappingKey, Data,
                                      Length, Attributes, Count, NewObject>;

/// Unwraps a key. A key agreement without a parameter becomes a derivation with the wrapped bytes
/// as the other side's public point, for callers that can neither derive nor pass parameters.
/// @return the value of C_UnwrapKey, or then of C_DeriveKey
CK_RV unwrapKey(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key,
                CK_BYTE* wrapped, CK_ULONG length, CK_ATTRIBUTE* attributes, CK_ULONG count,
                CK_OBJECT_HANDLE* made) {
  if (mechanism == nullptr || mechanism->pParameter != nullptr ||
      (mechanism->mechanism != CKM_ECDH1_DERIVE &&
       mechanism->mechanism != CKM_ECDH1_COFACTOR_DERIVE)) {
    return moduleUnwrapKey(session, mechanism, key, wrapped, length, attributes, count, made);
  }
  CK_ECDH1_DERIVE_PARAMS agreement = {CKD_NULL, 0, nullptr, length, wrapped};
  CK_MECHANISM derivation = {mechanism->mechanism, &agreement, sizeof agreement};
  return deriveKey(session, &derivation, key, attributes, count, made);
}

constexpr auto moduleLogin = call<&List::C_Login, Session, Length, Data, Length>;

/// Logs in. A key that asks for the PIN at each use wants a CKU_CONTEXT_SPECIFIC login between the
/// start and the end of an operation. A caller who logs the user in again then gets that login.
CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_BYTE* pin, CK_ULONG pinLength) {
  user = narrowed(user);
  bool operating = false;
  withSession(session, [&](const SessionEntry* record) { operating = record->operating; });
  const CK_RV rv = moduleLogin(session, user, pin, pinLength);
  if (user != CKU_USER || !operating) return rv;
  if (rv != CKR_USER_ALREADY_LOGGED_IN && rv != CKR_OPERATION_ACTIVE) return rv;
  const CK_RV again = moduleLogin(session, CKU_CONTEXT_SPECIFIC, pin, pinLength);
  return again != CKR_OPERATION_NOT_INITIALIZED ? again : rv;
}

// ---- Searching ----

constexpr auto moduleFindObjects = call<&List::C_FindObjects, Session, Size, Length, Size>;

/// Hands out the handles that were read ahead, after the `*count` that the caller has already.
/// @return CKR_OK; CKR_HOST_MEMORY; if the caller has none, the error that was read ahead
CK_RV handOut(CK_SESSION_HANDLE number, CK_OBJECT_HANDLE* objects, CK_ULONG max, CK_ULONG* count) {
  const Handles handles;
  SessionEntry* session = handles->findSession(number);
  if (session == nullptr) return CKR_OK;
  Ahead& ahead = session->ahead;
  for (; *count < max && ahead.begin < ahead.end; ++ahead.begin, ++*count) {
    objects[*count] = ahead.handles[ahead.begin];
    if (!handles->numberObject(session, false, &objects[*count])) return CKR_HOST_MEMORY;
  }
  return *count != 0 ? CKR_OK : std::exchange(ahead.error, CKR_OK);
}

/// Fetches the next batch, or the error that comes instead, into the session's entry. A module that
/// tells of more than it was asked for is in error: nobody knows which handles are true.
/// @return CKR_OK, also with an error in the entry; else the session is not open
CK_RV readAhead(CK_SESSION_HANDLE number, CK_ULONG* found) {
  CK_OBJECT_HANDLE batch[Ahead::kRoom] = {};
  *found = 0;
  CK_RV rv = moduleFindObjects(number, batch, Ahead::kRoom, found);
  if (rv == CKR_OK && *found > Ahead::kRoom) rv = CKR_GENERAL_ERROR;
  if (rv != CKR_OK) *found = 0;
  const Handles handles;
  SessionEntry* session = handles->findSession(number);
  if (session == nullptr) return rv != CKR_OK ? rv : CKR_SESSION_HANDLE_INVALID;
  std::memcpy(session->ahead.handles, batch, sizeof batch);
  session->ahead.begin = 0;
  session->ahead.end = *found;
  session->ahead.error = rv;
  return CKR_OK;
}

/// Asks for whole batches, since callers often fetch handles one by one and the module may be far
/// away. A batch that is not full ends the call, as it would end the module's own.
CK_RV findObjects(CK_SESSION_HANDLE number, CK_OBJECT_HANDLE* objects, CK_ULONG max,
                  CK_ULONG* count) {
  if (objects == nullptr || max == 0 || count == nullptr) {
    return moduleFindObjects(number, objects, max, count);
  }
  *count = 0;
  for (CK_ULONG found = Ahead::kRoom;;) {
    CK_RV rv = handOut(number, objects, max, count);
    if (rv != CKR_OK) return *count != 0 ? CKR_OK : rv;
    if (*count == max || found < Ahead::kRoom) return CKR_OK;
    rv = readAhead(number, &found);
    if (rv != CKR_OK) return rv;
  }
}

// ---- The list ----

CK_RV getFunctionList(List** list);

constexpr List kFunctions = {
    .version = {2, 40},
    .C_Initialize = initialize,
    .C_Finalize = finalize,
    .C_GetInfo = call<&List::C_GetInfo, Argument<CK_INFO*>>,
    .C_GetFunctionList = getFunctionList,
    .C_GetSlotList = getSlotList,
    .C_GetSlotInfo = call<&List::C_GetSlotInfo, Slot, Argument<CK_SLOT_INFO*>>,
    .C_GetTokenInfo = call<&List::C_GetTokenInfo, Slot, Argument<CK_TOKEN_INFO*>>,
    .C_GetMechanismList = readList<&List::C_GetMechanismList, Slot>,
    .C_GetMechanismInfo = getMechanismInfo,
    .C_InitToken = call<&List::C_InitToken, Slot, Data, Length, Data>,
    .C_InitPIN = call<&List::C_InitPIN, Session, Data, Length>,
    .C_SetPIN = call<&List::C_SetPIN, Session, Data, Length, Data, Length>,
    .C_OpenSession = call<&List::C_OpenSession, Slot, Argument<CK_FLAGS>, Argument<void*>,
                          Argument<CK_NOTIFY>, NewSession>,
    .C_CloseSession = call<&List::C_CloseSession, ClosedSession>,
    .C_CloseAllSessions = closeAllSessions,
    .C_GetSessionInfo = call<&List::C_GetSessionInfo, Session, SessionInfo>,
    .C_GetOperationState = call<&List::C_GetOperationState, Session, Data, Size>,
    .C_SetOperationState =
        call<&List::C_SetOperationState, Session, Data, Length, OptionalKey, OptionalKey>,
    .C_Login = login,
    .C_Logout = call<&List::C_Logout, Session>,
    .C_CreateObject = call<&List::C_CreateObject, Session, Attributes, Count, NewObject>,
    .C_CopyObject = call<&List::C_CopyObject, Session, Original, Attributes, Count, NewObject>,
    .C_DestroyObject = call<&List::C_DestroyObject, Session, DestroyedObject>,
    .C_GetObjectSize = call<&List::C_GetObjectSize, Session, Object, Size>,
    .C_GetAttributeValue = call<&List::C_GetAttributeValue, Session, Object, Attributes, Count>,
    .C_SetAttributeValue = call<&List::C_SetAttributeValue, Session, Object, Attributes, Count>,
    .C_FindObjectsInit = call<&List::C_FindObjectsInit, SearchingSession, Attributes, Count>,
    .C_FindObjects = findObjects,
    .C_FindObjectsFinal = call<&List::C_FindObjectsFinal, SearchingSession>,
    .C_EncryptInit = call<&List::C_EncryptInit, Session, Mechanism, Key>,
    .C_Encrypt = call<&List::C_Encrypt, Session, Data, Length, Data, Size>,
    .C_EncryptUpdate = call<&List::C_EncryptUpdate, Session, Data, Length, Data, Size>,
    .C_EncryptFinal = call<&List::C_EncryptFinal, Session, Data, Size>,
    .C_DecryptInit = call<&List::C_DecryptInit, Session, Mechanism, OperationKey>,
    .C_Decrypt = call<&List::C_Decrypt, Session, Data, Length, Result, Size>,
    .C_DecryptUpdate = call<&List::C_DecryptUpdate, Session, Data, Length, Data, Size>,
    .C_DecryptFinal = call<&List::C_DecryptFinal, Session, Result, Size>,
    .C_DigestInit = call<&List::C_DigestInit, Session, Mechanism>,
    .C_Digest = call<&List::C_Digest, Session, Data, Length, Data, Size>,
    .C_DigestUpdate = call<&List::C_DigestUpdate, Session, Data, Length>,
    .C_DigestKey = call<&List::C_DigestKey, Session, Key>,
    .C_DigestFinal = call<&List::C_DigestFinal, Session, Data, Size>,
    .C_SignInit = call<&List::C_SignInit, Session, Mechanism, OperationKey>,
    .C_Sign = call<&List::C_Sign, Session, Data, Length, Result, Size>,
    .C_SignUpdate = call<&List::C_SignUpdate, Session, Data, Length>,
    .C_SignFinal = call<&List::C_SignFinal, Session, Result, Size>,
    .C_SignRecoverInit = call<&List::C_SignRecoverInit, Session, Mechanism, OperationKey>,
    .C_SignRecover = call<&List::C_SignRecover, Session, Data, Length, Result, Size>,
    .C_VerifyInit = call<&List::C_VerifyInit, Session, Mechanism, Key>,
    .C_Verify = call<&List::C_Verify, Session, Data, Length, Data, Length>,
    .C_VerifyUpdate = call<&List::C_VerifyUpdate, Session, Data, Length>,
    .C_VerifyFinal = call<&List::C_VerifyFinal, Session, Data, Length>,
    .C_VerifyRecoverInit = call<&List::C_VerifyRecoverInit, Session, Mechanism, Key>,
    .C_VerifyRecover = call<&List::C_VerifyRecover, Session, Data, Length, Data, Size>,
    .C_DigestEncryptUpdate = call<&List::C_DigestEncryptUpdate, Session, Data, Length, Data, Size>,
    .C_DecryptDigestUpdate = call<&List::C_DecryptDigestUpdate, Session, Data, Length, Data, Size>,
    .C_SignEncryptUpdate = call<&List::C_SignEncryptUpdate, Session, Data, Length, Data, Size>,
    .C_DecryptVerifyUpdate = call<&List::C_DecryptVerifyUpdate, Session, Data, Length, Data, Size>,
    .C_GenerateKey = call<&List::C_GenerateKey, Session, Mechanism, Attributes, Count, NewObject>,
    .C_GenerateKeyPair = call<&List::C_GenerateKeyPair, Session, Mechanism, Attributes, Count,
                              Attributes, Count, NewObject, NewObject>,
    .C_WrapKey = call<&List::C_WrapKey, Session, Mechanism, WrappingKey, Key, Data, Size>,
    .C_UnwrapKey = unwrapKey,
    .C_DeriveKey = deriveKey,
    .C_SeedRandom = call<&List::C_SeedRandom, Session, Data, Length>,
    .C_GenerateRandom = call<&List::C_GenerateRandom, Session, Data, Length>,
    .C_GetFunctionStatus = call<&List::C_GetFunctionStatus, Session>,
    .C_CancelFunction = call<&List::C_CancelFunction, Session>,
    .C_WaitForSlotEvent = waitForSlotEvent,
};

CK_RV getFunctionList(List** list) {
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  const CK_RV rv = module::load();
  if (rv == CKR_OK) *list = const_cast<List*>(&kFunctions);  // callers only read it
  return rv;
}

// ---- Forks ----

void lockTable() { pthread_mutex_lock(&Handles::mutex); }
void unlockTable() { pthread_mutex_unlock(&Handles::mutex); }
void freeLocks() {
  pthread_mutex_init(&Handles::mutex, nullptr);
  module::freeLocks();
}

// glibc has the first in its shared library, musl the second.
extern "C" {
[[gnu::weak]] int __register_atfork(void (*)(), void (*)(), void (*)(), void*);
#pragma weak pthread_atfork
extern void* __dso_handle;
}

/// Has a fork wait until no thread changes the table, and the child free the locks, since no thread
/// of it would let go of them.
[[gnu::constructor]] void prepareForForks() {
  if (__register_atfork != nullptr) {
    __register_atfork(lockTable, unlockTable, freeLocks, &__dso_handle);
  } else {
    pthread_atfork(lockTable, unlockTable, freeLocks);
  }
}

}  // namespace

}  // namespace adapter

extern "C" [[gnu::visibility("default")]] CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  return adapter::getFunctionList(list);
}
