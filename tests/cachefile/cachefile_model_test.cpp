// Randomised saves, reads, removals and restarts on small files (so that
// preemption happens often), against a FIFO model per entry. Preemption may
// drop only a prefix of an entry's oldest records, and only while a save
// runs; every other record must come back intact and in order. The checker
// runs on the file and on the state in memory after every step, and no block
// may leak.
//
// ZD_CACHE_MODEL_STEPS=<n> runs n steps per seed instead of the default.
#include <deque>
#include <map>
#include <random>

#include "cachefile_test_util.h"

using namespace cftest;

namespace {

struct ModelRec {
  uint32 nId;
  int32 nLen;
};

class ModelTest : public CacheFileTest,
                  public ::testing::WithParamInterface<std::tuple<uint32, int32, int32>> {
 protected:
  int32 Len(std::mt19937& rng) {
    uint32 r = rng() % 100;
    if (r < 50) return 1 + static_cast<int32>(rng() % 300);
    if (r < 75) return 300 + static_cast<int32>(rng() % 6000);
    if (r < 90) return 6000 + static_cast<int32>(rng() % 60000);
    return 60000 + static_cast<int32>(rng() % 330000);
  }
  // Takes the drops preemption made into account; bAllowDrops is false
  // outside saves.
  void Reconcile(const std::vector<CacheQueueStat>& stats, bool bAllowDrops, int64 nStep) {
    for (auto& [nIP, q] : m_model) {
      int64 nActual = 0;
      int64 nBytes = 0;
      for (const CacheQueueStat& s : stats) {
        if (s.nIP == nIP) {
          nActual = s.nRecords;
          nBytes = s.nBytes;
        }
      }
      ASSERT_LE(nActual, static_cast<int64>(q.size())) << "step " << nStep << " srv " << nIP;
      if (!bAllowDrops) {
        ASSERT_EQ(static_cast<int64>(q.size()), nActual) << "step " << nStep;
      }
      while (static_cast<int64>(q.size()) > nActual) {
        q.pop_front();
        ++m_nDropped;
      }
      int64 nModelBytes = 0;
      for (const ModelRec& r : q) nModelBytes += r.nLen;
      ASSERT_EQ(nModelBytes, nBytes) << "step " << nStep << " srv " << nIP;
    }
  }
  void Remap() {
    for (auto& [nIP, h] : m_handles) {
      h = nullptr;
      for (SrvInfo* p : m_list) {
        if (p->nIP == nIP) h = p;
      }
      if (h == nullptr) {
        ASSERT_TRUE(m_model[nIP].empty()) << "entry " << nIP << " lost its records";
        ASSERT_EQ(0, CacheFileTestAccess::AddSrv(m_cache, nIP, 1, &h));
      }
    }
  }

  std::map<uint32, std::deque<ModelRec>> m_model;
  std::map<uint32, SrvHandle> m_handles;
  int64 m_nDropped = 0;
};

TEST_P(ModelTest, RandomOperationsMatchFifoModel) {
  auto [nSeed, nServers, nMb] = GetParam();
  // Files of 40 MB and more have 4 MiB blocks: records 64 times longer
  // (the longest are refused as larger than the file), fewer steps.
  const int32 nScale = nMb >= 40 ? 64 : 1;
  int64 nSteps = nMb >= 40 ? 300 : 2500;
  if (const char* sz = getenv("ZD_CACHE_MODEL_STEPS")) nSteps = atoll(sz) / nScale + 1;
  std::mt19937 rng(nSeed);
  ASSERT_EQ(0, Open(nMb));
  for (int32 i = 0; i < nServers; ++i) {
    uint32 nIP = 100 + static_cast<uint32>(i);
    m_model[nIP];
    m_handles[nIP] = nullptr;
  }
  Remap();
  uint32 nNextId = 1;
  int64 nSaves = 0, nFailedSaves = 0, nReopens = 0;
  std::vector<char> buf(static_cast<size_t>(400000) * nScale);
  for (int64 nStep = 0; nStep < nSteps; ++nStep) {
    uint32 nIP = 100 + static_cast<uint32>(rng() % static_cast<uint32>(nServers));
    SrvHandle h = m_handles[nIP];
    std::deque<ModelRec>& q = m_model[nIP];
    uint32 nOp = rng() % 100;
    bool bAllowDrops = false;
    if (nOp < 48) {
      int32 nLen = Len(rng) * nScale;
      uint32 nId = nNextId++;
      int32 nRet = Save(h, nId, nLen);
      ++nSaves;
      if (nRet == 0) {
        q.push_back(ModelRec{nId, nLen});
      } else {
        ++nFailedSaves;
        ASSERT_TRUE(nRet == EC_CACHE_NO_ROOM || nRet == EC_NO_MEMORY || nRet == EC_CACHE_NO_VICTIM)
            << "step " << nStep << " status " << nRet;
      }
      bAllowDrops = true;
    } else if (nOp < 72) {
      int32 nCap = static_cast<int32>(buf.size());
      int32 nRet = m_cache.ReadCurRecord(h, buf.data(), &nCap);
      if (q.empty()) {
        ASSERT_EQ(EC_CACHE_EMPTY, nRet) << "step " << nStep;
      } else {
        ASSERT_EQ(0, nRet) << "step " << nStep;
        ASSERT_EQ(q.front().nLen, nCap) << "step " << nStep;
        std::vector<char> expect = Payload(q.front().nId, q.front().nLen);
        ASSERT_EQ(0, memcmp(expect.data(), buf.data(), expect.size()))
            << "step " << nStep << " record " << q.front().nId;
      }
    } else if (nOp < 95) {
      int32 nRet = m_cache.DelCurRecord(h);
      if (q.empty()) {
        ASSERT_EQ(EC_CACHE_EMPTY, nRet) << "step " << nStep;
      } else {
        ASSERT_EQ(0, nRet) << "step " << nStep;
        q.pop_front();
      }
    } else {
      ++nReopens;
      ASSERT_EQ(0, Open(nMb)) << "step " << nStep;
      Remap();
    }
    std::vector<CacheQueueStat> stats;
    ExpectConsistent(m_strPath, nMb, &m_cache, false, &stats);
    if (HasFailure()) FAIL() << "checker failed at step " << nStep;
    Reconcile(stats, bAllowDrops, nStep);
    if (HasFailure()) return;
    for (auto& [nSrvIP, hSrv] : m_handles) {
      ASSERT_EQ(!m_model[nSrvIP].empty(), m_cache.HasRecord(hSrv)) << "step " << nStep;
    }
  }
  RecordProperty("saves", static_cast<int>(nSaves));
  RecordProperty("dropped", static_cast<int>(m_nDropped));
  // The runs must exercise preemption and restarts to mean anything.
  EXPECT_GT(m_nDropped, 0);
  EXPECT_GT(nReopens, 0);
  (void)nFailedSaves;
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest,
                         ::testing::Values(std::make_tuple(1u, 1, 1), std::make_tuple(2u, 1, 1),
                                           std::make_tuple(3u, 2, 1), std::make_tuple(4u, 3, 1),
                                           std::make_tuple(5u, 3, 2), std::make_tuple(6u, 1, 2),
                                           std::make_tuple(7u, 1, 40), std::make_tuple(8u, 2, 40)));

}  // namespace
