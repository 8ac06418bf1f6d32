// SPDX-License-Identifier: Apache-2.0
// The table of handles: the numbers that stand for the real module's handles, and the sessions that
// are open. A number fits a positive Java int. The table knows neither module nor lock: its user
// holds a lock.
#ifndef QUARVEL_ADAPTER_TABLE_H_
#define QUARVEL_ADAPTER_TABLE_H_

#include <cstddef>

#include "pkcs11.h"

namespace adapter {

enum class Kind : CK_ULONG { slot, session, object };

/// A handle below kNumberBegin is its own number. Other handles get numbers from kNumberBegin on,
/// below kNumberEnd.
inline constexpr CK_ULONG kNumberBegin = 0x40000000, kNumberEnd = 0x80000000;

/// Tells whether a handle is its own number, whatever the table holds. The handle 0 of an object or
/// a session is not: callers take 0 for none.
constexpr bool isOwnNumber(Kind kind, CK_ULONG handle) {
  return handle < kNumberBegin && (handle != 0 || kind == Kind::slot);
}

struct Entry;

/// A place in an intrusive list; `at` is the pointer that leads here, null outside of any list.
struct Link {
  Entry* next = nullptr;
  Entry** at = nullptr;
};

/// A number and the handle that it stands for. Entries form a tree, as in PKCS#11: a slot owns
/// sessions and token objects, a session owns session objects.
struct Entry {
  Kind kind;
  CK_ULONG number = 0;
  CK_ULONG real;           // the module's own handle
  CK_SLOT_ID slot;         // the module's own ID of the slot that the entry belongs to
  Entry* owner = nullptr;  // a slot has none
  Entry* owned = nullptr;
  CK_ULONG sessions = 0;  // of a slot: the sessions that it owns
  Link siblings = {}, byNumber = {}, byReal = {};
};

/// The real object handles that a search has read ahead. The caller has yet to fetch those from
/// `begin` on, up to the one before `end`.
struct Ahead {
  static constexpr CK_ULONG kRoom = 64;
  CK_OBJECT_HANDLE handles[kRoom];
  CK_ULONG begin, end;
  CK_RV error;  // the module's answer to the next batch, if that was an error
};

struct SessionEntry : Entry {
  bool operating = false;  // a signature or decryption is under way
  Ahead ahead = {};
};

class Table {
 public:
  /// Returns the entry behind a number that was given out, else null.
  Entry* find(Kind kind, CK_ULONG number) const;
  SessionEntry* findSession(CK_SESSION_HANDLE number) const;

  /// Turns a caller's number into the real handle. For an object, `slot` is the real slot of its
  /// session. Values of kNumberEnd and more stay as they are.
  /// @return false for the number of a session or an object that was not given out, and for 0 while
  /// the module has a handle 0 of its own
  bool resolve(Kind kind, CK_ULONG* handle, CK_SLOT_ID slot = 0) const;

  // Each turns a real handle into its number, which stays the same as long as the table knows the
  // handle. `ofSession` tells that the object ends with its session. Without memory they return
  // false.
  bool numberSlot(CK_SLOT_ID* handle);
  bool numberObject(SessionEntry* session, bool ofSession, CK_OBJECT_HANDLE* handle);

  /// Records a session that the module has opened, and turns its real handle into its number. If
  /// the table still has a session under that handle, that one is over: *stale receives its
  /// entries, which the caller releases.
  /// @return false without memory
  bool openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE* handle, Entry** stale);

  // Each takes entries out of the table, with all that end with them; the last session of a slot
  // ends all that the slot owns. The module may then hand out the same handles anew while it is
  // still ending the old ones. The caller gets a list, linked by `siblings`, and either puts it
  // back or releases it. `take` prepends to the list `taken`.
  Entry* take(Entry* entry, Entry* taken = nullptr);
  Entry* takeSession(SessionEntry* session);
  Entry* takeSlotContents(CK_SLOT_ID slot);
  Entry* takeAll();

  /// Puts a list back. An entry whose slot has gone is released; one whose number was given out
  /// anew cannot be found again.
  void putBack(Entry* taken);
  static void release(Entry* taken);

 private:
  Entry* findReal(Kind kind, CK_ULONG real, CK_SLOT_ID slot) const;
  Entry* findOrAddSlot(CK_SLOT_ID slot);
  Entry* add(const Entry& model);
  CK_ULONG freeNumber(Kind kind, CK_ULONG real);
  Entry* takeOwned(Entry* slot, Entry* taken);
  void attach(Entry* entry);
  void show(Entry* entry);
  void hide(Entry* entry);
  void file(Entry* entry);
  void grow();
  void shrink();
  Entry** numberBucket(CK_ULONG number) const;
  Entry** realBucket(Kind kind, CK_ULONG real, CK_SLOT_ID slot) const;

  static constexpr int kFirstBits = 6;

  Entry* slots_ = nullptr;
  CK_ULONG cursor_ = kNumberBegin;   // goes round, so that a number is not soon given out again
  std::size_t shown_ = 0;            // entries in the buckets
  int bits_ = kFirstBits;            // log2 of the number of buckets
  Entry** buckets_ = firstBuckets_;  // the buckets by number, then as many by real handle
  Entry* firstBuckets_[2 << kFirstBits] = {};
};

}  // namespace adapter

#endif  // QUARVEL_ADAPTER_TABLE_H_
