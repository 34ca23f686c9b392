#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <thread>

#include "failure/thread_safe_storage.h"
#include "support/storage_fixture.h"

using namespace NSMarlet;

namespace {

CFailureEntry EntryWithCode(uint32_t code, const char* text) {
  CFailureEntry entry;
  entry.failureCode = code;
  entry.text = text;
  return entry;
}

// The behaviour both storages share.
void ExerciseStorage(IExceptionBodyStorage& s) {
  const CSourcePosition where("module", "file.cpp", "Function", 42);
  const BodyId first = s.CreateBody(where);
  EXPECT_EQ(first, 3);
  const BodyId second = s.CreateBody(CSourcePosition());
  EXPECT_EQ(second, 4);
  CSourcePosition read;
  s.GetBodyPosition(read, first);
  EXPECT_EQ(read, where);
  EXPECT_EQ(s.GetBodyRefCount(first), 1u);
  s.AddBodyRef(first);
  EXPECT_EQ(s.GetBodyRefCount(first), 2u);
  s.AddEntry(first, EntryWithCode(30, "one"));
  s.AddEntry(first, EntryWithCode(39, "two"));
  ASSERT_EQ(s.GetEntryCount(first), 2u);
  CFailureEntry last;
  s.GetEntry(last, first, s.GetEntryCount(first) - 1);
  EXPECT_EQ(last.failureCode, 39u);
  EXPECT_EQ(last.text, "two");
  std::vector<BodyId> ids;
  s.GetBodyIds(ids);
  EXPECT_EQ(ids, (std::vector<BodyId>{3, 4}));
  s.ReleaseBody(first);
  s.ReleaseBody(first);
  s.GetBodyIds(ids);
  EXPECT_EQ(ids, std::vector<BodyId>{4});
  // Ids are not reused.
  EXPECT_EQ(s.CreateBody(CSourcePosition()), 5);
  EXPECT_EQ(s.GetScopeDepth(), 0);
  s.EnterScope();
  s.EnterScope();
  EXPECT_EQ(s.GetScopeDepth(), 2);
  s.LeaveScope();
  EXPECT_EQ(s.GetScopeDepth(), 1);
}

}  // namespace

TEST(SourcePosition, EmptyAndBounded) {
  const CSourcePosition empty;
  EXPECT_STREQ(empty.Module(), "");
  EXPECT_STREQ(empty.File(), "");
  EXPECT_STREQ(empty.Function(), "");
  EXPECT_EQ(empty.Line(), 0u);
  EXPECT_EQ(empty, CSourcePosition());
  const std::string longText(1000, 'x');
  const CSourcePosition cut(longText.c_str(), longText.c_str(), longText.c_str(), 7);
  EXPECT_EQ(std::string(cut.Module()).size(), 64u);
  EXPECT_EQ(std::string(cut.File()).size(), 512u);
  EXPECT_EQ(std::string(cut.Function()).size(), 128u);
  EXPECT_NE(cut, empty);
  EXPECT_NE(CSourcePosition("a", "b", "c", 1), CSourcePosition("a", "b", "c", 2));
}

TEST(FailureValue, EqualityByTagAndPayload) {
  EXPECT_EQ(CFailureValue(), CFailureValue());
  EXPECT_EQ(CFailureValue().Tag(), 20u);
  EXPECT_EQ(CFailureValue::Integer(5), CFailureValue::Integer(5));
  EXPECT_NE(CFailureValue::Integer(5), CFailureValue::Integer(6));
  EXPECT_EQ(CFailureValue::Float(1.5f), CFailureValue::Float(1.5f));
  EXPECT_NE(CFailureValue::Float(1.5f), CFailureValue::Float(2.5f));
  // Neither less nor greater: a not-a-number equals any float.
  EXPECT_EQ(CFailureValue::Float(std::nanf("")), CFailureValue::Float(3.0f));
  EXPECT_EQ(CFailureValue::NarrowText("abc"), CFailureValue::NarrowText("abc"));
  EXPECT_NE(CFailureValue::NarrowText("abc"), CFailureValue::TargetWord("abc"));
  EXPECT_EQ(CFailureValue::WideText(u"w"), CFailureValue::WideText(u"w"));
  EXPECT_NE(CFailureValue::WideText(u"w"), CFailureValue::WideText(u"v"));
  EXPECT_NE(CFailureValue::Integer(0), CFailureValue());
  EXPECT_EQ(CFailureValue::TargetWord(std::string(100, 'w').c_str()).Narrow().size(), 64u);
}

TEST(FailureValue, CopiesAreDeep) {
  auto original = std::make_unique<CFailureValue>(CFailureValue::NarrowText("deep"));
  const CFailureValue copy = *original;
  original.reset();
  EXPECT_EQ(copy.Narrow(), "deep");
}

TEST(FailureParameter, KeyIsBounded) {
  const CFailureParameter p(std::string(80, 'k').c_str(), CFailureValue::Integer(1));
  EXPECT_EQ(std::string(p.Key()).size(), 64u);
}

TEST(BasicStorage, BehavesAsAStorage) {
  std::unique_ptr<IExceptionBodyStorage> s(CreateBuiltInBasicExceptionBodyStorage());
  ExerciseStorage(*s);
}

TEST(ThreadSafeStorage, BehavesAsAStorage) {
  CThreadSafeExceptionBodyStorage s;
  ExerciseStorage(s);
}

TEST(ThreadSafeStorage, EveryThreadStartsAtThreeWithItsOwnTable) {
  CThreadSafeExceptionBodyStorage s;
  const BodyId here = s.CreateBody(CSourcePosition());
  s.AddEntry(here, EntryWithCode(30, "here"));
  BodyId there = kNoBody;
  CFailureEntry seenThere;
  std::vector<BodyId> idsThere;
  int32_t depthThere = -1;
  s.EnterScope();
  std::thread other([&] {
    there = s.CreateBody(CSourcePosition());
    s.AddEntry(there, EntryWithCode(34, "there"));
    s.GetEntry(seenThere, there, 0);
    s.GetBodyIds(idsThere);
    depthThere = s.GetScopeDepth();
  });
  other.join();
  EXPECT_EQ(here, 3);
  EXPECT_EQ(there, 3);
  EXPECT_EQ(seenThere.failureCode, 34u);
  EXPECT_EQ(idsThere, std::vector<BodyId>{3});
  EXPECT_EQ(depthThere, 0);
  EXPECT_EQ(s.GetScopeDepth(), 1);
  CFailureEntry seenHere;
  s.GetEntry(seenHere, here, 0);
  EXPECT_EQ(seenHere.text, "here");
  EXPECT_EQ(s.GetTableCount(), 2u);
}

TEST(ThreadSafeStorage, ManyThreadsPushTablesWithoutLoss) {
  CThreadSafeExceptionBodyStorage s;
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        const BodyId id = s.CreateBody(CSourcePosition());
        if (id != 3 + i) ++wrong;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(s.GetTableCount(), 16u);
}

TEST(ThreadSafeStorage, SlotsLivePerStorageObject) {
  CThreadSafeExceptionBodyStorage a;
  CThreadSafeExceptionBodyStorage b;
  EXPECT_EQ(a.CreateBody(CSourcePosition()), 3);
  EXPECT_EQ(b.CreateBody(CSourcePosition()), 3);
  EXPECT_EQ(a.CreateBody(CSourcePosition()), 4);
  EXPECT_EQ(b.CreateBody(CSourcePosition()), 4);
  a.EnterScope();
  EXPECT_EQ(a.GetScopeDepth(), 1);
  EXPECT_EQ(b.GetScopeDepth(), 0);
  // A storage made after another is gone starts afresh on this thread.
  auto* c = new CThreadSafeExceptionBodyStorage();
  EXPECT_EQ(c->CreateBody(CSourcePosition()), 3);
  delete c;
  CThreadSafeExceptionBodyStorage d;
  EXPECT_EQ(d.CreateBody(CSourcePosition()), 3);
}

TEST(GlobalStorage, CheckedAccessRaisesWithoutOne) {
  ASSERT_EQ(GetExceptionBodyStorageUnchecked(), nullptr);
  EXPECT_THROW(GetExceptionBodyStorage(), std::exception);
}

TEST(ThreadSafeStorage, AReservedTableWaitsForTheNextThreadAndAnEndedThreadGivesItsBack) {
  CThreadSafeExceptionBodyStorage s;
  s.EnterScope();
  EXPECT_EQ(s.GetTableCount(), 1u);
  s.ReserveThreadTable();
  s.ReserveThreadTable();  // one free table is enough
  EXPECT_EQ(s.GetTableCount(), 2u);
  BodyId firstId = 0;
  std::thread first([&] {
    firstId = s.CreateBody(CSourcePosition());
    s.EnterScope();
    s.ReleaseThreadTable();
  });
  first.join();
  EXPECT_EQ(s.GetTableCount(), 2u);
  for (int i = 0; i < 20; ++i) {
    std::thread next([&] {
      // The table comes back empty, and its ids go on counting.
      EXPECT_EQ(s.GetScopeDepth(), 0);
      std::vector<BodyId> ids;
      s.GetBodyIds(ids);
      EXPECT_TRUE(ids.empty());
      EXPECT_GT(s.CreateBody(CSourcePosition()), firstId);
      s.ReleaseThreadTable();
    });
    next.join();
  }
  EXPECT_EQ(s.GetTableCount(), 2u);
  // The thread that made the storage keeps its own table throughout.
  EXPECT_EQ(s.GetScopeDepth(), 1);
}
