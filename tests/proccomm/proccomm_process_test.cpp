// zdProcComm across processes: order and bytes between forked processes,
// processes killed inside a send or a receive, stale and released instances.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>
#include <vector>

#include "proccomm.h"
#include "proccomm_test.h"
#include "proccomm_test_util.h"

using pctest::CheckPattern;
using pctest::CPipe;
using pctest::FillPattern;
using pctest::SendNumbered;
using pctest::SizeOf;
using pctest::Spawn;
using pctest::UniqueName;
using pctest::WaitChild;

namespace {

// What the hook of a child does at its chosen point.
int g_nHookPoint = 0;
int g_nHookNotifyFd = -1;
bool g_bHookKills = false;

void TestHook(int32 nPoint) {
  if (nPoint != g_nHookPoint) return;
  if (g_bHookKills) raise(SIGKILL);
  char c = 'h';
  (void)!write(g_nHookNotifyFd, &c, 1);
  for (;;) pause();  // held here, inside the send or receive, until killed
}

// Receives nCount numbered messages and checks number, length and bytes.
::testing::AssertionResult RecvNumbered(ProcCommQueueHandle hQ, uint32 nFrom, uint32 nCount) {
  std::vector<char> buf(PROCCOMM_MAX_MSG_LEN);
  for (uint32 nSeq = nFrom; nSeq < nFrom + nCount; ++nSeq) {
    int32 nLen = static_cast<int32>(buf.size());
    int32 nRet = proccomm_recv(hQ, buf.data(), &nLen, 1, 5000);
    if (nRet != 0) return ::testing::AssertionFailure() << "recv " << nRet << " at " << nSeq;
    uint32 nGot;
    memcpy(&nGot, buf.data(), 4);
    int32 nWant = SizeOf(nSeq) < 4 ? 4 : SizeOf(nSeq);
    if (nGot != nSeq || nLen != nWant || !CheckPattern(buf.data() + 4, nLen - 4, nSeq))
      return ::testing::AssertionFailure()
             << "message " << nSeq << " got " << nGot << " len " << nLen;
  }
  return ::testing::AssertionSuccess();
}

class ProcCommProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { m_szName = UniqueName("mp"); }
  void TearDown() override {
    if (m_h != nullptr) proccomm_release(m_h);
    shm_unlink(("/zdpcm." + m_szName).c_str());  // left by a killed creator
  }
  ProcCommStats Stats() {
    ProcCommStats st{};
    EXPECT_EQ(0, proccomm_get_stats(m_h, &st));
    return st;
  }
  // The child's side: attach, register, run fn, detach.
  int InChild(int32 nQueueId, const std::function<int(ProcCommHandle, ProcCommQueueHandle)>& fn) {
    ProcCommHandle h = nullptr;
    if (proccomm_init(m_szName.c_str(), 16, 4096, 1000, &h) != 0) return 20;
    ProcCommQueueHandle hQ = nullptr;
    if (proccomm_reg(h, nQueueId, &hQ) != 0) return 21;
    int nRet = fn(h, hQ);
    proccomm_unreg(h, nQueueId, hQ);
    proccomm_release(h);
    return nRet;
  }

  std::string m_szName;
  ProcCommHandle m_h = nullptr;
};

TEST_F(ProcCommProcessTest, TwoSendersToOneReceiverKeepOrderAndBytes) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 16, 4096, 1000, &m_h));
  ProcCommQueueHandle hA = nullptr, hB = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 10, &hA));
  ASSERT_EQ(0, proccomm_reg(m_h, 11, &hB));
  pid_t a = Spawn([&] {
    return InChild(
        10, [](ProcCommHandle, ProcCommQueueHandle hQ) { return SendNumbered(hQ, 0, 1500); });
  });
  pid_t b = Spawn([&] {
    return InChild(
        11, [](ProcCommHandle, ProcCommQueueHandle hQ) { return SendNumbered(hQ, 5000, 1500); });
  });
  // Interleave the two queues so both senders run against a live receiver.
  for (uint32 i = 0; i < 1500; i += 100) {
    ASSERT_TRUE(RecvNumbered(hA, i, 100));
    ASSERT_TRUE(RecvNumbered(hB, 5000 + i, 100));
  }
  EXPECT_EQ(0, WaitChild(a));
  EXPECT_EQ(0, WaitChild(b));
  ProcCommStats st = Stats();
  EXPECT_EQ(3000u, st.nReceived);
  EXPECT_EQ(st.nTotalBlocks, st.nFreeBlocks);
  EXPECT_EQ(1, st.nAttached);
  proccomm_unreg(m_h, 10, hA);
  proccomm_unreg(m_h, 11, hB);
}

// Collectors as separate programs (exec): their mappings sit at other
// addresses, so only offsets and indices may cross the boundary.
TEST_F(ProcCommProcessTest, ExecedCollectorsDeliverInOrder) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 16, 4096, 1000, &m_h));
  ProcCommQueueHandle hQ = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 1, &hQ));
  pid_t peers[2];
  for (int i = 0; i < 2; ++i) {
    peers[i] = fork();
    if (peers[i] == 0) {
      std::string szFrom = std::to_string(i * 100000);
      execl(PROCCOMM_PEER_PATH, "proccomm_peer", "send", m_szName.c_str(), i == 0 ? "1" : "2",
            szFrom.c_str(), "700", static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ProcCommQueueHandle hQ2 = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 2, &hQ2));
  ASSERT_TRUE(RecvNumbered(hQ, 0, 700));
  ASSERT_TRUE(RecvNumbered(hQ2, 100000, 700));
  EXPECT_EQ(0, WaitChild(peers[0]));
  EXPECT_EQ(0, WaitChild(peers[1]));
  EXPECT_EQ(Stats().nTotalBlocks, Stats().nFreeBlocks);
  proccomm_unreg(m_h, 1, hQ);
  proccomm_unreg(m_h, 2, hQ2);
}

TEST_F(ProcCommProcessTest, ReceiverInAnotherProcessWakesOnSendAndOnTimeout) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 16, 4096, 1000, &m_h));
  ProcCommQueueHandle hQ = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 12, &hQ));
  CPipe ready;
  pid_t c = Spawn([&] {
    return InChild(12, [&](ProcCommHandle, ProcCommQueueHandle hQ2) {
      char buf[64];
      int32 nLen = 64;
      if (proccomm_recv(hQ2, buf, &nLen, 1, 30) != EC_RD_PROCCOMM_RECV_TIMEOUT) return 1;
      ready.Signal();
      nLen = 64;  // now sleeps until the parent sends
      if (proccomm_recv(hQ2, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER) != 0 || nLen != 5) return 2;
      return memcmp(buf, "hello", 5) == 0 ? 0 : 3;
    });
  });
  ASSERT_TRUE(ready.Wait());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(0, proccomm_send(hQ, "hello", 5));
  EXPECT_EQ(0, WaitChild(c));
  proccomm_unreg(m_h, 12, hQ);
}

// Tight ping-pong between two processes, each asleep in a waiting receive
// between messages: a lost wake-up shows as a time-out.
TEST_F(ProcCommProcessTest, PingPongNeverLosesAWakeUp) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 16, 4096, 1000, &m_h));
  ProcCommQueueHandle hPing = nullptr, hPong = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 13, &hPing));
  ASSERT_EQ(0, proccomm_reg(m_h, 14, &hPong));
  constexpr uint32 kRounds = 20000;
  pid_t c = Spawn([&] {
    ProcCommHandle h = nullptr;
    ProcCommQueueHandle hIn = nullptr, hOut = nullptr;
    if (proccomm_init(m_szName.c_str(), 16, 4096, 1000, &h) != 0) return 2;
    if (proccomm_reg(h, 13, &hIn) != 0 || proccomm_reg(h, 14, &hOut) != 0) return 3;
    for (uint32 i = 0; i < kRounds; ++i) {
      uint32 n = 0;
      int32 nLen = 4;
      if (proccomm_recv(hIn, reinterpret_cast<char*>(&n), &nLen, 1, 3000) != 0 || n != i) return 4;
      ++n;
      if (proccomm_send(hOut, reinterpret_cast<char*>(&n), 4) != 0) return 5;
    }
    proccomm_unreg(h, 13, hIn);
    proccomm_unreg(h, 14, hOut);
    proccomm_release(h);
    return 0;
  });
  for (uint32 i = 0; i < kRounds; ++i) {
    ASSERT_EQ(0, proccomm_send(hPing, reinterpret_cast<char*>(&i), 4));
    uint32 n = 0;
    int32 nLen = 4;
    ASSERT_EQ(0, proccomm_recv(hPong, reinterpret_cast<char*>(&n), &nLen, 1, 3000)) << i;
    ASSERT_EQ(i + 1, n);
  }
  EXPECT_EQ(0, WaitChild(c));
  proccomm_unreg(m_h, 13, hPing);
  proccomm_unreg(m_h, 14, hPong);
}

// A sender stopped inside the locked section (blocks taken, message not
// queued) and then killed: a second sender blocked on the lock takes over
// with EOWNERDEAD, repairs, and everything it sends arrives; the killed
// sender's blocks come back.
TEST_F(ProcCommProcessTest, SenderKilledHoldingTheLockDoesNotWedgeOthers) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 16, 4096, 1000, &m_h));
  ProcCommQueueHandle hQ = nullptr, hOther = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 20, &hQ));
  ASSERT_EQ(0, proccomm_reg(m_h, 21, &hOther));
  CPipe held;
  pid_t victim = Spawn([&] {
    return InChild(21, [&](ProcCommHandle, ProcCommQueueHandle hQ2) {
      g_nHookPoint = PROCCOMM_HOOK_SEND_LOCKED;
      g_nHookNotifyFd = held.fd[1];
      proccomm_test_set_hook(TestHook);
      std::vector<char> buf(3 * 4096, 'v');
      proccomm_send(hQ2, buf.data(), static_cast<int32>(buf.size()));
      return 1;  // not reached
    });
  });
  ASSERT_TRUE(held.Wait());
  pid_t sender = Spawn([&] {
    return InChild(20,
                   [](ProcCommHandle, ProcCommQueueHandle h2) { return SendNumbered(h2, 0, 400); });
  });
  std::this_thread::sleep_for(
      std::chrono::milliseconds(50));  // the sender is now blocked on the lock
  ASSERT_EQ(0, kill(victim, SIGKILL));
  EXPECT_EQ(128 + SIGKILL, WaitChild(victim));
  ASSERT_TRUE(RecvNumbered(hQ, 0, 400));
  EXPECT_EQ(0, WaitChild(sender));
  char c;
  int32 nLen = 1;
  EXPECT_EQ(0, proccomm_recv(hOther, &c, &nLen, 0, 0));
  EXPECT_EQ(0, nLen);  // the half-sent message never appears
  ProcCommStats st = Stats();
  EXPECT_GE(st.nRecoveries, 1u);
  EXPECT_EQ(st.nTotalBlocks, st.nFreeBlocks);
  EXPECT_EQ(1, st.nAttached);
  proccomm_unreg(m_h, 20, hQ);
  proccomm_unreg(m_h, 21, hOther);
}

// The pool left full by a sender killed holding the lock, with no queue
// holding anything to receive: the next send must still take the lock (the
// kernel marked its owner dead), repair and succeed, though a full pool is
// otherwise refused without locking.
TEST_F(ProcCommProcessTest, FullPoolLeftByADeadLockHolderIsRepairedBySend) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 1, 256, 16, &m_h));
  ProcCommQueueHandle hQ = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 50, &hQ));
  const uint32 nTotal = Stats().nTotalBlocks;
  ASSERT_GT(nTotal, 64u);
  char buf[256] = {};
  for (uint32 i = 0; i < nTotal - 64; ++i) ASSERT_EQ(0, proccomm_send(hQ, buf, 256));
  pid_t victim = Spawn([&] {
    ProcCommHandle h = nullptr;
    ProcCommQueueHandle h2 = nullptr;
    if (proccomm_init(m_szName.c_str(), 1, 256, 16, &h) != 0 || proccomm_reg(h, 51, &h2) != 0)
      return 2;
    g_nHookPoint = PROCCOMM_HOOK_SEND_LOCKED;
    g_bHookKills = true;
    proccomm_test_set_hook(TestHook);
    std::vector<char> big(16384, 'd');  // 64 blocks, copied under the lock
    proccomm_send(h2, big.data(), 16384);
    return 1;
  });
  EXPECT_EQ(128 + SIGKILL, WaitChild(victim));
  EXPECT_EQ(0, proccomm_send(hQ, buf, 10));
  EXPECT_DOUBLE_EQ(63.0 / nTotal, proccomm_get_unused_block_percent(m_h));
  ProcCommStats st = Stats();
  EXPECT_GE(st.nRecoveries, 1u);
  EXPECT_EQ(63u, st.nFreeBlocks);
  proccomm_unreg(m_h, 50, hQ);
}

// Killed while copying a large message outside the lock: its reserved
// blocks are taken back once memory runs short, and nothing of it arrives.
TEST_F(ProcCommProcessTest, SenderKilledWhileCopyingGivesItsBlocksBack) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 4, 4096, 100, &m_h));
  ProcCommQueueHandle hQ = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 30, &hQ));
  ProcCommStats st = Stats();  // before the death: stats would reclaim too
  pid_t victim = Spawn([&] {
    ProcCommHandle h = nullptr;
    ProcCommQueueHandle h2 = nullptr;
    if (proccomm_init(m_szName.c_str(), 4, 4096, 100, &h) != 0 || proccomm_reg(h, 30, &h2) != 0)
      return 2;
    g_nHookPoint = PROCCOMM_HOOK_SEND_COPY;
    g_bHookKills = true;
    proccomm_test_set_hook(TestHook);
    std::vector<char> buf(1000000, 'k');
    proccomm_send(h2, buf.data(), 1000000);
    return 1;
  });
  EXPECT_EQ(128 + SIGKILL, WaitChild(victim));
  EXPECT_LT(proccomm_get_unused_block_percent(m_h), 0.8);  // held by the dead reservation
  std::vector<char> buf(4096, 'f');
  uint32 nSent = 0;
  while (proccomm_send(hQ, buf.data(), 4096) == 0) ++nSent;
  EXPECT_EQ(st.nTotalBlocks, nSent);  // the whole pool, reclaimed on the way
  EXPECT_GE(Stats().nReclaimedBlocks, 245u);
  EXPECT_EQ(1, Stats().nAttached);
  for (uint32 i = 0; i < nSent; ++i) {
    int32 nLen = 4096;
    ASSERT_EQ(0, proccomm_recv(hQ, buf.data(), &nLen, 0, 0));
    ASSERT_EQ(4096, nLen);
    ASSERT_EQ('f', buf[0]);
  }
  EXPECT_EQ(1.0, proccomm_get_unused_block_percent(m_h));
  proccomm_unreg(m_h, 30, hQ);
}

// A receiver killed inside its locked section and another killed while
// copying a large message out: the queue stays usable and no block is lost.
TEST_F(ProcCommProcessTest, ReceiverKilledMidReceiveLeavesTheQueueUsable) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 16, 4096, 1000, &m_h));
  ProcCommQueueHandle hQ = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 40, &hQ));
  for (int nPoint : {PROCCOMM_HOOK_RECV_LOCKED, PROCCOMM_HOOK_RECV_COPY}) {
    std::vector<char> big(200000, 'b');
    ASSERT_EQ(0,
              proccomm_send(hQ, big.data(), nPoint == PROCCOMM_HOOK_RECV_LOCKED ? 1000 : 200000));
    ASSERT_EQ(0, proccomm_send(hQ, "after", 5));
    pid_t victim = Spawn([&] {
      return InChild(40, [&](ProcCommHandle, ProcCommQueueHandle h2) {
        g_nHookPoint = nPoint;
        g_bHookKills = true;
        proccomm_test_set_hook(TestHook);
        std::vector<char> in(300000);
        int32 nLen = 300000;
        proccomm_recv(h2, in.data(), &nLen, 1, 1000);
        return 1;
      });
    });
    EXPECT_EQ(128 + SIGKILL, WaitChild(victim));
    char buf[16];
    int32 nLen = 16;
    ASSERT_EQ(0, proccomm_recv(hQ, buf, &nLen, 1, 1000));
    EXPECT_EQ(5, nLen);
    EXPECT_EQ(0, memcmp(buf, "after", 5));
  }
  // Room comes back by repair (locked) or when it runs short (copying).
  std::vector<char> fill(4096);
  uint32 nSent = 0;
  while (proccomm_send(hQ, fill.data(), 4096) == 0) ++nSent;
  ProcCommStats st = Stats();
  EXPECT_EQ(st.nTotalBlocks, nSent);
  EXPECT_GE(st.nRecoveries, 1u);
  proccomm_unreg(m_h, 40, hQ);
}

// The service killed: the next start finds the stale instance, replaces it
// with an empty one; a collector still attached to the old one is told.
TEST_F(ProcCommProcessTest, StaleInstanceOfAKilledCreatorIsReplaced) {
  CPipe ready, attached;
  pid_t service = Spawn([&] {
    ProcCommHandle h = nullptr;
    ProcCommQueueHandle hQ = nullptr;
    if (proccomm_init(m_szName.c_str(), 8, 4096, 1000, &h) != 0 || proccomm_reg(h, 1, &hQ) != 0)
      return 2;
    proccomm_send(hQ, "old", 3);
    ready.Signal();
    for (;;) pause();
  });
  ASSERT_TRUE(ready.Wait());
  CPipe killed, told;
  pid_t collector = Spawn([&] {
    ProcCommHandle h = nullptr;
    ProcCommQueueHandle hQ = nullptr;
    if (proccomm_init(m_szName.c_str(), 8, 4096, 1000, &h) != 0 || proccomm_reg(h, 1, &hQ) != 0)
      return 2;
    attached.Signal();
    if (!killed.Wait()) return 3;
    // Within the liveness check period the sender learns the creator died.
    int32 nRet = 0;
    for (int i = 0; i < 400 && (nRet = proccomm_send(hQ, "x", 1)) == 0; ++i) usleep(1000);
    if (nRet != EC_RD_PROCCOMM_GONE) return 4;
    proccomm_unreg(h, 1, hQ);
    proccomm_release(h);
    told.Signal();
    if (!killed.Wait()) return 5;  // the new service is up: re-attach and announce
    if (proccomm_init(m_szName.c_str(), 8, 4096, 1000, &h) != 0 || proccomm_reg(h, 1, &hQ) != 0)
      return 6;
    nRet = proccomm_send(hQ, "new", 3);
    proccomm_unreg(h, 1, hQ);
    proccomm_release(h);
    return nRet == 0 ? 0 : 7;
  });
  ASSERT_TRUE(attached.Wait());
  ASSERT_EQ(0, kill(service, SIGKILL));
  EXPECT_EQ(128 + SIGKILL, WaitChild(service));
  killed.Signal();
  ASSERT_TRUE(told.Wait());

  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 8, 4096, 1000, &m_h));
  ProcCommStats st = Stats();
  EXPECT_EQ(0u, st.nSent);  // a fresh instance: the old message is gone
  EXPECT_EQ(st.nTotalBlocks, st.nFreeBlocks);
  ProcCommQueueHandle hQ = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 1, &hQ));
  killed.Signal();
  char buf[8];
  int32 nLen = 8;
  ASSERT_EQ(0, proccomm_recv(hQ, buf, &nLen, 1, 5000));
  EXPECT_EQ(3, nLen);
  EXPECT_EQ(0, memcmp(buf, "new", 3));
  EXPECT_EQ(0, WaitChild(collector));
  proccomm_unreg(m_h, 1, hQ);
}

// The creator's release: an attached collector's waiting receive wakes and
// its sends are refused with GONE; the name is free for a new creator.
TEST_F(ProcCommProcessTest, CreatorReleaseTellsAttachedProcesses) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 8, 4096, 1000, &m_h));
  CPipe waiting;
  pid_t collector = Spawn([&] {
    return InChild(3, [&](ProcCommHandle, ProcCommQueueHandle hQ) {
      waiting.Signal();
      char buf[8];
      int32 nLen = 8;
      if (proccomm_recv(hQ, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER) != EC_RD_PROCCOMM_GONE) return 1;
      return proccomm_send(hQ, "x", 1) == EC_RD_PROCCOMM_GONE ? 0 : 2;
    });
  });
  ASSERT_TRUE(waiting.Wait());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(0, proccomm_release(m_h));
  m_h = nullptr;
  EXPECT_EQ(0, WaitChild(collector));
  // A new creator gets a fresh instance under the same name.
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 8, 4096, 1000, &m_h));
  EXPECT_EQ(0u, Stats().nSent);
}

// A collector killed with queues registered: its registrations go, so its
// empty queue disappears and its id is free again, while a queue another
// process still holds stays.
TEST_F(ProcCommProcessTest, RegistrationsOfADeadProcessAreDropped) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 8, 4096, 16, &m_h));
  ProcCommQueueHandle hShared = nullptr;
  ASSERT_EQ(0, proccomm_reg(m_h, 2, &hShared));
  CPipe ready;
  pid_t victim = Spawn([&] {
    ProcCommHandle h = nullptr;
    ProcCommQueueHandle h2 = nullptr, h3 = nullptr, h3b = nullptr;
    if (proccomm_init(m_szName.c_str(), 8, 4096, 16, &h) != 0) return 2;
    if (proccomm_reg(h, 2, &h2) != 0 || proccomm_reg(h, 3, &h3) != 0 ||
        proccomm_reg(h, 3, &h3b) != 0)
      return 3;
    ready.Signal();
    for (;;) pause();
  });
  ASSERT_TRUE(ready.Wait());
  EXPECT_EQ(2, Stats().nQueuesInUse);
  ASSERT_EQ(0, kill(victim, SIGKILL));
  EXPECT_EQ(128 + SIGKILL, WaitChild(victim));
  ProcCommStats st = Stats();  // finds the dead process
  EXPECT_EQ(1, st.nAttached);
  EXPECT_EQ(1, st.nQueuesInUse);
  int32 nId = 0;
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &nId));
  EXPECT_EQ(3, nId);
  // Queue 2 still has our handle: one unreg frees it.
  ASSERT_EQ(0, proccomm_unreg(m_h, 2, hShared));
  EXPECT_EQ(0, Stats().nQueuesInUse);
}

// proccomm_attach never creates: it finds no instance, then the live one,
// then leaves a stale one for the next creator.
TEST_F(ProcCommProcessTest, AttachOnlyNeverCreatesOrReplaces) {
  std::string szPath = "/dev/shm/zdpcm." + m_szName;
  struct stat st;
  EXPECT_EQ(EC_RD_PROCCOMM_GONE, proccomm_attach(m_szName.c_str(), &m_h));
  EXPECT_EQ(nullptr, m_h);
  EXPECT_NE(0, stat(szPath.c_str(), &st));
  CPipe ready;
  pid_t creator = Spawn([&] {
    ProcCommHandle h = nullptr;
    if (proccomm_init(m_szName.c_str(), 2, 4096, 10, &h) != 0) return 2;
    ready.Signal();
    for (;;) pause();
  });
  ASSERT_TRUE(ready.Wait());
  ASSERT_EQ(0, proccomm_attach(m_szName.c_str(), &m_h));
  EXPECT_EQ(2, Stats().nAttached);
  ASSERT_EQ(0, kill(creator, SIGKILL));
  EXPECT_EQ(128 + SIGKILL, WaitChild(creator));
  ASSERT_EQ(0, proccomm_release(m_h));
  m_h = nullptr;
  EXPECT_EQ(EC_RD_PROCCOMM_GONE, proccomm_attach(m_szName.c_str(), &m_h));
  EXPECT_EQ(0, stat(szPath.c_str(), &st));  // still there, for the service to replace
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 2, 4096, 10, &m_h));
  EXPECT_EQ(1, Stats().nAttached);
}

// Attachers take the creator's geometry whatever they ask for.
TEST_F(ProcCommProcessTest, AttacherUsesTheCreatorsGeometry) {
  ASSERT_EQ(0, proccomm_init(m_szName.c_str(), 2, 1024, 50, &m_h));
  pid_t c = Spawn([&] {
    ProcCommHandle h = nullptr;
    if (proccomm_init(m_szName.c_str(), 64, 4096, 1000, &h) != 0) return 1;
    ProcCommStats st{};
    proccomm_get_stats(h, &st);
    proccomm_release(h);
    return st.nBlockSize == 1024 && st.nMaxQueues == 50 && st.nAttached == 2 ? 0 : 2;
  });
  EXPECT_EQ(0, WaitChild(c));
  EXPECT_EQ(1, Stats().nAttached);
}

}  // namespace
