#include "datahandler_test_util.h"

#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "protocol/buffer_collector.h"

namespace {

constexpr int32 kSec = 1700000000;
std::atomic<int> g_nInstance{0};

}  // namespace

std::vector<char> make_int32_batch(uint32 nTag, int32 nFirst, int32 nCount) {
  ZdcBatch b;
  EXPECT_EQ(0, zdc_batch_create(&b, 0));
  for (int32 i = 0; i < nCount; ++i)
    EXPECT_EQ(0, zdc_batch_add_int32(&b, nTag, kSec + (nFirst + i) / 1000,
                                     static_cast<int16>((nFirst + i) % 1000), 192, nFirst + i));
  std::vector<char> v(b.pBuf, b.pBuf + b.nLen);
  zdc_batch_destroy(&b);
  return v;
}

std::vector<char> make_blob_batch(uint32 nTag, int32 nTotalLen) {
  // An entry with an n-byte blob takes 6 + 14 + n bytes.
  constexpr int32 kEntryFixed = 20;
  constexpr int32 kFull = kEntryFixed + 1000;
  ZdcBatch b;
  EXPECT_EQ(0, zdc_batch_create(&b, 0));
  std::vector<char> blob(1000, 'x');
  int32 nValue = 0;
  auto add = [&](int32 nBlob) {
    blob.assign(static_cast<size_t>(nBlob), static_cast<char>('a' + nValue % 26));
    EXPECT_EQ(0, zdc_batch_add_blob(&b, nTag, kSec, 0, 192, blob.data(), nBlob));
    ++nValue;
  };
  while (nTotalLen - b.nLen > kFull + kEntryFixed) add(1000);
  int32 nRest = nTotalLen - b.nLen;
  if (nRest > kFull) {
    add(nRest - 2 * kEntryFixed);
    add(0);
  } else {
    add(nRest - kEntryFixed);
  }
  EXPECT_EQ(nTotalLen, b.nLen);
  std::vector<char> v(b.pBuf, b.pBuf + b.nLen);
  zdc_batch_destroy(&b);
  return v;
}

uint16 batch_count(const std::vector<char>& v) {
  return static_cast<uint16>(static_cast<uint8>(v[0]) | (static_cast<uint8>(v[1]) << 8));
}

std::vector<int64> stored_values(const std::vector<SStoredRow>& rows, uint32 nTag) {
  std::vector<int64> v;
  for (const SStoredRow& r : rows)
    if (r.nTag == nTag) v.push_back(r.nInt);
  return v;
}

bool wait_for(const std::function<bool()>& pred, int32 nTimeoutMs) {
  auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
  while (std::chrono::steady_clock::now() < tEnd) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return pred();
}

void DataHandlerTest::SetUp() {
  ASSERT_EQ(0, logc_init_capture(LL_TRACE));
  m_strShmName = "dhtest_" + std::to_string(getpid()) + "_" + std::to_string(g_nInstance++);
  ASSERT_EQ(0, proccomm_init(m_strShmName.c_str(), 16, 4096, 1000, &m_hPc));
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_hPc, &m_nQueueID));
  ASSERT_EQ(0, proccomm_reg(m_hPc, m_nQueueID, &m_hSend));
  m_pDir = std::make_unique<CScratchDir>();
  m_strCache = m_pDir->Path("dh_buffer.buf");
  m_strDb = m_pDir->Path("srv.db");
  ASSERT_EQ(0, m_cache.Init("test", m_strCache.c_str(), 32, &m_listSrv));
}

void DataHandlerTest::TearDown() {
  StopHandler();
  if (HasFailure()) {
    // What the handler said, for the failure report (TRACE lines left out).
    int nShown = 0;
    for (const LogcCapturedLine& l : logc_capture_take()) {
      if (l.nLevel == LL_TRACE || nShown++ > 80) continue;
      printf("  log %d %d %s\n", l.nLevel, l.nCode, l.strMessage.c_str());
    }
  }
  m_srv.Stop();
  m_cache.Release();
  if (m_hSend != nullptr) proccomm_unreg(m_hPc, m_nQueueID, m_hSend);
  if (m_hFill != nullptr) proccomm_unreg(m_hPc, m_nFillQueueID, m_hFill);
  if (m_hPc != nullptr) proccomm_release(m_hPc);
  m_pDir.reset();
  logc_finish();
}

void DataHandlerTest::StartServer(SRefServerConfig* pConfig) {
  SRefServerConfig config;
  if (pConfig != nullptr) config = *pConfig;
  if (config.strDbPath.empty()) config.strDbPath = m_strDb;
  config.nPort = m_nPort;
  ASSERT_EQ(0, m_srv.Start(config));
  m_nPort = m_srv.Port();
}

int32 DataHandlerTest::StartHandler(int32 nPeriodMs, int32 nQueueID, uint16 nPort) {
  m_pHandler = std::make_unique<CDataHandler>("127.0.0.1", nPort != 0 ? nPort : m_nPort, "", 0,
                                              nQueueID < 0 ? m_nQueueID : nQueueID, nPeriodMs,
                                              /*nSendTimeout=*/1, /*nConnTimeout=*/1);
  m_pHandler->Init(&m_hPc, &m_cache);
  return m_pHandler->Start();
}

void DataHandlerTest::StopHandler() {
  if (m_pHandler == nullptr) return;
  m_pHandler->Stop();
  m_pHandler.reset();
}

void DataHandlerTest::Send(const std::vector<char>& v) {
  ASSERT_EQ(0, proccomm_send(m_hSend, v.data(), static_cast<int32>(v.size())));
}

std::thread DataHandlerTest::SendStream(int32 nBatches, int32 nPerBatch, int32 nPauseMs,
                                        std::atomic<int32>* pnSent) {
  return std::thread([=, this] {
    for (int32 i = 0; i < nBatches; ++i) {
      std::vector<char> v = make_int32_batch(1, 1 + i * nPerBatch, nPerBatch);
      while (proccomm_send(m_hSend, v.data(), static_cast<int32>(v.size())) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      *pnSent = i + 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(nPauseMs));
    }
  });
}

void DataHandlerTest::FillPool() {
  ASSERT_EQ(0, proccomm_get_unused_queueid(m_hPc, &m_nFillQueueID));
  ASSERT_EQ(0, proccomm_reg(m_hPc, m_nFillQueueID, &m_hFill));
  std::vector<char> big(1048576, 'z');
  while (proccomm_get_unused_block_percent(m_hPc) >= 0.3) {
    ASSERT_EQ(0, proccomm_send(m_hFill, big.data(), static_cast<int32>(big.size())));
    ++m_nFilled;
  }
}

void DataHandlerTest::EmptyPool() {
  std::vector<char> buf(1048576);
  for (; m_nFilled > 0; --m_nFilled) {
    int32 nLen = static_cast<int32>(buf.size());
    ASSERT_EQ(0, proccomm_recv(m_hFill, buf.data(), &nLen, 0, 0));
  }
}

SrvHandle DataHandlerTest::Entry() {
  SrvHandle h = nullptr;
  EXPECT_EQ(0, m_cache.SaveSrvInfo(0, m_nPort, &h));
  return h;
}

void DataHandlerTest::ReopenCache() {
  m_cache.Release();
  m_listSrv.clear();
  ASSERT_EQ(0, m_cache.Init("test", m_strCache.c_str(), 32, &m_listSrv));
}
