// The record stream at block boundaries, the idle list, the growth limit and
// preemption, checked byte for byte.
#include "cachefile_test_util.h"

using namespace cftest;
using namespace cachefile;

namespace {

class QueueTest : public CacheFileTest {
 protected:
  void SetUp() override {
    CacheFileTest::SetUp();
    ASSERT_EQ(0, Open(1));
    m_h = Srv();
  }
  // Fills the queue so that the write position becomes nOffset (in a block
  // of its own), using records of ids from 1000.
  void FillTo(int32 nOffset) {
    int32 nLen = nOffset - m_h->nWriteOffset - 4;
    if (m_h->nTailNo == -1) nLen = nOffset - 8;
    ASSERT_GT(nLen, 0);
    ASSERT_EQ(0, Save(m_h, 1000, nLen));
    ASSERT_EQ(nOffset, m_h->nWriteOffset);
  }
  SrvHandle m_h = nullptr;
};

TEST_F(QueueTest, FirstRecordLayout) {
  ASSERT_EQ(0, Save(m_h, 1, 100));
  int32 n = m_h->nHeadNo;
  EXPECT_EQ(1, n);
  EXPECT_EQ(n, m_h->nTailNo);
  EXPECT_EQ(4, m_h->nReadOffset);
  EXPECT_EQ(108, m_h->nWriteOffset);
  EXPECT_EQ(1, m_h->nBlockNumUsed);
  EXPECT_TRUE(m_cache.HasRecord(m_h));
  EXPECT_EQ(100, ReadI32(m_strPath, BlockAt(n) + 4));
  std::vector<char> b = ReadFileBytes(m_strPath);
  EXPECT_EQ(0, memcmp(b.data() + BlockAt(n) + 8, Payload(1, 100).data(), 100));
  // The entry on disk is the one in memory.
  EXPECT_EQ(1, ReadI32(m_strPath, 140 + 19));
  EXPECT_EQ(n, ReadI32(m_strPath, 140 + 23));
  EXPECT_EQ(n, ReadI32(m_strPath, 140 + 27));
  EXPECT_EQ(4, ReadI32(m_strPath, 140 + 31));
  EXPECT_EQ(108, ReadI32(m_strPath, 140 + 35));
  EXPECT_EQ(2, ReadI32(m_strPath, 4));
}

TEST_F(QueueTest, BadArgumentsChangeNothing) {
  std::vector<char> before = ReadFileBytes(m_strPath);
  char c = 0;
  int32 nLen = 1;
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.SaveRecord(m_h, &c, 0));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.SaveRecord(m_h, &c, -5));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.SaveRecord(m_h, nullptr, 1));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.SaveRecord(nullptr, &c, 1));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.ReadCurRecord(m_h, nullptr, &nLen));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.ReadCurRecord(m_h, &c, nullptr));
  nLen = 0;
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.ReadCurRecord(m_h, &c, &nLen));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.DelCurRecord(nullptr));
  nLen = 1;
  EXPECT_EQ(EC_CACHE_EMPTY, m_cache.ReadCurRecord(m_h, &c, &nLen));
  EXPECT_EQ(EC_CACHE_EMPTY, m_cache.DelCurRecord(m_h));
  EXPECT_TRUE(before == ReadFileBytes(m_strPath));
  EXPECT_TRUE(logc_capture_take().empty());
}

TEST_F(QueueTest, RecordEndingExactlyAtBlockEndThenNextTakesNewBlock) {
  FillTo(4096);
  EXPECT_EQ(1, m_h->nBlockNumUsed);
  int32 nFull = m_h->nTailNo;
  ASSERT_EQ(0, Save(m_h, 2, 10));
  int32 nNew = m_h->nTailNo;
  EXPECT_NE(nFull, nNew);
  EXPECT_EQ(nNew, ReadI32(m_strPath, BlockAt(nFull)));
  EXPECT_EQ(10, ReadI32(m_strPath, BlockAt(nNew) + 4));
  EXPECT_EQ(18, m_h->nWriteOffset);
  EXPECT_EQ(2, m_h->nBlockNumUsed);
  // Removing the first record leaves the read position at the block end.
  ASSERT_EQ(0, m_cache.DelCurRecord(m_h));
  EXPECT_EQ(nFull, m_h->nHeadNo);
  EXPECT_EQ(4096, m_h->nReadOffset);
  EXPECT_EQ(2, m_h->nBlockNumUsed);
  ExpectFront(m_h, 2, 10);
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  // The next removal gives the full block back and empties the entry.
  ASSERT_EQ(0, m_cache.DelCurRecord(m_h));
  EXPECT_FALSE(m_cache.HasRecord(m_h));
  EXPECT_EQ(nNew, CacheFileTestAccess::Base(m_cache).nIdleHeadNo);
  EXPECT_EQ(nFull, ReadI32(m_strPath, BlockAt(nNew)));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(QueueTest, LengthFieldSplitAtEveryPlace) {
  for (int32 nFirst = 3; nFirst >= 0; --nFirst) {
    SCOPED_TRACE(nFirst);
    FillTo(4096 - nFirst);
    int32 nOld = m_h->nTailNo;
    int32 nLen = 0x0a0b0c0d & 0xffff;  // distinct bytes in the low half
    ASSERT_EQ(0, Save(m_h, 7, nLen));
    int32 nNew = m_h->nTailNo;
    ASSERT_NE(nOld, nNew);
    std::vector<char> b = ReadFileBytes(m_strPath);
    char lenBytes[4];
    memcpy(lenBytes, &nLen, 4);
    EXPECT_EQ(0, memcmp(b.data() + BlockAt(nOld) + 4096 - nFirst, lenBytes, nFirst));
    EXPECT_EQ(0, memcmp(b.data() + BlockAt(nNew) + 4, lenBytes + nFirst, 4 - nFirst));
    EXPECT_EQ(nNew, ReadI32(m_strPath, BlockAt(nOld)));
    int32 nPayloadAt = 4 + 4 - nFirst;
    EXPECT_EQ(0, memcmp(b.data() + BlockAt(nNew) + nPayloadAt, Payload(7, nLen).data(),
                        static_cast<size_t>(std::min(nLen, 4096 - nPayloadAt))));
    ExpectFront(m_h, 1000, 4096 - nFirst - 8);
    ASSERT_EQ(0, m_cache.DelCurRecord(m_h));
    ExpectFront(m_h, 7, nLen);
    ExpectConsistent(m_strPath, 1, &m_cache, false);
    ASSERT_EQ(0, m_cache.DelCurRecord(m_h));
    EXPECT_FALSE(m_cache.HasRecord(m_h));
  }
}

TEST_F(QueueTest, TenThousandBytesSpanThreeBlocks) {
  ASSERT_EQ(0, Save(m_h, 3, 10000));
  EXPECT_EQ(1824, m_h->nWriteOffset);
  EXPECT_EQ(3, m_h->nBlockNumUsed);
  int32 b1 = m_h->nHeadNo;
  int32 b2 = ReadI32(m_strPath, BlockAt(b1));
  int32 b3 = ReadI32(m_strPath, BlockAt(b2));
  EXPECT_EQ(b3, m_h->nTailNo);
  std::vector<char> b = ReadFileBytes(m_strPath);
  std::vector<char> p = Payload(3, 10000);
  EXPECT_EQ(0, memcmp(b.data() + BlockAt(b1) + 8, p.data(), 4088));
  EXPECT_EQ(0, memcmp(b.data() + BlockAt(b2) + 4, p.data() + 4088, 4092));
  EXPECT_EQ(0, memcmp(b.data() + BlockAt(b3) + 4, p.data() + 8180, 1820));
  ASSERT_EQ(0, Save(m_h, 4, 20));
  // Capacity one short: the length comes back, nothing else.
  std::vector<char> buf(10000);
  int32 nCap = 9999;
  EXPECT_EQ(EC_CACHE_BUF_SMALL, m_cache.ReadCurRecord(m_h, buf.data(), &nCap));
  EXPECT_EQ(10000, nCap);
  ExpectFront(m_h, 3, 10000);
  ExpectFront(m_h, 3, 10000);
  ASSERT_EQ(0, m_cache.DelCurRecord(m_h));
  EXPECT_EQ(b3, m_h->nHeadNo);
  EXPECT_EQ(1824, m_h->nReadOffset);
  EXPECT_EQ(1, m_h->nBlockNumUsed);
  // b1 then b2 given back: b2 on top.
  EXPECT_EQ(b2, CacheFileTestAccess::Base(m_cache).nIdleHeadNo);
  EXPECT_EQ(b1, ReadI32(m_strPath, BlockAt(b2)));
  EXPECT_EQ(-1, ReadI32(m_strPath, BlockAt(b1)));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  ExpectFront(m_h, 4, 20);
}

TEST_F(QueueTest, IdleListIsAStack) {
  int32 n[8];
  for (int32& x : n) ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &x));
  EXPECT_EQ(1, n[0]);
  EXPECT_EQ(8, n[7]);
  EXPECT_EQ(9, CacheFileTestAccess::Base(m_cache).nTotalBlockNum);
  ASSERT_EQ(0, CacheFileTestAccess::Free(m_cache, 5));
  ASSERT_EQ(0, CacheFileTestAccess::Free(m_cache, 7));
  EXPECT_EQ(-1, ReadI32(m_strPath, BlockAt(5)));
  EXPECT_EQ(5, ReadI32(m_strPath, BlockAt(7)));
  EXPECT_EQ(7, ReadI32(m_strPath, 8));
  int32 a = 0, b = 0, c = 0;
  ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &a));
  ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &b));
  ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &c));
  EXPECT_EQ(7, a);
  EXPECT_EQ(5, b);
  EXPECT_EQ(9, c);
  EXPECT_EQ(-1, ReadI32(m_strPath, 8));
  EXPECT_EQ(10, ReadI32(m_strPath, 4));
}

TEST_F(QueueTest, OneMbFileHoldsBlocks0To254) {
  int32 n = 0;
  for (int32 i = 1; i <= 254; ++i) {
    ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &n));
    ASSERT_EQ(i, n);
  }
  EXPECT_EQ(255, CacheFileTestAccess::Base(m_cache).nTotalBlockNum);
  logc_capture_take();
  // Full, and the only entry holds no block.
  EXPECT_EQ(EC_CACHE_NO_VICTIM, CacheFileTestAccess::Alloc(m_cache, &n));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_NO_VICTIM, "no srv has data block"));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_NO_VICTIM, "preempt data block failed"));
  EXPECT_EQ(255, ReadI32(m_strPath, 4));
}

TEST_F(QueueTest, FullFileWithoutEntriesFailsNoSrvInList) {
  m_cache.Release();
  std::filesystem::remove(m_strPath);
  ASSERT_EQ(0, Open(1));
  int32 n = 0;
  for (int32 i = 1; i <= 254; ++i) ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &n));
  EXPECT_EQ(EC_CACHE_NO_VICTIM, CacheFileTestAccess::Alloc(m_cache, &n));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_NO_VICTIM, "no srv in srv list"));
}

TEST_F(QueueTest, RecordLargerThanTheFileIsRefusedBeforeAnyWrite) {
  std::vector<char> before = ReadFileBytes(m_strPath);
  const int32 nMax = 254 * 4092 - 4;
  std::vector<char> big(1048576);
  EXPECT_EQ(EC_CACHE_REC_TOO_LARGE, m_cache.SaveRecord(m_h, big.data(), 1048576));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_REC_TOO_LARGE, "1048576 bytes"));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_REC_TOO_LARGE, std::to_string(nMax).c_str()));
  EXPECT_EQ(EC_CACHE_REC_TOO_LARGE, m_cache.SaveRecord(m_h, big.data(), nMax + 1));
  EXPECT_TRUE(before == ReadFileBytes(m_strPath));
  // The largest record fits an empty file exactly.
  ASSERT_EQ(0, m_cache.SaveRecord(m_h, big.data(), nMax));
  EXPECT_EQ(254, m_h->nBlockNumUsed);
  EXPECT_EQ(4096, m_h->nWriteOffset);
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

// ---- Preemption ------------------------------------------------------------------

class PreemptTest : public CacheFileTest {
 protected:
  void SetUp() override {
    CacheFileTest::SetUp();
    ASSERT_EQ(0, Open(1));
  }
  // Takes every block still free in the file, so the next request preempts.
  void ExhaustFreeBlocks() {
    FileBaseInfo& fb = CacheFileTestAccess::Base(m_cache);
    while (fb.nIdleHeadNo != -1 || fb.nTotalBlockNum < 255) {
      int32 n = 0;
      ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &n));
      m_vecHeld.push_back(n);
    }
  }
  // Blocks held by the test are leaks to the checker: give them back first.
  void ReleaseHeld() {
    for (int32 n : m_vecHeld) CacheFileTestAccess::Free(m_cache, n);
    m_vecHeld.clear();
  }
  std::vector<int32> m_vecHeld;
};

TEST_F(PreemptTest, FrontmostOfTwoEqualVictimsLosesOldestBlockWithItsRecords) {
  SrvHandle s1 = nullptr, s2 = nullptr, s3 = nullptr;
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 1, 1, &s1));
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 2, 1, &s2));
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 3, 1, &s3));
  // s1: A (3,000) and B (1,088 + 100 bytes into the second block), C; 3 blocks.
  ASSERT_EQ(0, Save(s1, 1, 3000));
  ASSERT_EQ(0, Save(s1, 2, 4096 - 3008 - 4 + 100));
  ASSERT_EQ(0, Save(s1, 3, 5000));
  ASSERT_EQ(3, s1->nBlockNumUsed);
  ASSERT_EQ(0, Save(s2, 10, 9000));
  ASSERT_EQ(3, s2->nBlockNumUsed);
  int32 nH = s1->nHeadNo;
  int32 nSecond = ReadI32(m_strPath, BlockAt(nH));
  ExhaustFreeBlocks();
  int32 nGot = 0;
  ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &nGot));
  EXPECT_EQ(nH, nGot);
  EXPECT_EQ(nSecond, s1->nHeadNo);
  EXPECT_EQ(104, s1->nReadOffset);
  EXPECT_EQ(2, s1->nBlockNumUsed);
  EXPECT_EQ(3, s2->nBlockNumUsed);
  EXPECT_EQ(104, ReadI32(m_strPath, EntryOffset(0, 1, 4096) + 31));
  m_vecHeld.push_back(nGot);
  ReleaseHeld();
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  ExpectFront(s1, 3, 5000);
}

TEST_F(PreemptTest, RecordEndingAtOldestBlockEndMovesHeadToOffset4) {
  SrvHandle h = Srv();
  ASSERT_EQ(0, Save(h, 1, 4088));  // ends exactly at the block end
  ASSERT_EQ(0, Save(h, 2, 10));
  int32 nH = h->nHeadNo;
  int32 nSecond = h->nTailNo;
  ExhaustFreeBlocks();
  int32 nIdleBefore = CacheFileTestAccess::Base(m_cache).nIdleHeadNo;
  int32 nGot = 0;
  ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &nGot));
  EXPECT_EQ(nH, nGot);
  EXPECT_EQ(nSecond, h->nHeadNo);
  EXPECT_EQ(4, h->nReadOffset);
  EXPECT_EQ(1, h->nBlockNumUsed);
  EXPECT_EQ(nIdleBefore, CacheFileTestAccess::Base(m_cache).nIdleHeadNo);  // nothing given back
  ExpectFront(h, 2, 10);
  m_vecHeld.push_back(nGot);
  ReleaseHeld();
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(PreemptTest, RecordSpanningTwoMoreBlocksGivesThemBack) {
  SrvHandle h = Srv();
  ASSERT_EQ(0, Save(h, 1, 100));
  ASSERT_EQ(0, Save(h, 2, 3984 + 4092 * 2 + 50));  // through two blocks, ends in a fourth
  ASSERT_EQ(0, Save(h, 3, 10));
  ASSERT_EQ(4, h->nBlockNumUsed);
  int32 nH = h->nHeadNo;
  int32 b2 = ReadI32(m_strPath, BlockAt(nH));
  int32 b3 = ReadI32(m_strPath, BlockAt(b2));
  int32 b4 = h->nTailNo;
  ExhaustFreeBlocks();
  int32 nGot = 0;
  ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &nGot));
  EXPECT_EQ(nH, nGot);
  EXPECT_EQ(b4, h->nHeadNo);
  EXPECT_EQ(54, h->nReadOffset);
  EXPECT_EQ(1, h->nBlockNumUsed);
  // b2 then b3 pushed: b3 on top.
  EXPECT_EQ(b3, CacheFileTestAccess::Base(m_cache).nIdleHeadNo);
  EXPECT_EQ(b2, ReadI32(m_strPath, BlockAt(b3)));
  ExpectFront(h, 3, 10);
  m_vecHeld.push_back(nGot);
  ReleaseHeld();
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(PreemptTest, VictimWhoseRecordsAllBeginInOldestBlockIsEmptied) {
  SrvHandle s1 = nullptr, s2 = nullptr;
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 1, 1, &s1));
  ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 2, 1, &s2));
  for (int32 nEndAtBlockEnd = 0; nEndAtBlockEnd < 2; ++nEndAtBlockEnd) {
    SCOPED_TRACE(nEndAtBlockEnd);
    ASSERT_EQ(0, Save(s1, 1, 4000));
    ASSERT_EQ(0, Save(s1, 2, nEndAtBlockEnd ? 84 + 4092 : 500));
    ASSERT_EQ(2, s1->nBlockNumUsed);
    ASSERT_EQ(0, Save(s2, 9, 10));
    int32 nH = s1->nHeadNo;
    int32 nTail = s1->nTailNo;
    ExhaustFreeBlocks();
    int32 nGot = 0;
    ASSERT_EQ(0, CacheFileTestAccess::Alloc(m_cache, &nGot));
    EXPECT_EQ(nH, nGot);
    EXPECT_FALSE(m_cache.HasRecord(s1));
    EXPECT_EQ(0, s1->nBlockNumUsed);
    EXPECT_EQ(-1, ReadI32(m_strPath, EntryOffset(0, 1, 4096) + 23));
    EXPECT_EQ(nTail, CacheFileTestAccess::Base(m_cache).nIdleHeadNo);
    m_vecHeld.push_back(nGot);
    ReleaseHeld();
    ExpectConsistent(m_strPath, 1, &m_cache, false);
    ASSERT_EQ(0, m_cache.DelCurRecord(s2));
  }
}

TEST_F(PreemptTest, SingleBlockVictimIsNeverTaken) {
  SrvHandle h = Srv();
  ASSERT_EQ(0, Save(h, 1, 10));
  ExhaustFreeBlocks();
  logc_capture_take();
  int32 n = 0;
  EXPECT_EQ(EC_NO_MEMORY, CacheFileTestAccess::Alloc(m_cache, &n));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_NO_VICTIM,
                               "srv has no more than one block can not be preempted"));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_NO_MEMORY, "preempt data block from srv failed"));
  ExpectFront(h, 1, 10);
}

TEST_F(PreemptTest, SavingEntryDropsOnlyOlderRecordsAndNeverItsWriteBlock) {
  SrvHandle h = Srv();
  // Fill the whole file with records of 3,000 bytes.
  uint32 nId = 0;
  while (CacheFileTestAccess::Base(m_cache).nTotalBlockNum < 255) {
    ASSERT_EQ(0, Save(h, nId++, 3000));
  }
  // Keep saving: each save that needs a block takes the oldest of its own.
  for (int32 i = 0; i < 300; ++i) {
    ASSERT_EQ(0, Save(h, nId++, 3000)) << i;
    ExpectConsistent(m_strPath, 1, &m_cache, false);
    if (HasFailure()) return;
  }
  // The newest record is intact and the queue reads in order.
  std::vector<char> buf(3000);
  int32 nLen = 3000;
  ASSERT_EQ(0, m_cache.ReadCurRecord(h, buf.data(), &nLen));
  uint32 nFirst;
  memcpy(&nFirst, buf.data(), 4);
  for (uint32 id = nFirst; id < nId; ++id) {
    ExpectFront(h, id, 3000);
    ASSERT_EQ(0, m_cache.DelCurRecord(h));
  }
  EXPECT_FALSE(m_cache.HasRecord(h));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(PreemptTest, SaveThatWouldNeedItsOwnWriteBlockFailsAndKeepsTheQueue) {
  SrvHandle h = Srv();
  // One record filling almost every block: nothing older can be dropped
  // without reaching the write position.
  ASSERT_EQ(0, Save(h, 1, 4092 * 250));
  ExhaustFreeBlocks();
  ReleaseHeld();
  std::vector<char> before = ReadFileBytes(m_strPath);
  SrvInfo old = *h;
  logc_capture_take();
  EXPECT_EQ(EC_CACHE_NO_ROOM, Save(h, 2, 4092 * 10));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_NO_ROOM, "record being saved"));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_NO_ROOM, "alloc idle block failed"));
  EXPECT_EQ(old.nHeadNo, h->nHeadNo);
  EXPECT_EQ(old.nTailNo, h->nTailNo);
  EXPECT_EQ(old.nWriteOffset, h->nWriteOffset);
  EXPECT_EQ(old.nBlockNumUsed, h->nBlockNumUsed);
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  ExpectFront(h, 1, 4092 * 250);
  // A small record still fits in the free blocks.
  ASSERT_EQ(0, Save(h, 3, 100));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(PreemptTest, DamagedLinkIsRefusedNotFollowed) {
  SrvHandle h = Srv();
  ASSERT_EQ(0, Save(h, 1, 9000));
  WriteI32(m_strPath, BlockAt(h->nHeadNo), 9999);
  std::vector<char> buf(9000);
  int32 nLen = 9000;
  EXPECT_EQ(EC_CACHE_BAD_CHAIN, m_cache.ReadCurRecord(h, buf.data(), &nLen));
  EXPECT_EQ(EC_CACHE_BAD_CHAIN, m_cache.DelCurRecord(h));
  EXPECT_EQ(3, h->nBlockNumUsed);
  std::vector<CacheCheckFinding> findings;
  ASSERT_EQ(0, cache_file_check(m_strPath.c_str(), 1, &findings, nullptr));
  EXPECT_GE(cache_check_count(findings, CACHE_CHECK_DAMAGE), 1);
}

TEST_F(PreemptTest, ZeroStoredLengthFailsReadAndDeleteEveryTime) {
  SrvHandle h = Srv();
  ASSERT_EQ(0, Save(h, 1, 10));
  WriteI32(m_strPath, BlockAt(h->nHeadNo) + 4, 0);
  char buf[16];
  int32 nLen = 16;
  EXPECT_EQ(EC_CACHE_BAD_REC_LEN, m_cache.ReadCurRecord(h, buf, &nLen));
  EXPECT_EQ(EC_CACHE_BAD_REC_LEN, m_cache.DelCurRecord(h));
  EXPECT_EQ(EC_CACHE_BAD_REC_LEN, m_cache.DelCurRecord(h));
  EXPECT_TRUE(m_cache.HasRecord(h));
}

}  // namespace
