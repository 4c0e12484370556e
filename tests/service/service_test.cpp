// The service object's start-up and shut-down, and the connection manager
// answering collectors, in process: real configuration files, shared memory
// and cache file in a scratch tree.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "Buffer.h"
#include "protocol/buffer_collector.h"
#include "protocol/proto_buffer.h"
#include "zd_errcode.h"

namespace {

// <root>/bin is the working directory; <root>/config holds both files.
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char szTemplate[] = "/tmp/service_test_XXXXXX";
    m_strRoot = mkdtemp(szTemplate);
    m_strName = "svctest_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_EQ(0, system(("mkdir -p " + m_strRoot + "/bin " + m_strRoot + "/config").c_str()));
    char szCwd[4096];
    ASSERT_NE(nullptr, getcwd(szCwd, sizeof(szCwd)));
    m_strOldCwd = szCwd;
    ASSERT_EQ(0, chdir((m_strRoot + "/bin").c_str()));
    std::ofstream(m_strRoot + "/config/LogClient.xml")
        << "<?xml version=\"1.0\"?><LogClient threshold=\"DEBUG\"><FileAppender path=\"" +
               m_strRoot + "/log/buffer.log\" maxSizeMb=\"1\" maxFiles=\"1\"/></LogClient>";
    WriteConfig(m_strRoot + "/cache", "t");
  }
  void TearDown() override {
    ASSERT_EQ(0, chdir(m_strOldCwd.c_str()));
    (void)system(("rm -rf " + m_strRoot).c_str());
  }
  void WriteConfig(const std::string& strPath, const std::string& strPrefix) {
    std::ofstream(m_strRoot + "/config/ZD3Buffer.xml")
        << "<?xml version=\"1.0\"?>\n<Buffer version=\"9.9\" name=\"" << m_strName
        << "\" memsizemb=\"8\"><CacheFile Path=\"" << strPath << "\" Prefix=\"" << strPrefix
        << "\" SizeMb=\"4\"/><Send PeriodMs=\"20\" ConnTimeOutSec=\"1\" SendTimeOutSec=\"1\"/></Buffer>\n";
  }
  std::string Log() const {
    std::stringstream ss;
    ss << std::ifstream(m_strRoot + "/log/buffer.log").rdbuf();
    return ss.str();
  }
  std::string m_strRoot, m_strOldCwd, m_strName;
};

TEST_F(ServiceTest, StartsAndStopsAndCreatesTheCacheFile) {
  CBuffer buffer;
  ASSERT_EQ(0, buffer.Init());
  ASSERT_EQ(0, buffer.Start());
  EXPECT_EQ(0, buffer.Stop());
  EXPECT_EQ(0, buffer.Release());
  EXPECT_EQ(0, access((m_strRoot + "/cache/t_buffer.buf").c_str(), F_OK));
  std::string strLog = Log();
  EXPECT_NE(std::string::npos, strLog.find("Cachefile init ok listSrvInfo cnt 0"));
  EXPECT_NE(std::string::npos, strLog.find("buffer init succeed"));
  EXPECT_NE(std::string::npos, strLog.find("APIConnector proccomm recv quit command"));
}

TEST_F(ServiceTest, CacheFileNameLimitIs255Characters) {
  // A stored path of 200 characters (final slash included) and a prefix of
  // 44 make 255 with "_buffer.buf": accepted; a prefix of 45 is refused.
  std::string strPath = m_strRoot + "/";
  strPath += std::string(199 - strPath.size(), 'p');
  ASSERT_EQ(199u, strPath.size());
  WriteConfig(strPath, std::string(44, 'x'));
  {
    CBuffer buffer;
    EXPECT_EQ(0, buffer.Init());
    buffer.Release();
  }
  WriteConfig(strPath, std::string(45, 'x'));
  CBuffer buffer;
  EXPECT_EQ(EC_CACHE_NAME_TOO_LONG, buffer.Init());
  buffer.Release();
  EXPECT_NE(std::string::npos, Log().find("code=113201 Buffer.cpp"));
  EXPECT_NE(std::string::npos, Log().find("Length of Cache file name is too long"));
}

TEST_F(ServiceTest, SecondInstanceRefusedFirstKeepsItsGuard) {
  CBuffer first;
  ASSERT_EQ(0, first.Init());
  {
    CBuffer second;
    EXPECT_EQ(OS_ESEMA_BUSY, second.Init());
    EXPECT_EQ(0, second.Release());  // closes its own handle only
  }
  CBuffer third;
  EXPECT_EQ(OS_ESEMA_BUSY, third.Init());
  third.Release();
  first.Release();
  CBuffer fourth;  // free again once the holder released it
  EXPECT_EQ(0, fourth.Init());
  fourth.Release();
}

TEST_F(ServiceTest, ReleaseAfterFailedConfigurationTouchesNothing) {
  std::ofstream(m_strRoot + "/config/ZD3Buffer.xml") << "<?xml version=\"1.0\"?><Buffer/>";
  CBuffer buffer;
  EXPECT_EQ(EC_CFG_MISSING, buffer.Init());
  EXPECT_EQ(0, buffer.Release());
  EXPECT_EQ(0, buffer.Release());  // and again
  EXPECT_NE(0, access(("/dev/shm/zdpcm." + m_strName).c_str(), F_OK));
}

// A collector's side of the control channel, on the service's instance.
class Collector {
 public:
  explicit Collector(const std::string& strName) {
    EXPECT_EQ(0, proccomm_attach(strName.c_str(), &m_h));
    EXPECT_EQ(0, proccomm_reg(m_h, 1, &m_hControl));
    EXPECT_EQ(0, proccomm_get_unused_queueid(m_h, &m_nReplyID));
    EXPECT_EQ(0, proccomm_reg(m_h, m_nReplyID, &m_hReply));
  }
  ~Collector() {
    proccomm_unreg(m_h, m_nReplyID, m_hReply);
    proccomm_unreg(m_h, 1, m_hControl);
    proccomm_release(m_h);
  }
  void SendRaw(const char* p, int32 n) { EXPECT_EQ(0, proccomm_send(m_hControl, p, n)); }
  // Announces a server; returns the reply's code and queue id.
  int32 Init(const char* szIP, int32* pnQueueID) {
    char msg[BUFFER_INIT_MSG_LEN];
    int32 nLen = 0;
    EXPECT_EQ(0, zdc_build_init_msg(szIP, 1, "", 0, m_nReplyID, msg, sizeof(msg), &nLen));
    SendRaw(msg, nLen);
    char reply[16];
    int32 nReplyLen = sizeof(reply);
    int32 nRet = proccomm_recv(m_hReply, reply, &nReplyLen, 1, 5000);
    if (nRet != 0) return nRet;
    int32 nCode = -1;
    EXPECT_EQ(0, zdc_parse_init_reply(reply, nReplyLen, &nCode, pnQueueID));
    return nCode;
  }
  bool NoReply(int32 nWaitMs) {
    char reply[16];
    int32 nLen = sizeof(reply);
    return proccomm_recv(m_hReply, reply, &nLen, 1, nWaitMs) == EC_RD_PROCCOMM_RECV_TIMEOUT;
  }

 private:
  ProcCommHandle m_h = nullptr;
  ProcCommQueueHandle m_hControl = nullptr, m_hReply = nullptr;
  int32 m_nReplyID = 0;
};

TEST_F(ServiceTest, InitMessagesCreateAndReplaceTheHandlerKeepingItsQueue) {
  CBuffer buffer;
  ASSERT_EQ(0, buffer.Init());
  ASSERT_EQ(0, buffer.Start());
  {
    Collector collector(m_strName);
    int32 nQueue = 0, nAgain = 0, nReplaced = 0;
    ASSERT_EQ(0, collector.Init("127.0.0.1", &nQueue));
    EXPECT_GT(nQueue, 1);
    EXPECT_EQ(0, collector.Init("127.0.0.1", &nAgain));
    EXPECT_EQ(nQueue, nAgain);
    EXPECT_EQ(0, collector.Init("127.0.0.2", &nReplaced));
    EXPECT_EQ(nQueue, nReplaced);
  }
  EXPECT_EQ(0, buffer.Stop());
  buffer.Release();
  EXPECT_NE(std::string::npos, Log().find("data handler ip changed old ip:127.0.0.1 new ip 127.0.0.2"));
}

TEST_F(ServiceTest, UnknownCommandIsSkippedShortInitEndsTheControlThread) {
  CBuffer buffer;
  ASSERT_EQ(0, buffer.Init());
  ASSERT_EQ(0, buffer.Start());
  {
    Collector collector(m_strName);
    char msg[BUFFER_INIT_MSG_LEN] = {7};  // command 7
    collector.SendRaw(msg, sizeof(msg));
    int32 nQueue = 0;
    EXPECT_EQ(0, collector.Init("127.0.0.1", &nQueue));  // still served

    char shortInit[41] = {1};  // BUFFER_CMD_INIT with a 3-byte body
    collector.SendRaw(shortInit, sizeof(shortInit));
    char init[BUFFER_INIT_MSG_LEN];
    int32 nLen = 0;
    ASSERT_EQ(0, zdc_build_init_msg("127.0.0.1", 1, "", 0, 99, init, sizeof(init), &nLen));
    collector.SendRaw(init, nLen);
    EXPECT_TRUE(collector.NoReply(300));  // nobody serves the control queue now
  }
  EXPECT_EQ(0, buffer.Stop());  // the join succeeds; the thread had ended already
  buffer.Release();
  std::string strLog = Log();
  EXPECT_NE(std::string::npos, strLog.find("invalid cmd type 7"));
  EXPECT_NE(std::string::npos, strLog.find("code=113202"));
}

TEST_F(ServiceTest, StopRightAfterStartDoesNotHang) {
  for (int i = 0; i < 20; ++i) {
    CBuffer buffer;
    ASSERT_EQ(0, buffer.Init());
    ASSERT_EQ(0, buffer.Start());
    EXPECT_EQ(0, buffer.Stop());
    buffer.Release();
  }
}

}  // namespace
