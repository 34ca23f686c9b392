#include "failure/thread_safe_storage.h"

namespace NSMarlet {

namespace {

std::atomic<uint64_t> gNextStorageSerial{1};
std::atomic<uint64_t> gNextThreadSerial{1};

// Thread identities that are never reused, unlike the system's thread ids, so
// that a new thread never inherits the table of one that has ended.
uint64_t ThisThreadSerial() {
  thread_local uint64_t serial = 0;
  if (serial == 0) serial = gNextThreadSerial.fetch_add(1, std::memory_order_relaxed);
  return serial;
}

// The thread's slot: the table it used last, and of which storage. A thread
// that alternates storages finds its other tables on the storage's list.
struct SThreadSlot {
  uint64_t storageSerial = 0;
  CThreadBodyTable* table = nullptr;
};
thread_local SThreadSlot tSlot;

}  // namespace

CThreadSafeExceptionBodyStorage::CThreadSafeExceptionBodyStorage()
    : serial_(gNextStorageSerial.fetch_add(1, std::memory_order_relaxed)) {}

CThreadSafeExceptionBodyStorage::~CThreadSafeExceptionBodyStorage() {
  CThreadBodyTable* table = head_.exchange(nullptr, std::memory_order_acquire);
  while (table != nullptr) {
    CThreadBodyTable* next = table->next;
    delete table;
    table = next;
  }
  if (tSlot.storageSerial == serial_) tSlot = SThreadSlot();
}

CThreadBodyTable& CThreadSafeExceptionBodyStorage::ThreadTable() {
  if (tSlot.storageSerial == serial_) return *tSlot.table;
  const uint64_t me = ThisThreadSerial();
  for (CThreadBodyTable* t = head_.load(std::memory_order_acquire); t != nullptr; t = t->next) {
    if (t->owner.load(std::memory_order_acquire) == me) {
      tSlot = SThreadSlot{serial_, t};
      return *t;
    }
  }
  for (CThreadBodyTable* t = head_.load(std::memory_order_acquire); t != nullptr; t = t->next) {
    uint64_t free = 0;
    if (t->owner.compare_exchange_strong(free, me, std::memory_order_acq_rel)) {
      tSlot = SThreadSlot{serial_, t};
      return *t;
    }
  }
  CThreadBodyTable* table = new CThreadBodyTable(me);
  Push(table);
  tSlot = SThreadSlot{serial_, table};
  return *table;
}

void CThreadSafeExceptionBodyStorage::Push(CThreadBodyTable* table) {
  CThreadBodyTable* expected = head_.load(std::memory_order_relaxed);
  do {
    table->next = expected;
  } while (!head_.compare_exchange_weak(expected, table, std::memory_order_release,
                                        std::memory_order_relaxed));
}

void CThreadSafeExceptionBodyStorage::ReserveThreadTable() {
  for (CThreadBodyTable* t = head_.load(std::memory_order_acquire); t != nullptr; t = t->next) {
    if (t->owner.load(std::memory_order_acquire) == 0) return;
  }
  Push(new CThreadBodyTable(0));
}

void CThreadSafeExceptionBodyStorage::ReleaseThreadTable() {
  if (tSlot.storageSerial != serial_) return;
  CThreadBodyTable* table = tSlot.table;
  tSlot = SThreadSlot();
  // A thread that ends leaves no failure behind that another could still
  // name: its bodies go with it.
  table->bodies.clear();
  table->scopeDepth = 0;
  table->owner.store(0, std::memory_order_release);
}

CExceptionBody* CThreadSafeExceptionBodyStorage::Find(BodyId id) {
  CThreadBodyTable& table = ThreadTable();
  auto it = table.bodies.find(id);
  return it != table.bodies.end() ? &it->second : nullptr;
}

BodyId CThreadSafeExceptionBodyStorage::CreateBody(const CSourcePosition& position) {
  CThreadBodyTable& table = ThreadTable();
  CExceptionBody body;
  body.position = position;
  table.bodies.emplace(table.nextId, std::move(body));
  return table.nextId++;
}

void CThreadSafeExceptionBodyStorage::GetBodyPosition(CSourcePosition& position, BodyId id) {
  if (CExceptionBody* body = Find(id)) position = body->position;
}

void CThreadSafeExceptionBodyStorage::AddBodyRef(BodyId id) {
  if (CExceptionBody* body = Find(id)) ++body->refCount;
}

void CThreadSafeExceptionBodyStorage::ReleaseBody(BodyId id) {
  CThreadBodyTable& table = ThreadTable();
  auto it = table.bodies.find(id);
  if (it == table.bodies.end()) return;
  if (--it->second.refCount == 0) table.bodies.erase(it);
}

uint64_t CThreadSafeExceptionBodyStorage::GetBodyRefCount(BodyId id) {
  CExceptionBody* body = Find(id);
  return body != nullptr ? body->refCount : 0;
}

void CThreadSafeExceptionBodyStorage::AddEntry(BodyId id, const CFailureEntry& entry) {
  if (CExceptionBody* body = Find(id)) body->entries.push_back(entry);
}

uint32_t CThreadSafeExceptionBodyStorage::GetEntryCount(BodyId id) {
  CExceptionBody* body = Find(id);
  return body != nullptr ? static_cast<uint32_t>(body->entries.size()) : 0;
}

void CThreadSafeExceptionBodyStorage::GetEntry(CFailureEntry& entry, BodyId id, uint32_t index) {
  CExceptionBody* body = Find(id);
  if (body != nullptr && index < body->entries.size()) entry = body->entries[index];
}

void CThreadSafeExceptionBodyStorage::EnterScope() { ++ThreadTable().scopeDepth; }

void CThreadSafeExceptionBodyStorage::LeaveScope() { --ThreadTable().scopeDepth; }

int32_t CThreadSafeExceptionBodyStorage::GetScopeDepth() { return ThreadTable().scopeDepth; }

void CThreadSafeExceptionBodyStorage::GetBodyIds(std::vector<BodyId>& ids) {
  ids.clear();
  for (const auto& entry : ThreadTable().bodies) ids.push_back(entry.first);
}

uint32_t CThreadSafeExceptionBodyStorage::GetTableCount() const {
  uint32_t count = 0;
  for (CThreadBodyTable* t = head_.load(std::memory_order_acquire); t != nullptr; t = t->next) {
    ++count;
  }
  return count;
}

}  // namespace NSMarlet
