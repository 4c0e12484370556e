// The client library against the reference server in this process: real
// sockets on loopback, real refusals, timeouts and restarts.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include "orlo_test_util.h"
#include "refserver.h"
#include "zdorlo_api.h"

namespace {

bool is_network_class(int32 n) { return n >= 110330 && n <= 110376; }

class OrloClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_config.strDbPath = m_dir.Path("rec.db");
    ASSERT_EQ(0, ut3_set_request_timeout(5));
    ASSERT_EQ(0, ut3_set_api_option(ZD3_OPTION_AUTO_RECOVER));
  }
  void TearDown() override {
    nt3_disconnect();
    m_server.Stop();
  }
  void StartServer() {
    ASSERT_EQ(0, m_server.Start(m_config));
    m_config.nPort = m_server.Port();  // a restart comes back on the same port
  }
  void ConnectToServer() {
    ZD3Connection c = make_conn(m_server.Port());
    ASSERT_EQ(0, nt3_connect(&c));
  }
  // Saves n int32 records of tag nTag with values nFirst, nFirst+1, ...
  int32 SaveSeq(uint32 nTag, int32 nFirst, int32 n, std::vector<int32>* pErrs = nullptr) {
    std::vector<uint32> ids(n, nTag);
    std::vector<ZD3Record> recs;
    for (int32 i = 0; i < n; ++i) recs.push_back(make_int32(1700000000 + i, nFirst + i));
    std::vector<int32> errs(n, -1);
    const int32 nRet = sn3_save_tags_disorder_snapshots(n, ids.data(), recs.data(), errs.data());
    if (pErrs != nullptr) *pErrs = errs;
    return nRet;
  }
  std::vector<SStoredRow> Rows() { return read_rows(m_config.strDbPath); }

  CScratchDir m_dir;
  SRefServerConfig m_config;
  CRefServer m_server;
};

// ---- connecting ---------------------------------------------------------

TEST_F(OrloClientTest, ConnectsToPrimaryAndSaves) {
  StartServer();
  ConnectToServer();
  EXPECT_EQ(0, SaveSeq(7, 1, 3));
  ASSERT_EQ(3u, Rows().size());
  EXPECT_EQ(1u, m_server.Stats().nConnections);
}

TEST_F(OrloClientTest, FallsBackToBackupWhenPrimaryRefuses) {
  StartServer();
  ZD3Connection c = make_conn(closed_port(), m_server.Port());
  const timespec t0 = now_mono();
  ASSERT_EQ(0, nt3_connect(&c));
  EXPECT_LT(seconds_since(t0), 1.0);  // a refusal is not waited out
  EXPECT_EQ(0, SaveSeq(1, 1, 1));
}

TEST_F(OrloClientTest, BackupWithoutPortOrAddressIsNotTried) {
  StartServer();
  ZD3Connection c = make_conn(closed_port(), 0);
  std::strcpy(c.szBakAddress, "127.0.0.1");  // port 0: no backup
  EXPECT_EQ(ZD3_E_CONNECT_FAILED, nt3_connect(&c));
  c = make_conn(closed_port(), m_server.Port());
  c.szBakAddress[0] = '\0';  // empty address: no backup
  EXPECT_EQ(ZD3_E_CONNECT_FAILED, nt3_connect(&c));
}

TEST_F(OrloClientTest, RefusedEverywhereFailsPromptlyAndSavesSayNotConnected) {
  ZD3Connection c = make_conn(closed_port(), closed_port());
  const timespec t0 = now_mono();
  const int32 nRet = nt3_connect(&c);
  EXPECT_EQ(ZD3_E_CONNECT_FAILED, nRet);
  EXPECT_TRUE(is_network_class(nRet));
  EXPECT_LT(seconds_since(t0), 1.0);
  std::vector<int32> errs;
  EXPECT_EQ(ZD3_E_NOT_CONNECTED, SaveSeq(1, 1, 2, &errs));
  EXPECT_EQ((std::vector<int32>{ZD3_E_NOT_CONNECTED, ZD3_E_NOT_CONNECTED}), errs);
}

// Two silent servers: a listener that never accepts (the kernel completes
// the handshake, the greeting is never answered), and one whose accept
// queue is full (the SYN is dropped, so the TCP connect itself hangs). Only
// the deadline ends either attempt.
TEST_F(OrloClientTest, ConnectTimesOutOnSilentServersWithinTheTimeout) {
  for (const int nBacklog : {4, 0}) {
    SCOPED_TRACE(nBacklog);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof(a);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
    ASSERT_EQ(0, listen(fd, nBacklog));
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n));
    std::vector<int> vFillers;
    for (int i = 0; nBacklog == 0 && i < 4; ++i) {
      const int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      connect(c, reinterpret_cast<sockaddr*>(&a), sizeof(a));
      vFillers.push_back(c);
    }
    ZD3Connection c = make_conn(ntohs(a.sin_port), 0, 1);
    const timespec t0 = now_mono();
    const int32 nRet = nt3_connect(&c);
    const double fElapsed = seconds_since(t0);
    for (int h : vFillers) close(h);
    close(fd);
    EXPECT_EQ(ZD3_E_CONNECT_TIMEOUT, nRet);
    EXPECT_GE(fElapsed, 0.9);
    EXPECT_LT(fElapsed, 2.5);
  }
}

TEST_F(OrloClientTest, RejectsBadConnectionParameters) {
  EXPECT_EQ(ZD3_E_NULL_POINTER, nt3_connect(nullptr));
  ZD3Connection c = make_conn(1, 0, 0);
  EXPECT_EQ(ZD3_E_INVALID_ARG, nt3_connect(&c));
  c = make_conn(1);
  std::memset(c.szAddress, 'a', sizeof(c.szAddress));  // no terminator
  EXPECT_EQ(ZD3_E_INVALID_ARG, nt3_connect(&c));
  EXPECT_EQ(ZD3_E_INVALID_ARG, ut3_set_request_timeout(0));
  EXPECT_EQ(ZD3_E_INVALID_ARG, ut3_set_api_option(2));
}

// ---- login --------------------------------------------------------------

TEST_F(OrloClientTest, LoginAcceptedRefusedAndRequired) {
  m_config.mapUsers["ops"] = "secret";
  StartServer();
  ConnectToServer();
  EXPECT_EQ(ZD3_E_NOT_LOGGED_IN, SaveSeq(1, 1, 1));
  EXPECT_EQ(ZD3_E_LOGIN_REFUSED, sc3_login("ops", "wrong"));
  EXPECT_EQ(ZD3_E_LOGIN_REFUSED, sc3_login("nobody", "secret"));
  EXPECT_EQ(0, sc3_login("ops", "secret"));
  EXPECT_EQ(0, SaveSeq(1, 1, 1));
  ASSERT_EQ(
      "ok refuse-connections=off refuse-logins=on fail-every=0:110707 fail-tags=0:110350 "
      "delay=0 close-every=0",
      m_server.Control("refuse-logins on"));
  EXPECT_EQ(ZD3_E_LOGIN_REFUSED, sc3_login("ops", "secret"));
  EXPECT_EQ(ZD3_E_NULL_POINTER, sc3_login(nullptr, "x"));
  EXPECT_EQ(ZD3_E_INVALID_ARG, sc3_login(std::string(256, 'u').c_str(), "x"));
}

TEST_F(OrloClientTest, ServerWithoutUsersNeedsNoLogin) {
  StartServer();
  ConnectToServer();
  EXPECT_EQ(0, SaveSeq(1, 1, 1));
  EXPECT_EQ(0, sc3_login("anyone", "anything"));
  EXPECT_EQ(0, SaveSeq(1, 2, 1));
}

// ---- saving ---------------------------------------------------------------

TEST_F(OrloClientTest, EveryTypeRoundTripsExactly) {
  StartServer();
  ConnectToServer();
  char szText[] = "h\"e,llo";
  std::string strLong(1000, 'z');
  char aBlob[] = {0, 1, static_cast<char>(0xff), 0, 'x'};
  std::vector<ZD3Record> recs(10);
  for (auto& r : recs) std::memset(&r, 0, sizeof(r));
  std::vector<uint32> ids = {10, 11, 12, 13, 14, 15, 16, 17, 18, 4294967295u};
  auto set = [&](int i, ZD3_TAG_TYPE t) {
    recs[i].nTagType = t;
    recs[i].nSec = -5 + i;
    recs[i].nMsec = static_cast<int16>(999 - i);
    recs[i].nQuality = static_cast<uint16>(65535 - i);
  };
  set(0, ZD3_TAG_TYPE_INT8), recs[0].value.nInt8 = -128;
  set(1, ZD3_TAG_TYPE_INT16), recs[1].value.nInt16 = -32768;
  set(2, ZD3_TAG_TYPE_INT32), recs[2].value.nInt32 = std::numeric_limits<int32>::min();
  set(3, ZD3_TAG_TYPE_FLOAT32), recs[3].value.fFloat32 = 0.1f;
  set(4, ZD3_TAG_TYPE_FLOAT64), recs[4].value.fFloat64 = -1.0 / 3.0;
  set(5, ZD3_TAG_TYPE_DIGITAL), recs[5].value.nDigital = 1;
  set(6, ZD3_TAG_TYPE_STRING), recs[6].value.strBlob = {szText, 7};
  set(7, ZD3_TAG_TYPE_STRING), recs[7].value.strBlob = {strLong.data(), 1000};
  set(8, ZD3_TAG_TYPE_BLOB), recs[8].value.strBlob = {aBlob, 5};
  set(9, ZD3_TAG_TYPE_BLOB), recs[9].value.strBlob = {nullptr, 0};
  std::vector<int32> errs(10, -1);
  ASSERT_EQ(0, sn3_save_tags_disorder_snapshots(10, ids.data(), recs.data(), errs.data()));
  EXPECT_EQ(std::vector<int32>(10, 0), errs);

  const std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(10u, rows.size());
  for (int i = 0; i < 10; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(ids[i], rows[i].nTag);
    EXPECT_EQ(-5 + i, rows[i].nSec);
    EXPECT_EQ(999 - i, rows[i].nMsec);
    EXPECT_EQ(65535 - i, rows[i].nQuality);
    EXPECT_EQ(static_cast<int32>(recs[i].nTagType), rows[i].nType);
  }
  EXPECT_EQ(-128, rows[0].nInt);
  EXPECT_EQ(-32768, rows[1].nInt);
  EXPECT_EQ(std::numeric_limits<int32>::min(), rows[2].nInt);
  EXPECT_EQ(0.1f, static_cast<float>(rows[3].fReal));
  EXPECT_EQ(static_cast<double>(0.1f), rows[3].fReal);  // widened, not rounded
  EXPECT_EQ(-1.0 / 3.0, rows[4].fReal);
  EXPECT_EQ(1, rows[5].nInt);
  EXPECT_EQ(SQLITE_TEXT, rows[6].nValueType);
  EXPECT_EQ(std::string(szText, 7), rows[6].strBytes);
  EXPECT_EQ(strLong, rows[7].strBytes);
  EXPECT_EQ(SQLITE_BLOB, rows[8].nValueType);
  EXPECT_EQ(std::string(aBlob, 5), rows[8].strBytes);
  EXPECT_EQ(SQLITE_BLOB, rows[9].nValueType);
  EXPECT_EQ("", rows[9].strBytes);
}

TEST_F(OrloClientTest, LargeBatchArrivesWholeAndInOrder) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, SaveSeq(3, 0, 40000));
  ASSERT_EQ(0, SaveSeq(3, 40000, 1));
  const std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(40001u, rows.size());
  for (size_t i = 0; i < rows.size(); ++i) ASSERT_EQ(static_cast<int64>(i), rows[i].nInt);
  EXPECT_EQ(1, rows[0].nCall);
  EXPECT_EQ(2, rows[40000].nCall);  // one transaction per save call
}

// Room is taken for fixed-size records up front and grown for long strings
// as they come: the growth must keep what was encoded before it.
TEST_F(OrloClientTest, LongStringsLateInAFirstLargeCallKeepTheRecordsBeforeThem) {
  StartServer();
  ConnectToServer();
  const int32 n = 3000;
  std::vector<std::string> texts;
  std::vector<uint32> ids(n);
  std::vector<ZD3Record> recs(n);
  for (int32 i = 0; i < n; ++i) {
    ids[i] = 1 + i % 7;
    recs[i] = make_int32(1700000000 + i, i);
    if (i >= 2000 && i % 10 == 0) {
      texts.emplace_back(1000, static_cast<char>('a' + i % 26));
      recs[i].nTagType = ZD3_TAG_TYPE_STRING;
      recs[i].value.strBlob = {texts.back().data(), 1000};
    }
  }
  std::vector<int32> errs(n, -1);
  ASSERT_EQ(0, sn3_save_tags_disorder_snapshots(n, ids.data(), recs.data(), errs.data()));
  const std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(static_cast<size_t>(n), rows.size());
  for (int32 i = 0; i < n; ++i) {
    SCOPED_TRACE(i);
    ASSERT_EQ(ids[i], rows[i].nTag);
    if (recs[i].nTagType == ZD3_TAG_TYPE_STRING) {
      ASSERT_EQ(std::string(1000, static_cast<char>('a' + i % 26)), rows[i].strBytes);
    } else {
      ASSERT_EQ(i, rows[i].nInt);
    }
  }
  // An invalid record after thousands of good ones still refuses the call
  // before anything is sent.
  const uint64 nSaves = m_server.Stats().nSaves;
  const int32 nBadType = 9;
  std::memcpy(&recs[n - 1].nTagType, &nBadType, 4);
  EXPECT_EQ(ZD3_E_INVALID_ARG,
            sn3_save_tags_disorder_snapshots(n, ids.data(), recs.data(), errs.data()));
  EXPECT_EQ(nSaves, m_server.Stats().nSaves);
}

TEST_F(OrloClientTest, BadRecordsAreRefusedBeforeSending) {
  StartServer();
  ConnectToServer();
  uint32 nId = 1;
  int32 nErr = 0;
  ZD3Record r = make_int32(1, 1);
  EXPECT_EQ(ZD3_E_NULL_POINTER, sn3_save_tags_disorder_snapshots(1, nullptr, &r, &nErr));
  EXPECT_EQ(ZD3_E_NULL_POINTER, sn3_save_tags_disorder_snapshots(1, &nId, nullptr, &nErr));
  EXPECT_EQ(ZD3_E_NULL_POINTER, sn3_save_tags_disorder_snapshots(1, &nId, &r, nullptr));
  EXPECT_EQ(ZD3_E_INVALID_ARG, sn3_save_tags_disorder_snapshots(0, &nId, &r, &nErr));
  EXPECT_EQ(ZD3_E_INVALID_ARG, sn3_save_tags_disorder_snapshots(-1, &nId, &r, &nErr));
  const int32 nType8 = 8, nTypeMinus1 = -1;  // not enumerators: stored bytewise
  std::memcpy(&r.nTagType, &nType8, 4);
  EXPECT_EQ(ZD3_E_INVALID_ARG, sn3_save_tags_disorder_snapshots(1, &nId, &r, &nErr));
  std::memcpy(&r.nTagType, &nTypeMinus1, 4);
  EXPECT_EQ(ZD3_E_INVALID_ARG, sn3_save_tags_disorder_snapshots(1, &nId, &r, &nErr));
  std::string s(1001, 'a');
  r.nTagType = ZD3_TAG_TYPE_STRING;
  r.value.strBlob = {s.data(), 1001};
  EXPECT_EQ(ZD3_E_INVALID_ARG, sn3_save_tags_disorder_snapshots(1, &nId, &r, &nErr));
  r.value.strBlob = {nullptr, 1};
  EXPECT_EQ(ZD3_E_INVALID_ARG, sn3_save_tags_disorder_snapshots(1, &nId, &r, &nErr));
  EXPECT_EQ(0u, m_server.Stats().nSaves);
  EXPECT_EQ(0, SaveSeq(1, 1, 1));  // the session is untouched
}

TEST_F(OrloClientTest, PerRecordFailuresNameTheRecords) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, m_server.Control("fail-tags 5,8").rfind("ok", 0));
  std::vector<uint32> ids = {4, 5, 6, 8};
  std::vector<ZD3Record> recs = {make_int32(1, 1), make_int32(1, 2), make_int32(1, 3),
                                 make_int32(1, 4)};
  std::vector<int32> errs(4, -1);
  EXPECT_EQ(ZD3_E_SOME_RECORDS_FAILED,
            sn3_save_tags_disorder_snapshots(4, ids.data(), recs.data(), errs.data()));
  EXPECT_EQ((std::vector<int32>{0, ZD3_E_RECORD_TIMEOUT, 0, ZD3_E_RECORD_TIMEOUT}), errs);
  ASSERT_EQ(0, m_server.Control("fail-tags 4-4:119611").rfind("ok", 0));
  EXPECT_EQ(ZD3_E_SOME_RECORDS_FAILED,
            sn3_save_tags_disorder_snapshots(4, ids.data(), recs.data(), errs.data()));
  EXPECT_EQ((std::vector<int32>{ZD3_E_UNKNOWN_TAG, 0, 0, 0}), errs);
  const std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(5u, rows.size());  // 4 and 6, then 5, 6 and 8
  EXPECT_EQ(4u, rows[0].nTag);
  EXPECT_EQ(6u, rows[1].nTag);
  EXPECT_EQ(5u, rows[2].nTag);
}

TEST_F(OrloClientTest, EveryNthSaveAnswersTheInjectedCode) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, m_server.Control("fail-every 2:119632").rfind("ok", 0));
  std::vector<int32> errs;
  EXPECT_EQ(0, SaveSeq(1, 1, 2));
  EXPECT_EQ(ZD3_E_STORAGE_UNAVAILABLE, SaveSeq(1, 3, 2, &errs));
  EXPECT_EQ((std::vector<int32>{ZD3_E_STORAGE_UNAVAILABLE, ZD3_E_STORAGE_UNAVAILABLE}), errs);
  EXPECT_EQ(0, SaveSeq(1, 5, 2));
  ASSERT_EQ(0, m_server.Control("fail-every 1").rfind("ok", 0));
  EXPECT_EQ(ZD3_E_SERVER_BUSY, SaveSeq(1, 7, 1));
  EXPECT_EQ(4u, Rows().size());
}

// ---- timeouts and recovery ------------------------------------------------

TEST_F(OrloClientTest, SlowServerTimesOutAndTheNextCallRecovers) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, ut3_set_request_timeout(1));
  ASSERT_EQ(0, m_server.Control("delay 3000").rfind("ok", 0));
  const timespec t0 = now_mono();
  EXPECT_EQ(ZD3_E_REQUEST_TIMEOUT, SaveSeq(1, 1, 1));
  const double fElapsed = seconds_since(t0);
  EXPECT_GE(fElapsed, 0.9);
  EXPECT_LT(fElapsed, 2.0);
  ASSERT_EQ(0, m_server.Control("delay 0").rfind("ok", 0));
  EXPECT_EQ(0, SaveSeq(1, 2, 1));
  EXPECT_EQ(2u, m_server.Stats().nConnections);
  // The timed-out save was stored before the server's delay: a duplicate
  // if the caller sends it again, never a loss.
  EXPECT_EQ(2u, Rows().size());
}

TEST_F(OrloClientTest, ConnectionClosedMidRequestIsLostThenRecovered) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, m_server.Control("close-every 1").rfind("ok", 0));
  EXPECT_EQ(ZD3_E_CONNECTION_LOST, SaveSeq(1, 1, 1));
  ASSERT_EQ(0, m_server.Control("close-every 0").rfind("ok", 0));
  EXPECT_EQ(0, SaveSeq(1, 2, 1));
  ASSERT_EQ(1u, Rows().size());
  EXPECT_EQ(2, Rows()[0].nInt);
}

TEST_F(OrloClientTest, ServerRestartBetweenSavesNeedsNoNewConnect) {
  m_config.mapUsers["ops"] = "secret";
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, sc3_login("ops", "secret"));
  ASSERT_EQ(0, SaveSeq(9, 1, 2));
  m_server.Stop();
  StartServer();
  // The library sees the dead socket, reconnects, logs in again, then sends.
  EXPECT_EQ(0, SaveSeq(9, 3, 2));
  EXPECT_EQ(1u, m_server.Stats().nLogins);
  const std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(4u, rows.size());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(i + 1, rows[i].nInt);
}

TEST_F(OrloClientTest, RecoveryWithRefusedCredentialsIsANetworkFailure) {
  m_config.mapUsers["ops"] = "secret";
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, sc3_login("ops", "secret"));
  m_server.Stop();
  m_config.mapUsers["ops"] = "changed";
  StartServer();
  EXPECT_EQ(ZD3_E_RELOGIN_REFUSED, SaveSeq(1, 1, 1));
  EXPECT_TRUE(is_network_class(ZD3_E_RELOGIN_REFUSED));
  EXPECT_EQ(0u, m_server.Stats().nSaves);  // nothing was sent unauthenticated
}

TEST_F(OrloClientTest, OutageFailsPromptlyWithNetworkClassUntilServerReturns) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, SaveSeq(1, 1, 1));
  m_server.Stop();
  const timespec t0 = now_mono();
  const int32 nRet = SaveSeq(1, 2, 1);
  EXPECT_TRUE(is_network_class(nRet)) << nRet;
  EXPECT_LT(seconds_since(t0), 1.0);
  EXPECT_TRUE(is_network_class(SaveSeq(1, 2, 1)));
  StartServer();
  EXPECT_EQ(0, SaveSeq(1, 2, 1));
  EXPECT_EQ(2u, Rows().size());
}

TEST_F(OrloClientTest, RecoveryFallsBackToBackup) {
  StartServer();
  CRefServer backup;
  SRefServerConfig bakConfig;
  bakConfig.strDbPath = m_dir.Path("backup.db");
  ASSERT_EQ(0, backup.Start(bakConfig));
  ZD3Connection c = make_conn(m_server.Port(), backup.Port());
  ASSERT_EQ(0, nt3_connect(&c));
  ASSERT_EQ(0, SaveSeq(1, 1, 1));
  m_server.Stop();
  EXPECT_EQ(0, SaveSeq(1, 2, 1));
  EXPECT_EQ(1u, backup.Stats().nStored);
}

TEST_F(OrloClientTest, WithoutAutoRecoverABrokenSessionStaysBroken) {
  StartServer();
  ConnectToServer();
  ASSERT_EQ(0, ut3_set_api_option(0));
  m_server.Stop();
  StartServer();
  EXPECT_TRUE(is_network_class(SaveSeq(1, 1, 1)));
  EXPECT_EQ(ZD3_E_NOT_CONNECTED, SaveSeq(1, 1, 1));
  ConnectToServer();
  EXPECT_EQ(0, SaveSeq(1, 1, 1));
}

TEST_F(OrloClientTest, RefusedConnectionsAreConnectFailures) {
  m_config.faults.bRefuseConnections = true;
  StartServer();
  ZD3Connection c = make_conn(m_server.Port());
  EXPECT_EQ(ZD3_E_CONNECT_FAILED, nt3_connect(&c));
  ASSERT_EQ(0, m_server.Control("refuse-connections off").rfind("ok", 0));
  EXPECT_EQ(0, nt3_connect(&c));
}

TEST_F(OrloClientTest, DisconnectForgetsTheSession) {
  StartServer();
  ConnectToServer();
  EXPECT_EQ(0, nt3_disconnect());
  EXPECT_EQ(ZD3_E_NOT_CONNECTED, SaveSeq(1, 1, 1));
  EXPECT_EQ(0, nt3_disconnect());
}

// Calls from several threads share the one session; each thread's own
// sequence must arrive whole and in its order.
TEST_F(OrloClientTest, ConcurrentCallersShareTheSession) {
  StartServer();
  ConnectToServer();
  constexpr int kThreads = 4, kCalls = 40, kPerCall = 25;
  std::vector<std::thread> threads;
  std::vector<int32> results(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < kCalls && results[t] == 0; ++k) {
        results[t] = SaveSeq(static_cast<uint32>(t), k * kPerCall, kPerCall);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(std::vector<int32>(kThreads, 0), results);
  const std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(static_cast<size_t>(kThreads * kCalls * kPerCall), rows.size());
  std::vector<int64> next(kThreads, 0);
  for (const SStoredRow& r : rows) {
    ASSERT_LT(r.nTag, static_cast<uint32>(kThreads));
    ASSERT_EQ(next[r.nTag], r.nInt);
    ++next[r.nTag];
  }
}

}  // namespace
