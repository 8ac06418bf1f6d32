// SPDX-License-Identifier: Apache-2.0
// The shape of an adapted call: what becomes of each argument, by its role, before the real module
// gets it and after the module has answered.
#ifndef QUARVEL_ADAPTER_FUNCTIONS_H_
#define QUARVEL_ADAPTER_FUNCTIONS_H_

#include <cstdlib>
#include <span>
#include <utility>

#include "module.h"
#include "table.h"

namespace adapter {

/// The one table, locked for as long as this lives.
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
  CK_RV rv = CKR_OK;                 // a refusal, or what the caller gets
  CK_RV answer = CKR_OK;             // the module's
  CK_SLOT_ID slot = 0;               // the real one, of a call for a slot
  CK_SESSION_HANDLE session = 0;     // the real one, of a call in a session
  CK_SESSION_HANDLE number = 0;      // the caller's number for it
  SessionEntry* record = nullptr;    // what the table knows of it, while `resolve` holds the lock
  Attributes* attributes = nullptr;  // the last template before this argument
  bool onToken = false;              // what is made outlives the session
  const NewObject* made = nullptr;   // the object made before this one
};

// ---- Roles ----
//
// A role holds an argument as the module gets it and has these steps. A derived role has its own
// version of those in which it does something.

template <typename T>
struct Argument {
  using Type = T;
  T value;

  /// First. Refuses the call with context->rv.
  void prepare(Context*) {}
  /// Whether the argument needs nothing of the table. Where all pass, the lock is not taken.
  bool passes() const { return true; }
  /// Under the lock. Refuses the call with context->rv.
  void resolve(Context*, const Handles&) {}
  /// When the module has answered context->rv, which may become another answer.
  void finish(Context*) {}
};

/// The part of a call that needs the table; apart, so that the rest stays short.
template <typename... Roles>
[[gnu::noinline]] void resolve(Context* context, Roles&... roles) {
  const Handles handles;
  (void)((roles.resolve(context, handles), context->rv == CKR_OK) && ...);
}

/// A whole call. What the list has counts from when the call has got in.
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

/// Room for a handle that the module makes. The caller gets a number, from `finish`.
struct NewHandle : Argument<CK_ULONG*> {
  CK_ULONG* callers = nullptr;
  CK_ULONG handle = 0;

  void prepare(Context*) {
    callers = value;
    if (callers != nullptr) value = &handle;
  }
};

/// An argument that the call ends. It is out of the table during the call, since the module may
/// hand out the same handle anew before the call is back; a call that fails puts it back.
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

/// A session in which a search starts or ends: what an earlier one has read ahead is dropped.
struct SearchingSession : Session {
  void finish(Context* context);
};

struct SessionInfo : Argument<CK_SESSION_INFO*> {
  void finish(Context* context) {
    if (context->rv != CKR_OK || value == nullptr || isOwnNumber(Kind::slot, value->slotID)) return;
    if (!Handles()->numberSlot(&value->slotID)) context->rv = CKR_HOST_MEMORY;
  }
};

/// Without memory for its record a new session is closed again.
struct NewSession : NewHandle {
  void finish(Context* context);
};

struct ClosedSession : Ending<Session> {
  void resolve(Context* context, const Handles& handles) {
    Session::resolve(context, handles);
    if (context->record != nullptr) taken = handles->takeSession(context->record);
  }
  void finish(Context* context) {
    // The latter three answer for a session whose card was pulled.
    Ending::finish(context->rv == CKR_OK || context->rv == CKR_SESSION_HANDLE_INVALID ||
                   context->rv == CKR_SESSION_CLOSED || context->rv == CKR_DEVICE_REMOVED);
  }
};

// ---- Objects ----

/// An object, or a key, with the refusal for a number that stands for none.
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

/// The object of which a copy is made. Where the template does not say, the copy is a token object
/// if this is one, which the table does not know: it counts as what lives longer.
struct Original : Object {
  void prepare(Context* context) { context->onToken = true; }
};

/// Without memory for its number a new object is destroyed again, and so is one made before it.
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

/// The room for the result with which it ends; null asks for the size only.
struct Result : Data {
  bool passes() const { return value == nullptr; }
  void resolve(Context* context, const Handles&) {
    if (context->record != nullptr && value != nullptr) context->record->operating = false;
  }
  void finish(Context* context);
};

// ---- Mechanisms and templates ----

/// Callers that hold types in 32 bits send those from 0x80000000 on with all upper bits set.
constexpr CK_ULONG narrowed(CK_ULONG type) {
  return type >= 0xFFFFFFFF80000000 ? type & 0xFFFFFFFF : type;
}

struct MechanismType : Argument<CK_MECHANISM_TYPE> {
  void prepare(Context*) { value = narrowed(value); }
};

/// RSA mechanisms that need a parameter and have none get their standard one, or what a number of
/// our own says. In a session.
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
  CK_ATTRIBUTE* callers = nullptr;  // where `value` is a copy with narrowed types
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
