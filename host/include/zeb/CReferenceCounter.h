// CReferenceCounter: the heap counter that TSharedPtr copies share.
//
// Created with count 1 by Create(); AddRef adds one; Release subtracts one and
// deletes the counter when the count reaches 0. The count changes atomically,
// so copies of one shared pointer may be released in different threads.
#pragma once

#include <atomic>

#include <zeb/Api.h>

namespace zeb {

class ZEB_API CReferenceCounter {
 public:
  // A new counter with count 1. Raises CBadAllocException when out of memory.
  static CReferenceCounter* Create();

  void AddRef();
  // Subtracts one. True when the count reached 0; the counter is then deleted
  // and must not be touched again.
  bool Release();
  // The current count (for diagnostics and tests).
  unsigned long count() const;

  CReferenceCounter(const CReferenceCounter&) = delete;
  CReferenceCounter& operator=(const CReferenceCounter&) = delete;

 private:
  CReferenceCounter() : m_count(1) {}
  ~CReferenceCounter() = default;

  std::atomic<unsigned long> m_count;
};

}  // namespace zeb
