// Stop in every state of the thread, Start refused by the library, and
// credentials handed over while the thread logs in.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "datahandler_test_util.h"
#include "zdorlo_api.h"
#include "zdos_fault.h"

namespace {

using StopTest = DataHandlerTest;

double stop_seconds(DataHandlerTest* pTest, const std::function<void()>& stop) {
  (void)pTest;
  auto t0 = std::chrono::steady_clock::now();
  stop();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// A socket that completes TCP handshakes (kernel backlog) but never accepts:
// a server that never answers.
class CSilentServer {
 public:
  CSilentServer() {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof(a);
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    listen(m_fd, 8);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &n);
    m_nPort = ntohs(a.sin_port);
  }
  ~CSilentServer() { close(m_fd); }
  CSilentServer(const CSilentServer&) = delete;
  CSilentServer& operator=(const CSilentServer&) = delete;
  uint16 Port() const { return m_nPort; }

 private:
  int m_fd = -1;
  uint16 m_nPort = 0;
};

TEST_F(StopTest, StopWhileWaitingIsPromptAndSecondStopIsHarmless) {
  StartServer();
  ASSERT_EQ(0, StartHandler(5000));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "Connect 0"); }, 3000));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  double fSec = stop_seconds(this, [&] { m_pHandler->Stop(); });
  EXPECT_LT(fSec, 0.5);
  EXPECT_LT(stop_seconds(this, [&] { m_pHandler->Stop(); }), 0.1);
  EXPECT_TRUE(logc_capture_has(LL_INFO, 0, "counters at stop"));
  EXPECT_FALSE(CacheHasRecord());
}

// A send buffer of more than 2 bytes is stored in the cache file, byte for
// byte, when Stop ends the wait.
TEST_F(StopTest, StopStoresTheSendBuffer) {
  StartServer();
  ASSERT_EQ(0, StartHandler(5000));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "Connect 0"); }, 3000));
  std::vector<char> a = make_int32_batch(1, 1, 3);
  std::vector<char> b = make_int32_batch(1, 4, 2);
  Send(a);
  Send(b);
  ASSERT_TRUE(wait_for(
      [&] { return logc_capture_has(LL_TRACE, 0, "cache file has no rec, receive 46 bytes"); }, 2000));
  StopHandler();
  EXPECT_TRUE(logc_capture_has(LL_TRACE, 0, "receive quit msg, save 112 rec to server, nRet 0"));
  EXPECT_EQ(0u, m_srv.Stats().nSaves);
  std::vector<char> joined = make_int32_batch(1, 1, 5);
  std::vector<char> got(1048576);
  int32 nLen = static_cast<int32>(got.size());
  ASSERT_EQ(0, m_cache.ReadCurRecord(Entry(), got.data(), &nLen));
  got.resize(static_cast<size_t>(nLen));
  EXPECT_EQ(joined, got);
}

// Draining with a server that keeps failing: the 1 s retry pause wakes on
// Stop; the cached batch stays, and a new handler (its quit flag re-armed)
// delivers it.
TEST_F(StopTest, StopWhileDrainingThenANewHandlerDelivers) {
  StartServer();
  Control("fail-every 1:110707");
  ASSERT_EQ(0, StartHandler(30));
  Send(make_int32_batch(1, 1, 4));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 110707, "Send records to srv failed"); },
                       3000));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  Send(make_int32_batch(1, 5, 4));  // gathered behind the cached batch
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LT(stop_seconds(this, [&] { StopHandler(); }), 0.5);
  EXPECT_TRUE(CacheHasRecord());

  Control("reset");
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 8 && !CacheHasRecord(); }, 3000));
  EXPECT_EQ((std::vector<int64>{1, 2, 3, 4, 5, 6, 7, 8}), stored_values(Rows(), 1));
}

TEST_F(StopTest, StopWhileConnectionsAreRefusedIsPrompt) {
  m_nPort = closed_port();
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "nRet 110332"); }, 2000));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // inside the 2 s pause
  EXPECT_LT(stop_seconds(this, [&] { StopHandler(); }), 0.5);
  EXPECT_TRUE(logc_capture_has(LL_INFO, 0, "Connect 116107"));
}

// A server that never answers: Stop waits at most for the connection attempt
// in progress (1 s connection timeout), never for the retries.
TEST_F(StopTest, StopWhileTheServerNeverAnswers) {
  CSilentServer silent;
  m_nPort = silent.Port();
  ASSERT_EQ(0, StartHandler(30));
  std::this_thread::sleep_for(std::chrono::milliseconds(900));
  EXPECT_LT(stop_seconds(this, [&] { StopHandler(); }), 1.0);
}

// The server stops answering saves: Stop waits for the save in progress (1 s
// request timeout) and the unanswered batch ends up in the cache file.
TEST_F(StopTest, StopWhileASaveHangs) {
  StartServer();
  ASSERT_EQ(0, StartHandler(30));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "Connect 0"); }, 3000));
  Control("delay 5000");
  Send(make_int32_batch(1, 1, 4));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_LT(stop_seconds(this, [&] { StopHandler(); }), 1.2);
  EXPECT_TRUE(CacheHasRecord());
}

// The cache file cannot take the server's entry: the thread ends at once and
// closes the session it opened (the library then has nothing to recover).
TEST_F(StopTest, SaveSrvInfoFailureEndsTheThreadAndClosesTheSession) {
  StartServer();
  ASSERT_EQ(0, StartHandler(30));
  OsFaultPlan plan{OS_FAULT_WRITE, 1, EIO, 0, /*bSticky=*/1};
  os_fault_arm(&plan);
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_ERROR, -1, "SaveSrvInfo to cache file failed"); },
                       3000));
  os_fault_disarm();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  uint32 nId = 1;
  ZD3Record r = make_int32(1700000000, 1);
  int32 nErr = 0;
  EXPECT_EQ(ZD3_E_NOT_CONNECTED, sn3_save_tags_disorder_snapshots(1, &nId, &r, &nErr));
  EXPECT_LT(stop_seconds(this, [&] { StopHandler(); }), 0.1);
  EXPECT_EQ(0u, m_srv.Stats().nSaves);
}

TEST_F(StopTest, StopAfterFailedStart) {
  EXPECT_EQ(EC_RD_PROCCOMM_INVALID_ARG, StartHandler(30, /*nQueueID=*/0, /*nPort=*/1));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, EC_RD_PROCCOMM_INVALID_ARG, "Proccomm reg queue handle failed"));
  EXPECT_LT(stop_seconds(this, [&] { m_pHandler->Stop(); }), 0.1);
  EXPECT_LT(stop_seconds(this, [&] { m_pHandler->Stop(); }), 0.1);
  EXPECT_FALSE(logc_capture_has(LL_INFO, 0, "DataHandler thread start"));
}

// Credentials change from another thread while the handler's thread logs in
// (run under TSan); the right ones win at the next attempt.
TEST_F(StopTest, CredentialsFromAnotherThreadDuringLogin) {
  SRefServerConfig config;
  config.mapUsers["alice"] = "secret";
  StartServer(&config);
  m_pHandler = std::make_unique<CDataHandler>("127.0.0.1", m_nPort, "", 0, m_nQueueID, 30, 1, 1);
  m_pHandler->Init(&m_hPc, &m_cache);
  ASSERT_EQ(0, m_pHandler->SetUserPassWord("alice", "wrong"));
  ASSERT_EQ(0, m_pHandler->Start());
  std::atomic<bool> bDone{false};
  std::thread setter([&] {
    int i = 0;
    while (!bDone) {
      EXPECT_EQ(0, m_pHandler->SetUserPassWord(i % 2 ? "alice" : "mallory", "still-wrong"));
      ++i;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "nRet 119410"); }, 3000));
  bDone = true;
  setter.join();
  ASSERT_EQ(0, m_pHandler->SetUserPassWord("alice", "secret"));
  ASSERT_TRUE(wait_for([&] { return logc_capture_has(LL_INFO, 0, "login, user alice nRet 0"); }, 3500));
  Send(make_int32_batch(1, 1, 3));
  ASSERT_TRUE(wait_for([&] { return m_srv.Stats().nStored == 3; }, 3000));
  EXPECT_GE(m_srv.Stats().nLoginsRefused, 1u);
}

}  // namespace
