// Two threads on one file: one saves, reads and removes records of one
// entry while the other keeps rewriting the credentials of another entry in
// the same server-info block (a whole-block read-modify-write). Run under
// the tsan preset for data races; the file must stay consistent and the
// queue entry must never be overwritten by a stale block image.
#include <atomic>
#include <thread>

#include "cachefile_test_util.h"

using namespace cftest;

namespace {

class ThreadTest : public CacheFileTest {};

TEST_F(ThreadTest, SaveAndDeleteWhileCredentialsChange) {
  ASSERT_EQ(0, Open(1));
  SrvHandle hCred = nullptr;
  SrvHandle hQueue = nullptr;
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 1, 1, &hCred));
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 2, 1, &hQueue));
  ASSERT_EQ(0, Save(hCred, 0, 8));  // so that the entry survives a restart
  std::atomic<bool> bDone{false};
  std::atomic<int32> nCredFailures{0};
  std::thread cred([&] {
    int32 i = 0;
    while (!bDone.load()) {
      std::string strUser = "user" + std::to_string(i % 100);
      std::string strPass = "pass" + std::to_string(i % 100);
      if (m_cache.SetUserPassWord(hCred, strUser.c_str(), strPass.c_str()) != 0) ++nCredFailures;
      ++i;
    }
    if (m_cache.SetUserPassWord(hCred, "last", "word") != 0) ++nCredFailures;
  });
  int64 nQueued = 0;
  uint32 nId = 1;
  uint32 nFront = 1;
  std::vector<char> buf(70000);
  for (int32 i = 0; i < 3000; ++i) {
    if (i % 3 != 2) {
      ASSERT_EQ(0, Save(hQueue, nId, 1 + (nId * 7919) % 60000));
      ++nId;
      ++nQueued;
    } else {
      int32 nLen = static_cast<int32>(buf.size());
      ASSERT_EQ(0, m_cache.ReadCurRecord(hQueue, buf.data(), &nLen));
      uint32 nGot = 0;
      if (nLen >= 4) memcpy(&nGot, buf.data(), 4);
      // Preemption may drop the oldest ones; what comes out is in order.
      ASSERT_GE(nLen >= 4 ? nGot : nFront, nFront);
      if (nLen >= 4) nFront = nGot + 1;
      ASSERT_EQ(0, m_cache.DelCurRecord(hQueue));
    }
  }
  bDone = true;
  cred.join();
  EXPECT_EQ(0, nCredFailures.load());
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  SrvInfo mem = *hQueue;
  ASSERT_EQ(0, Open(1));
  SrvInfo* pQueue = nullptr;
  SrvInfo* pCred = nullptr;
  for (SrvInfo* p : m_list) (p->nIP == 2 ? pQueue : pCred) = p;
  ASSERT_NE(nullptr, pQueue);
  ASSERT_NE(nullptr, pCred);
  EXPECT_EQ(mem.nHeadNo, pQueue->nHeadNo);
  EXPECT_EQ(mem.nTailNo, pQueue->nTailNo);
  EXPECT_EQ(mem.nReadOffset, pQueue->nReadOffset);
  EXPECT_EQ(mem.nWriteOffset, pQueue->nWriteOffset);
  EXPECT_EQ(mem.nBlockNumUsed, pQueue->nBlockNumUsed);
  EXPECT_STREQ("last", pCred->szUser);
  EXPECT_STREQ("word", pCred->szPassWord);
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

// Two savers on two entries of a full file preempt each other: a save holds
// its own entry's mutex while the preemption wants the other's, which that
// thread may hold while it waits for the allocation lock. The preemption
// must give up rather than wait for ever.
TEST_F(ThreadTest, TwoSaversPreemptingEachOtherDoNotDeadlock) {
  ASSERT_EQ(0, Open(1));
  SrvHandle h[2] = {nullptr, nullptr};
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 1, 1, &h[0]));
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 2, 1, &h[1]));
  std::atomic<int32> nUnexpected{0};
  std::atomic<int32> nFailedSaves{0};
  std::atomic<int32> nLastUnexpected{0};
  auto work = [&](int32 t) {
    std::vector<char> buf(70000);
    uint32 nId = static_cast<uint32>(t) << 24;
    for (int32 i = 0; i < 1000; ++i) {
      if (i % 4 != 3) {
        int32 nLen = 1 + static_cast<int32>((nId * 7919u) % 40000u);
        int32 nRet = Save(h[t], nId++, nLen);
        // No room: the other entry is busy, holds one block, or holds only
        // blocks of a save it has not committed yet.
        if (nRet == EC_NO_MEMORY || nRet == EC_CACHE_NO_ROOM || nRet == EC_CACHE_NO_VICTIM) {
          ++nFailedSaves;
        } else if (nRet != 0) {
          nLastUnexpected = nRet;
          ++nUnexpected;
        }
      } else if (m_cache.HasRecord(h[t])) {
        int32 nLen = static_cast<int32>(buf.size());
        int32 nRet = m_cache.ReadCurRecord(h[t], buf.data(), &nLen);
        if (nRet == 0) nRet = m_cache.DelCurRecord(h[t]);
        // A preemption by the other thread may empty the queue in between.
        if (nRet != 0 && nRet != EC_CACHE_EMPTY) {
          nLastUnexpected = nRet;
          ++nUnexpected;
        }
      }
    }
  };
  std::thread a(work, 0);
  std::thread b(work, 1);
  a.join();
  b.join();
  EXPECT_EQ(0, nUnexpected.load()) << "last status " << nLastUnexpected.load();
  RecordProperty("failed_saves", nFailedSaves.load());
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  ASSERT_EQ(0, Open(1));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

}  // namespace
