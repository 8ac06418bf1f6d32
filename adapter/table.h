// SPDX-License-Identifier: Apache-2.0
// The table of handles: which numbers stand for the real module's handles, and which sessions are
// open. A number fits a positive Java int. Knows no module and no lock: its user holds one.
#ifndef QUARVEL_ADAPTER_TABLE_H_
#define QUARVEL_ADAPTER_TABLE_H_

#include <cstddef>

#include "pkcs11.h"

namespace adapter {

enum class Kind : CK_ULONG { slot, session, object };

/// Handles below are their own numbers; numbers for other handles lie from here to kNumberEnd.
inline constexpr CK_ULONG kNumberBegin = 0x40000000, kNumberEnd = 0x80000000;

/// Whether a handle is its own number, whatever the table holds. Objects and sessions start at 1:
/// callers take 0 for none.
constexpr bool isOwnNumber(Kind kind, CK_ULONG handle) {
  return handle < kNumberBegin && (handle != 0 || kind == Kind::slot);
}

struct Entry;

/// A place in an intrusive list; `at` is the pointer that leads here, null outside of any list.
struct Link {
  Entry* next = nullptr;
  Entry** at = nullptr;
};

/// A number and what it stands for. Entries form a tree as their owners do in PKCS#11: a slot has
/// sessions and token objects, a session has session objects.
struct Entry {
  Kind kind;
  CK_ULONG number = 0;
  CK_ULONG real;           // the module's own handle
  CK_SLOT_ID slot;         // the module's own ID of the slot that the entry belongs to
  Entry* owner = nullptr;  // a slot has none
  Entry* owned = nullptr;
  CK_ULONG sessions = 0;  // of a slot: how many it owns
  Link siblings = {}, byNumber = {}, byReal = {};
};

/// The real object handles that a search has read ahead, which the caller has yet to fetch.
struct Ahead {
  static constexpr CK_ULONG kRoom = 64;
  CK_OBJECT_HANDLE handles[kRoom];
  CK_ULONG begin, end;
  CK_RV error;  // the module's answer to the batch after these, if it was one
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

  /// Turns a caller's number into the real handle. `slot`, of an object, is its session's.
  /// @return false for a number that was never given out: sessions and objects only, and 0 while
  /// the module has a handle 0 of its own. Values of kNumberEnd and more stay as they are.
  bool resolve(Kind kind, CK_ULONG* handle, CK_SLOT_ID slot = 0) const;

  // Each turns a real handle into its number, the same one as long as the table knows the handle.
  // False without memory.
  bool numberSlot(CK_SLOT_ID* handle);
  bool numberObject(SessionEntry* session, bool ofSession, CK_OBJECT_HANDLE* handle);

  /// Records a session that was opened: real handle in, number out. A session that the table still
  /// has under that handle is over, whatever became of it: *stale receives it.
  bool openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE* handle, Entry** stale);

  // Each takes entries out, with all that goes when they go, so that the module may hand out the
  // same handles anew while it is still ending what these stood for. The caller, who holds the list
  // then, either puts it back or releases it.
  Entry* take(Entry* entry, Entry* taken = nullptr);
  Entry* takeSession(SessionEntry* session);
  Entry* takeSlotContents(CK_SLOT_ID slot);
  Entry* takeAll();

  /// Puts back what was taken, but for numbers and owners that are no longer there.
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
  CK_ULONG cursor_ = kNumberBegin;  // goes round, so that a number is not soon given out again
  std::size_t shown_ = 0;
  int bits_ = kFirstBits;            // of the number of buckets
  Entry** buckets_ = firstBuckets_;  // by number, then as many by real handle
  Entry* firstBuckets_[2 << kFirstBits] = {};
};

}  // namespace adapter

#endif  // QUARVEL_ADAPTER_TABLE_H_
