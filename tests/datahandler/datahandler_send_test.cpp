// The send path in isolation (through the probe, on a session this test
// opens itself), the classification of server results, and the credential
// fields.
#include <cstdio>
#include <cstring>
#include <fstream>

#include "datahandler_test_util.h"
#include "protocol/buffer_collector.h"
#include "zdorlo_api.h"

namespace {

class SendPathTest : public DataHandlerTest {
 protected:
  void SetUp() override {
    DataHandlerTest::SetUp();
    StartServer();
    ZD3Connection c = make_conn(m_nPort, 0, 1);
    ASSERT_EQ(0, nt3_connect(&c));
    m_pHandler = std::make_unique<CDataHandler>("127.0.0.1", m_nPort, "", 0, m_nQueueID, 50, 1, 1);
    m_pHandler->Init(&m_hPc, &m_cache);
  }
  void TearDown() override {
    nt3_disconnect();
    m_pHandler.reset();  // never started: nothing to stop
    DataHandlerTest::TearDown();
  }
  int32 SendRaw(std::vector<char> v) {
    return CDataHandlerProbe::SendRecToSrv(*m_pHandler, v.empty() ? nullptr : v.data(),
                                           static_cast<int32>(v.size()));
  }
  // Sets the length field of entry 0 (after the 2-byte count).
  static void SetEntryLen(std::vector<char>* pv, size_t nEntryOff, uint16 nLen) {
    (*pv)[nEntryOff + 4] = static_cast<char>(nLen & 0xff);
    (*pv)[nEntryOff + 5] = static_cast<char>(nLen >> 8);
  }
};

TEST_F(SendPathTest, MalformedBatchesAreRefusedWithoutAServerCall) {
  std::vector<char> good = make_int32_batch(1, 1, 2);  // 2 + 2 * 22 bytes
  ASSERT_EQ(46u, good.size());

  EXPECT_EQ(0, SendRaw({}));
  EXPECT_EQ(EC_MSG_TOO_SHORT, SendRaw({1}));
  EXPECT_EQ(EC_MSG_TOO_SHORT, SendRaw({0, 0, 1, 2, 3}));
  // The count announces 3 entries, the bytes hold 2.
  std::vector<char> v = good;
  v[0] = 3;
  EXPECT_EQ(EC_MSG_TOO_SHORT, SendRaw(v));
  // The last entry's body runs one byte past the end.
  v = good;
  SetEntryLen(&v, 24, 17);
  EXPECT_EQ(EC_MSG_TOO_SHORT, SendRaw(v));
  // Cut inside the second entry's head.
  v.assign(good.begin(), good.begin() + 27);
  EXPECT_EQ(EC_MSG_TOO_SHORT, SendRaw(v));
  // Type 8 in the second record.
  v = good;
  v[24 + 6 + 8] = 8;
  EXPECT_EQ(EC_REC_BAD_TYPE, SendRaw(v));
  // A blob announcing 1,001 bytes.
  std::vector<char> blob = make_blob_batch(1, 2 + 20 + 1000);
  ASSERT_EQ(1, batch_count(blob));
  ASSERT_EQ(0, SendRaw(blob));  // a 1,000-byte blob: the largest allowed
  blob[2 + 6 + 12] = static_cast<char>(1001 & 0xff);
  blob[2 + 6 + 13] = static_cast<char>(1001 >> 8);
  EXPECT_EQ(EC_REC_BAD_LEN, SendRaw(blob));

  EXPECT_FALSE(CDataHandlerProbe::NeedSave(*m_pHandler));
  EXPECT_EQ(1u, m_srv.Stats().nSaves);  // only the good blob batch reached the server
}

TEST_F(SendPathTest, TrailingBytesAreIgnoredAndEachRecordHasItsOwnValueBuffer) {
  ZdcBatch b;
  ASSERT_EQ(0, zdc_batch_create(&b, 0));
  ASSERT_EQ(0, zdc_batch_add_string(&b, 9, 1700000000, 1, 0, "ccc"));
  ASSERT_EQ(0, zdc_batch_add_string(&b, 9, 1700000000, 2, 0, "a"));
  ASSERT_EQ(0, zdc_batch_add_int32(&b, 9, 1700000000, 3, 0, 77));
  ASSERT_EQ(0, zdc_batch_add_string(&b, 9, 1700000000, 4, 0, "bb"));
  std::vector<char> v(b.pBuf, b.pBuf + b.nLen);
  zdc_batch_destroy(&b);
  v.insert(v.end(), {'j', 'u', 'n', 'k'});
  ASSERT_EQ(0, SendRaw(v));
  EXPECT_FALSE(CDataHandlerProbe::NeedSave(*m_pHandler));

  std::vector<SStoredRow> rows = Rows();
  ASSERT_EQ(4u, rows.size());
  EXPECT_EQ("ccc", rows[0].strBytes);
  EXPECT_EQ("a", rows[1].strBytes);
  EXPECT_EQ(77, rows[2].nInt);
  EXPECT_EQ("bb", rows[3].strBytes);
}

TEST_F(SendPathTest, ServerFailureSetsNeedSaveByClass) {
  std::vector<char> v = make_int32_batch(1, 1, 3);
  Control("fail-every 1:110707");
  EXPECT_EQ(110707, SendRaw(v));
  EXPECT_TRUE(CDataHandlerProbe::NeedSave(*m_pHandler));
  Control("fail-every 1:119611");
  EXPECT_EQ(119611, SendRaw(v));
  EXPECT_FALSE(CDataHandlerProbe::NeedSave(*m_pHandler));
  Control("reset");
  Control("fail-tags 1");
  EXPECT_EQ(ZD3_E_SOME_RECORDS_FAILED, SendRaw(v));
  EXPECT_TRUE(CDataHandlerProbe::NeedSave(*m_pHandler));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, 119609, "some record save timeout, need save to file"));
  EXPECT_TRUE(logc_capture_has(LL_ERROR, 119609, "sn3_save_tags_disorder_snapshots failed errs[0] 110350"));
  EXPECT_TRUE(logc_capture_has(LL_DEBUG, 0, "sn3_save_ id0:1, t:1700000000.1"));
}

TEST_F(SendPathTest, ClassificationBoundaries) {
  struct {
    int32 nRet;
    bool bKeep;
  } cases[] = {{0, false},      {-1, false},     {1, true},       {109999, true},
               {110000, false}, {110329, false}, {110330, true},  {110350, true},
               {110376, true},  {110377, false}, {110706, false}, {110707, true},
               {110708, false}, {119632, true},  {119631, false}, {119611, false},
               {119410, false}, {INT32_MIN, false}};
  int32 errs[3] = {110350, 110350, 110350};
  for (const auto& c : cases)
    EXPECT_EQ(c.bKeep, CDataHandlerProbe::IsNeedSaveToFile(*m_pHandler, c.nRet, errs, 3)) << c.nRet;
  // 119609 looks at the per-record codes, and logs once at the first timeout.
  logc_capture_take();
  int32 errsTimeout[3] = {0, 110350, 110350};
  EXPECT_TRUE(CDataHandlerProbe::IsNeedSaveToFile(*m_pHandler, 119609, errsTimeout, 3));
  int nLines = 0;
  for (const LogcCapturedLine& l : logc_capture_take())
    if (l.strMessage.find("some record save timeout") != std::string::npos) ++nLines;
  EXPECT_EQ(1, nLines);
  int32 errsOther[3] = {0, 5, 0};
  EXPECT_FALSE(CDataHandlerProbe::IsNeedSaveToFile(*m_pHandler, 119609, errsOther, 3));
  // Only the first nNum codes count.
  EXPECT_FALSE(CDataHandlerProbe::IsNeedSaveToFile(*m_pHandler, 119609, errsTimeout, 1));
}

// Credentials are cut to their fields and stored in the server's entry.
TEST_F(SendPathTest, CredentialsAreCutToTheirFields) {
  std::string strUser64(64, 'u');
  std::string strPw127(127, 'p');
  std::string strPw128(128, 'q');
  ASSERT_EQ(0, m_pHandler->SetUserPassWord(strUser64.c_str(), strPw127.c_str()));
  EXPECT_EQ(std::string(63, 'u'), CDataHandlerProbe::User(*m_pHandler));
  EXPECT_EQ(strPw127, CDataHandlerProbe::PassWord(*m_pHandler));
  EXPECT_EQ(0, CDataHandlerProbe::LastUserByte(*m_pHandler));
  EXPECT_EQ(0, CDataHandlerProbe::LastPassWordByte(*m_pHandler));

  // The file's first entry: user at byte 140 + 39 (64 bytes), password at
  // 140 + 103 (128 bytes), both zero-padded.
  auto fileField = [&](long nOff, size_t nLen) {
    std::ifstream f(m_strCache, std::ios::binary);
    f.seekg(nOff);
    std::string s(nLen, '\0');
    f.read(s.data(), static_cast<std::streamsize>(nLen));
    return s;
  };
  EXPECT_EQ(std::string(63, 'u') + '\0', fileField(179, 64));
  EXPECT_EQ(strPw127 + '\0', fileField(243, 128));

  ASSERT_EQ(0, m_pHandler->SetUserPassWord("bob", strPw128.c_str()));
  EXPECT_EQ("bob", CDataHandlerProbe::User(*m_pHandler));
  EXPECT_EQ(std::string(127, 'q'), CDataHandlerProbe::PassWord(*m_pHandler));
  EXPECT_EQ(std::string(127, 'q') + '\0', fileField(243, 128));
  std::string strUserField = fileField(179, 64);
  EXPECT_EQ(0, memcmp(strUserField.data(), "bob\0\0\0", 6));
}

}  // namespace
