// End to end: the real zdBuffer between zdcollect and zdrefserver, each a
// process of its own, on loopback. Every test builds its own scratch tree
// (bin/ as the working directory, config/, cache/, log/) with a unique
// instance name, so tests run in parallel; each is bounded in time.
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_process.h"
#include "proccomm.h"
#include "zdos.h"

using e2e::CProcess;
using e2e::CScratchDir;
using e2e::FileSize;
using e2e::NowMs;
using e2e::ReadFile;
using e2e::RunToEnd;
using e2e::WaitFor;
using e2e::WriteFile;

namespace {

constexpr int kServiceUpMs = 5000;    // banner after start
constexpr int kServiceStopMs = 3000;  // exit after "q" or SIGTERM (2 s promised)

class E2ETest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(ZDBUFFER_PATH).empty()) GTEST_SKIP() << "zdBuffer is not built in this tree";
    static int s_nSeq = 0;
    m_szName = "e2e" + std::to_string(getpid()) + "_" + std::to_string(s_nSeq++);
    for (const char* szSub : {"bin", "config", "cache", "log"})
      ASSERT_EQ(0, mkdir((m_dir / szSub).c_str(), 0755));
    WriteConfig(m_szName);
    WriteFile(m_dir / "config/LogClient.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<LogClient threshold=\"INFO\">\n"
              "  <Category name=\"Zandor.Buffer\" threshold=\"INFO\"/>\n"
              "  <FileAppender enabled=\"true\" path=\"../log/zdBuffer.log\" maxSizeMb=\"16\" "
              "maxFiles=\"2\"/>\n"
              "  <ConsoleAppender enabled=\"true\"/>\n"
              "</LogClient>\n");
    m_nStartMs = NowMs();
  }
  void TearDown() override {
    // Processes first (their destructors kill), then what a killed service
    // leaves in /dev/shm.
    m_collector.Kill(SIGKILL);
    for (CProcess& p : m_services) p.Kill(SIGKILL);
    for (CProcess& p : m_servers) p.Kill(SIGKILL);
    unlink(("/dev/shm/zdpcm." + m_szName).c_str());
    unlink(("/dev/shm/" + m_szName + "_sema.lock").c_str());
    if (HasFailure()) {
      std::string szLog = Log();
      if (szLog.size() > 20000) szLog = "..." + szLog.substr(szLog.size() - 20000);
      fprintf(stderr, "---- service log (%s) ----\n%s\n", m_dir.Path().c_str(), szLog.c_str());
      for (CProcess& p : m_services)
        fprintf(stderr, "---- service stdout ----\n%s\n", p.Out().c_str());
    }
    if (!IsSkipped()) {
      EXPECT_LT(NowMs() - m_nStartMs, 30000) << "an end-to-end test must stay under 30 s";
    }
  }

  void WriteConfig(const std::string& szName) {
    WriteFile(m_dir / "config/ZD3Buffer.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<Buffer version=\"1.0.0\" name=\"" +
                  szName +
                  "\" memsizemb=\"16\">\n"
                  "  <CacheFile Path=\"../cache/\" Prefix=\"e2e\" SizeMb=\"32\"/>\n"
                  "  <Send PeriodMs=\"100\" ConnTimeOutSec=\"1\" SendTimeOutSec=\"3\"/>\n"
                  "</Buffer>\n");
  }

  // Starts a reference server on nPort (0: any) and returns its data port,
  // or 0 when it did not come up.
  int StartServer(int nPort = 0, std::vector<std::string> extra = {},
                  const std::string& szDb = "") {
    m_servers.emplace_back();
    CProcess& p = m_servers.back();
    std::string szOut = m_dir / ("server" + std::to_string(m_servers.size()) + ".out");
    std::vector<std::string> argv = {ZDREFSERVER_PATH, "serve",
                                     "--db",           szDb.empty() ? m_dir / "db.sqlite" : szDb,
                                     "--port",         std::to_string(nPort),
                                     "--control-port", "0",
                                     "--quiet"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    if (!p.Start(argv, szOut, m_dir / "server.err")) return 0;
    int nListen = 0;
    WaitFor(
        [&] {
          std::string s = ReadFile(szOut);
          size_t n = s.find("LISTEN ");
          size_t c = s.find("CONTROL ");
          if (n == std::string::npos || c == std::string::npos) return false;
          nListen = atoi(s.c_str() + n + 7);
          m_nControlPort = atoi(s.c_str() + c + 8);
          return true;
        },
        5000);
    return nListen;
  }
  // Kills the last server with nSig and reaps it.
  void KillServer(int nSig) { m_servers.back().Kill(nSig); }

  CProcess& StartService() {
    m_services.emplace_back();
    CProcess& p = m_services.back();
    std::string szTag = std::to_string(m_services.size());
    EXPECT_TRUE(p.Start({ZDBUFFER_PATH}, m_dir / ("service" + szTag + ".out"),
                        m_dir / ("service" + szTag + ".err"), m_dir / "bin", true));
    return p;
  }
  bool WaitBanner(CProcess& p) {
    return WaitFor([&] { return p.Out().find("Q/q: Quit") != std::string::npos || !p.Running(); },
                   kServiceUpMs) &&
           p.Out().find("Q/q: Quit") != std::string::npos;
  }
  CProcess& StartServiceUp() {
    CProcess& p = StartService();
    EXPECT_TRUE(WaitBanner(p)) << p.Out() << p.Err();
    return p;
  }
  void StopService(CProcess& p) {
    int64_t nStart = NowMs();
    p.Write("q\n");
    EXPECT_EQ(0, p.Wait(kServiceStopMs)) << "the service did not stop on q";
    EXPECT_LT(NowMs() - nStart, kServiceStopMs);
  }

  std::vector<std::string> Collect(int nPort, std::initializer_list<std::string> extra) {
    std::vector<std::string> argv = {ZDCOLLECT_PATH, "-q", "-i",
                                     m_szName,       "-s", "127.0.0.1:" + std::to_string(nPort)};
    argv.insert(argv.end(), extra);
    return argv;
  }
  int RunCollect(int nPort, std::initializer_list<std::string> extra, int nTimeoutMs = 20000,
                 std::string* pOut = nullptr) {
    std::string szErr;
    int nRet = RunToEnd(Collect(nPort, extra), m_dir.Path(), nTimeoutMs, pOut, &szErr);
    m_szLastCollectErr = szErr;
    return nRet;
  }
  int32 AnnounceQueue(int nPort, const std::string& szIP = "127.0.0.1") {
    std::string szOut, szErr;
    std::vector<std::string> argv = {ZDCOLLECT_PATH,   "-q", "-i",
                                     m_szName,         "-s", szIP + ":" + std::to_string(nPort),
                                     "--announce-only"};
    if (RunToEnd(argv, m_dir.Path(), 10000, &szOut, &szErr) != 0) return -1;
    return szOut.rfind("QUEUE ", 0) == 0 ? atoi(szOut.c_str() + 6) : -1;
  }

  // zdrefserver report over tags 1..nTags and values 1..nLast: its exit
  // status (0: nothing lost, nothing out of order); the summary in *pSummary.
  int Report(int nTags, int nLast, std::string* pSummary = nullptr, const std::string& szDb = "") {
    std::string szErr;
    int nRet = RunToEnd(
        {ZDREFSERVER_PATH, "report", "--db", szDb.empty() ? m_dir / "db.sqlite" : szDb, "--tags",
         "1-" + std::to_string(nTags), "--first", "1", "--last", std::to_string(nLast)},
        m_dir.Path(), 10000, nullptr, &szErr);
    if (pSummary != nullptr) *pSummary = szErr;
    return nRet;
  }
  // One row of the report per tag: received, duplicates, out_of_order,
  // missing (of 1..nLast) and the greatest value.
  struct STagRow {
    long nReceived = -1, nDuplicates = -1, nOutOfOrder = -1, nMissing = -1, nMax = -1;
  };
  std::map<int, STagRow> ReportRows(int nTags, int nLast) {
    std::string szOut;
    RunToEnd({ZDREFSERVER_PATH, "report", "--db", m_dir / "db.sqlite", "--tags",
              "1-" + std::to_string(nTags), "--first", "1", "--last", std::to_string(nLast)},
             m_dir.Path(), 10000, &szOut);
    std::map<int, STagRow> rows;
    std::istringstream in(szOut);
    std::string szLine;
    while (std::getline(in, szLine)) {
      // tag,received,distinct,duplicates,out_of_order,missing,unexpected,not_sequence,min,max
      long v[10];
      if (sscanf(szLine.c_str(), "%ld,%ld,%ld,%ld,%ld,%ld,%ld,%ld,%ld,%ld", &v[0], &v[1], &v[2],
                 &v[3], &v[4], &v[5], &v[6], &v[7], &v[8], &v[9]) == 10)
        rows[static_cast<int>(v[0])] = {v[1], v[3], v[4], v[5], v[9]};
    }
    return rows;
  }
  bool WaitReport(int nTags, int nLast, int nTimeoutMs, const std::string& szDb = "") {
    return WaitFor([&] { return Report(nTags, nLast, nullptr, szDb) == 0; }, nTimeoutMs);
  }
  std::string Dump() {
    std::string szOut;
    RunToEnd({ZDREFSERVER_PATH, "dump", "--db", m_dir / "db.sqlite"}, m_dir.Path(), 10000, &szOut);
    return szOut;
  }
  // Rows stored by the server (the dump's lines without its header).
  int DumpRows() {
    std::string s = Dump();
    int n = 0;
    for (char c : s) n += c == '\n';
    return n > 0 ? n - 1 : 0;
  }
  std::string ServerCtl(const std::string& szCommand) {
    std::string szOut;
    RunToEnd({ZDREFSERVER_PATH, "ctl", "--control-port", std::to_string(m_nControlPort), szCommand},
             m_dir.Path(), 5000, &szOut);
    return szOut;
  }
  // The log as the services wrote it to standard error: the console appender
  // writes every line at once, the file appender only flushes on warnings.
  std::string Log() {
    std::string s;
    for (CProcess& p : m_services) s += p.Err();
    return s;
  }
  bool LogHas(const std::string& szText) { return Log().find(szText) != std::string::npos; }
  bool WaitLog(const std::string& szText, int nTimeoutMs) {
    return WaitFor([&] { return LogHas(szText); }, nTimeoutMs);
  }
  std::string CacheFile() { return m_dir / "cache/e2e_buffer.buf"; }

  std::string m_szName;
  CScratchDir m_dir{"e2e"};
  std::deque<CProcess> m_services;
  std::deque<CProcess> m_servers;
  CProcess m_collector;
  int m_nControlPort = 0;
  int64_t m_nStartMs = 0;
  std::string m_szLastCollectErr;
};

// Records of every type go through with their exact values; a synthetic
// stream arrives complete and in order with no duplicate.
TEST_F(E2ETest, ForwardsExactValuesToTheServer) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  CProcess& service = StartServiceUp();
  ASSERT_EQ(0, RunCollect(nPort, {"-t", "5", "-m", "400", "-r", "0", "-n", "50"}))
      << m_szLastCollectErr;
  ASSERT_TRUE(WaitReport(5, 400, 10000));
  std::string szSummary;
  EXPECT_EQ(0, Report(5, 400, &szSummary));
  EXPECT_NE(std::string::npos, szSummary.find("lost 0, out of order 0, duplicates 0")) << szSummary;

  WriteFile(m_dir / "in.csv",
            "101,1700000000,250,192,int32,100\n"
            "102,1700000001,1,0,int8,-5\n"
            "103,1700000002,2,1,int16,-300\n"
            "104,1700000003,3,2,float32,0.5\n"
            "105,1700000004,4,3,float64,2.25\n"
            "106,1700000005,5,4,digital,1\n"
            "107,1700000006,6,5,string,\"a,\"\"b\"\n"
            "108,1700000007,7,6,blob,x00ff10\n"
            "109,1700000008,999,192,string,\n");
  ASSERT_EQ(0, RunCollect(nPort, {"--csv", m_dir / "in.csv", "-n", "4"})) << m_szLastCollectErr;
  ASSERT_TRUE(WaitFor([&] { return DumpRows() == 2000 + 9; }, 10000)) << Dump();
  std::string szDump = Dump();
  for (const char* szRow : {",101,1700000000,250,192,2,100\n", ",102,1700000001,1,0,0,-5\n",
                            ",103,1700000002,2,1,1,-300\n", ",104,1700000003,3,2,3,0.5\n",
                            ",105,1700000004,4,3,4,2.25\n", ",106,1700000005,5,4,5,1\n",
                            ",107,1700000006,6,5,6,\"a,\"\"b\"\n",
                            ",108,1700000007,7,6,7,x00ff10\n", ",109,1700000008,999,192,6,\"\"\n"})
    EXPECT_NE(std::string::npos, szDump.find(szRow)) << szRow << " not in the dump";
  StopService(service);
}

// The server is down when the records are sent: they wait in the cache file
// and arrive once it starts.
TEST_F(E2ETest, ServerDownAtStartRecordsArriveWhenItComesUp) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  KillServer(SIGTERM);  // keep its port, free now
  CProcess& service = StartServiceUp();
  ASSERT_EQ(0, RunCollect(nPort, {"-t", "5", "-m", "300", "-r", "3000", "-n", "25"}))
      << m_szLastCollectErr;
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(0, DumpRows()) << "nothing can have arrived yet";
  ASSERT_EQ(nPort, StartServer(nPort));
  EXPECT_TRUE(WaitReport(5, 300, 15000));
  std::string szSummary;
  EXPECT_EQ(0, Report(5, 300, &szSummary)) << szSummary;
  StopService(service);
}

// The server is killed mid-stream and restarted on the same port and
// database: batches go to the cache file meanwhile; nothing is lost and
// every tag's values arrive in order.
TEST_F(E2ETest, OutageMidStreamLosesNothingAndKeepsOrder) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  CProcess& service = StartServiceUp();
  ASSERT_TRUE(m_collector.Start(Collect(nPort, {"-t", "10", "-m", "500", "-r", "2000", "-n", "20"}),
                                m_dir / "collector.out", m_dir / "collector.err"));
  ASSERT_TRUE(WaitFor([&] { return DumpRows() >= 500; }, 5000)) << "no record arrived";
  int64_t nCacheBefore = FileSize(CacheFile());
  KillServer(SIGKILL);
  ASSERT_TRUE(WaitFor([&] { return FileSize(CacheFile()) > nCacheBefore; }, 5000))
      << "nothing went to the cache file during the outage";
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_EQ(nPort, StartServer(nPort));
  EXPECT_EQ(0, m_collector.Wait(15000)) << m_collector.Err();
  EXPECT_TRUE(WaitReport(10, 500, 15000));
  std::string szSummary;
  EXPECT_EQ(0, Report(10, 500, &szSummary)) << szSummary;
  EXPECT_NE(std::string::npos, szSummary.find("lost 0, out of order 0")) << szSummary;
  StopService(service);
}

// The service dies by SIGKILL while batches wait in its cache file. A new
// service on the same tree takes the guard again; the collector that was
// streaming meanwhile re-attaches and announces again, and the backlog is
// delivered.
TEST_F(E2ETest, ServiceKilledWithCachedBatchesDeliversThemAfterRestart) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  StartServiceUp();
  ASSERT_GT(AnnounceQueue(nPort), 0);  // the handler connects and registers its entry
  ASSERT_TRUE(WaitLog("Connect 0", 5000)) << Log();
  KillServer(SIGKILL);
  int64_t nCacheBefore = FileSize(CacheFile());
  // One burst (220 KB) within one send period: its delivery fails and the
  // whole send buffer goes to the cache file.
  ASSERT_EQ(0, RunCollect(nPort,
                          {"-t", "5", "-m", "2000", "-r", "0", "-n", "200", "--wait-drained", "5"}))
      << m_szLastCollectErr;
  ASSERT_TRUE(WaitFor([&] { return FileSize(CacheFile()) >= nCacheBefore + 200000; }, 8000))
      << "cache file " << FileSize(CacheFile());
  // A second collector keeps streaming other tags across the restart.
  ASSERT_TRUE(m_collector.Start(Collect(nPort, {"--first-tag", "6", "-t", "2", "-m", "300", "-r",
                                                "200", "-n", "10", "--reattach-wait", "20"}),
                                m_dir / "collector.out", m_dir / "collector.err"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  m_services.back().Kill(SIGKILL);

  ASSERT_EQ(nPort, StartServer(nPort));
  CProcess& second = StartServiceUp();  // the guard of the killed one is free
  auto backlogDelivered = [&] {
    auto rows = ReportRows(5, 2000);
    for (int nTag = 1; nTag <= 5; ++nTag)
      if (rows[nTag].nMissing != 0) return false;
    return true;
  };
  EXPECT_TRUE(WaitFor(backlogDelivered, 15000)) << "the cached backlog was not delivered";
  EXPECT_EQ(0, m_collector.Wait(10000)) << m_collector.Err();
  EXPECT_NE(std::string::npos, m_collector.Err().find("re-attaches 1")) << m_collector.Err();
  // The cached tags: complete and in order. The streaming tags: in order,
  // and their last values arrived through the new service (what sat in the
  // killed service's memory is gone with it).
  ASSERT_TRUE(WaitFor([&] { return ReportRows(7, 2000)[7].nMax == 300; }, 5000));
  auto rows = ReportRows(7, 2000);
  for (int nTag = 1; nTag <= 7; ++nTag) {
    EXPECT_EQ(0, rows[nTag].nOutOfOrder) << "tag " << nTag;
    if (nTag <= 5) {
      EXPECT_EQ(0, rows[nTag].nMissing) << "tag " << nTag;
    } else {
      EXPECT_EQ(300, rows[nTag].nMax) << "tag " << nTag;
    }
  }
  StopService(second);
}

// A second service on the same configuration is refused by the guard while
// the first keeps running; once the first is killed, a new one starts.
TEST_F(E2ETest, SecondInstanceIsRefusedAndTheGuardIsReacquiredAfterAKill) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  CProcess& first = StartServiceUp();
  CProcess& second = StartService();
  EXPECT_EQ(OS_ESEMA_BUSY & 0xff, second.Wait(5000));
  EXPECT_NE(std::string::npos, second.Out().find("Buffer init failed")) << second.Out();
  EXPECT_TRUE(first.Running());
  ASSERT_EQ(0, RunCollect(nPort, {"-t", "2", "-m", "100", "-r", "0"})) << m_szLastCollectErr;
  EXPECT_TRUE(WaitReport(2, 100, 10000));

  first.Kill(SIGKILL);
  CProcess& third = StartServiceUp();
  EXPECT_TRUE(third.Running());
  EXPECT_GT(AnnounceQueue(nPort), 0);
  StopService(third);
}

// An announcement of another address replaces the data handler and keeps
// its queue; the records then go to the new server.
TEST_F(E2ETest, NewAddressReplacesTheHandlerAndKeepsTheQueueId) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  int nPortB = StartServer(0, {"--listen", "127.0.0.2"}, m_dir / "db_b.sqlite");
  ASSERT_NE(0, nPortB);
  CProcess& service = StartServiceUp();
  int32 nQueue = AnnounceQueue(nPort);
  ASSERT_GT(nQueue, 1);
  EXPECT_EQ(nQueue, AnnounceQueue(nPort));  // same address: the same handler
  EXPECT_EQ(nQueue, AnnounceQueue(nPortB, "127.0.0.2"));
  EXPECT_TRUE(WaitLog("data handler ip changed old ip:127.0.0.1 new ip 127.0.0.2", 3000)) << Log();
  std::string szErr;
  ASSERT_EQ(0, RunToEnd({ZDCOLLECT_PATH, "-q", "-i", m_szName, "-s",
                         "127.0.0.2:" + std::to_string(nPortB), "-t", "3", "-m", "100", "-r", "0"},
                        m_dir.Path(), 10000, nullptr, &szErr))
      << szErr;
  EXPECT_TRUE(WaitReport(3, 100, 10000, m_dir / "db_b.sqlite"));
  StopService(service);
}

// Credentials sent before any announcement are dropped: the handler created
// afterwards has none, skips the log-in, and the server refuses its saves.
// In the right order (announce, then log in) the same credentials work.
TEST_F(E2ETest, LoginBeforeInitHasNoEffect) {
  int nPort = StartServer(0, {"--user", "alice:pw"});
  ASSERT_NE(0, nPort);
  CProcess& service = StartServiceUp();
  ASSERT_EQ(0, RunCollect(nPort, {"--login-only", "-u", "alice", "-p", "pw"}));
  ASSERT_TRUE(WaitLog("recv cmd login user:alice", 3000)) << Log();
  ASSERT_EQ(0, RunCollect(nPort, {"-t", "2", "-m", "50", "-r", "0"})) << m_szLastCollectErr;
  ASSERT_TRUE(WaitLog("login, user  nRet 0", 5000)) << Log();  // no credentials: no log-in
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(0, DumpRows()) << "stored without a login:\n" << Dump();
  EXPECT_NE(std::string::npos, ServerCtl("stats").find(" logins=0 ")) << ServerCtl("stats");
  StopService(service);

  CProcess& again = StartServiceUp();
  ASSERT_EQ(0, RunCollect(nPort, {"-u", "alice", "-p", "pw", "-t", "2", "-m", "50", "-r", "0"}))
      << m_szLastCollectErr;
  EXPECT_TRUE(WaitReport(2, 50, 10000));
  EXPECT_TRUE(LogHas("login, user alice nRet 0")) << Log();
  StopService(again);
}

// An unknown command is logged and the next message is served; an init
// message of 41 bytes ends the control thread, yet the service still stops
// cleanly on "q".
TEST_F(E2ETest, BadControlMessagesEndOnlyWhatTheyShould) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  CProcess& service = StartServiceUp();
  ASSERT_EQ(0, RunCollect(nPort, {"--raw-command", "7"}));
  EXPECT_TRUE(WaitLog("invalid cmd type 7", 3000)) << Log();
  EXPECT_GT(AnnounceQueue(nPort), 1);
  ASSERT_EQ(0, RunCollect(nPort, {"--raw-init-len", "41"}));
  EXPECT_TRUE(WaitLog("APIConnector proccomm recv invalid msg len", 3000)) << Log();
  EXPECT_EQ(1, RunCollect(nPort, {"--announce-only", "--init-timeout", "500"}));
  EXPECT_NE(std::string::npos, m_szLastCollectErr.find("no init reply")) << m_szLastCollectErr;
  EXPECT_TRUE(service.Running());
  StopService(service);
}

// A stop at once after the banner, while the control thread may still be
// attaching to its queue, ends the service as cleanly as a late one (it
// once hung in the join of a control thread that attached after Stop).
TEST_F(E2ETest, StopRightAfterStartUpIsClean) {
  for (int i = 0; i < 6; ++i) {
    CProcess& service = StartServiceUp();
    int64_t nStart = NowMs();
    if (i % 2 == 0)
      service.Signal(SIGTERM);
    else
      service.Write("q\n");
    EXPECT_EQ(0, service.Wait(kServiceStopMs)) << "round " << i;
    EXPECT_LT(NowMs() - nStart, kServiceStopMs) << "round " << i;
    if (HasFailure()) break;
  }
}

// SIGTERM stops the service as "q" does, forwarding handler included.
TEST_F(E2ETest, SigtermStopsTheServiceCleanly) {
  int nPort = StartServer();
  ASSERT_NE(0, nPort);
  CProcess& service = StartServiceUp();
  ASSERT_EQ(0, RunCollect(nPort, {"-t", "2", "-m", "50", "-r", "0"})) << m_szLastCollectErr;
  int64_t nStart = NowMs();
  service.Signal(SIGTERM);
  EXPECT_EQ(0, service.Wait(kServiceStopMs));
  EXPECT_LT(NowMs() - nStart, kServiceStopMs);
  ProcCommHandle h = nullptr;
  EXPECT_EQ(EC_RD_PROCCOMM_GONE, proccomm_attach(m_szName.c_str(), &h));
}

}  // namespace
