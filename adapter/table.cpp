// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace adapter {

namespace {

void insert(Entry** head, Entry* entry, Link Entry::*list) {
  Link& link = entry->*list;
  link = {*head, head};
  if (*head != nullptr) ((*head)->*list).at = &link.next;
  *head = entry;
}

void remove(Entry* entry, Link Entry::*list) {
  Link& link = entry->*list;
  if (link.at == nullptr) return;
  *link.at = link.next;
  if (link.next != nullptr) (link.next->*list).at = link.at;
  link = {};
}

std::size_t hash(CK_ULONG key, int bits) { return key * 0x9E3779B97F4A7C15U >> (64 - bits); }

}  // namespace

Entry** Table::numberBucket(CK_ULONG number) const { return buckets_ + hash(number, bits_); }

Entry** Table::realBucket(Kind kind, CK_ULONG real, CK_SLOT_ID slot) const {
  const CK_ULONG key = kind == Kind::object ? real + (slot << 32 | slot >> 32) : ~real;
  return buckets_ + (std::size_t{1} << bits_) + hash(key, bits_);
}

// ---- Looking up ----

Entry* Table::find(Kind kind, CK_ULONG number) const {
  Entry* entry = *numberBucket(number);
  while (entry != nullptr && (entry->number != number || entry->kind != kind)) {
    entry = entry->byNumber.next;
  }
  return entry;
}

SessionEntry* Table::findSession(CK_SESSION_HANDLE number) const {
  return static_cast<SessionEntry*>(find(Kind::session, number));
}

/// Finds an entry by its real handle, else null. Slots tell the handles of objects apart, no
/// others.
Entry* Table::findReal(Kind kind, CK_ULONG real, CK_SLOT_ID slot) const {
  Entry* entry = *realBucket(kind, real, slot);
  while (entry != nullptr && (entry->real != real || entry->kind != kind ||
                              (kind == Kind::object && entry->slot != slot))) {
    entry = entry->byReal.next;
  }
  return entry;
}

bool Table::resolve(Kind kind, CK_ULONG* handle, CK_SLOT_ID slot) const {
  if (isOwnNumber(kind, *handle) || *handle >= kNumberEnd) return true;
  if (*handle == 0) return findReal(kind, 0, slot) == nullptr;
  const Entry* entry = find(kind, *handle);
  if (entry == nullptr || (kind == Kind::object && entry->slot != slot)) return kind == Kind::slot;
  *handle = entry->real;
  return true;
}

// ---- Giving out ----

namespace {

/// Gives out the number of an entry.
/// @return false without an entry, for which there was no memory
bool give(const Entry* entry, CK_ULONG* handle) {
  if (entry != nullptr) *handle = entry->number;
  return entry != nullptr;
}

}  // namespace

bool Table::numberSlot(CK_SLOT_ID* handle) {
  return isOwnNumber(Kind::slot, *handle) || give(findOrAddSlot(*handle), handle);
}

bool Table::numberObject(SessionEntry* session, bool ofSession, CK_OBJECT_HANDLE* handle) {
  if (isOwnNumber(Kind::object, *handle)) return true;
  Entry* slot = session->owner;
  Entry* entry = findReal(Kind::object, *handle, slot->real);
  if (entry == nullptr) {
    entry = add({.kind = Kind::object,
                 .real = *handle,
                 .slot = slot->real,
                 .owner = ofSession ? session : slot});
  } else if (entry->owner != session && entry->owner != slot) {
    // Another session made the object. Two know it now, and its number outlives the first.
    take(entry);
    entry->owner = slot;
    attach(entry);
  }
  return give(entry, handle);
}

bool Table::openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE* handle, Entry** stale) {
  if (Entry* known = findReal(Kind::session, *handle, slot); known != nullptr) {
    *stale = takeSession(static_cast<SessionEntry*>(known));
  }
  Entry* owner = findOrAddSlot(slot);
  if (owner == nullptr) return false;
  return give(add({.kind = Kind::session, .real = *handle, .slot = slot, .owner = owner}), handle);
}

Entry* Table::findOrAddSlot(CK_SLOT_ID slot) {
  Entry* known = findReal(Kind::slot, slot, slot);
  return known != nullptr ? known : add({.kind = Kind::slot, .real = slot, .slot = slot});
}

CK_ULONG Table::freeNumber(Kind kind, CK_ULONG real) {
  if (isOwnNumber(kind, real)) return real;
  if (real >= kNumberBegin && real < kNumberEnd && find(kind, real) == nullptr) return real;
  CK_ULONG number;
  do {
    number = cursor_;
    cursor_ = number + 1 < kNumberEnd ? number + 1 : kNumberBegin;
  } while (find(kind, number) != nullptr);
  return number;
}

/// Adds a copy of `model` below its owner, with a number; null without memory.
Entry* Table::add(const Entry& model) {
  const bool isSession = model.kind == Kind::session;
  void* memory = std::malloc(isSession ? sizeof(SessionEntry) : sizeof(Entry));
  if (memory == nullptr) return nullptr;
  Entry* entry = isSession ? new (memory) SessionEntry{{model}} : new (memory) Entry{model};
  entry->number = freeNumber(entry->kind, entry->real);
  attach(entry);
  return entry;
}

/// Puts an entry below its owner, and shows it.
void Table::attach(Entry* entry) {
  insert(entry->owner != nullptr ? &entry->owner->owned : &slots_, entry, &Entry::siblings);
  if (entry->kind == Kind::session) ++entry->owner->sessions;
  show(entry);
}

// ---- Taking out and putting back ----

Entry* Table::take(Entry* entry, Entry* taken) {
  hide(entry);
  remove(entry, &Entry::siblings);
  if (entry->kind == Kind::session) --entry->owner->sessions;
  entry->siblings.next = taken;
  return entry;
}

Entry* Table::takeSession(SessionEntry* session) {
  Entry* slot = session->owner;
  Entry* taken = take(session);
  return slot->sessions == 0 ? takeOwned(slot, taken) : taken;
}

Entry* Table::takeSlotContents(CK_SLOT_ID slot) {
  Entry* known = findReal(Kind::slot, slot, slot);
  return known != nullptr ? takeOwned(known, nullptr) : nullptr;
}

Entry* Table::takeOwned(Entry* slot, Entry* taken) {
  while (slot->owned != nullptr) taken = take(slot->owned, taken);
  return taken;
}

Entry* Table::takeAll() {
  Entry* taken = nullptr;
  while (slots_ != nullptr) taken = take(slots_, taken);
  shrink();
  return taken;
}

void Table::putBack(Entry* taken) {
  while (taken != nullptr) {
    Entry* entry = std::exchange(taken, taken->siblings.next);
    entry->siblings.next = nullptr;
    const bool isSlot = entry->kind == Kind::slot;
    // The owner may have gone. An entry that a session owned belongs to the slot from now on.
    entry->owner = isSlot ? nullptr : findReal(Kind::slot, entry->slot, entry->slot);
    if (isSlot || entry->owner != nullptr) {
      attach(entry);
    } else {
      release(entry);
    }
  }
}

void Table::release(Entry* taken) {
  while (taken != nullptr) {
    Entry* entry = std::exchange(taken, taken->siblings.next);
    release(entry->owned);
    std::free(entry);
  }
}

// ---- The buckets ----

/// Puts an entry and all that it owns into the buckets, where they are found. An entry whose number
/// was given out anew while it was taken out stays outside.
void Table::show(Entry* entry) {
  if (find(entry->kind, entry->number) == nullptr) {
    if (++shown_ >> bits_ != 0) grow();
    file(entry);
  }
  for (Entry* own = entry->owned; own != nullptr; own = own->siblings.next) show(own);
}

void Table::hide(Entry* entry) {
  if (entry->byNumber.at != nullptr) --shown_;
  remove(entry, &Entry::byNumber);
  remove(entry, &Entry::byReal);
  for (Entry* own = entry->owned; own != nullptr; own = own->siblings.next) hide(own);
}

void Table::file(Entry* entry) {
  insert(numberBucket(entry->number), entry, &Entry::byNumber);
  insert(realBucket(entry->kind, entry->real, entry->slot), entry, &Entry::byReal);
}

/// Doubles the number of buckets. Without memory the chains get longer instead.
void Table::grow() {
  const std::size_t size = std::size_t{1} << bits_;
  auto** wider = static_cast<Entry**>(std::calloc(4 * size, sizeof(void*)));
  if (wider == nullptr) return;
  Entry** narrower = std::exchange(buckets_, wider);
  ++bits_;
  for (std::size_t i = 0; i < size; ++i) {
    while (Entry* entry = narrower[i]) {
      remove(entry, &Entry::byNumber);
      remove(entry, &Entry::byReal);
      file(entry);
    }
  }
  if (narrower != firstBuckets_) std::free(narrower);
}

/// Takes an empty table back to its first buckets.
void Table::shrink() {
  if (buckets_ != firstBuckets_) std::free(buckets_);
  buckets_ = firstBuckets_;
  bits_ = kFirstBits;
}

}  // namespace adapter
