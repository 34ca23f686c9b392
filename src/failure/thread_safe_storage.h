// The storage the library installs: one body table per thread, so that raising
// and catching on an audio thread never waits for another thread.
#ifndef QUILLON_FAILURE_THREAD_SAFE_STORAGE_H
#define QUILLON_FAILURE_THREAD_SAFE_STORAGE_H

#include <atomic>
#include <cstdint>
#include <map>

#include "failure/body.h"

namespace NSMarlet {

struct CThreadBodyTable {
  explicit CThreadBodyTable(uint64_t threadSerial) : thread(threadSerial) {}

  std::map<BodyId, CExceptionBody> bodies;
  BodyId nextId = kFirstBodyId;
  int32_t scopeDepth = 0;
  const uint64_t thread;
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

  // Number of per-thread tables made so far.
  uint32_t GetTableCount() const;

 private:
  // The calling thread's table, made and pushed on the list at first use.
  CThreadBodyTable& ThreadTable();
  CExceptionBody* Find(BodyId id);

  std::atomic<CThreadBodyTable*> head_{nullptr};
  // Distinguishes storages in the per-thread slot, even at a reused address.
  const uint64_t serial_;
};

}  // namespace NSMarlet

#endif
