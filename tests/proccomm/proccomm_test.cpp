// zdProcComm within one process: argument checks, exact bytes and order,
// cut messages, full memory, queue ids, time-outs, quit and threads.
#include "proccomm.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "proccomm_test_util.h"

using pctest::CheckPattern;
using pctest::FillPattern;
using pctest::UniqueName;

namespace {

class ProcCommTest : public ::testing::Test {
 protected:
  void Open(int32 nMemMb = 8, int32 nBlockSize = 4096, int32 nMaxQueues = 1000) {
    m_szName = UniqueName("st");
    ASSERT_EQ(0, proccomm_init(m_szName.c_str(), nMemMb, nBlockSize, nMaxQueues, &m_h));
  }
  void TearDown() override {
    for (auto& [nId, hQ] : m_queues) proccomm_unreg(m_h, nId, hQ);
    if (m_h != nullptr) proccomm_release(m_h);
  }
  ProcCommQueueHandle Reg(int32 nId) {
    ProcCommQueueHandle hQ = nullptr;
    EXPECT_EQ(0, proccomm_reg(m_h, nId, &hQ));
    m_queues.emplace_back(nId, hQ);
    return hQ;
  }
  ProcCommStats Stats() {
    ProcCommStats st{};
    EXPECT_EQ(0, proccomm_get_stats(m_h, &st));
    return st;
  }

  std::string m_szName;
  ProcCommHandle m_h = nullptr;
  std::vector<std::pair<int32, ProcCommQueueHandle>> m_queues;
};

TEST_F(ProcCommTest, BadArgumentsAreRefusedWithAStatus) {
  ProcCommHandle h = nullptr;
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init(nullptr, 8, 4096, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("x", 8, 4096, 10, nullptr));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("", 8, 4096, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("a b", 8, 4096, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG,
            proccomm_init(std::string(201, 'a').c_str(), 8, 4096, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("x", 0, 4096, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("x", 8, 100, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("x", 8, 4100, 10, &h));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("x", 8, 4096, 1, &h));
  // The queue table alone would not fit one MiB.
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_init("x", 1, 4096, 60000, &h));
  EXPECT_EQ(nullptr, h);
  // A '/' cannot lead out of the shared-memory directory.
  std::string szSlashed = UniqueName("a/b");
  ASSERT_EQ(0, proccomm_init(szSlashed.c_str(), 1, 4096, 4, &h));
  struct stat stSlash;
  std::string szMapped = szSlashed;
  szMapped[szMapped.find('/')] = '_';
  EXPECT_EQ(0, stat(("/dev/shm/zdpcm." + szMapped).c_str(), &stSlash));
  EXPECT_EQ(0, proccomm_release(h));
  h = nullptr;

  Open();
  ProcCommQueueHandle hQ = nullptr;
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_reg(nullptr, 1, &hQ));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_reg(m_h, 0, &hQ));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_reg(m_h, 1, nullptr));
  hQ = Reg(1);
  char buf[16] = {};
  int32 nLen = sizeof(buf);
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_send(nullptr, buf, 1));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_send(hQ, nullptr, 1));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_send(hQ, buf, 0));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_send(hQ, buf, -5));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_recv(nullptr, buf, &nLen, 0, 0));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_recv(hQ, buf, nullptr, 0, 0));
  nLen = 0;
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_recv(hQ, buf, &nLen, 0, 0));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_recv_quit(nullptr));
  EXPECT_EQ(EC_RD_PROCCOMM_NOT_REGISTERED, proccomm_unreg(m_h, 7, hQ));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_release(nullptr));
  EXPECT_EQ(-1.0, proccomm_get_unused_block_percent(nullptr));
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, proccomm_set_create_mode(0700));
}

// Sizes around every boundary of the block chain: blocks of 4096 bytes,
// the locked-copy limit of 16 KiB and the 1 MiB maximum.
TEST_F(ProcCommTest, ExactBytesAndOrderAcrossBlockBoundaries) {
  Open(16);
  ProcCommQueueHandle hQ = Reg(9);
  const int32 kSizes[] = {1,    2,     63,    64,    4095,  4096,   4097,    8192,
                          8193, 16383, 16384, 16385, 65536, 100000, 1048575, 1048576};
  std::vector<char> out(PROCCOMM_MAX_MSG_LEN + 10), in(PROCCOMM_MAX_MSG_LEN + 10);
  uint32 nSeq = 0;
  for (int32 nSize : kSizes) {
    FillPattern(out.data(), nSize, nSeq++);
    ASSERT_EQ(0, proccomm_send(hQ, out.data(), nSize)) << nSize;
  }
  nSeq = 0;
  for (int32 nSize : kSizes) {
    int32 nLen = static_cast<int32>(in.size());
    ASSERT_EQ(0, proccomm_recv(hQ, in.data(), &nLen, 1, 1000));
    ASSERT_EQ(nSize, nLen);
    EXPECT_TRUE(CheckPattern(in.data(), nLen, nSeq++)) << nSize;
  }
  int32 nLen = static_cast<int32>(in.size());
  EXPECT_EQ(0, proccomm_recv(hQ, in.data(), &nLen, 0, 0));
  EXPECT_EQ(0, nLen);
  ProcCommStats st = Stats();
  EXPECT_EQ(st.nTotalBlocks, st.nFreeBlocks);
  EXPECT_EQ(st.nSent, st.nReceived);
  EXPECT_EQ(1.0, proccomm_get_unused_block_percent(m_h));
}

// Chains of blocks that are not consecutive (the pool fragmented by
// receiving every other message) copy exactly as runs of one block.
TEST_F(ProcCommTest, FragmentedPoolStillCopiesExactBytes) {
  Open(1);
  ProcCommQueueHandle hA = Reg(20), hB = Reg(21), hC = Reg(22);
  std::vector<char> buf(40000);
  for (int i = 0; i < 120; ++i) ASSERT_EQ(0, proccomm_send(i % 2 ? hB : hA, buf.data(), 4096));
  for (int i = 0; i < 60; ++i) {
    int32 nLen = 4096;
    ASSERT_EQ(0, proccomm_recv(hA, buf.data(), &nLen, 0, 0));
  }
  // Freed blocks come back first: every other block, then a consecutive tail.
  for (uint32 nSeq = 0; nSeq < 12; ++nSeq) {
    int32 nSize = 3 * 4096 + 1 + static_cast<int32>(nSeq) * 2000;
    FillPattern(buf.data(), nSize, nSeq);
    ASSERT_EQ(0, proccomm_send(hC, buf.data(), nSize));
  }
  for (uint32 nSeq = 0; nSeq < 12; ++nSeq) {
    int32 nLen = static_cast<int32>(buf.size());
    ASSERT_EQ(0, proccomm_recv(hC, buf.data(), &nLen, 0, 0));
    ASSERT_EQ(3 * 4096 + 1 + static_cast<int32>(nSeq) * 2000, nLen);
    EXPECT_TRUE(CheckPattern(buf.data(), nLen, nSeq)) << nSeq;
  }
}

// Random sends and receives on three queues against a std::deque model, with
// random capacities (so some messages are cut) and a small pool (so some
// sends are refused). After every step the pool accounting must match the
// model: free blocks == total - blocks of every queued message.
TEST_F(ProcCommTest, RandomOperationsMatchADequeModel) {
  Open(1);
  ProcCommQueueHandle hQ[3] = {Reg(31), Reg(32), Reg(33)};
  std::deque<std::pair<uint32, int32>> model[3];  // (seq, length)
  const uint32 nTotal = Stats().nTotalBlocks;
  uint64 nQueuedBlocks = 0, nCuts = 0, nRefused = 0;
  std::mt19937 rng(12345);
  std::vector<char> buf(PROCCOMM_MAX_MSG_LEN);
  uint32 nSeq = 0;
  for (int nStep = 0; nStep < 4000; ++nStep) {
    int q = static_cast<int>(rng() % 3);
    if (rng() % 100 < 55) {
      int32 nLen = 1 + static_cast<int32>(rng() % (rng() % 10 == 0 ? 200000 : 9000));
      FillPattern(buf.data(), nLen, nSeq);
      uint32 nBlocks = static_cast<uint32>((nLen + 4095) / 4096);
      int32 nRet = proccomm_send(hQ[q], buf.data(), nLen);
      if (nQueuedBlocks + nBlocks <= nTotal) {
        ASSERT_EQ(0, nRet) << nStep;
        model[q].emplace_back(nSeq, nLen);
        nQueuedBlocks += nBlocks;
      } else {
        ASSERT_EQ(EC_RD_PROCCOMM_NO_SPACE, nRet) << nStep;
        ++nRefused;
      }
      ++nSeq;
    } else {
      int32 nCap = 1 + static_cast<int32>(rng() % 12000);
      int32 nLen = nCap;
      ASSERT_EQ(0, proccomm_recv(hQ[q], buf.data(), &nLen, 0, 0));
      if (model[q].empty()) {
        ASSERT_EQ(0, nLen);
      } else {
        auto [nWantSeq, nWantLen] = model[q].front();
        model[q].pop_front();
        nQueuedBlocks -= static_cast<uint32>((nWantLen + 4095) / 4096);
        ASSERT_EQ(std::min(nCap, nWantLen), nLen);
        if (nCap < nWantLen) ++nCuts;
        std::vector<char> expect(static_cast<size_t>(nWantLen));
        FillPattern(expect.data(), nWantLen, nWantSeq);
        ASSERT_EQ(0, memcmp(expect.data(), buf.data(), static_cast<size_t>(nLen))) << nStep;
      }
    }
    ProcCommStats st = Stats();
    ASSERT_EQ(nTotal - nQueuedBlocks, st.nFreeBlocks) << nStep;
    ASSERT_EQ(nCuts, st.nCutMessages);
  }
  EXPECT_GT(nCuts, 100u);  // the run did reach both edges
  EXPECT_GT(nRefused, 10u);
}

TEST_F(ProcCommTest, TooLargeIsRefusedWholeAndCounted) {
  Open(4);
  ProcCommQueueHandle hQ = Reg(3);
  std::vector<char> big(PROCCOMM_MAX_MSG_LEN + 1, 'a');
  EXPECT_EQ(EC_RD_PROCCOMM_MSG_TOO_LARGE, proccomm_send(hQ, big.data(), PROCCOMM_MAX_MSG_LEN + 1));
  EXPECT_EQ(1u, Stats().nRefusedTooLarge);
  EXPECT_EQ(1.0, proccomm_get_unused_block_percent(m_h));
  int32 nLen = 10;
  EXPECT_EQ(0, proccomm_recv(hQ, big.data(), &nLen, 0, 0));
  EXPECT_EQ(0, nLen);
}

TEST_F(ProcCommTest, LongMessageIsCutToCapacityAndCounted) {
  Open();
  ProcCommQueueHandle hQ = Reg(4);
  std::vector<char> out(50000), in(50000);
  for (int32 nSize : {100, 50000}) {  // copied under the lock and outside it
    FillPattern(out.data(), nSize, static_cast<uint32>(nSize));
    ASSERT_EQ(0, proccomm_send(hQ, out.data(), nSize));
  }
  FillPattern(out.data(), 7, 7);
  ASSERT_EQ(0, proccomm_send(hQ, out.data(), 7));

  int32 nLen = 10;
  ASSERT_EQ(0, proccomm_recv(hQ, in.data(), &nLen, 1, 100));
  EXPECT_EQ(10, nLen);
  EXPECT_TRUE(CheckPattern(in.data(), 10, 100));
  nLen = 20000;
  ASSERT_EQ(0, proccomm_recv(hQ, in.data(), &nLen, 0, 0));
  EXPECT_EQ(20000, nLen);
  std::vector<char> expect(50000);
  FillPattern(expect.data(), 50000, 50000);
  EXPECT_EQ(0, memcmp(expect.data(), in.data(), 20000));
  // The receiver goes on with the next message, whole.
  nLen = 100;
  ASSERT_EQ(0, proccomm_recv(hQ, in.data(), &nLen, 0, 0));
  EXPECT_EQ(7, nLen);
  EXPECT_TRUE(CheckPattern(in.data(), 7, 7));
  ProcCommStats st = Stats();
  EXPECT_EQ(2u, st.nCutMessages);
  EXPECT_EQ(st.nTotalBlocks, st.nFreeBlocks);
}

TEST_F(ProcCommTest, FullMemoryRefusesThenAcceptsAfterAReceive) {
  Open(1);
  ProcCommQueueHandle hQ = Reg(2);
  ProcCommStats st = Stats();
  ASSERT_GT(st.nTotalBlocks, 100u);
  ASSERT_LE(static_cast<uint64>(st.nTotalBlocks) * st.nBlockSize, 1u << 20);
  std::vector<char> buf(4096);
  uint32 nSent = 0;
  int32 nRet = 0;
  while ((nRet = proccomm_send(hQ, buf.data(), 4096)) == 0) {
    ++nSent;
    // One payload-sized message per block: the fraction moves block by block.
    ASSERT_DOUBLE_EQ(static_cast<double>(st.nTotalBlocks - nSent) / st.nTotalBlocks,
                     proccomm_get_unused_block_percent(m_h));
  }
  EXPECT_EQ(EC_RD_PROCCOMM_NO_SPACE, nRet);
  EXPECT_EQ(st.nTotalBlocks, nSent);
  EXPECT_EQ(0.0, proccomm_get_unused_block_percent(m_h));
  // A two-block message does not fit one freed block: nothing is half-sent.
  int32 nLen = 4096;
  ASSERT_EQ(0, proccomm_recv(hQ, buf.data(), &nLen, 0, 0));
  std::vector<char> two(4097, 'z');
  EXPECT_EQ(EC_RD_PROCCOMM_NO_SPACE, proccomm_send(hQ, two.data(), 4097));
  EXPECT_EQ(0, proccomm_send(hQ, buf.data(), 100));
  EXPECT_EQ(EC_RD_PROCCOMM_NO_SPACE, proccomm_send(hQ, buf.data(), 1));
  EXPECT_EQ(3u, Stats().nRefusedNoSpace);
  // A message larger than the whole pool can never fit.
  std::vector<char> huge(PROCCOMM_MAX_MSG_LEN);
  EXPECT_EQ(EC_RD_PROCCOMM_NO_SPACE, proccomm_send(hQ, huge.data(), PROCCOMM_MAX_MSG_LEN));
  for (uint32 i = 0; i < nSent; ++i) {
    nLen = 4096;
    ASSERT_EQ(0, proccomm_recv(hQ, buf.data(), &nLen, 0, 0));
    ASSERT_GT(nLen, 0);
  }
  EXPECT_EQ(1.0, proccomm_get_unused_block_percent(m_h));
}

TEST_F(ProcCommTest, QueueIdsAreFreedAndReused) {
  Open(4, 4096, 8);
  int32 nId = 0;
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));
  EXPECT_EQ(2, nId);
  ProcCommQueueHandle hCtl = Reg(1);
  (void)hCtl;
  ProcCommQueueHandle h2 = nullptr, h2b = nullptr, h3 = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 2, &h2));
  ASSERT_EQ(0, proccomm_reg(m_h, 2, &h2b));  // a second handle of the same queue
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));
  EXPECT_EQ(3, nId);
  ASSERT_EQ(0, proccomm_send(h2, "ab", 2));
  char buf[8];
  int32 nLen = 8;
  ASSERT_EQ(0, proccomm_recv(h2b, buf, &nLen, 0, 0));
  EXPECT_EQ(2, nLen);
  ASSERT_EQ(0, proccomm_unreg(m_h, 2, h2));
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));
  EXPECT_EQ(3, nId);  // h2b still holds queue 2
  ASSERT_EQ(0, proccomm_unreg(m_h, 2, h2b));
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));
  EXPECT_EQ(2, nId);

  // A queue left with messages keeps its id and its messages.
  ASSERT_EQ(0, proccomm_reg(m_h, 3, &h3));
  ASSERT_EQ(0, proccomm_send(h3, "xyz", 3));
  ASSERT_EQ(0, proccomm_unreg(m_h, 3, h3));
  ASSERT_EQ(0, proccomm_reg(m_h, 2, &h2));
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));
  EXPECT_EQ(4, nId);
  ASSERT_EQ(0, proccomm_reg(m_h, 3, &h3));
  nLen = 8;
  ASSERT_EQ(0, proccomm_recv(h3, buf, &nLen, 0, 0));
  EXPECT_EQ(3, nLen);
  EXPECT_EQ(0, memcmp(buf, "xyz", 3));
  ASSERT_EQ(0, proccomm_unreg(m_h, 3, h3));
  ASSERT_EQ(0, proccomm_unreg(m_h, 2, h2));

  // The table holds 8 queues; many reg/unreg cycles never exhaust it.
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(0, proccomm_reg(m_h, 100 + i, &h2));
    ASSERT_EQ(0, proccomm_unreg(m_h, 100 + i, h2));
  }
  std::vector<ProcCommQueueHandle> full;
  for (int32 i = 0; i < 7; ++i) {
    ASSERT_EQ(0, proccomm_reg(m_h, 50 + i, &h2));
    full.push_back(h2);
  }
  EXPECT_EQ(EC_RD_PROCCOMM_NO_QUEUE, proccomm_reg(m_h, 99, &h2));
  EXPECT_EQ(EC_RD_PROCCOMM_NO_QUEUE, proccomm_get_unused_queueid(m_h, &nId));
  for (int32 i = 0; i < 7; ++i) ASSERT_EQ(0, proccomm_unreg(m_h, 50 + i, full[i]));
  EXPECT_EQ(1, Stats().nQueuesInUse);
}

// A full table makes room for a new queue by dropping one that nobody has
// registered (a reply for a collector that never came); queues with a
// handle are never dropped.
TEST_F(ProcCommTest, FullTableEvictsOnlyAnUnregisteredQueue) {
  Open(1, 4096, 4);
  ProcCommQueueHandle hKeep = Reg(1);
  const uint32 nTotal = Stats().nTotalBlocks;
  for (int32 nId = 2; nId <= 4; ++nId) {
    ProcCommQueueHandle h = nullptr;
    ASSERT_EQ(0, proccomm_reg(m_h, nId, &h));
    std::vector<char> buf(static_cast<size_t>(nId) * 4096, 'o');
    ASSERT_EQ(0, proccomm_send(h, buf.data(), static_cast<int32>(buf.size())));
    ASSERT_EQ(0, proccomm_unreg(m_h, nId, h));  // left holding its message
  }
  ASSERT_EQ(0, proccomm_send(hKeep, "k", 1));
  EXPECT_EQ(4, Stats().nQueuesInUse);
  int32 nId = 0;
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));  // an orphan can make way
  EXPECT_EQ(5, nId);
  ProcCommQueueHandle hNew = Reg(nId);
  ASSERT_NE(nullptr, hNew);
  ProcCommStats st = Stats();
  EXPECT_EQ(1u, st.nEvictedQueues);
  EXPECT_EQ(4, st.nQueuesInUse);
  EXPECT_EQ(nTotal - 1 - (3 + 4), st.nFreeBlocks);  // queue 2's two blocks came back
  // Fill the table with registered queues: nothing more can be evicted.
  Reg(6);
  Reg(7);
  ProcCommQueueHandle hNone = nullptr;
  EXPECT_EQ(EC_RD_PROCCOMM_NO_QUEUE, proccomm_reg(m_h, 8, &hNone));
  EXPECT_EQ(EC_RD_PROCCOMM_NO_QUEUE, proccomm_get_unused_queueid(m_h, &nId));
  char c;
  int32 nLen = 1;
  ASSERT_EQ(0, proccomm_recv(hKeep, &c, &nLen, 0, 0));
  EXPECT_EQ('k', c);
}

TEST_F(ProcCommTest, TimeoutsAndImmediateReturns) {
  Open();
  ProcCommQueueHandle hQ = Reg(5);
  char buf[64];
  int32 nLen = 64;
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_TIMEOUT, proccomm_recv(hQ, buf, &nLen, 1, 0));
  EXPECT_EQ(0, nLen);
  nLen = 64;
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_TIMEOUT, proccomm_recv(hQ, buf, &nLen, 1, 60));
  auto nMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0)
          .count();
  EXPECT_GE(nMs, 60);
  EXPECT_LT(nMs, 2000);
  // A message already queued is taken even with a zero time-out.
  ASSERT_EQ(0, proccomm_send(hQ, "q", 1));
  nLen = 64;
  EXPECT_EQ(0, proccomm_recv(hQ, buf, &nLen, 1, 0));
  EXPECT_EQ(1, nLen);
}

TEST_F(ProcCommTest, QuitIsLatchedPerHandle) {
  Open();
  ProcCommQueueHandle hA = Reg(6);
  ProcCommQueueHandle hB = Reg(6);
  ASSERT_EQ(0, proccomm_recv_quit(hA));
  char buf[8];
  int32 nLen = 8;
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_QUIT, proccomm_recv(hA, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER));
  EXPECT_EQ(0, nLen);
  nLen = 8;
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_QUIT, proccomm_recv(hA, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER));
  ASSERT_EQ(0, proccomm_send(hB, "m", 1));
  // Even with a message waiting, a waiting receive on a quit handle quits;
  // a receive without wait still drains.
  nLen = 8;
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_QUIT, proccomm_recv(hA, buf, &nLen, 1, 10));
  nLen = 8;
  EXPECT_EQ(0, proccomm_recv(hA, buf, &nLen, 0, 0));
  EXPECT_EQ(1, nLen);
  // The other handle of the same queue is not affected.
  nLen = 8;
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_TIMEOUT, proccomm_recv(hB, buf, &nLen, 1, 5));
}

TEST_F(ProcCommTest, QuitWakesAWaitingReceiverInAnotherThread) {
  Open();
  ProcCommQueueHandle hQ = Reg(7);
  std::atomic<int32> nResult{-1};
  std::thread waiter([&] {
    char buf[8];
    int32 nLen = 8;
    nResult = proccomm_recv(hQ, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(-1, nResult.load());
  ASSERT_EQ(0, proccomm_recv_quit(hQ));
  waiter.join();
  EXPECT_EQ(EC_RD_PROCCOMM_RECV_QUIT, nResult.load());
}

// Quit racing with the receiver going to sleep, many times: a lost wake-up
// would leave the waiter asleep past the generous time-out.
TEST_F(ProcCommTest, QuitRacingWithTheWaitIsNeverLost) {
  Open();
  for (int i = 0; i < 300; ++i) {
    ProcCommQueueHandle hQ = nullptr;
    ASSERT_EQ(0, proccomm_reg(m_h, 40, &hQ));
    std::atomic<int32> nResult{-1};
    std::thread waiter([&] {
      char buf[8];
      int32 nLen = 8;
      nResult = proccomm_recv(hQ, buf, &nLen, 1, 3000);
    });
    for (int k = 0; k < (i % 7) * 50; ++k) std::this_thread::yield();
    ASSERT_EQ(0, proccomm_recv_quit(hQ));
    waiter.join();
    ASSERT_EQ(EC_RD_PROCCOMM_RECV_QUIT, nResult.load()) << i;
    ASSERT_EQ(0, proccomm_unreg(m_h, 40, hQ));
  }
}

// Several senders and receivers in threads of one process, against a model:
// every message arrives once, and each sender's messages in its order.
TEST_F(ProcCommTest, ThreadedSendersAndReceiversKeepPerSenderOrder) {
  Open(8);
  constexpr int kSenders = 3, kReceivers = 2, kPerSender = 3000;
  ProcCommQueueHandle hSend = Reg(8);
  std::vector<ProcCommQueueHandle> recvs;
  for (int i = 0; i < kReceivers; ++i) recvs.push_back(Reg(8));
  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      std::mt19937 rng(static_cast<uint32>(s));
      std::vector<char> buf(40000);
      for (int i = 0; i < kPerSender; ++i) {
        int32 nLen = 8 + static_cast<int32>(rng() % (i % 50 == 0 ? 39000 : 300));
        uint32 nTag = static_cast<uint32>(s) << 24 | static_cast<uint32>(i);
        memcpy(buf.data(), &nTag, 4);
        FillPattern(buf.data() + 4, nLen - 4, nTag);
        int32 nRet;
        while ((nRet = proccomm_send(hSend, buf.data(), nLen)) == EC_RD_PROCCOMM_NO_SPACE)
          std::this_thread::yield();
        ASSERT_EQ(0, nRet);
      }
    });
  }
  std::vector<std::vector<uint32>> got(kReceivers);
  std::atomic<int> nBad{0};
  for (int r = 0; r < kReceivers; ++r) {
    threads.emplace_back([&, r] {
      std::vector<char> buf(40000);
      for (;;) {
        int32 nLen = static_cast<int32>(buf.size());
        int32 nRet = proccomm_recv(recvs[r], buf.data(), &nLen, 1, PROCCOMM_WAIT_FOREVER);
        if (nRet == EC_RD_PROCCOMM_RECV_QUIT) return;
        if (nRet != 0 || nLen < 8) {
          ++nBad;
          return;
        }
        uint32 nTag;
        memcpy(&nTag, buf.data(), 4);
        if (!CheckPattern(buf.data() + 4, nLen - 4, nTag)) ++nBad;
        got[r].push_back(nTag);
      }
    });
  }
  for (int s = 0; s < kSenders; ++s) threads[s].join();
  // Wait until everything was taken, then stop the receivers.
  for (int i = 0; i < 5000 && Stats().nReceived < kSenders * kPerSender; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  for (auto hR : recvs) proccomm_recv_quit(hR);
  for (int r = 0; r < kReceivers; ++r) threads[kSenders + r].join();
  EXPECT_EQ(0, nBad.load());
  std::vector<int> seen(kSenders * kPerSender, 0);
  for (auto& v : got) {
    std::vector<int> last(kSenders, -1);
    for (uint32 nTag : v) {
      int s = static_cast<int>(nTag >> 24), i = static_cast<int>(nTag & 0xFFFFFF);
      ASSERT_LT(s, kSenders);
      EXPECT_GT(i, last[s]);  // per receiver, each sender's messages in order
      last[s] = i;
      seen[s * kPerSender + i]++;
    }
  }
  for (int n : seen) ASSERT_EQ(1, n);
  ProcCommStats st = Stats();
  EXPECT_EQ(st.nTotalBlocks, st.nFreeBlocks);
}

TEST_F(ProcCommTest, MemoryIsPrivateByDefaultAndGroupOnRequest) {
  Open(1, 4096, 4);
  struct stat st;
  std::string szPath = "/dev/shm/zdpcm." + m_szName;
  ASSERT_EQ(0, stat(szPath.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  EXPECT_EQ(static_cast<off_t>(1) << 20, st.st_size);  // never more than configured

  ASSERT_EQ(0, proccomm_set_create_mode(0660));
  std::string szName2 = UniqueName("grp");
  ProcCommHandle h2 = nullptr;
  ASSERT_EQ(0, proccomm_init(szName2.c_str(), 1, 4096, 4, &h2));
  ASSERT_EQ(0, stat(("/dev/shm/zdpcm." + szName2).c_str(), &st));
  EXPECT_EQ(0660u, st.st_mode & 0777);
  EXPECT_EQ(0, proccomm_release(h2));
  ASSERT_EQ(0, proccomm_set_create_mode(0600));
  // The creator's release removes the name.
  EXPECT_NE(0, stat(("/dev/shm/zdpcm." + szName2).c_str(), &st));
}

}  // namespace
