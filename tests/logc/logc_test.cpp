// Threshold filtering, configuration errors and what a written line carries.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "logc.h"
#include "logc_test.h"

namespace {

class LogcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char szTemplate[] = "/tmp/logc_test_XXXXXX";
    m_strDir = mkdtemp(szTemplate);
  }
  void TearDown() override {
    logc_finish();
    (void)system(("rm -rf " + m_strDir).c_str());
  }
  std::string WriteConfig(const std::string& strBody) {
    std::string strPath = m_strDir + "/LogClient.xml";
    std::ofstream(strPath) << strBody;
    return strPath;
  }
  static std::string ReadFile(const std::string& strPath) {
    std::stringstream ss;
    ss << std::ifstream(strPath).rdbuf();
    return ss.str();
  }
  std::string m_strDir;
};

TEST_F(LogcTest, ThresholdIsTheFirstInt32AndFilters) {
  ASSERT_EQ(0, logc_init_capture(LL_INFO));
  LOGC_CATEGORY cat = logc_get_category("Zandor.Buffer");
  ASSERT_NE(nullptr, cat);
  EXPECT_EQ(LL_INFO, *reinterpret_cast<int32*>(cat));
  EXPECT_EQ(cat, logc_get_category("Zandor.Buffer"));  // one handle per name

  LOGC_WRITE(cat, LL_DEBUG, 0, "hidden %d", 1);
  LOGC_WRITE(cat, LL_INFO, 0, "shown %d", 2);
  LOGC_WRITE(cat, LL_ERROR, 113211, "invalid block size");
  LOGC_WRITE(static_cast<LOGC_CATEGORY>(nullptr), LL_FATAL, 1, "never");
  EXPECT_TRUE(logc_capture_has(LL_ERROR, 113211, "invalid block size"));
  auto lines = logc_capture_take();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("shown 2", lines[0].strMessage);
  EXPECT_EQ("Zandor.Buffer", lines[0].strCategory);
  EXPECT_TRUE(logc_capture_take().empty());
}

TEST_F(LogcTest, NoCategoryBeforeInitAndNothingAfterFinish) {
  EXPECT_EQ(nullptr, logc_get_category("Zandor.Buffer"));
  ASSERT_EQ(0, logc_init_capture(LL_TRACE));
  LOGC_CATEGORY cat = logc_get_category("Zandor.Buffer");
  logc_finish();
  // A handle kept past finish stays readable and lets nothing through.
  LOGC_WRITE(cat, LL_FATAL, 0, "after finish");
  EXPECT_GT(cat->nThreshold, LL_FATAL);
  EXPECT_EQ(nullptr, logc_get_category("Zandor.Buffer"));
}

TEST_F(LogcTest, BadConfigurationsFailWithTheirStatus) {
  EXPECT_EQ(LOGC_E_CONFIG_OPEN, logc_init((m_strDir + "/missing.xml").c_str(), "t"));
  EXPECT_EQ(LOGC_E_CONFIG_XML, logc_init(WriteConfig("<LogClient").c_str(), "t"));
  EXPECT_EQ(LOGC_E_CONFIG_XML, logc_init(WriteConfig("<?xml version=\"1.0\"?><Other/>").c_str(), "t"));
  EXPECT_EQ(LOGC_E_CONFIG_VALUE,
            logc_init(WriteConfig("<?xml version=\"1.0\"?><LogClient threshold=\"LOUD\"/>").c_str(), "t"));
  EXPECT_EQ(LOGC_E_CONFIG_VALUE,
            logc_init(WriteConfig("<?xml version=\"1.0\"?><LogClient><FileAppender path=\"x\" "
                                  "maxSizeMb=\"0\" maxFiles=\"2\"/></LogClient>").c_str(), "t"));
  EXPECT_EQ(nullptr, logc_get_category("Zandor.Buffer"));  // nothing started
}

TEST_F(LogcTest, FileLineCarriesTimeLevelThreadCategoryCodeSourceAndMessage) {
  std::string strLog = m_strDir + "/log/buffer.log";  // directory created on demand
  std::string strConfig = WriteConfig(
      "<?xml version=\"1.0\"?>\n<LogClient threshold=\"WARN\">\n"
      "  <Category name=\"Zandor.Buffer\" threshold=\"DEBUG\"/>\n"
      "  <FileAppender path=\"" + strLog + "\" maxSizeMb=\"1\" maxFiles=\"2\"/>\n"
      "</LogClient>\n");
  ASSERT_EQ(0, logc_init(strConfig.c_str(), "Buffer"));
  EXPECT_EQ(LOGC_E_ALREADY, logc_init(strConfig.c_str(), "Buffer"));
  LOGC_CATEGORY cat = logc_get_category("Zandor.Buffer");
  LOGC_CATEGORY other = logc_get_category("Other");
  ASSERT_NE(nullptr, cat);
  LOGC_WRITE(cat, LL_DEBUG, 0, "connect %s:%d", "10.0.0.5", 5000);
  LOGC_WRITE(cat, LL_TRACE, 0, "too detailed");
  LOGC_WRITE(other, LL_INFO, 0, "below the default threshold");
  LOGC_WRITE(other, LL_ERROR, 110241, "alloc memory for buffer failed");
  ASSERT_EQ(0, logc_finish());

  std::string strText = ReadFile(strLog);
  std::regex line(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\] DEBUG Zandor\.Buffer code=0 )"
      R"(logc_test\.cpp:\d+ TestBody: connect 10\.0\.0\.5:5000)");
  EXPECT_TRUE(std::regex_search(strText, line)) << strText;
  EXPECT_NE(std::string::npos, strText.find("ERROR Other code=110241"));
  EXPECT_EQ(std::string::npos, strText.find("too detailed"));
  EXPECT_EQ(std::string::npos, strText.find("below the default"));
}

TEST_F(LogcTest, FileRotatesAtItsSizeLimit) {
  std::string strLog = m_strDir + "/rot.log";
  ASSERT_EQ(0, logc_init(WriteConfig("<?xml version=\"1.0\"?><LogClient><FileAppender path=\"" +
                                     strLog + "\" maxSizeMb=\"1\" maxFiles=\"2\"/></LogClient>")
                             .c_str(),
                         "Buffer"));
  LOGC_CATEGORY cat = logc_get_category("Zandor.Buffer");
  std::string strPayload(1000, 'p');
  for (int i = 0; i < 1500; ++i) LOGC_WRITE(cat, LL_INFO, 0, "%s", strPayload.c_str());
  ASSERT_EQ(0, logc_finish());
  EXPECT_EQ(0, access((m_strDir + "/rot.1.log").c_str(), F_OK));
  EXPECT_LE(ReadFile(strLog).size(), 1u << 20);
}

}  // namespace
