// Values that pass between the audio thread and others without locks.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

namespace se::stream {

// A record of 32-bit fields that is replaced as a whole: a sequence lock over atomic words. The
// sequence is odd while a writer is at work; a reader that meets one, or was overtaken, knows.
template <class Record>
class Published {
 public:
  explicit Published(const Record& initial) { write(initial); }

  // One writer at a time. A second one waits for the few instructions that the first one needs.
  void write(const Record& record) {
    std::uint32_t words[kWords];
    std::memcpy(words, &record, sizeof record);
    std::uint32_t before = sequence_.load(std::memory_order_relaxed) & ~1u;
    while (!sequence_.compare_exchange_weak(before, before + 1, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
      before &= ~1u;
    }
    for (std::size_t i = 0; i < kWords; ++i) {
      words_[i].store(words[i], std::memory_order_release);  // not ahead of the odd sequence
    }
    sequence_.store(before + 2, std::memory_order_release);
  }

  // Fills `record` if it has changed since the read that set `seen`; false if it has not, or is
  // being changed right now. Never waits.
  bool read_change(std::uint32_t& seen, Record& record) const {
    const std::uint32_t before = sequence_.load(std::memory_order_acquire);
    if (before == seen || before % 2 != 0) return false;
    std::uint32_t words[kWords];
    for (std::size_t i = 0; i < kWords; ++i) words[i] = words_[i].load(std::memory_order_acquire);
    if (sequence_.load(std::memory_order_relaxed) != before) return false;
    std::memcpy(&record, words, sizeof record);
    seen = before;
    return true;
  }

  // Waits while a writer is at work.
  Record read() const {
    Record record;
    std::uint32_t seen = 0;  // no sequence that a reader meets
    while (!read_change(seen, record)) {
    }
    return record;
  }

 private:
  static_assert(sizeof(Record) % sizeof(std::uint32_t) == 0);
  static constexpr std::size_t kWords = sizeof(Record) / sizeof(std::uint32_t);

  std::atomic<std::uint32_t> sequence_{0};
  std::atomic<std::uint32_t> words_[kWords] = {};
};

// One value, the latest of which is read.
template <class T>
class Latest {
 public:
  explicit Latest(T initial) : value_(initial) {}
  void set(T value) { value_.store(value, std::memory_order_relaxed); }
  T get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<T> value_;
};

}  // namespace se::stream
