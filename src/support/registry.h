// What the library knows about records, by their addresses. Looking up takes no lock, so that threads, signal handlers
// and children of a fork can't be in each other's way.
#pragma once

#include <atomic>
#include <mutex>
#include <new>
#include <thread>

namespace pulsekit {

// Entries are never freed, those given back are used again: who looks up never meets one that is gone.
template <typename Value>
class Registry {
 public:
  // Null where there is none.
  Value *find(const void *record) const {
    Entry *entry = record ? entryOf(record) : nullptr;
    return entry ? &entry->value : nullptr;
  }

  // Null when memory is short.
  Value *add(const void *record) {
    const std::lock_guard guard(change_);
    Entry *entry = entryOf(nullptr);
    if (!entry) {
      entry = new (std::nothrow) Entry;
      if (!entry) return nullptr;
      entry->next = first_.load();
      first_ = entry;
    }
    entry->record = record;
    return &entry->value;
  }

  void remove(const void *record) {
    const std::lock_guard guard(change_);
    if (Entry *entry = record ? entryOf(record) : nullptr) entry->record = nullptr;
  }

 private:
  struct Entry {
    std::atomic<const void *> record = nullptr;
    Entry *next = nullptr;
    Value value;
  };

  Entry *entryOf(const void *record) const {
    Entry *entry = first_.load(std::memory_order_acquire);
    while (entry && entry->record.load(std::memory_order_acquire) != record) entry = entry->next;
    return entry;
  }

  // Of those who change it. Not every system's std::mutex is there before the program's first line and needs no memory.
  class Change {
   public:
    void lock() {
      while (taken_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
    }
    void unlock() { taken_.clear(std::memory_order_release); }

   private:
    std::atomic_flag taken_;
  };

  Change change_;
  std::atomic<Entry *> first_ = nullptr;
};

}  // namespace pulsekit
