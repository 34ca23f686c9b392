// The storage the library installs: one body table per thread, so that raising
// and catching on an audio thread never waits for another thread.
#ifndef QUILLON_FAILURE_THREAD_SAFE_STORAGE_H
#define QUILLON_FAILURE_THREAD_SAFE_STORAGE_H

#include <atomic>
#include <cstdint>
#include <map>

#include "failure/body.h"

namespace NSMarlet {

// A table belongs to one thread at a time; a thread that ends gives it
// back, and the next new thread takes it over instead of making another.
struct CThreadBodyTable {
  explicit CThreadBodyTable(uint64_t threadSerial) : owner(threadSerial) {}

  std::map<BodyId, CExceptionBody> bodies;
  // Ids go on counting across owners: an id of a thread that has ended
  // never names a body of its successor.
  BodyId nextId = kFirstBodyId;
  int32_t scopeDepth = 0;
  // The owning thread's serial; 0 while the table is free.
  std::atomic<uint64_t> owner;
  CThreadBodyTable* next = nullptr;
};

class CThreadSafeExceptionBodyStorage final : public IExceptionBodyStorage {
 public:
  CThreadSafeExceptionBodyStorage();
  ~CThreadSafeExceptionBodyStorage() override;
  CThreadSafeExceptionBodyStorage(const CThreadSafeExceptionBodyStorage&) = delete;
  CThreadSafeExceptionBodyStorage& operator=(const CThreadSafeExceptionBodyStorage&) = delete;

  BodyId CreateBody(const CSourcePosition& position) override;
  void GetBodyPosition(CSourcePosition& position, BodyId id) override;
  void AddBodyRef(BodyId id) override;
  void ReleaseBody(BodyId id) override;
  uint64_t GetBodyRefCount(BodyId id) override;
  void AddEntry(BodyId id, const CFailureEntry& entry) override;
  uint32_t GetEntryCount(BodyId id) override;
  void GetEntry(CFailureEntry& entry, BodyId id, uint32_t index) override;
  void EnterScope() override;
  void LeaveScope() override;
  int32_t GetScopeDepth() override;
  void GetBodyIds(std::vector<BodyId>& ids) override;

  // Sees to it that a free table waits for the next thread that starts, so
  // that the new thread takes one without allocating. Called by the thread
  // that creates another.
  void ReserveThreadTable() override;
  // Gives the calling thread's table back, emptied, for a later thread.
  // Called by a thread as it ends.
  void ReleaseThreadTable() override;

  // Number of per-thread tables made so far.
  uint32_t GetTableCount() const;

 private:
  // The calling thread's table: its own, else a free one taken over, else a
  // new one pushed on the list.
  CThreadBodyTable& ThreadTable();
  void Push(CThreadBodyTable* table);
  CExceptionBody* Find(BodyId id);

  std::atomic<CThreadBodyTable*> head_{nullptr};
  // Distinguishes storages in the per-thread slot, even at a reused address.
  const uint64_t serial_;
};

}  // namespace NSMarlet

#endif
