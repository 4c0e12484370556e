// The configuration path rule and every rule of ZD3Buffer.xml.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

#include "Buffer.h"
#include "config_manager.h"
#include "zd_errcode.h"

struct CBufferConfigProbe {
  static int32 SizeMb(const CBuffer& b) { return b.m_nCacheFileSize; }
  static int32 PeriodMs(const CBuffer& b) { return b.m_nSendPerid; }
  static int32 SendTimeout(const CBuffer& b) { return b.m_nSendTimeout; }
  static int32 ConnTimeout(const CBuffer& b) { return b.m_nConnectTimeout; }
  static int32 MemSizeMb(const CBuffer& b) { return b.m_nMemSizeMB; }
  static std::string Path(const CBuffer& b) { return b.m_szCacheFilePath; }
  static std::string Prefix(const CBuffer& b) { return b.m_szCacheFilePrefix; }
  static std::string Version(const CBuffer& b) { return b.m_szVersion; }
  static std::string Name(const CBuffer& b) { return b.m_szProcName; }
};
using Probe = CBufferConfigProbe;

namespace {

TEST(ConfigPath, BuildsRelativePathAndChecksTheBuffer) {
  char szPath[280];
  ASSERT_EQ(0, config_build_file_all_path_by_relative_path(szPath, sizeof(szPath), "ZD3Buffer.xml"));
  EXPECT_STREQ("../config/ZD3Buffer.xml", szPath);
  // "../config/" (10) + "LogClient.xml" (13) + terminator = 24 bytes exactly.
  char szExact[24];
  EXPECT_EQ(0, config_build_file_all_path_by_relative_path(szExact, 24, "LogClient.xml"));
  EXPECT_STREQ("../config/LogClient.xml", szExact);
  EXPECT_EQ(EC_NO_MEMORY, config_build_file_all_path_by_relative_path(szExact, 23, "LogClient.xml"));
}

// Runs LoadConfig from <tmp>/bin with the file at <tmp>/config/ZD3Buffer.xml.
class LoadConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char szTemplate[] = "/tmp/config_test_XXXXXX";
    m_strRoot = mkdtemp(szTemplate);
    ASSERT_EQ(0, system(("mkdir -p " + m_strRoot + "/bin " + m_strRoot + "/config").c_str()));
    char szCwd[4096];
    ASSERT_NE(nullptr, getcwd(szCwd, sizeof(szCwd)));
    m_strOldCwd = szCwd;
    ASSERT_EQ(0, chdir((m_strRoot + "/bin").c_str()));
  }
  void TearDown() override {
    ASSERT_EQ(0, chdir(m_strOldCwd.c_str()));
    (void)system(("rm -rf " + m_strRoot).c_str());
  }

  // The default attributes, each overridable; "<absent>" leaves one out.
  std::map<std::string, std::string> m_buffer = {{"version", "1.0"}, {"name", "zdtest"}};
  std::map<std::string, std::string> m_cache = {
      {"Path", "/var/cache"}, {"Prefix", "col1"}, {"SizeMb", "100"}};
  std::map<std::string, std::string> m_send = {
      {"PeriodMs", "200"}, {"ConnTimeOutSec", "3"}, {"SendTimeOutSec", "10"}};

  static std::string Attrs(const std::map<std::string, std::string>& attrs) {
    std::string s;
    for (const auto& [k, v] : attrs)
      if (v != "<absent>") s += " " + k + "=\"" + v + "\"";
    return s;
  }
  std::string Document(bool bDeclaration = true, bool bSendInsideCache = false) const {
    std::string strSend = "<Send" + Attrs(m_send) + "/>";
    std::string s = bDeclaration ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" : "";
    s += "<Buffer" + Attrs(m_buffer) + ">\n  <CacheFile" + Attrs(m_cache) + ">" +
         (bSendInsideCache ? strSend : "") + "</CacheFile>\n" +
         (bSendInsideCache ? "" : strSend) + "\n</Buffer>\n";
    return s;
  }
  int32 Load(const std::string& strDocument) {
    std::ofstream(m_strRoot + "/config/ZD3Buffer.xml") << strDocument;
    return m_buffer_.LoadConfig();
  }
  int32 Load() { return Load(Document()); }

  std::string m_strRoot, m_strOldCwd;
  CBuffer m_buffer_;
};

TEST_F(LoadConfigTest, ValidFileFillsEveryField) {
  m_buffer["memsizemb"] = "128";
  ASSERT_EQ(0, Load());
  EXPECT_EQ("1.0", Probe::Version(m_buffer_));
  EXPECT_EQ("zdtest", Probe::Name(m_buffer_));
  EXPECT_EQ(128, Probe::MemSizeMb(m_buffer_));
  EXPECT_EQ("/var/cache/", Probe::Path(m_buffer_));  // slash appended
  EXPECT_EQ("col1", Probe::Prefix(m_buffer_));
  EXPECT_EQ(100, Probe::SizeMb(m_buffer_));
  EXPECT_EQ(200, Probe::PeriodMs(m_buffer_));
  EXPECT_EQ(3, Probe::ConnTimeout(m_buffer_));
  EXPECT_EQ(10, Probe::SendTimeout(m_buffer_));
}

TEST_F(LoadConfigTest, DefaultsAndLenientReadings) {
  m_cache["Path"] = "C:\\cache\\";
  m_cache["Prefix"] = "";
  m_send["PeriodMs"] = "10ms";  // atoi reading: digits up to the first letter
  ASSERT_EQ(0, Load(Document(true, /*bSendInsideCache=*/true)));
  EXPECT_EQ(64, Probe::MemSizeMb(m_buffer_));
  EXPECT_EQ("C:\\cache\\", Probe::Path(m_buffer_));  // a backslash ends it already
  EXPECT_EQ("", Probe::Prefix(m_buffer_));
  EXPECT_EQ(10, Probe::PeriodMs(m_buffer_));
}

TEST_F(LoadConfigTest, FileAndStructureFaults) {
  EXPECT_EQ(EC_CFG_OPEN, m_buffer_.LoadConfig());  // no file yet
  EXPECT_EQ(EC_CFG_NOT_XML, Load("<?xml version=\"1.0\"?><Buffer version=\"1\" <"));
  // Without the declaration the first node is Buffer itself, which the search
  // never matches.
  EXPECT_EQ(EC_CFG_MISSING, Load(Document(/*bDeclaration=*/false)));
  EXPECT_EQ(EC_CFG_MISSING, Load("<?xml version=\"1.0\"?><Other/>"));
  EXPECT_EQ(EC_CFG_MISSING,
            Load("<?xml version=\"1.0\"?><Buffer version=\"1\" name=\"n\"><Send/></Buffer>"));
}

struct RuleCase {
  const char* szElement;  // "Buffer", "CacheFile" or "Send"
  const char* szAttr;
  std::string strValue;
  int32 nExpected;
};

TEST_F(LoadConfigTest, EveryAttributeRule) {
  const RuleCase kCases[] = {
      {"Buffer", "version", "<absent>", EC_CFG_MISSING},
      {"Buffer", "version", std::string(63, 'v'), 0},
      {"Buffer", "version", std::string(64, 'v'), EC_CFG_TOO_LONG},
      {"Buffer", "name", "<absent>", EC_CFG_MISSING},
      {"Buffer", "name", std::string(255, 'n'), 0},
      {"Buffer", "name", std::string(256, 'n'), EC_CFG_TOO_LONG},
      {"CacheFile", "Path", "<absent>", EC_CFG_MISSING},
      {"CacheFile", "Path", "", EC_CFG_RANGE},
      {"CacheFile", "Path", std::string(254, 'p'), 0},
      {"CacheFile", "Path", std::string(255, 'p'), EC_CFG_RANGE},
      {"CacheFile", "Path", std::string(513, 'p'), EC_CFG_TOO_LONG},
      {"CacheFile", "Prefix", "<absent>", EC_CFG_ATTR_MISSING},
      {"CacheFile", "Prefix", std::string(254, 'x'), 0},
      {"CacheFile", "Prefix", std::string(255, 'x'), EC_CFG_RANGE},
      {"CacheFile", "Prefix", std::string(513, 'x'), EC_CFG_TOO_LONG},
      {"CacheFile", "SizeMb", "<absent>", EC_CFG_ATTR_MISSING},
      {"CacheFile", "SizeMb", "1", 0},
      {"CacheFile", "SizeMb", "1048576", 0},
      {"CacheFile", "SizeMb", "1048577", EC_CFG_RANGE},
      {"CacheFile", "SizeMb", "0", EC_CFG_RANGE},
      {"CacheFile", "SizeMb", "many", EC_CFG_RANGE},
      {"CacheFile", "SizeMb", "99999999999999", EC_CFG_RANGE},  // no wrap-around into range
      {"Send", "PeriodMs", "<absent>", EC_CFG_ATTR_MISSING},
      {"Send", "PeriodMs", "-5", EC_CFG_RANGE},
      {"Send", "ConnTimeOutSec", "<absent>", EC_CFG_ATTR_MISSING},
      {"Send", "ConnTimeOutSec", "0", EC_CFG_RANGE},
      {"Send", "SendTimeOutSec", "<absent>", EC_CFG_ATTR_MISSING},
      {"Send", "SendTimeOutSec", "x", EC_CFG_RANGE},
  };
  for (const RuleCase& c : kCases) {
    auto buffer = m_buffer;
    auto cache = m_cache;
    auto send = m_send;
    std::string strElement = c.szElement;
    auto& attrs = strElement == "Buffer" ? m_buffer : strElement == "CacheFile" ? m_cache : m_send;
    attrs[c.szAttr] = c.strValue;
    EXPECT_EQ(c.nExpected, Load()) << c.szElement << "." << c.szAttr << " = '" << c.strValue << "'";
    m_buffer = buffer;
    m_cache = cache;
    m_send = send;
  }
}

TEST_F(LoadConfigTest, FirstFailureWinsInDocumentOrder) {
  m_cache["SizeMb"] = "0";
  m_send["PeriodMs"] = "<absent>";
  EXPECT_EQ(EC_CFG_RANGE, Load());  // SizeMb is checked before PeriodMs
  m_cache["Prefix"] = "<absent>";
  EXPECT_EQ(EC_CFG_ATTR_MISSING, Load());
}

}  // namespace
