// SPDX-License-Identifier: Apache-2.0
// The shape of an adapted call. The role of each argument says what happens to it before the real
// module gets it, and after the module has answered.
#ifndef QUARVEL_ADAPTER_FUNCTIONS_H_
#define QUARVEL_ADAPTER_FUNCTIONS_H_

#include <cstdlib>
#include <span>
#include <utility>

#include "module.h"
#include "table.h"

namespace adapter {

/// Access to the one table, which is locked for as long as this lives.
class Handles {
 public:
  Table* operator->() const { return &table; }

  static pthread_mutex_t mutex;

 private:
  static Table table;

  const Lock lock_{&mutex};
};

struct Attributes;
struct NewObject;

/// The state that the arguments of one call share.
struct Context {
  CK_RV rv = CKR_OK;                 // a refusal, or the return value for the caller
  CK_RV answer = CKR_OK;             // the module's return value
  CK_SLOT_ID slot = 0;               // the real slot, of a call for a slot
  CK_SESSION_HANDLE session = 0;     // the real session, of a call in a session
  CK_SESSION_HANDLE number = 0;      // the caller's number for the session
  SessionEntry* record = nullptr;    // the session's entry, good while `resolve` holds the lock
  Attributes* attributes = nullptr;  // the last template before this argument
  bool onToken = false;              // the new object outlives the session
  const NewObject* made = nullptr;   // the object made before this one
};

// ---- Roles ----
//
// A role holds an argument as the module gets it. A call takes all its roles through these steps,
// one step after the other. A derived role has its own version of the steps in which it acts.

template <typename T>
struct Argument {
  using Type = T;
  T value;

  /// Runs first. A value in context->rv refuses the call.
  void prepare(Context*) {}
  /// Tells whether the argument needs nothing of the table. If all pass, the call takes no lock.
  bool passes() const { return true; }
  /// Runs under the lock. A value in context->rv refuses the call.
  void resolve(Context*, const Handles&) {}
  /// Runs when the module has answered. The answer is in context->rv, and may be replaced there.
  void finish(Context*) {}
};

/// Resolves the arguments until one refuses. It is apart so that the rest of a call stays short.
template <typename... Roles>
[[gnu::noinline]] void resolve(Context* context, Roles&... roles) {
  const Handles handles;
  (void)((roles.resolve(context, handles), context->rv == CKR_OK) && ...);
}

/// Makes a whole call. It looks its function up when it has got in: the list may change before.
template <auto entry, typename... Roles>
[[gnu::always_inline]] inline CK_RV run(Roles&&... roles) {
  const module::Call underWay;
  if (!underWay.getsIn()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  const auto function = module::functionOf(entry);
  if (function == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
  Context context;
  (roles.prepare(&context), ...);
  if (context.rv == CKR_OK && !(roles.passes() && ...)) resolve(&context, roles...);
  if (context.rv != CKR_OK) return context.rv;
  const module::Turn turn;
  context.rv = context.answer = function(roles.value...);
  (roles.finish(&context), ...);
  return context.rv;
}

template <typename Role>
Role in(typename Role::Type argument) {
  Role role;
  role.value = argument;
  return role;
}

/// The adapter's version of a function of the list whose arguments have these roles.
template <auto entry, typename... Roles>
CK_RV call(typename Roles::Type... arguments) {
  return run<entry>(in<Roles>(arguments)...);
}

using Data = Argument<CK_BYTE*>;
using Length = Argument<CK_ULONG>;
using Size = Argument<CK_ULONG*>;

/// Room for a handle that the module makes. `finish` gives the caller a number for it.
struct NewHandle : Argument<CK_ULONG*> {
  CK_ULONG* callers = nullptr;
  CK_ULONG handle = 0;

  void prepare(Context*) {
    callers = value;
    if (callers != nullptr) value = &handle;
  }
};

/// A session or an object that the call ends. Its entries are out of the table during the call,
/// since the module may hand out the same handle anew before it returns; a call that fails puts
/// them back.
template <typename Role>
struct Ending : Role {
  Entry* taken = nullptr;

  bool passes() const { return false; }
  void finish(Context* context) { finish(context->rv == CKR_OK); }
  void finish(bool isOver) {
    if (isOver) {
      Table::release(taken);
    } else if (taken != nullptr) {
      Handles()->putBack(taken);
    }
  }
};

// ---- Slots and sessions ----

struct Slot : Argument<CK_SLOT_ID> {
  void prepare(Context* context) { context->slot = value; }
  bool passes() const { return isOwnNumber(Kind::slot, value); }
  void resolve(Context* context, const Handles& handles) {
    handles->resolve(Kind::slot, &value);
    context->slot = value;
  }
};

struct Session : Argument<CK_SESSION_HANDLE> {
  void prepare(Context* context) { context->session = context->number = value; }
  bool passes() const { return isOwnNumber(Kind::session, value); }
  void resolve(Context* context, const Handles& handles) {
    context->record = handles->findSession(value);
    if (context->record != nullptr) {
      context->session = value = context->record->real;
    } else if (!handles->resolve(Kind::session, &value)) {
      context->rv = CKR_SESSION_HANDLE_INVALID;
    }
  }
};

/// A session in which a search starts or ends. It drops what an earlier search has read ahead.
struct SearchingSession : Session {
  void finish(Context* context);
};

struct SessionInfo : Argument<CK_SESSION_INFO*> {
  void finish(Context* context) {
    if (context->rv != CKR_OK || value == nullptr || isOwnNumber(Kind::slot, value->slotID)) return;
    if (!Handles()->numberSlot(&value->slotID)) context->rv = CKR_HOST_MEMORY;
  }
};

/// Room for a session. Without memory for its entry, the new session is closed again.
struct NewSession : NewHandle {
  void finish(Context* context);
};

struct ClosedSession : Ending<Session> {
  void resolve(Context* context, const Handles& handles) {
    Session::resolve(context, handles);
    if (context->record != nullptr) taken = handles->takeSession(context->record);
  }
  void finish(Context* context) {
    // Modules give the latter three answers for a session whose card was pulled.
    Ending::finish(context->rv == CKR_OK || context->rv == CKR_SESSION_HANDLE_INVALID ||
                   context->rv == CKR_SESSION_CLOSED || context->rv == CKR_DEVICE_REMOVED);
  }
};

// ---- Objects ----

/// An object or a key, and the refusal of a number that stands for none.
template <CK_RV refusal>
struct ObjectOr : Argument<CK_OBJECT_HANDLE> {
  bool passes() const { return isOwnNumber(Kind::object, value); }
  void resolve(Context* context, const Handles& handles) {
    if (passes()) return;
    if (context->record == nullptr) {
      context->rv = CKR_SESSION_HANDLE_INVALID;
    } else if (!handles->resolve(Kind::object, &value, context->record->slot)) {
      context->rv = refusal;
    }
  }
};

using Object = ObjectOr<CKR_OBJECT_HANDLE_INVALID>;
using Key = ObjectOr<CKR_KEY_HANDLE_INVALID>;
using WrappingKey = ObjectOr<CKR_WRAPPING_KEY_HANDLE_INVALID>;
using UnwrappingKey = ObjectOr<CKR_UNWRAPPING_KEY_HANDLE_INVALID>;

/// A key for which 0 means none.
struct OptionalKey : Key {
  bool passes() const { return value == 0 || Key::passes(); }
  void resolve(Context* context, const Handles& handles) {
    if (value != 0) Key::resolve(context, handles);
  }
};

/// The object that is copied. Unless the template says, the copy is a token object if the original
/// is one. The table does not know that, so the copy counts as a token object, which lives longer.
struct Original : Object {
  void prepare(Context* context) { context->onToken = true; }
};

/// Room for an object. Without memory for its number, the new object is destroyed again, and so is
/// the one that the call made before it.
struct NewObject : NewHandle {
  void finish(Context* context);
};

struct DestroyedObject : Ending<Object> {
  void resolve(Context* context, const Handles& handles) {
    Entry* entry = handles->find(Kind::object, value);
    Object::resolve(context, handles);
    if (context->rv == CKR_OK && entry != nullptr) taken = handles->take(entry);
  }
};

// ---- Operations that may want a login of their own ----

/// The key with which a signature or decryption starts.
struct OperationKey : Key {
  bool passes() const { return false; }
  void resolve(Context* context, const Handles& handles) {
    Key::resolve(context, handles);
    if (context->record != nullptr) context->record->operating |= context->rv == CKR_OK;
  }
  void finish(Context* context);
};

/// The room for the result, which ends the operation; null asks for the size only.
struct Result : Data {
  bool passes() const { return value == nullptr; }
  void resolve(Context* context, const Handles&) {
    if (context->record != nullptr && value != nullptr) context->record->operating = false;
  }
  void finish(Context* context);
};

// ---- Mechanisms and templates ----

/// Undoes the sign extension of callers that hold types in 32 bits: they send the types from
/// 0x80000000 on with all upper bits set.
constexpr CK_ULONG narrowed(CK_ULONG type) {
  return type >= 0xFFFFFFFF80000000 ? type & 0xFFFFFFFF : type;
}

struct MechanismType : Argument<CK_MECHANISM_TYPE> {
  void prepare(Context*) { value = narrowed(value); }
};

/// A mechanism of a call in a session. An RSA mechanism that lacks its parameter gets the standard
/// one. A number of our own becomes the mechanism and the parameter that it stands for.
struct Mechanism : Argument<CK_MECHANISM*> {
  CK_MECHANISM copy = {};
  union {
    CK_RSA_PKCS_PSS_PARAMS pss;
    CK_RSA_PKCS_OAEP_PARAMS oaep;
  } parameter = {};

  void prepare(Context* context) {
    if (value == nullptr) return;
    if (value->pParameter == nullptr || value->mechanism != narrowed(value->mechanism)) {
      amend(context);
    }
  }
  void amend(const Context* context);
};

/// A template; the argument after it is its Count.
struct Attributes : Argument<CK_ATTRIBUTE*> {
  CK_ULONG count = 0;
  CK_ATTRIBUTE* callers = nullptr;  // the caller's template if `value` is a copy, which this owns
  const Attributes* before = nullptr;

  ~Attributes() {
    if (callers != nullptr) std::free(value);
  }
  void prepare(Context* context) { before = std::exchange(context->attributes, this); }
  void finish(Context*) {
    if (callers == nullptr) return;
    for (CK_ULONG i = 0; i < count; ++i) callers[i].ulValueLen = value[i].ulValueLen;
  }
};

struct Count : Argument<CK_ULONG> {
  void prepare(Context* context) {
    if (context->attributes->value == nullptr) return;
    context->attributes->count = value;
    for (const CK_ATTRIBUTE& attribute : std::span(context->attributes->value, value)) {
      if (attribute.type != narrowed(attribute.type)) return amend(context);
    }
  }
  void amend(Context* context);
};

}  // namespace adapter

#endif  // QUARVEL_ADAPTER_FUNCTIONS_H_
