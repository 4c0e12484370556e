// The wire format, the reference server's handling of hostile frames, the
// client's handling of a hostile server, the report, and the program itself.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "orlo_test_util.h"
#include "refreport.h"
#include "refserver.h"
#include "refstore.h"
#include "zdorlo_api.h"
#include "zdorlo_wire.h"

using namespace zdorlo;

namespace {

// ---- byte layout ----------------------------------------------------------

TEST(OrloWireTest, RecordBytesAreLittleEndianAndCompact) {
  ZD3Record r = make_int32(1700000000, 100);
  uint8 a[32];
  uint8* pEnd = wire_put_record(a, 7, r);
  const std::vector<uint8> expected = {0x07, 0x00, 0x00, 0x00, 0x00, 0xf1, 0x53, 0x65, 0xfa,
                                       0x00, 0xc0, 0x00, 0x02, 0x64, 0x00, 0x00, 0x00};
  ASSERT_EQ(expected.size(), static_cast<size_t>(pEnd - a));
  EXPECT_EQ(expected, std::vector<uint8>(a, pEnd));

  char szAbc[] = "abc";
  r.nTagType = ZD3_TAG_TYPE_STRING;
  r.value.strBlob = {szAbc, 3};
  pEnd = wire_put_record(a, 9, r);
  ASSERT_EQ(kRecordFixedSize + 5, static_cast<size_t>(pEnd - a));
  EXPECT_EQ((std::vector<uint8>{0x06, 0x03, 0x00, 'a', 'b', 'c'}),
            std::vector<uint8>(a + 12, pEnd));
}

TEST(OrloWireTest, DecoderRejectsTruncationBadTypesAndLongStrings) {
  ZD3Record r = make_int32(1, -2);
  uint8 a[2048];
  const size_t n = static_cast<size_t>(wire_put_record(a, 3, r) - a);
  SWireRecord w;
  ASSERT_EQ(n, wire_get_record(a, n, &w));
  EXPECT_EQ(-2, w.nInt);
  for (size_t k = 0; k < n; ++k) EXPECT_EQ(0u, wire_get_record(a, k, &w)) << k;
  a[12] = 8;
  EXPECT_EQ(0u, wire_get_record(a, n, &w));
  a[12] = ZD3_TAG_TYPE_BLOB;
  put_u16(a + 13, 1000);
  EXPECT_EQ(kRecordFixedSize + 1002, wire_get_record(a, sizeof(a), &w));
  EXPECT_EQ(0u, wire_get_record(a, kRecordFixedSize + 1001, &w));
  put_u16(a + 13, 1001);
  EXPECT_EQ(0u, wire_get_record(a, sizeof(a), &w));
}

// ---- the server against hand-made frames ----------------------------------

class CRawClient {
 public:
  explicit CRawClient(uint16 nPort) {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(nPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval tv{3, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    m_bOk = connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
  }
  ~CRawClient() { close(m_fd); }
  CRawClient(const CRawClient&) = delete;
  CRawClient& operator=(const CRawClient&) = delete;

  bool Ok() const { return m_bOk; }
  void Send(uint16 nType, const std::vector<uint8>& body, uint32 nLength = 0) {
    std::vector<uint8> f(kFrameHeaderSize);
    wire_put_header(
        f.data(),
        SFrameHeader{nLength ? nLength : static_cast<uint32>(12 + body.size()), nType, 0, ++m_nId});
    f.insert(f.end(), body.begin(), body.end());
    ASSERT_EQ(static_cast<ssize_t>(f.size()), send(m_fd, f.data(), f.size(), MSG_NOSIGNAL));
  }
  // Reads one reply frame; false on end of stream or timeout.
  bool Recv(SFrameHeader* pH, std::vector<uint8>* pBody) {
    uint8 h[kFrameHeaderSize];
    if (!RecvAll(h, sizeof(h))) return false;
    *pH = wire_get_header(h);
    pBody->resize(pH->nLength - kFrameHeaderSize);
    return RecvAll(pBody->data(), pBody->size());
  }
  bool Hello(uint16 nVersion = kWireVersion) {
    std::vector<uint8> b(8);
    put_u32(b.data(), kWireMagic);
    put_u16(b.data() + 4, nVersion);
    Send(kWireHello, b);
    SFrameHeader h;
    std::vector<uint8> r;
    return Recv(&h, &r) && r.size() == 12 && get_u32(r.data()) == 0;
  }
  // Status of the reply to a save with this body; -1 when none came.
  int64 Save(const std::vector<uint8>& body) {
    Send(kWireSave, body);
    SFrameHeader h;
    std::vector<uint8> r;
    if (!Recv(&h, &r) || r.size() < 8 || h.nRequestId != m_nId) return -1;
    return static_cast<int32>(get_u32(r.data()));
  }
  bool ClosedByPeer() {
    uint8 c;
    return recv(m_fd, &c, 1, 0) == 0;
  }

 private:
  bool RecvAll(uint8* p, size_t n) {
    while (n > 0) {
      const ssize_t k = recv(m_fd, p, n, 0);
      if (k <= 0) return false;
      p += k;
      n -= static_cast<size_t>(k);
    }
    return true;
  }
  int m_fd = -1;
  bool m_bOk = false;
  uint32 m_nId = 0;
};

std::vector<uint8> save_body(const std::vector<ZD3Record>& recs, uint32 nCount = 0) {
  std::vector<uint8> b(4 + recs.size() * (kRecordFixedSize + 1002));
  put_u32(b.data(), nCount ? nCount : static_cast<uint32>(recs.size()));
  uint8* p = b.data() + 4;
  for (const ZD3Record& r : recs) p = wire_put_record(p, 1, r);
  b.resize(static_cast<size_t>(p - b.data()));
  return b;
}

class OrloServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_config.strDbPath = m_dir.Path("s.db");
    ASSERT_EQ(0, m_server.Start(m_config));
  }
  CScratchDir m_dir;
  SRefServerConfig m_config;
  CRefServer m_server;
};

TEST_F(OrloServerTest, MalformedSavesAreRefusedAndTheConnectionStaysUsable) {
  CRawClient c(m_server.Port());
  ASSERT_TRUE(c.Ok());
  ASSERT_TRUE(c.Hello());
  const std::vector<ZD3Record> two = {make_int32(1, 1), make_int32(1, 2)};
  EXPECT_EQ(ZD3_E_BAD_REQUEST, c.Save(save_body(two, 3)));  // count beyond the bytes
  EXPECT_EQ(ZD3_E_BAD_REQUEST, c.Save(save_body(two, 0xffffffffu)));
  std::vector<uint8> b = save_body(two);
  b.push_back(0);  // trailing byte
  EXPECT_EQ(ZD3_E_BAD_REQUEST, c.Save(b));
  b = save_body(two);
  b[4 + 12] = 9;  // type of the first record
  EXPECT_EQ(ZD3_E_BAD_REQUEST, c.Save(b));
  EXPECT_EQ(ZD3_E_BAD_REQUEST, c.Save(std::vector<uint8>{0, 0, 0, 0}));  // count 0
  EXPECT_EQ(ZD3_E_BAD_REQUEST, c.Save(std::vector<uint8>{1, 0}));        // no count
  EXPECT_EQ(0u, m_server.Stats().nStored);
  EXPECT_EQ(0, c.Save(save_body(two)));
  EXPECT_EQ(2u, m_server.Stats().nStored);
}

TEST_F(OrloServerTest, HostileFramingClosesTheConnectionOnly) {
  {
    CRawClient c(m_server.Port());
    c.Send(kWireSave, save_body({make_int32(1, 1)}));  // no greeting first
    EXPECT_TRUE(c.ClosedByPeer());
  }
  {
    CRawClient c(m_server.Port());
    ASSERT_TRUE(c.Hello());
    c.Send(kWireSave, {}, kMaxFrameSize + 1);  // announced length beyond the limit
    EXPECT_TRUE(c.ClosedByPeer());
  }
  {
    CRawClient c(m_server.Port());
    ASSERT_TRUE(c.Hello());
    c.Send(kWireSave, {}, 5);  // shorter than a header
    EXPECT_TRUE(c.ClosedByPeer());
  }
  {
    CRawClient c(m_server.Port());
    ASSERT_TRUE(c.Hello());
    c.Send(77, {});
    EXPECT_TRUE(c.ClosedByPeer());
  }
  {
    CRawClient c(m_server.Port());
    EXPECT_FALSE(c.Hello(2));  // answered with the version error, then closed
    EXPECT_TRUE(c.ClosedByPeer());
  }
  CRawClient c(m_server.Port());
  ASSERT_TRUE(c.Hello());
  EXPECT_EQ(0, c.Save(save_body({make_int32(1, 1)})));
}

TEST_F(OrloServerTest, ControlGrammarRejectsBadArguments) {
  for (const char* sz :
       {"delay", "delay -1", "delay 3600001", "fail-every x", "fail-every 2:0", "fail-every 2:abc",
        "fail-tags", "fail-tags 5-3", "fail-tags 1,,2", "fail-tags 0-2000000",
        "refuse-logins maybe", "close-every 1 2", "unknown"}) {
    EXPECT_EQ(0u, m_server.Control(sz).rfind("error", 0)) << sz;
  }
  EXPECT_EQ(
      "ok refuse-connections=on refuse-logins=off fail-every=3:110707 fail-tags=5:119612 "
      "delay=0 close-every=0",
      (m_server.Control("fail-every 3"), m_server.Control("fail-tags 1-3,7,9:119612"),
       m_server.Control("refuse-connections on")));
  EXPECT_EQ(
      "ok refuse-connections=off refuse-logins=off fail-every=0:110707 fail-tags=0:110350 "
      "delay=0 close-every=0",
      m_server.Control("reset"));
}

TEST_F(OrloServerTest, ControlPortAnswersLineByLine) {
  m_server.Stop();
  m_config.nControlPort = 0;
  ASSERT_EQ(0, m_server.Start(m_config));
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(m_server.ControlPort());
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
  const char szCmds[] = "ping\ndelay 5\n";
  ASSERT_EQ(static_cast<ssize_t>(sizeof(szCmds) - 1), send(fd, szCmds, sizeof(szCmds) - 1, 0));
  std::string strIn;
  char aBuf[256];
  while (std::count(strIn.begin(), strIn.end(), '\n') < 2) {
    const ssize_t n = recv(fd, aBuf, sizeof(aBuf), 0);
    ASSERT_GT(n, 0);
    strIn.append(aBuf, static_cast<size_t>(n));
  }
  close(fd);
  EXPECT_EQ(0u, strIn.find("ok\nok "));
  EXPECT_EQ(5u, m_server.Faults().nDelayMs);
}

// ---- the client against a hostile server ----------------------------------

// Answers the greeting properly, then sends whatever frame pfnReply makes
// for the first save.
class CFakeServer {
 public:
  explicit CFakeServer(std::vector<uint8> (*pfnReply)(const SFrameHeader&)) : m_pfn(pfnReply) {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof(a);
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    listen(m_fd, 4);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &n);
    m_nPort = ntohs(a.sin_port);
    m_thread = std::thread([this] { Run(); });
  }
  ~CFakeServer() {
    shutdown(m_fd, SHUT_RDWR);
    m_thread.join();
    close(m_fd);
  }
  CFakeServer(const CFakeServer&) = delete;
  CFakeServer& operator=(const CFakeServer&) = delete;
  uint16 Port() const { return m_nPort; }

 private:
  void Run() {
    const int c = accept(m_fd, nullptr, nullptr);
    if (c < 0) return;
    for (int k = 0; k < 2; ++k) {
      uint8 h[kFrameHeaderSize];
      if (recv(c, h, sizeof(h), MSG_WAITALL) != sizeof(h)) break;
      const SFrameHeader hdr = wire_get_header(h);
      std::vector<uint8> body(hdr.nLength - kFrameHeaderSize);
      if (!body.empty() && recv(c, body.data(), body.size(), MSG_WAITALL) <= 0) break;
      std::vector<uint8> r;
      if (k == 0) {
        r.resize(kFrameHeaderSize + 12, 0);
        wire_put_header(r.data(), SFrameHeader{24, kWireHello | kWireReplyBit, 0, hdr.nRequestId});
        put_u16(r.data() + 16, kWireVersion);
      } else {
        r = m_pfn(hdr);
      }
      send(c, r.data(), r.size(), MSG_NOSIGNAL);
    }
    uint8 c1;
    recv(c, &c1, 1, 0);  // until the client closes
    close(c);
  }
  std::vector<uint8> (*m_pfn)(const SFrameHeader&);
  int m_fd = -1;
  uint16 m_nPort = 0;
  std::thread m_thread;
};

std::vector<uint8> reply_frame(uint32 nLength, uint16 nType, uint32 nId, std::vector<uint8> body) {
  std::vector<uint8> r(kFrameHeaderSize + body.size());
  wire_put_header(r.data(), SFrameHeader{nLength, nType, 0, nId});
  std::copy(body.begin(), body.end(), r.begin() + kFrameHeaderSize);
  return r;
}

int32 save_two_against(std::vector<uint8> (*pfn)(const SFrameHeader&), std::vector<int32>* pErrs) {
  CFakeServer fake(pfn);
  ZD3Connection c = make_conn(fake.Port());
  EXPECT_EQ(0, ut3_set_request_timeout(2));
  if (nt3_connect(&c) != 0) return -1;
  std::vector<uint32> ids = {1, 2};
  std::vector<ZD3Record> recs = {make_int32(1, 1), make_int32(1, 2)};
  pErrs->assign(2, -1);
  const int32 nRet = sn3_save_tags_disorder_snapshots(2, ids.data(), recs.data(), pErrs->data());
  nt3_disconnect();
  return nRet;
}

TEST(OrloClientProtocolTest, LengthsAndIndexesFromTheWireAreNotTrusted) {
  std::vector<int32> errs;
  // A reply longer than any save reply could be.
  EXPECT_EQ(ZD3_E_PROTOCOL, save_two_against(
                                [](const SFrameHeader& h) {
                                  return reply_frame(0xfffffff0u, kWireSave | kWireReplyBit,
                                                     h.nRequestId, {});
                                },
                                &errs));
  EXPECT_EQ(std::vector<int32>(2, ZD3_E_PROTOCOL), errs);
  // Someone else's request id.
  EXPECT_EQ(ZD3_E_PROTOCOL, save_two_against(
                                [](const SFrameHeader& h) {
                                  return reply_frame(20, kWireSave | kWireReplyBit,
                                                     h.nRequestId + 1, std::vector<uint8>(8, 0));
                                },
                                &errs));
  // A failed-record index beyond the request.
  EXPECT_EQ(ZD3_E_PROTOCOL, save_two_against(
                                [](const SFrameHeader& h) {
                                  std::vector<uint8> b(16);
                                  put_u32(b.data(), ZD3_E_SOME_RECORDS_FAILED);
                                  put_u32(b.data() + 4, 1);
                                  put_u32(b.data() + 8, 2);
                                  put_u32(b.data() + 12, ZD3_E_RECORD_TIMEOUT);
                                  return reply_frame(28, kWireSave | kWireReplyBit, h.nRequestId,
                                                     b);
                                },
                                &errs));
  // A failed count that disagrees with the frame length.
  EXPECT_EQ(ZD3_E_PROTOCOL, save_two_against(
                                [](const SFrameHeader& h) {
                                  std::vector<uint8> b(8);
                                  put_u32(b.data(), ZD3_E_SOME_RECORDS_FAILED);
                                  put_u32(b.data() + 4, 1000000);
                                  return reply_frame(20, kWireSave | kWireReplyBit, h.nRequestId,
                                                     b);
                                },
                                &errs));
  // A well-formed partial failure is passed through.
  EXPECT_EQ(ZD3_E_SOME_RECORDS_FAILED, save_two_against(
                                           [](const SFrameHeader& h) {
                                             std::vector<uint8> b(16);
                                             put_u32(b.data(), ZD3_E_SOME_RECORDS_FAILED);
                                             put_u32(b.data() + 4, 1);
                                             put_u32(b.data() + 8, 1);
                                             put_u32(b.data() + 12, ZD3_E_RECORD_TIMEOUT);
                                             return reply_frame(28, kWireSave | kWireReplyBit,
                                                                h.nRequestId, b);
                                           },
                                           &errs));
  EXPECT_EQ((std::vector<int32>{0, ZD3_E_RECORD_TIMEOUT}), errs);
}

// ---- report -----------------------------------------------------------------

TEST(OrloReportTest, CountsDuplicatesGapsAndOrderPerTag) {
  CScratchDir dir;
  const std::string strDb = dir.Path("r.db");
  {
    CRefStore store;
    ASSERT_EQ(0, store.Open(strDb.c_str(), false));
    // tag 1: 1 2 3 2 5 4 -> one duplicate, 4 after 5 out of order, none missing
    // tag 2: 1 3 1       -> 2 missing, one duplicate
    // tag 3: a float     -> not a sequence
    const std::vector<std::pair<uint32, int64>> seq = {{1, 1}, {1, 2}, {2, 1}, {1, 3}, {1, 2},
                                                       {2, 3}, {1, 5}, {1, 4}, {2, 1}};
    for (const auto& [nTag, v] : seq) {
      SWireRecord r{};
      r.nTag = nTag;
      r.nType = ZD3_TAG_TYPE_INT32;
      r.nInt = v;
      ASSERT_EQ(0, store.Save(&r, 1));
    }
    SWireRecord f{};
    f.nTag = 3;
    f.nType = ZD3_TAG_TYPE_FLOAT64;
    f.fReal = 1.5;
    ASSERT_EQ(0, store.Save(&f, 1));
  }
  std::vector<STagReport> v;
  STagReport total;
  ASSERT_EQ(0, refreport_compute(strDb.c_str(), SRefExpect{}, &v, &total));
  ASSERT_EQ(3u, v.size());
  EXPECT_EQ(6u, v[0].nReceived);
  EXPECT_EQ(5u, v[0].nDistinct);
  EXPECT_EQ(1u, v[0].nDuplicates);
  EXPECT_EQ(1u, v[0].nOutOfOrder);
  EXPECT_EQ(0u, v[0].nMissing);
  EXPECT_EQ(1u, v[1].nMissing);
  EXPECT_EQ(1u, v[1].nDuplicates);
  EXPECT_EQ(0u, v[1].nOutOfOrder);
  EXPECT_EQ(1u, v[2].nNotSequence);
  EXPECT_EQ(10u, total.nReceived);
  EXPECT_EQ(2u, total.nDuplicates);

  // With an expectation: tags 1, 2 and 4, values 1..4.
  SRefExpect e;
  e.vTags = {1, 2, 4};
  e.bRange = true;
  e.nFirst = 1;
  e.nLast = 4;
  ASSERT_EQ(0, refreport_compute(strDb.c_str(), e, &v, &total));
  ASSERT_EQ(4u, v.size());
  EXPECT_EQ(0u, v[0].nMissing);
  EXPECT_EQ(1u, v[0].nUnexpected);  // the 5
  EXPECT_EQ(2u, v[1].nMissing);     // 2 and 4
  EXPECT_EQ(4u, v[3].nTag);
  EXPECT_EQ(4u, v[3].nMissing);  // never arrived at all
  EXPECT_TRUE(v[0].vGaps.empty());
  EXPECT_EQ((std::vector<std::pair<int64, int64>>{{2, 2}, {4, 4}}), v[1].vGaps);
  EXPECT_EQ((std::vector<std::pair<int64, int64>>{{1, 4}}), v[3].vGaps);
  EXPECT_EQ(ZD3_E_STORAGE_UNAVAILABLE,
            refreport_compute(dir.Path("absent.db").c_str(), e, &v, &total));
}

// ---- the program --------------------------------------------------------------

// Starts zdrefserver with args; returns its pid and the ports it printed.
pid_t spawn_server(const std::vector<std::string>& args, uint16* pnPort, uint16* pnControl) {
  int aPipe[2];
  if (pipe(aPipe) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(aPipe[1], 1);
    close(aPipe[0]);
    std::vector<char*> argv = {const_cast<char*>(ZDREFSERVER_PATH)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(ZDREFSERVER_PATH, argv.data());
    _exit(127);
  }
  close(aPipe[1]);
  FILE* pIn = fdopen(aPipe[0], "r");
  unsigned nPort = 0, nControl = 0;
  if (std::fscanf(pIn, "LISTEN %u\nCONTROL %u", &nPort, &nControl) != 2) {
    nPort = nControl = 0;
  }
  std::fclose(pIn);
  *pnPort = static_cast<uint16>(nPort);
  *pnControl = static_cast<uint16>(nControl);
  return pid;
}

// Waits up to 5 s for pid; its exit status, or -1.
int wait_exit(pid_t pid) {
  for (int i = 0; i < 500; ++i) {
    int nStatus = 0;
    if (waitpid(pid, &nStatus, WNOHANG) == pid)
      return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    usleep(10000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

int run_tool(const std::string& strArgs) {
  const int n = std::system((std::string(ZDREFSERVER_PATH) + " " + strArgs).c_str());
  return WIFEXITED(n) ? WEXITSTATUS(n) : -1;
}

TEST(OrloProgramTest, ServesInjectsFaultsAndShutsDownCleanlyOnSigterm) {
  CScratchDir dir;
  const std::string strDb = dir.Path("p.db");
  uint16 nPort = 0, nControl = 0;
  const pid_t pid = spawn_server({"--db", strDb, "--port", "0", "--control-port", "0", "--user",
                                  "ops:pw", "--fail-every", "2", "--quiet"},
                                 &nPort, &nControl);
  ASSERT_GT(pid, 0);
  ASSERT_NE(0, nPort);
  ZD3Connection c = make_conn(nPort);
  ASSERT_EQ(0, nt3_connect(&c));
  ASSERT_EQ(0, sc3_login("ops", "pw"));
  std::vector<uint32> ids = {5, 5, 5};
  std::vector<ZD3Record> recs = {make_int32(1, 1), make_int32(1, 2), make_int32(1, 3)};
  std::vector<int32> errs(3);
  EXPECT_EQ(0, sn3_save_tags_disorder_snapshots(3, ids.data(), recs.data(), errs.data()));
  EXPECT_EQ(ZD3_E_SERVER_BUSY,
            sn3_save_tags_disorder_snapshots(3, ids.data(), recs.data(), errs.data()));
  EXPECT_EQ(
      0, run_tool("ctl --control-port " + std::to_string(nControl) + " fail-every 0 >/dev/null"));
  EXPECT_EQ(0, sn3_save_tags_disorder_snapshots(3, ids.data(), recs.data(), errs.data()));
  nt3_disconnect();
  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, wait_exit(pid));
  // A clean close checkpoints and removes the write-ahead log.
  EXPECT_FALSE(std::filesystem::exists(strDb + "-wal"));
  EXPECT_EQ(6u, read_rows(strDb).size());
  // 1 2 3 1 2 3: the resent batch shows as duplicates, nothing lost or reordered.
  const std::string strReport = dir.Path("report.csv");
  EXPECT_EQ(0, run_tool("report --db " + strDb + " --first 1 --last 3 >" + strReport + " 2>&1"));
  std::ifstream in(strReport);
  const std::string strText((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(std::string::npos, strText.find("\n5,6,3,3,0,0,0,0,1,3\n")) << strText;
  EXPECT_NE(std::string::npos, strText.find("lost 0, out of order 0, duplicates 3")) << strText;
  EXPECT_EQ(1, run_tool("report --db " + strDb + " --first 1 --last 4 >/dev/null 2>&1"));
  EXPECT_EQ(0, run_tool("dump --db " + strDb + " --tag 5 >/dev/null"));
  EXPECT_EQ(2, run_tool("--db " + strDb + " --count-only 2>/dev/null"));
  EXPECT_EQ(2, run_tool("--db " + strDb + " --delay x 2>/dev/null"));
}

}  // namespace
