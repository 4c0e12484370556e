// zdcollect against a stand-in for the service's control and data side
// (zdProcComm in this process): the control messages it sends, the batches'
// exact bytes and per-tag order, a refused announcement, a missing service,
// a full pool and a service that goes away and comes back.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "e2e_process.h"
#include "proccomm.h"
#include "protocol/proto_buffer.h"

using e2e::CProcess;
using e2e::CScratchDir;
using e2e::ReadFile;
using e2e::RunToEnd;
using e2e::WaitFor;
using e2e::WriteFile;

namespace {

uint32 le32(const unsigned char* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32>(p[3]) << 24;
}

struct SRecord {
  uint32 nTag;
  int32 nType;
  int32 nValue;  // int32 records only
};

// Plays the service: creates the instance, serves init messages on queue 1
// with a configurable reply, and takes batches from one data queue.
class CFakeService {
 public:
  enum class EReply { kOk, kRefuse, kNone };

  ~CFakeService() { Close(); }

  void Open(const std::string& szName, int32 nMemMb = 16) {
    ASSERT_EQ(0, proccomm_init(szName.c_str(), nMemMb, 4096, 1000, &m_h));
    ASSERT_EQ(0, proccomm_reg(m_h, 1, &m_hControl));
    ASSERT_EQ(0, proccomm_get_unused_queueid(m_h, &m_nDataId));
    ASSERT_EQ(0, proccomm_reg(m_h, m_nDataId, &m_hData));
    m_bQuit = false;
    m_thread = std::thread([this] { Run(); });
  }
  // Releases the instance (collectors see it gone); what is still queued is lost.
  void Close() {
    m_bQuit = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_hData != nullptr) proccomm_unreg(m_h, m_nDataId, m_hData);
    if (m_hControl != nullptr) proccomm_unreg(m_h, 1, m_hControl);
    if (m_h != nullptr) proccomm_release(m_h);
    m_h = nullptr;
    m_hData = m_hControl = nullptr;
  }

  std::atomic<EReply> m_eReply{EReply::kOk};
  std::atomic<bool> m_bPauseData{false};
  std::atomic<int32> m_nRefuseCode{110241};

  std::vector<std::string> Control() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_control;
  }
  std::vector<std::string> Batches() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_batches;
  }
  std::vector<SRecord> Records() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
  }
  size_t RecordCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records.size();
  }
  int32 DataId() const { return m_nDataId; }

 private:
  void Run() {
    std::vector<char> buf(PROCCOMM_MAX_MSG_LEN);
    while (!m_bQuit) {
      int32 nLen = BUFFER_CTRL_MSG_MAX_LEN;
      if (proccomm_recv(m_hControl, buf.data(), &nLen, 0, 0) == 0 && nLen > 0)
        Serve(buf.data(), nLen);
      if (m_bPauseData) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        continue;
      }
      nLen = static_cast<int32>(buf.size());
      if (proccomm_recv(m_hData, buf.data(), &nLen, 1, 2) == 0 && nLen > 0) Take(buf.data(), nLen);
    }
  }
  void Serve(const char* pMsg, int32 nLen) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_control.emplace_back(pMsg, static_cast<size_t>(nLen));
    }
    BufferHead head;
    memcpy(&head, pMsg, sizeof(head));
    if (head.nCommand != BUFFER_CMD_INIT || nLen < BUFFER_INIT_MSG_LEN || m_eReply == EReply::kNone)
      return;
    int32 nReplyId = 0;
    memcpy(&nReplyId, pMsg + BUFFER_HEAD_LEN, 4);
    ProcCommQueueHandle hReply = nullptr;
    if (proccomm_reg(m_h, nReplyId, &hReply) != 0) return;
    unsigned char reply[8];
    int32 nCode = m_eReply == EReply::kOk ? 0 : m_nRefuseCode.load();
    for (int i = 0; i < 4; ++i) reply[i] = static_cast<unsigned char>(nCode >> (8 * i));
    for (int i = 0; i < 4; ++i) reply[4 + i] = static_cast<unsigned char>(m_nDataId >> (8 * i));
    proccomm_send(hReply, reinterpret_cast<char*>(reply), nCode == 0 ? 8 : 4);
    proccomm_unreg(m_h, nReplyId, hReply);
  }
  void Take(const char* pMsg, int32 nLen) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_batches.emplace_back(pMsg, static_cast<size_t>(nLen));
    const unsigned char* p = reinterpret_cast<const unsigned char*>(pMsg);
    int32 nCount = p[0] | p[1] << 8;
    int32 nPos = 2;
    for (int32 i = 0; i < nCount && nPos + 6 <= nLen; ++i) {
      uint32 nTag = le32(p + nPos);
      int32 nBody = p[nPos + 4] | p[nPos + 5] << 8;
      const unsigned char* pBody = p + nPos + 6;
      int32 nType = static_cast<int32>(le32(pBody + 8));
      int32 nValue = nType == 2 ? static_cast<int32>(le32(pBody + 12)) : 0;
      m_records.push_back({nTag, nType, nValue});
      nPos += 6 + nBody;
    }
  }

  ProcCommHandle m_h = nullptr;
  ProcCommQueueHandle m_hControl = nullptr;
  ProcCommQueueHandle m_hData = nullptr;
  int32 m_nDataId = 0;
  std::atomic<bool> m_bQuit{false};
  std::thread m_thread;
  std::mutex m_mutex;
  std::vector<std::string> m_control;
  std::vector<std::string> m_batches;
  std::vector<SRecord> m_records;
};

class ZdCollectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int s_nSeq = 0;
    m_szName = "zc" + std::to_string(getpid()) + "_" + std::to_string(s_nSeq++);
  }
  std::vector<std::string> Args(std::initializer_list<std::string> extra) {
    std::vector<std::string> argv = {ZDCOLLECT_PATH, "-i", m_szName, "-q"};
    argv.insert(argv.end(), extra);
    return argv;
  }
  // Per tag, the int32 values in arrival order.
  static std::map<uint32, std::vector<int32>> ByTag(const std::vector<SRecord>& records) {
    std::map<uint32, std::vector<int32>> m;
    for (const SRecord& r : records) m[r.nTag].push_back(r.nValue);
    return m;
  }

  std::string m_szName;
  CScratchDir m_dir{"zdcollect"};
  CFakeService m_service;
};

TEST_F(ZdCollectTest, SyntheticStreamCarriesPerTagSequencesInBatchesOfTheAskedSize) {
  m_service.Open(m_szName);
  std::string szErr;
  int nRet = RunToEnd(Args({"-s", "10.1.2.3:7000", "-b", "10.1.2.4:7001", "-t", "5", "-m", "200",
                            "-r", "0", "-n", "37", "--tally", m_dir / "tally.csv"}),
                      m_dir.Path(), 20000, nullptr, &szErr);
  ASSERT_EQ(0, nRet) << szErr;
  ASSERT_TRUE(WaitFor([&] { return m_service.RecordCount() >= 1000; }, 5000));

  // The init message: head fields in host order, reply queue after the head.
  std::vector<std::string> control = m_service.Control();
  ASSERT_EQ(1u, control.size());
  ASSERT_EQ(static_cast<size_t>(BUFFER_INIT_MSG_LEN), control[0].size());
  BufferHead head;
  memcpy(&head, control[0].data(), sizeof(head));
  EXPECT_EQ(BUFFER_CMD_INIT, head.nCommand);
  EXPECT_STREQ("10.1.2.3", head.szIP);
  EXPECT_EQ(7000, head.nPort);
  EXPECT_STREQ("10.1.2.4", head.szBakIP);
  EXPECT_EQ(7001, head.nBakPort);

  std::vector<std::string> batches = m_service.Batches();
  for (const std::string& b : batches) {
    int nCount = static_cast<unsigned char>(b[0]) | static_cast<unsigned char>(b[1]) << 8;
    EXPECT_GE(nCount, 1);
    EXPECT_LE(nCount, 37);
    EXPECT_EQ(2u + nCount * 22u, b.size());  // int32 entries: 6 + 16 bytes
  }
  EXPECT_EQ((1000u + 36) / 37, batches.size());
  auto byTag = ByTag(m_service.Records());
  ASSERT_EQ(5u, byTag.size());
  for (uint32 nTag = 1; nTag <= 5; ++nTag) {
    const std::vector<int32>& v = byTag[nTag];
    ASSERT_EQ(200u, v.size()) << "tag " << nTag;
    for (int32 i = 0; i < 200; ++i) ASSERT_EQ(i + 1, v[static_cast<size_t>(i)]) << "tag " << nTag;
  }
  EXPECT_EQ("tag,sent,last\n1,200,200\n2,200,200\n3,200,200\n4,200,200\n5,200,200\n",
            ReadFile(m_dir / "tally.csv"));
  EXPECT_NE(std::string::npos, szErr.find("1000 records in 28 batches sent")) << szErr;
}

TEST_F(ZdCollectTest, PacedStreamKeepsToTheRateAndFlushesPartialBatches) {
  m_service.Open(m_szName);
  std::string szErr;
  int64_t nStart = e2e::NowMs();
  // 400 records at 1000/s with batches of 1000: only the flush period sends.
  ASSERT_EQ(0,
            RunToEnd(Args({"-t", "4", "-m", "100", "-r", "1000", "-n", "1000", "--flush-ms", "50"}),
                     m_dir.Path(), 20000, nullptr, &szErr))
      << szErr;
  int64_t nElapsed = e2e::NowMs() - nStart;
  EXPECT_GE(nElapsed, 350);
  ASSERT_TRUE(WaitFor([&] { return m_service.RecordCount() >= 400; }, 5000));
  EXPECT_GE(m_service.Batches().size(), 5u);  // ~400 ms / 50 ms
}

TEST_F(ZdCollectTest, LoginFollowsEveryAnnouncementAndRawMessagesGoOutAsAsked) {
  m_service.Open(m_szName);
  std::string szErr;
  ASSERT_EQ(0, RunToEnd(Args({"-u", "alice", "-p", "s3cret", "-t", "1", "-m", "1"}), m_dir.Path(),
                        10000, nullptr, &szErr))
      << szErr;
  ASSERT_EQ(0, RunToEnd(Args({"--raw-init-len", "41"}), m_dir.Path(), 10000));
  ASSERT_EQ(0, RunToEnd(Args({"--raw-command", "7"}), m_dir.Path(), 10000));
  ASSERT_EQ(0, RunToEnd(Args({"--login-only", "-u", "bob", "-p", "pw"}), m_dir.Path(), 10000));
  ASSERT_TRUE(WaitFor([&] { return m_service.Control().size() >= 5; }, 5000));
  std::vector<std::string> c = m_service.Control();
  ASSERT_EQ(5u, c.size());
  EXPECT_EQ(BUFFER_INIT_MSG_LEN, static_cast<int>(c[0].size()));
  ASSERT_EQ(BUFFER_LOGIN_MSG_LEN, static_cast<int>(c[1].size()));
  EXPECT_EQ(BUFFER_CMD_LOGIN, static_cast<unsigned char>(c[1][0]));
  EXPECT_STREQ("alice", c[1].data() + 38);
  EXPECT_STREQ("s3cret", c[1].data() + 102);
  EXPECT_EQ(41u, c[2].size());
  EXPECT_EQ(BUFFER_CMD_INIT, static_cast<unsigned char>(c[2][0]));
  ASSERT_EQ(42u, c[3].size());
  uint16 nCommand = 0;
  memcpy(&nCommand, c[3].data(), 2);
  EXPECT_EQ(7, nCommand);
  ASSERT_EQ(230u, c[4].size());
  EXPECT_STREQ("bob", c[4].data() + 38);
}

TEST_F(ZdCollectTest, RefusedOrUnansweredAnnouncementEndsWithAClearFailure) {
  m_service.Open(m_szName);
  m_service.m_eReply = CFakeService::EReply::kRefuse;
  m_service.m_nRefuseCode = 113205;
  std::string szOut, szErr;
  EXPECT_EQ(1, RunToEnd(Args({"-m", "5"}), m_dir.Path(), 10000, &szOut, &szErr));
  EXPECT_NE(std::string::npos, szErr.find("refused the announcement")) << szErr;
  EXPECT_NE(std::string::npos, szErr.find("code 113205")) << szErr;

  m_service.m_eReply = CFakeService::EReply::kNone;
  int64_t nStart = e2e::NowMs();
  EXPECT_EQ(1, RunToEnd(Args({"--announce-only", "--init-timeout", "300"}), m_dir.Path(), 10000,
                        &szOut, &szErr));
  EXPECT_LT(e2e::NowMs() - nStart, 3000);
  EXPECT_NE(std::string::npos, szErr.find("no init reply")) << szErr;
  EXPECT_EQ("", szOut);

  m_service.m_eReply = CFakeService::EReply::kOk;
  EXPECT_EQ(0, RunToEnd(Args({"--announce-only"}), m_dir.Path(), 10000, &szOut, &szErr));
  EXPECT_EQ("QUEUE " + std::to_string(m_service.DataId()) + "\n", szOut);
}

TEST_F(ZdCollectTest, MissingServiceIsReportedAndNoInstanceIsCreated) {
  std::string szErr;
  int64_t nStart = e2e::NowMs();
  EXPECT_EQ(
      1, RunToEnd(Args({"--attach-wait", "0.3", "-m", "5"}), m_dir.Path(), 10000, nullptr, &szErr));
  EXPECT_LT(e2e::NowMs() - nStart, 3000);
  EXPECT_NE(std::string::npos, szErr.find("is zdBuffer running?")) << szErr;
  ProcCommHandle h = nullptr;
  EXPECT_EQ(EC_RD_PROCCOMM_GONE, proccomm_attach(m_szName.c_str(), &h));

  // A collector that waits for the service finds it once it is up.
  CProcess collector;
  ASSERT_TRUE(collector.Start(Args({"--attach-wait", "10", "-t", "2", "-m", "50", "-r", "0"}),
                              m_dir / "late.out", m_dir / "late.err"));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  m_service.Open(m_szName);
  EXPECT_EQ(0, collector.Wait(10000)) << collector.Err();
  EXPECT_TRUE(WaitFor([&] { return m_service.RecordCount() == 100; }, 5000));
}

TEST_F(ZdCollectTest, FullPoolIsRetriedUntilEveryBatchIsAccepted) {
  m_service.Open(m_szName, 1);  // 1 MiB: 4.4 MB of batches cannot fit at once
  m_service.m_bPauseData = true;
  CProcess collector;
  ASSERT_TRUE(collector.Start(Args({"-t", "10", "-m", "20000", "-r", "0", "-n", "180"}),
                              m_dir / "full.out", m_dir / "full.err"));
  // The collector fills the pool and is refused; nothing is lost meanwhile.
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_TRUE(collector.Running());
  m_service.m_bPauseData = false;
  ASSERT_EQ(0, collector.Wait(20000)) << collector.Err();
  ASSERT_TRUE(WaitFor([&] { return m_service.RecordCount() >= 200000; }, 5000));
  auto byTag = ByTag(m_service.Records());
  for (uint32 nTag = 1; nTag <= 10; ++nTag) {
    const std::vector<int32>& v = byTag[nTag];
    ASSERT_EQ(20000u, v.size());
    for (int32 i = 0; i < 20000; ++i) ASSERT_EQ(i + 1, v[static_cast<size_t>(i)]);
  }
  std::string szErr = collector.Err();
  EXPECT_EQ(std::string::npos, szErr.find("refused 0,")) << szErr;
  EXPECT_NE(std::string::npos, szErr.find("0 not sent")) << szErr;
}

TEST_F(ZdCollectTest, RestartedServiceIsReattachedAndTheStreamGoesOnInOrder) {
  m_service.Open(m_szName);
  CProcess collector;
  ASSERT_TRUE(collector.Start(
      Args({"-t", "4", "-m", "1500", "-r", "4000", "-n", "20", "--tally", m_dir / "tally.csv"}),
      m_dir / "re.out", m_dir / "re.err"));
  ASSERT_TRUE(WaitFor([&] { return m_service.RecordCount() >= 1000; }, 5000));
  std::vector<SRecord> before = m_service.Records();
  m_service.Close();  // the service goes away ...
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  CFakeService second;  // ... and a new one comes up under the same name
  second.Open(m_szName);
  ASSERT_EQ(0, collector.Wait(20000)) << collector.Err();
  ASSERT_TRUE(
      WaitFor([&] { return second.RecordCount() > 0 && second.Control().size() == 1; }, 5000));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  std::vector<SRecord> after = second.Records();
  std::string szErr = collector.Err();
  EXPECT_NE(std::string::npos, szErr.find("re-attaches 1")) << szErr;
  // Per tag: strictly increasing over both services, ending at 1500. Only
  // batches still queued in the first instance when it went can be missing.
  auto first = ByTag(before), second_ = ByTag(after);
  for (uint32 nTag = 1; nTag <= 4; ++nTag) {
    std::vector<int32> v = first[nTag];
    v.insert(v.end(), second_[nTag].begin(), second_[nTag].end());
    for (size_t i = 1; i < v.size(); ++i) ASSERT_LT(v[i - 1], v[i]) << "tag " << nTag;
    EXPECT_EQ(1500, v.back());
    EXPECT_GE(v.size(), 1500u - 200u);
  }
  EXPECT_NE(std::string::npos, ReadFile(m_dir / "tally.csv").find("\n4,1500,1500\n"));
}

TEST_F(ZdCollectTest, CsvRecordsAreSentWithExactBytes) {
  m_service.Open(m_szName);
  WriteFile(m_dir / "in.csv",
            "tag,sec,msec,quality,type,value\n"
            "7,1700000000,250,192,int32,100\n"
            "# a comment\n"
            "\n"
            "9,1700000000,0,192,6,abc\n"
            "9,1700000000,1,192,string,\"a,\"\"b\"\n"
            "3,1700000001,2,0,float64,2.5\n"
            "4,1700000001,3,0,blob,x00ff10\n");
  std::string szErr;
  ASSERT_EQ(0, RunToEnd(Args({"--csv", m_dir / "in.csv", "-n", "1", "-r", "0", "--tally",
                              m_dir / "tally.csv"}),
                        m_dir.Path(), 10000, nullptr, &szErr))
      << szErr;
  ASSERT_TRUE(WaitFor([&] { return m_service.Batches().size() == 5; }, 5000));
  std::vector<std::string> b = m_service.Batches();
  const unsigned char kInt32[] = {0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0x10, 0x00,
                                  0x00, 0xf1, 0x53, 0x65, 0xfa, 0x00, 0xc0, 0x00,
                                  0x02, 0x00, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00};
  const unsigned char kString[] = {0x01, 0x00, 0x09, 0x00, 0x00, 0x00, 0x11, 0x00, 0x00,
                                   0xf1, 0x53, 0x65, 0x00, 0x00, 0xc0, 0x00, 0x06, 0x00,
                                   0x00, 0x00, 0x03, 0x00, 0x61, 0x62, 0x63};
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(kInt32), sizeof(kInt32)), b[0]);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(kString), sizeof(kString)), b[1]);
  EXPECT_EQ("a,\"b", b[2].substr(22));  // quoted, with a comma and a doubled quote
  double f = 0;
  memcpy(&f, b[3].data() + 20, 8);
  EXPECT_EQ(2.5, f);
  EXPECT_EQ(std::string("\x03\x00\x00\xff\x10", 5), b[4].substr(20));
  EXPECT_EQ("tag,sent,last\n3,1,\n4,1,\n7,1,\n9,2,\n", ReadFile(m_dir / "tally.csv"));

  // A malformed line stops the run with its line number and a failure.
  WriteFile(m_dir / "bad.csv", "1,1700000000,0,192,int32,5\n2,1700000000,0,192,int32,five\n");
  EXPECT_EQ(1, RunToEnd(Args({"--csv", m_dir / "bad.csv", "-r", "0"}), m_dir.Path(), 10000, nullptr,
                        &szErr));
  EXPECT_NE(std::string::npos, szErr.find("line 2")) << szErr;
}

TEST_F(ZdCollectTest, BadArgumentsExitWithUsageStatus) {
  EXPECT_EQ(2, RunToEnd(Args({"-s", "nowhere"}), m_dir.Path(), 5000));
  EXPECT_EQ(2, RunToEnd(Args({"-t", "0"}), m_dir.Path(), 5000));
  EXPECT_EQ(2, RunToEnd(Args({"--types", "int32,quux"}), m_dir.Path(), 5000));
  EXPECT_EQ(2, RunToEnd(Args({"-u", "only-user"}), m_dir.Path(), 5000));
  EXPECT_EQ(2, RunToEnd(Args({"--raw-init-len", "300"}), m_dir.Path(), 5000));
  EXPECT_EQ(2, RunToEnd(Args({"-s", "1234567890123456:1"}), m_dir.Path(), 5000));
}

}  // namespace
