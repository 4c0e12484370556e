// Fault injection: every read or write of an operation is failed in turn
// (once, or from then on as a killed process would see it, optionally torn).
// After each fault the state in memory and the file must pass the checker
// (leaks allowed, damage not), and after a restart every record committed
// before the fault must come back intact and in order.
#include <deque>
#include <functional>
#include <map>

#include "cachefile_test_util.h"

using namespace cftest;

namespace {

struct ModelRec {
  uint32 nId;
  int32 nLen;
};

struct OpResult {
  int32 nRet = 0;
  bool bSave = false;  // a save: preemption may have dropped a prefix anywhere
  bool bDel = false;
  uint32 nIP = 0;
  ModelRec rec{};
};

struct FaultMode {
  const char* szName;
  int32 nOps;
  bool bSticky;
  int32 nPartial;
};

const FaultMode kModes[] = {
    {"write", OS_FAULT_WRITE, false, 0},          {"write-kill", OS_FAULT_WRITE, true, 0},
    {"write-kill-torn", OS_FAULT_WRITE, true, 2}, {"read", OS_FAULT_READ, false, 0},
    {"read-kill", OS_FAULT_READ, true, 0},
};

class FaultTest : public CacheFileTest {
 protected:
  using Op = std::function<OpResult(std::map<uint32, SrvHandle>&)>;

  void SetUp() override {
    CacheFileTest::SetUp();
    m_strTemplate = m_strDir + "/template.buf";
  }
  SrvHandle Add(uint32 nIP) {
    SrvHandle h = nullptr;
    EXPECT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, nIP, 1, &h));
    m_model[nIP];
    return h;
  }
  void SaveT(SrvHandle h, int32 nLen) {
    uint32 nId = m_nNextId++;
    int32 nRet = Save(h, nId, nLen);
    ASSERT_EQ(0, nRet);
    m_model[h->nIP].push_back(ModelRec{nId, nLen});
  }
  void DelT(SrvHandle h) {
    ASSERT_EQ(0, m_cache.DelCurRecord(h));
    m_model[h->nIP].pop_front();
  }
  // Reconciles the model with the drops made while building the template.
  void SyncModel() {
    std::vector<CacheQueueStat> stats;
    ExpectConsistent(m_strPath, m_nMb, &m_cache, false, &stats);
    for (auto& [nIP, q] : m_model) {
      int64 n = 0;
      for (auto& s : stats) n = s.nIP == nIP ? s.nRecords : n;
      while (static_cast<int64>(q.size()) > n) q.pop_front();
    }
  }
  void SaveTemplate() {
    SyncModel();
    m_cache.Release();
    std::filesystem::copy_file(m_strPath, m_strTemplate,
                               std::filesystem::copy_options::overwrite_existing);
  }
  std::map<uint32, SrvHandle> Handles() {
    std::map<uint32, SrvHandle> m;
    for (SrvInfo* p : m_list) m[p->nIP] = p;
    return m;
  }
  // Restarts and reads every queue out; each must be the expected one, or
  // (after a save) a suffix of it.
  void DrainAndCompare(const std::map<uint32, std::deque<ModelRec>>& expected, bool bDropsOk,
                       const std::string& strWhere) {
    ASSERT_EQ(0, Open(m_nMb)) << strWhere;
    ExpectConsistent(m_strPath, m_nMb, &m_cache, true);
    std::map<uint32, SrvHandle> handles = Handles();
    std::vector<char> buf(8 << 20);
    for (const auto& [nIP, q] : expected) {
      std::vector<uint32> ids;
      auto it = handles.find(nIP);
      if (it != handles.end()) {
        while (m_cache.HasRecord(it->second)) {
          int32 nLen = static_cast<int32>(buf.size());
          ASSERT_EQ(0, m_cache.ReadCurRecord(it->second, buf.data(), &nLen)) << strWhere;
          ASSERT_GE(nLen, 4);
          uint32 nId;
          memcpy(&nId, buf.data(), 4);
          std::vector<char> expect = Payload(nId, nLen);
          ASSERT_EQ(0, memcmp(expect.data(), buf.data(), static_cast<size_t>(nLen)))
              << strWhere << " record " << nId;
          ids.push_back(nId);
          ASSERT_EQ(0, m_cache.DelCurRecord(it->second)) << strWhere;
        }
      }
      std::vector<uint32> want;
      for (const ModelRec& r : q) want.push_back(r.nId);
      ASSERT_LE(ids.size(), want.size()) << strWhere << " srv " << nIP;
      if (!bDropsOk) {
        ASSERT_EQ(want.size(), ids.size()) << strWhere << " srv " << nIP;
      }
      std::vector<uint32> tail(want.end() - static_cast<int64>(ids.size()), want.end());
      ASSERT_EQ(tail, ids) << strWhere << " srv " << nIP;
    }
    ExpectConsistent(m_strPath, m_nMb, &m_cache, true);
  }
  // Runs op from the template once per fault position in every mode.
  void Sweep(const Op& op, bool bWrites = true) {
    for (const FaultMode& mode : kModes) {
      if (!bWrites && mode.nOps == OS_FAULT_WRITE) continue;
      int64 n = 1;
      for (;; ++n) {
        std::string strWhere = std::string(mode.szName) + " #" + std::to_string(n);
        SCOPED_TRACE(strWhere);
        m_cache.Release();
        std::filesystem::copy_file(m_strTemplate, m_strPath,
                                   std::filesystem::copy_options::overwrite_existing);
        ASSERT_EQ(0, Open(m_nMb));
        std::map<uint32, SrvHandle> handles = Handles();
        OsFaultPlan plan{mode.nOps, n, EIO, mode.nPartial, mode.bSticky ? 1 : 0};
        os_fault_arm(&plan);
        OpResult r = op(handles);
        bool bFired = os_fault_fired() != 0;
        os_fault_disarm();
        ExpectConsistent(m_strPath, m_nMb, &m_cache, true);
        if (HasFailure()) return;
        std::map<uint32, std::deque<ModelRec>> expected = m_model;
        if (r.nRet == 0 && r.bSave) expected[r.nIP].push_back(r.rec);
        if (r.nRet == 0 && r.bDel) expected[r.nIP].pop_front();
        if (!bFired) {
          // The op ran to its end: it must have succeeded.
          EXPECT_EQ(0, r.nRet);
        }
        DrainAndCompare(expected, r.bSave, strWhere);
        if (HasFailure() || !bFired) break;
      }
      m_nPositions += n;
      EXPECT_GT(n, 1) << mode.szName << ": the operation made no such call";
    }
    RecordProperty("fault_positions", static_cast<int>(m_nPositions));
  }
  OpResult SaveOp(std::map<uint32, SrvHandle>& h, uint32 nIP, int32 nLen) {
    OpResult r;
    r.bSave = true;
    r.nIP = nIP;
    r.rec = ModelRec{m_nNextId + 1000000, nLen};
    r.nRet = Save(h[nIP], r.rec.nId, nLen);
    return r;
  }
  OpResult DelOp(std::map<uint32, SrvHandle>& h, uint32 nIP) {
    OpResult r;
    r.bDel = true;
    r.nIP = nIP;
    r.nRet = m_cache.DelCurRecord(h[nIP]);
    return r;
  }

  int32 m_nMb = 1;
  std::string m_strTemplate;
  std::map<uint32, std::deque<ModelRec>> m_model;
  uint32 m_nNextId = 1;
  int64 m_nPositions = 0;
};

TEST_F(FaultTest, SaveFromIdleListAndGrowth) {
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle h = Add(7);
  for (int32 nLen : {100, 5000, 20000, 300, 4090}) SaveT(h, nLen);
  DelT(h);
  DelT(h);
  DelT(h);
  SaveTemplate();
  Sweep([&](auto& hs) { return SaveOp(hs, 7, 30000); });
}

TEST_F(FaultTest, SavePreemptingItsOwnOldestBlocks) {
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle h = Add(7);
  while (CacheFileTestAccess::Base(m_cache).nTotalBlockNum < 255) SaveT(h, 9000);
  SaveTemplate();
  Sweep([&](auto& hs) { return SaveOp(hs, 7, 20000); });
}

// 4 MiB blocks: separate length and payload writes, whole-block reads of
// the victim's oldest block.
TEST_F(FaultTest, SavePreemptingItsOwnOldestBlocksWithLargeBlocks) {
  m_nMb = 40;
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle h = Add(7);
  while (CacheFileTestAccess::Base(m_cache).nTotalBlockNum < 9) SaveT(h, 1500000);
  SaveTemplate();
  Sweep([&](auto& hs) { return SaveOp(hs, 7, 5000000); });
}

TEST_F(FaultTest, SavePreemptingAnotherEntry) {
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle s1 = Add(7);
  SrvHandle s2 = Add(8);
  SaveT(s2, 50);
  while (CacheFileTestAccess::Base(m_cache).nTotalBlockNum < 255) SaveT(s1, 7000);
  SaveTemplate();
  Sweep([&](auto& hs) { return SaveOp(hs, 8, 10000); });
}

TEST_F(FaultTest, DeleteOfARecordSpanningBlocks) {
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle h = Add(7);
  SaveT(h, 10000);
  SaveT(h, 4090);
  SaveT(h, 30);
  SaveTemplate();
  Sweep([&](auto& hs) { return DelOp(hs, 7); });
}

TEST_F(FaultTest, DeleteOfTheLastRecord) {
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle h = Add(7);
  SaveT(h, 9000);
  SaveTemplate();
  Sweep([&](auto& hs) { return DelOp(hs, 7); });
}

TEST_F(FaultTest, ReadChangesNothing) {
  ASSERT_EQ(0, Open(m_nMb));
  SrvHandle h = Add(7);
  SaveT(h, 15000);
  SaveTemplate();
  Sweep(
      [&](auto& hs) {
        OpResult r;
        std::vector<char> buf(15000);
        int32 nLen = 15000;
        r.nRet = m_cache.ReadCurRecord(hs[7], buf.data(), &nLen);
        return r;
      },
      false);
}

TEST_F(FaultTest, CredentialsAndNewServerInfoBlock) {
  ASSERT_EQ(0, Open(m_nMb));
  for (uint32 i = 0; i < 17; ++i) SaveT(Add(100 + i), 10 + static_cast<int32>(i));
  SaveTemplate();
  Sweep([&](auto& hs) {
    OpResult r;
    r.nRet = m_cache.SetUserPassWord(hs[105], "user", "secret");
    return r;
  });
  Sweep([&](auto&) {
    OpResult r;
    SrvHandle h = nullptr;
    r.nRet = CacheFileTestAccess::AddSrv(m_cache, 999, 1, &h);
    return r;
  });
}

// The start-up pass itself under faults: the next clean start must find
// every entry that holds records, with all its records.
TEST_F(FaultTest, StartUpCompaction) {
  ASSERT_EQ(0, Open(m_nMb));
  std::vector<SrvHandle> hs;
  for (uint32 i = 0; i < 45; ++i) hs.push_back(Add(100 + i));
  for (uint32 i = 0; i < 45; ++i) SaveT(hs[i], 20 + static_cast<int32>(i));
  for (uint32 i = 0; i < 45; ++i) {
    if (i % 3 == 0 || i > 40) DelT(hs[i]);
  }
  SaveTemplate();
  for (const FaultMode& mode : kModes) {
    int64 n = 1;
    for (;; ++n) {
      std::string strWhere = std::string(mode.szName) + " #" + std::to_string(n);
      SCOPED_TRACE(strWhere);
      m_cache.Release();
      std::filesystem::copy_file(m_strTemplate, m_strPath,
                                 std::filesystem::copy_options::overwrite_existing);
      OsFaultPlan plan{mode.nOps, n, EIO, mode.nPartial, mode.bSticky ? 1 : 0};
      os_fault_arm(&plan);
      int32 nRet = Open(m_nMb);
      bool bFired = os_fault_fired() != 0;
      os_fault_disarm();
      if (!bFired) {
        ASSERT_EQ(0, nRet);
      }
      if (nRet != 0) {
        // A failed start leaves the object closed.
        EXPECT_TRUE(m_list.empty());
        EXPECT_EQ(nullptr, CacheFileTestAccess::Base(m_cache).mutexDisk);
        EXPECT_TRUE(CacheFileTestAccess::List(m_cache).empty());
      }
      std::vector<CacheCheckFinding> findings;
      ASSERT_EQ(0, cache_file_check(m_strPath.c_str(), m_nMb, &findings, nullptr));
      ASSERT_EQ(0, cache_check_count(findings, CACHE_CHECK_DAMAGE)) << Describe(findings);
      DrainAndCompare(m_model, false, strWhere);
      if (HasFailure() || !bFired) break;
    }
    EXPECT_GT(n, 1);
  }
}

// Init's own failure paths, each with its message.
TEST_F(FaultTest, InitFailurePaths) {
  struct {
    int32 nOps;
    int64 nNth;
    const char* szMsg;
  } createCases[] = {
      {OS_FAULT_WRITE, 1, "write first srv info block failed"},
      {OS_FAULT_WRITE, 2, "save file base info to disk failed"},
  };
  for (auto c : createCases) {
    SCOPED_TRACE(c.szMsg);
    std::filesystem::remove(m_strPath);
    OsFaultPlan plan{c.nOps, c.nNth, ENOSPC, 0, 0};
    os_fault_arm(&plan);
    logc_capture_take();
    EXPECT_EQ(ENOSPC, Open(1));
    os_fault_disarm();
    EXPECT_TRUE(logc_capture_has(LL_ERROR, ENOSPC, c.szMsg));
    EXPECT_EQ(nullptr, CacheFileTestAccess::Base(m_cache).mutexSrv);
    EXPECT_EQ(0, m_cache.Release());
  }
  // The file left by a stop between block 0 and the header is refused.
  logc_capture_take();
  EXPECT_EQ(EC_CACHE_BAD_HEADER, Open(1));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BAD_HEADER, "invalid block size"));

  std::filesystem::remove(m_strPath);
  ASSERT_EQ(0, Open(1));
  SrvHandle h = Srv();
  ASSERT_EQ(0, Save(h, 1, 10));
  m_cache.Release();
  struct {
    int64 nNth;
    const char* szMsg;
    const char* szOuter;
  } openCases[] = {
      {1, "read file base info from disk failed", "load file base info from disk failed"},
      {2, "read cur srv info block from disk failed", "load srvs info from disk failed"},
  };
  for (auto c : openCases) {
    SCOPED_TRACE(c.szMsg);
    OsFaultPlan plan{OS_FAULT_READ, c.nNth, EIO, 0, 0};
    os_fault_arm(&plan);
    logc_capture_take();
    EXPECT_EQ(EIO, Open(1));
    os_fault_disarm();
    EXPECT_TRUE(logc_capture_has(LL_ERROR, EIO, c.szMsg));
    EXPECT_TRUE(logc_capture_has(LL_ERROR, EIO, c.szOuter));
    EXPECT_TRUE(m_list.empty());
    EXPECT_EQ(0, m_cache.Release());
    ASSERT_EQ(0, Open(1));
    ASSERT_EQ(1u, m_list.size());
    ExpectFront(m_list.front(), 1, 10);
  }
  // Opening a path that cannot be created.
  m_cache.Release();
  std::string strBad = m_strDir + "/no/such/dir/file.buf";
  EXPECT_EQ(ENOENT, m_cache.Init("v", strBad.c_str(), 1, &m_list));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, ENOENT, "create cache file failed"));
}

}  // namespace
