// Byte layouts of the header, server-info blocks and entries; opening and
// refusing existing files; the start-up compaction of the entries.
#include "cachefile_test_util.h"

using namespace cftest;
using namespace cachefile;

namespace {

class LayoutTest : public CacheFileTest {};

TEST_F(LayoutTest, NewFileAt39And40MbHasExactSizeHeaderAndEmptyBlock0) {
  struct {
    int32 nMb;
    int32 nBlockSize;
  } cases[] = {{39, 4096}, {40, 4194304}, {1, 4096}};
  for (auto c : cases) {
    SCOPED_TRACE(c.nMb);
    std::filesystem::remove(m_strPath);
    ASSERT_EQ(0, Open(c.nMb));
    EXPECT_TRUE(m_list.empty());
    EXPECT_EQ(128 + c.nBlockSize, FileSize(m_strPath));
    std::vector<char> b = ReadFileBytes(m_strPath);
    int32 hdr[5];
    memcpy(hdr, b.data(), sizeof(hdr));
    EXPECT_EQ(c.nBlockSize, hdr[0]);
    EXPECT_EQ(1, hdr[1]);
    EXPECT_EQ(-1, hdr[2]);
    EXPECT_EQ(0, hdr[3]);
    EXPECT_EQ(0, hdr[4]);
    uint16 nVerLen;
    memcpy(&nVerLen, b.data() + 20, 2);
    EXPECT_EQ(6, nVerLen);
    EXPECT_EQ(0, memcmp(b.data() + 22, "3.0.1", 6));
    for (int i = 28; i < 128; ++i) ASSERT_EQ(0, b[static_cast<size_t>(i)]) << i;
    EXPECT_EQ(-1, ReadI32(m_strPath, 128));
    EXPECT_EQ(-1, ReadI32(m_strPath, 132));
    EXPECT_EQ(0, ReadI32(m_strPath, 136));
    ExpectConsistent(m_strPath, c.nMb, &m_cache, false);
    m_cache.Release();
  }
}

TEST_F(LayoutTest, ExistingFileKeepsItsBlockSize) {
  ASSERT_EQ(0, Open(39));
  m_cache.Release();
  ASSERT_EQ(0, Open(40));
  EXPECT_EQ(4096, BlockSize());
  EXPECT_EQ(4096, ReadI32(m_strPath, 0));
}

TEST_F(LayoutTest, VersionOf64CharsIsCutTo63And65Refused) {
  std::string str64(64, 'v');
  std::string str65(65, 'v');
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.Init(str65.c_str(), m_strPath.c_str(), 1, &m_list));
  EXPECT_FALSE(std::filesystem::exists(m_strPath));
  EXPECT_TRUE(logc_capture_take().empty());
  ASSERT_EQ(0, m_cache.Init(str64.c_str(), m_strPath.c_str(), 1, &m_list));
  std::vector<char> b = ReadFileBytes(m_strPath);
  uint16 nVerLen;
  memcpy(&nVerLen, b.data() + 20, 2);
  EXPECT_EQ(64, nVerLen);
  EXPECT_EQ(std::string(63, 'v'), std::string(b.data() + 22));
}

TEST_F(LayoutTest, BadArgumentsAreRefusedWithoutLogOrFile) {
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.Init(nullptr, m_strPath.c_str(), 1, &m_list));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.Init("v", nullptr, 1, &m_list));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.Init("v", "", 1, &m_list));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.Init("v", m_strPath.c_str(), 0, &m_list));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.Init("v", m_strPath.c_str(), 1, nullptr));
  EXPECT_FALSE(std::filesystem::exists(m_strPath));
  EXPECT_TRUE(logc_capture_take().empty());
  EXPECT_EQ(0, m_cache.Release());
  EXPECT_EQ(0, m_cache.Release());
}

TEST_F(LayoutTest, SizeCheckAllowsUpToOneMbMinusOneByteMore) {
  // 128 + 24 * 4 MiB: 96 MB rounded down.
  ASSERT_EQ(0, Open(100));
  m_cache.Release();
  WriteI32(m_strPath, 4, 24);
  std::filesystem::resize_file(m_strPath, 100663424);
  ASSERT_EQ(0, Open(96));
  m_cache.Release();
  logc_capture_take();
  EXPECT_EQ(EC_CACHE_TOO_LARGE, Open(95));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_TOO_LARGE, "cache file size too small"));
}

TEST_F(LayoutTest, HeaderChecksRunInOrderWithTheirMessages) {
  ASSERT_EQ(0, Open(9));
  m_cache.Release();
  const std::vector<char> good = ReadFileBytes(m_strPath);
  struct {
    int32 nOffset;
    int32 nValue;
    const char* szMsg;
  } cases[] = {
      {0, 0, "invalid block size"},
      {0, 8192, "invalid block size"},
      {4, -1, "invalid total block number"},
      {4, 2305, "invalid total block number"},  // 9 MB / 4096 = 2,304
      {8, -2, "invalid idle head number"},
      {12, 1, "invalid server info head number"},
      {16, -1, "invalid server info tail number"},
      {16, 2304, "invalid server info tail number"},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.szMsg);
    WriteFileBytes(m_strPath, good);
    WriteI32(m_strPath, c.nOffset, c.nValue);
    // A second bad field later in the order must not be the one reported.
    if (c.nOffset < 12) WriteI32(m_strPath, 12, 7);
    logc_capture_take();
    EXPECT_EQ(EC_CACHE_BAD_HEADER, Open(9));
    EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, c.szMsg));
    EXPECT_TRUE(
        logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "load file base info from disk failed"));
    if (c.nOffset < 12) {
      EXPECT_FALSE(logc_capture_has(LL_ERROR, -1, "invalid server info head number"));
    }
    // Refused, not repaired.
    std::vector<char> after = ReadFileBytes(m_strPath);
    WriteFileBytes(m_strPath, good);
  }
  // 128 + 2,559 * 4,096 bytes (9 MB rounded down) counting 2,559 blocks:
  // passes the size check, fails the block count.
  WriteI32(m_strPath, 4, 2559);
  std::filesystem::resize_file(m_strPath, 10481792);
  logc_capture_take();
  EXPECT_EQ(EC_CACHE_BAD_HEADER, Open(9));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "invalid total block number"));
}

TEST_F(LayoutTest, EmptyOrZeroedFileIsRefusedAndLeftUnchanged) {
  { std::ofstream out(m_strPath); }
  EXPECT_NE(0, Open(1));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "invalid block size"));
  EXPECT_EQ(0, FileSize(m_strPath));
  WriteFileBytes(m_strPath, std::vector<char>(4224, 0));
  logc_capture_take();
  EXPECT_EQ(EC_CACHE_BAD_HEADER, Open(1));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "invalid block size"));
  EXPECT_TRUE(ReadFileBytes(m_strPath) == std::vector<char>(4224, 0));
  EXPECT_EQ(0, m_cache.Release());
}

TEST_F(LayoutTest, DamagedServerInfoChainFailsStartUpBeforeAnyWrite) {
  ASSERT_EQ(0, Open(1));
  m_cache.Release();
  const std::vector<char> good = ReadFileBytes(m_strPath);
  struct {
    int32 nTail;
    int32 nTotal;
    int32 nLink0;
  } cases[] = {
      {1, 2, -1},  // next link -1 before the tail
      {2, 3, 5},   // link beyond the blocks handed out
      {2, 3, 0},   // link back to block 0
      {1, 1, 1},   // tail at the block count
  };
  for (auto c : cases) {
    WriteFileBytes(m_strPath, good);
    WriteI32(m_strPath, 4, c.nTotal);
    WriteI32(m_strPath, 16, c.nTail);
    WriteI32(m_strPath, 128, c.nLink0);
    const std::vector<char> before = ReadFileBytes(m_strPath);
    logc_capture_take();
    EXPECT_EQ(EC_CACHE_BAD_HEADER, Open(1));
    EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "invalid server info chain"));
    EXPECT_TRUE(before == ReadFileBytes(m_strPath));
  }
}

TEST_F(LayoutTest, FirstEntryAtByte140AndSecondCallReturnsIt) {
  ASSERT_EQ(0, Open(1));
  SrvHandle h = nullptr;
  ASSERT_EQ(0, m_cache.SaveSrvInfo(0x0a0b0c0d, 0x1234, &h));
  EXPECT_FALSE(m_cache.HasRecord(h));
  EXPECT_EQ(1, ReadI32(m_strPath, 136));
  std::vector<char> b = ReadFileBytes(m_strPath);
  const char* e = b.data() + 140;
  EXPECT_EQ(1, e[0]);
  uint32 nIP;
  memcpy(&nIP, e + 1, 4);
  EXPECT_EQ(0x0a0b0c0du, nIP);
  for (int i = 5; i < 17; ++i) EXPECT_EQ(0, e[i]);
  uint16 nPort;
  memcpy(&nPort, e + 17, 2);
  EXPECT_EQ(0x1234, nPort);
  int32 f[5];
  memcpy(f, e + 19, sizeof(f));
  EXPECT_EQ(0, f[0]);
  EXPECT_EQ(-1, f[1]);
  EXPECT_EQ(-1, f[2]);
  EXPECT_EQ(0, f[3]);
  EXPECT_EQ(0, f[4]);
  const std::vector<char> before = ReadFileBytes(m_strPath);
  SrvHandle h2 = nullptr;
  ASSERT_EQ(0, m_cache.SaveSrvInfo(0x01020304, 99, &h2));
  EXPECT_EQ(h, h2);
  EXPECT_TRUE(before == ReadFileBytes(m_strPath));
  EXPECT_EQ(EC_CACHE_INVALID_ARG, m_cache.SaveSrvInfo(1, 1, nullptr));
}

TEST_F(LayoutTest, EighteenthEntryTakesANewServerInfoBlock) {
  ASSERT_EQ(0, Open(1));
  std::vector<SrvHandle> hs;
  for (uint32 i = 0; i < 18; ++i) {
    SrvHandle h = nullptr;
    ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 100 + i, 1, &h));
    hs.push_back(h);
  }
  EXPECT_EQ(17, ReadI32(m_strPath, 136));
  EXPECT_EQ(0, hs[16]->nBlockNo);
  EXPECT_EQ(17, hs[16]->nOrderInBlock);
  EXPECT_EQ(1, hs[17]->nBlockNo);
  EXPECT_EQ(1, hs[17]->nOrderInBlock);
  EXPECT_EQ(1, ReadI32(m_strPath, 128));          // block 0 next
  EXPECT_EQ(-1, ReadI32(m_strPath, BlockAt(1)));  // new block next
  EXPECT_EQ(0, ReadI32(m_strPath, BlockAt(1) + 4));
  EXPECT_EQ(1, ReadI32(m_strPath, BlockAt(1) + 8));
  EXPECT_EQ(117, ReadI32(m_strPath, BlockAt(1) + 12 + 1));
  EXPECT_EQ(1, ReadI32(m_strPath, 16));  // header tail
  EXPECT_EQ(2, ReadI32(m_strPath, 4));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(LayoutTest, CredentialsAreCutToFieldSizeInFileAndMemory) {
  ASSERT_EQ(0, Open(1));
  SrvHandle h = Srv();
  std::string strUser(70, 'u');
  std::string strPass(130, 'p');
  ASSERT_EQ(0, m_cache.SetUserPassWord(h, strUser.c_str(), strPass.c_str()));
  EXPECT_EQ(std::string(63, 'u'), h->szUser);
  EXPECT_EQ(std::string(127, 'p'), h->szPassWord);
  std::vector<char> b = ReadFileBytes(m_strPath);
  EXPECT_EQ(std::string(63, 'u'), std::string(b.data() + 140 + 39));
  EXPECT_EQ(0, b[140 + 39 + 63]);
  EXPECT_EQ(std::string(127, 'p'), std::string(b.data() + 140 + 103));
  EXPECT_EQ(0, b[140 + 103 + 127]);
  // Shorter ones leave the rest of the fields zero.
  ASSERT_EQ(0, m_cache.SetUserPassWord(h, "ab", "c"));
  b = ReadFileBytes(m_strPath);
  for (int i = 2; i < 64; ++i) ASSERT_EQ(0, b[static_cast<size_t>(140 + 39 + i)]);
  for (int i = 1; i < 128; ++i) ASSERT_EQ(0, b[static_cast<size_t>(140 + 103 + i)]);
  // Reopened with a record, the credentials come back.
  ASSERT_EQ(0, Save(h, 1, 10));
  ASSERT_EQ(0, Open(1));
  ASSERT_EQ(1u, m_list.size());
  EXPECT_STREQ("ab", m_list.front()->szUser);
  EXPECT_STREQ("c", m_list.front()->szPassWord);
}

TEST_F(LayoutTest, CredentialsOfAnEntryNotInTheChainFail) {
  ASSERT_EQ(0, Open(1));
  SrvHandle h = Srv();
  h->nPort = 1;  // no entry of the chain matches any more
  logc_capture_take();
  EXPECT_EQ(EC_CACHE_BAD_HEADER, m_cache.SetUserPassWord(h, "u", "p"));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "no srv info"));
}

// ---- Start-up compaction -----------------------------------------------------

class StartUpTest : public CacheFileTest {
 protected:
  // Entries ids[i] get address 1000 + i; those in bEmpty lose their record.
  void Build(int32 nCount, const std::vector<int32>& vecEmpty) {
    ASSERT_EQ(0, Open(1));
    std::vector<SrvHandle> hs;
    for (int32 i = 0; i < nCount; ++i) {
      SrvHandle h = nullptr;
      ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, 1000 + i, 1, &h));
      ASSERT_EQ(0, Save(h, static_cast<uint32>(i), 50));
      hs.push_back(h);
    }
    for (int32 i : vecEmpty) ASSERT_EQ(0, m_cache.DelCurRecord(hs[static_cast<size_t>(i)]));
    m_cache.Release();
  }
  std::vector<uint32> Addresses() {
    std::vector<uint32> v;
    for (SrvInfo* p : m_list) v.push_back(p->nIP - 1000);
    return v;
  }
};

TEST_F(StartUpTest, OnlyEntryEmptyIsDroppedAndRecreatedInSlot1) {
  Build(1, {0});
  ASSERT_EQ(0, Open(1));
  EXPECT_TRUE(m_list.empty());
  EXPECT_EQ(0, ReadI32(m_strPath, 136));
  SrvHandle h = Srv();
  EXPECT_EQ(0, h->nBlockNo);
  EXPECT_EQ(1, h->nOrderInBlock);
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(StartUpTest, EntryWithRecordsKeepsSlot1) {
  Build(1, {});
  ASSERT_EQ(0, Open(1));
  ASSERT_EQ(1u, m_list.size());
  EXPECT_EQ(0, m_list.front()->nBlockNo);
  EXPECT_EQ(1, m_list.front()->nOrderInBlock);
  ExpectFront(m_list.front(), 0, 50);
}

TEST_F(StartUpTest, LastEntryFillsTheHoleInOneBlock) {
  Build(3, {0});  // [S1 empty, S2, S3]
  ASSERT_EQ(0, Open(1));
  EXPECT_EQ((std::vector<uint32>{2, 1}), Addresses());
  EXPECT_EQ(1, m_list.front()->nOrderInBlock);
  EXPECT_EQ(2, m_list.back()->nOrderInBlock);
  EXPECT_EQ(2, ReadI32(m_strPath, 136));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(StartUpTest, EmptiedTailBlockIsFreedAndBlock0BecomesTail) {
  // Block 0: S0 empty, S1..S16; block 1 (tail): S17, S18 empty.
  Build(19, {0, 18});
  int32 nTailBlock = ReadI32(m_strPath, 16);
  ASSERT_NE(0, nTailBlock);
  ASSERT_EQ(0, Open(1));
  std::vector<uint32> v = Addresses();
  ASSERT_EQ(17u, v.size());
  EXPECT_EQ(17u, v[0]);  // S18 replaced S0 and was dropped; S17 replaced it
  EXPECT_EQ(0, ReadI32(m_strPath, 16));
  EXPECT_EQ(-1, ReadI32(m_strPath, 128));
  EXPECT_EQ(17, ReadI32(m_strPath, 136));
  EXPECT_EQ(nTailBlock, ReadI32(m_strPath, 8));  // on top of the idle list
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  for (SrvInfo* p : m_list) ExpectFront(p, p->nIP - 1000, 50);
}

TEST_F(StartUpTest, EveryEntryEmptyLeavesOnlyBlock0) {
  std::vector<int32> all;
  for (int32 i = 0; i < 40; ++i) all.push_back(i);
  Build(40, all);  // three server-info blocks
  ASSERT_EQ(0, Open(1));
  EXPECT_TRUE(m_list.empty());
  EXPECT_EQ(0, ReadI32(m_strPath, 16));
  EXPECT_EQ(0, ReadI32(m_strPath, 136));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(StartUpTest, ManyHolesAcrossThreeBlocksKeepEveryRecord) {
  std::vector<int32> empty;
  for (int32 i = 0; i < 45; i += 3) empty.push_back(i);
  Build(45, empty);
  ASSERT_EQ(0, Open(1));
  EXPECT_EQ(30u, m_list.size());
  ExpectConsistent(m_strPath, 1, &m_cache, false);
  for (SrvInfo* p : m_list) {
    EXPECT_NE(0u, (p->nIP - 1000) % 3);
    ExpectFront(p, p->nIP - 1000, 50);
  }
  // A second start changes nothing.
  std::vector<char> before = ReadFileBytes(m_strPath);
  ASSERT_EQ(0, Open(1));
  EXPECT_EQ(30u, m_list.size());
  EXPECT_TRUE(before == ReadFileBytes(m_strPath));
}

TEST_F(StartUpTest, DuplicateLeftByAnInterruptedMoveIsDroppedOnce) {
  Build(19, {0});  // S18 (block 1 slot 2) moves to block 0 slot 1
  // Simulate a stop after the entry was copied, before block 1's count fell.
  int32 nTail = ReadI32(m_strPath, 16);
  std::vector<char> b = ReadFileBytes(m_strPath);
  int64 nSrc = EntryOffset(nTail, 2, 4096);
  memcpy(b.data() + 140, b.data() + nSrc, 231);
  WriteFileBytes(m_strPath, b);
  std::vector<CacheCheckFinding> findings;
  ASSERT_EQ(0, cache_file_check(m_strPath.c_str(), 1, &findings, nullptr));
  EXPECT_EQ(1, cache_check_count(findings, CACHE_CHECK_DUPLICATE)) << Describe(findings);
  EXPECT_EQ(0, cache_check_count(findings, CACHE_CHECK_DAMAGE)) << Describe(findings);
  ASSERT_EQ(0, Open(1));
  EXPECT_EQ(18u, m_list.size());
  EXPECT_TRUE(logc_capture_has(LL_WARN, 0, "duplicate srv info"));
  ExpectConsistent(m_strPath, 1, &m_cache, false);
}

TEST_F(StartUpTest, InvalidEntryCountFails) {
  Build(2, {});
  WriteI32(m_strPath, 136, 18);
  EXPECT_EQ(EC_CACHE_BAD_SRV_COUNT, Open(1));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_SRV_COUNT, "invalid server count"));
  EXPECT_TRUE(
      logc_capture_has(LL_ERROR, EC_CACHE_BAD_SRV_COUNT, "load srvs info from disk failed"));
  WriteI32(m_strPath, 136, -1);
  EXPECT_EQ(EC_CACHE_BAD_SRV_COUNT, Open(1));
}

}  // namespace
