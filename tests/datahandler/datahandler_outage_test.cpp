// Outages: batches go to the cache file while the server cannot take them
// and are delivered oldest first, before newer ones, once it can; damaged
// cached records are stepped over or dropped with an ERROR, and forwarding
// goes on.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "datahandler_test_util.h"
#include "zdos_fault.h"

namespace {

using OutageTest = DataHandlerTest;

// Values 1..n exactly once and in order.
void expect_exactly_once(const std::vector<int64>& v, int64 n) {
  ASSERT_EQ(static_cast<size_t>(n), v.size());
  for (int64 i = 0; i < n; ++i)
    if (v[static_cast<size_t>(i)] != i + 1) {
      ADD_FAILURE() << "value " << v[static_cast<size_t>(i)] << " at " << i;
      return;
    }
}

// Values 1..n, none missing, first arrivals in order; a resent batch may
// repeat values (at-least-once when an answer was lost). Returns duplicates.
size_t expect_at_least_once(const std::vector<int64>& v, int64 n) {
  std::vector<bool> seen(static_cast<size_t>(n) + 1, false);
  int64 nLastFirst = 0;
  size_t nDup = 0;
  for (int64 x : v) {
    EXPECT_TRUE(x >= 1 && x <= n) << x;
    if (x < 1 || x > n) continue;
    if (seen[static_cast<size_t>(x)]) {
      ++nDup;
      continue;
    }
    EXPECT_GT(x, nLastFirst) << "first arrival out of order";
    nLastFirst = x;
    seen[static_cast<size_t>(x)] = true;
  }
  for (int64 x = 1; x <= n; ++x) EXPECT_TRUE(seen[static_cast<size_t>(x)]) << "missing " << x;
  return nDup;
}

TEST_F(OutageTest, ServerDownFromTheStart) {
  m_nPort = closed_port();
  ASSERT_EQ(0, StartHandler(30));
  for (int32 i = 0; i < 10; ++i) Send(make_int32_batch(1, 1 + i * 5, 5));
  std::string strLine = "connect 127.0.0.1:" + std::to_string(m_nPort) + " :0, nRet 110332";
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, strLine.c_str()); }, 2000));
  EXPECT_FALSE(logc_capture_has(LL_INFO, 0, "login"));
  StartServer();
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 50; }, 4000));
  expect_exactly_once(stored_values(Rows(), 1), 50);
}

// A stream through an outage made by the server itself: the connection is
// closed under a save (nothing stored) and new connections are refused.
// Nothing is stored twice, so every record arrives exactly once.
TEST_F(OutageTest, RefusingServerMidStreamLosesNothingAndKeepsOrder) {
  StartServer();
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "Connect 0"); }, 3000));
  constexpr int32 kBatches = 300, kPerBatch = 500;
  std::atomic<int32> nSent{0};
  std::thread sender = SendStream(kBatches, kPerBatch, 2, &nSent);
  ASSERT_TRUE(wait_for([&] { return nSent >= 60; }, 5000));
  Control("close-every 1");
  Control("refuse-connections on");
  EXPECT_TRUE(wait_for([&] { return CacheHasRecord(); }, 3000));
  ASSERT_TRUE(wait_for([&] { return nSent >= 240; }, 5000));
  Control("reset");
  sender.join();
  const uint64 nAll = static_cast<uint64>(kBatches) * kPerBatch;
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == nAll && !CacheHasRecord(); }, 8000))
      << m_srv.Stats().nStored;
  expect_exactly_once(stored_values(Rows(), 1), nAll);
  StopHandler();
  EXPECT_FALSE(logc_capture_has(LL_INFO, 0, "drained 0/0"));
  EXPECT_FALSE(logc_capture_has(LL_INFO, 0, "stored 0/0"));
  EXPECT_TRUE(logc_capture_has(LL_INFO, 0, "lost 0/0"));
}

// The server stopped and started again on the same port and database: a save
// whose answer was lost may be stored and sent again (duplicates), but
// nothing is lost and first arrivals keep their order.
TEST_F(OutageTest, ServerRestartMidStreamLosesNothing) {
  StartServer();
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "Connect 0"); }, 3000));
  constexpr int32 kBatches = 200, kPerBatch = 200;
  std::atomic<int32> nSent{0};
  std::thread sender = SendStream(kBatches, kPerBatch, 3, &nSent);
  ASSERT_TRUE(wait_for([&] { return nSent >= 50; }, 5000));
  StopServer();
  EXPECT_TRUE(wait_for([&] { return CacheHasRecord(); }, 3000));
  ASSERT_TRUE(wait_for([&] { return nSent >= 150; }, 5000));
  StartServer();
  sender.join();
  const int64 nAll = static_cast<int64>(kBatches) * kPerBatch;
  ASSERT_TRUE(wait_for(
      [&] {
        return !CacheHasRecord() && static_cast<int64>(m_srv.Stats().nStored) >= nAll;
      },
      8000));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  size_t nDup = expect_at_least_once(stored_values(Rows(), 1), nAll);
  // Only a call cut by the stop can be repeated: at most one send buffer.
  EXPECT_LE(nDup, 1048576u / 22u);
}

// Fixture for damaged records: three batches stored in the cache file by
// the test, the file damaged while closed, then a handler started.
class DamagedCacheTest : public DataHandlerTest {
 protected:
  void StoreThree() {
    SrvHandle h = Entry();
    for (int32 i = 0; i < 3; ++i) {
      std::vector<char> v = make_int32_batch(1, 1 + i * 10, 10);
      ASSERT_EQ(0, m_cache.SaveRecord(h, v.data(), static_cast<int32>(v.size())));
    }
  }
  // Writes nLen over the stored length of the oldest record: the entry at
  // byte 140 holds head block (+23) and read offset (+31); blocks of 4,096
  // bytes follow the 128-byte header.
  void DamageOldestLength(int32 nLen) {
    m_cache.Release();
    int fd = open(m_strCache.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    int32 nHead = 0, nReadOff = 0;
    ASSERT_EQ(4, pread(fd, &nHead, 4, 140 + 23));
    ASSERT_EQ(4, pread(fd, &nReadOff, 4, 140 + 31));
    ASSERT_EQ(4, pwrite(fd, &nLen, 4, 128 + static_cast<off_t>(nHead) * 4096 + nReadOff));
    close(fd);
    m_listSrv.clear();
    ASSERT_EQ(0, m_cache.Init("test", m_strCache.c_str(), 32, &m_listSrv));
  }
};

// A length above 1 MiB that ends on a record boundary: the damaged record
// (which swallowed the one behind it) is removed, the rest delivered.
TEST_F(DamagedCacheTest, OverlongLengthIsSteppedOver) {
  StartServer();
  SrvHandle h = Entry();
  std::vector<char> big = make_blob_batch(7, 600000);
  ASSERT_EQ(0, m_cache.SaveRecord(h, big.data(), static_cast<int32>(big.size())));
  ASSERT_EQ(0, m_cache.SaveRecord(h, big.data(), static_cast<int32>(big.size())));
  std::vector<char> small = make_int32_batch(1, 1, 10);
  ASSERT_EQ(0, m_cache.SaveRecord(h, small.data(), static_cast<int32>(small.size())));
  DamageOldestLength(600000 + 4 + 600000);
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored >= 10 && !CacheHasRecord(); }, 4000));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_CACHE_BUF_SMALL, "cached batch of 1200004 bytes"));
  Send(make_int32_batch(1, 11, 10));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 20; }, 3000));
  expect_exactly_once(stored_values(Rows(), 1), 20);
  EXPECT_TRUE(stored_values(Rows(), 7).empty());
}

// Regression: a length above 1 MiB that runs past the end of the queue could
// not be removed, and the thread retried it in every turn without a pause,
// forwarding nothing for good. Now the queue is dropped and forwarding goes
// on.
TEST_F(DamagedCacheTest, OverlongLengthPastTheQueueDropsTheQueue) {
  StartServer();
  StoreThree();
  DamageOldestLength(2000000);
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for(
      [&] { return logc_capture_has(LL_ERROR, EC_CACHE_BAD_CHAIN, "dropped the server's cached queue"); },
      3000));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, -1, "cached batch of 2000000 bytes is larger than any batch"));
  EXPECT_FALSE(CacheHasRecord());
  Send(make_int32_batch(1, 31, 10));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 10; }, 3000));
  std::vector<int64> v = stored_values(Rows(), 1);
  ASSERT_EQ(10u, v.size());
  EXPECT_EQ(31, v.front());
}

TEST_F(DamagedCacheTest, ZeroOrNegativeLengthDropsTheQueue) {
  for (int32 nLen : {0, -7}) {
    SCOPED_TRACE(nLen);
    StoreThree();
    DamageOldestLength(nLen);
    StartServer();
    ASSERT_EQ(0, StartHandler(30));
    ASSERT_TRUE(wait_for(
        [&] { return logc_capture_has(LL_ERROR, EC_CACHE_BAD_REC_LEN, "dropped the server's cached queue"); },
        3000));
    EXPECT_FALSE(CacheHasRecord());
    uint64 nBefore = m_srv.Stats().nStored;  // rows of the earlier round
    EXPECT_EQ(0u, m_srv.Stats().nSaves);
    Send(make_int32_batch(2, 1, 10));
    ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == nBefore + 10; }, 3000));
    StopHandler();
    EXPECT_TRUE(logc_capture_has(LL_INFO, 0, "lost 1/0"));
    StopServer();
    logc_capture_take();
  }
}

// A read that fails with an I/O error is retried after a pause, and the
// batch is delivered then.
TEST_F(DamagedCacheTest, ReadErrorIsRetried) {
  StartServer();
  StoreThree();
  OsFaultPlan plan{OS_FAULT_READ, 1, EIO, 0, 0};
  os_fault_arm(&plan);
  auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 30; }, 5000));
  double fSec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_TRUE(os_fault_fired());
  os_fault_disarm();
  EXPECT_TRUE(logc_capture_has(LL_ERROR, -1, "Read records from file failed"));
  EXPECT_GE(fSec, 1.4);  // 0.5 s before connecting, then the 1 s pause
  expect_exactly_once(stored_values(Rows(), 1), 30);
}

// A cached batch the server would never take (malformed, as an older or
// damaged file may hold) is removed after the attempt; the next ones follow.
TEST_F(DamagedCacheTest, MalformedCachedBatchIsDroppedAndDrainingGoesOn) {
  StartServer();
  SrvHandle h = Entry();
  std::vector<char> good1 = make_int32_batch(1, 1, 5), good2 = make_int32_batch(1, 6, 5);
  std::vector<char> bad = make_int32_batch(1, 100, 2);
  bad[0] = 3;
  ASSERT_EQ(0, m_cache.SaveRecord(h, good1.data(), static_cast<int32>(good1.size())));
  ASSERT_EQ(0, m_cache.SaveRecord(h, bad.data(), static_cast<int32>(bad.size())));
  ASSERT_EQ(0, m_cache.SaveRecord(h, good2.data(), static_cast<int32>(good2.size())));
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 10 && !CacheHasRecord(); }, 3000));
  EXPECT_EQ(2u, m_srv.Stats().nSaves);
  expect_exactly_once(stored_values(Rows(), 1), 10);
  StopHandler();
  EXPECT_TRUE(logc_capture_has(LL_INFO, 0, "drained 2/10, malformed 1/3"));
}

}  // namespace
