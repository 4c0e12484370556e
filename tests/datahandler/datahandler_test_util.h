// Test bench for CDataHandler: a shared-memory instance of its own, a cache
// file in a scratch directory, the reference server in this process and the
// log capture, with helpers to build batches and read back what the server
// stored.
#ifndef TESTS_DATAHANDLER_DATAHANDLER_TEST_UTIL_H_
#define TESTS_DATAHANDLER_DATAHANDLER_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CacheFile.h"
#include "DataHandler.h"
#include "logc_test.h"
#include "orlo_test_util.h"
#include "proccomm.h"
#include "refserver.h"
#include "zd_errcode.h"

// Reaches the private members of a handler.
struct CDataHandlerProbe {
  static int32 SendRecToSrv(CDataHandler& h, char* p, int32 n) { return h.SendRecToSrv(p, n); }
  static bool IsNeedSaveToFile(CDataHandler& h, int32 nRet, int32* pErrs, int32 nNum) {
    return h.IsNeedSaveToFile(nRet, pErrs, nNum);
  }
  static bool NeedSave(const CDataHandler& h) { return h.m_bNeedSaveToFile; }
  static std::string User(CDataHandler& h) {
    std::lock_guard<std::mutex> lock(h.m_credMutex);
    return std::string(h.m_szUser, strnlen(h.m_szUser, sizeof(h.m_szUser)));
  }
  static std::string PassWord(CDataHandler& h) {
    std::lock_guard<std::mutex> lock(h.m_credMutex);
    return std::string(h.m_szPassWord, strnlen(h.m_szPassWord, sizeof(h.m_szPassWord)));
  }
  static char LastUserByte(const CDataHandler& h) { return h.m_szUser[sizeof(h.m_szUser) - 1]; }
  static void SetCountersPeriodMs(int32 nMs) { CDataHandler::m_nCountersPeriodMs.store(nMs); }
  static char LastPassWordByte(const CDataHandler& h) {
    return h.m_szPassWord[sizeof(h.m_szPassWord) - 1];
  }
};

// A batch of INT32 records on one tag whose values run nFirst, nFirst+1, ...
// (the reference server's report convention).
std::vector<char> make_int32_batch(uint32 nTag, int32 nFirst, int32 nCount);
// A batch of exactly nTotalLen bytes (>= 22) made of blob records on nTag.
std::vector<char> make_blob_batch(uint32 nTag, int32 nTotalLen);
// Record count of a batch (its first two bytes).
uint16 batch_count(const std::vector<char>& v);

// Values stored for nTag, in order of arrival.
std::vector<int64> stored_values(const std::vector<SStoredRow>& rows, uint32 nTag);

// Waits up to nTimeoutMs for pred; true when it came true.
bool wait_for(const std::function<bool()>& pred, int32 nTimeoutMs);

class DataHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the in-process server on m_nPort (0: any) with the database
  // m_strDb; extra settings through pConfig.
  void StartServer(SRefServerConfig* pConfig = nullptr);
  void StopServer() { m_srv.Stop(); }
  std::string Control(const std::string& s) { return m_srv.Control(s); }

  // Constructs, initialises and starts the handler on the data queue.
  int32 StartHandler(int32 nPeriodMs, int32 nQueueID = -1, uint16 nPort = 0);
  void StopHandler();

  void Send(const std::vector<char>& v);
  // Sends nBatches batches of nPerBatch int32 values 1, 2, 3 ... on tag 1
  // from a thread of its own, nPauseMs apart, waiting while the pool is full;
  // *pnSent counts the batches sent.
  std::thread SendStream(int32 nBatches, int32 nPerBatch, int32 nPauseMs, std::atomic<int32>* pnSent);
  // Flow control: fills the pool through a queue of its own until less than
  // 30% of it is free, and takes those messages back out again.
  void FillPool();
  void EmptyPool();
  // The first server entry of the cache file (the one the handler uses).
  SrvHandle Entry();
  bool CacheHasRecord() { return m_cache.HasRecord(Entry()); }
  void ReopenCache();
  std::vector<SStoredRow> Rows() { return read_rows(m_strDb); }

  std::string m_strShmName;
  ProcCommHandle m_hPc = nullptr;
  int32 m_nQueueID = 0;
  ProcCommQueueHandle m_hSend = nullptr;
  int32 m_nFillQueueID = 0;
  ProcCommQueueHandle m_hFill = nullptr;  // FillPool's queue, while it holds messages
  int32 m_nFilled = 0;
  std::unique_ptr<CScratchDir> m_pDir;
  std::string m_strCache;
  std::string m_strDb;
  CCacheFile m_cache;
  std::list<SrvInfo*> m_listSrv;
  CRefServer m_srv;
  uint16 m_nPort = 0;
  std::unique_ptr<CDataHandler> m_pHandler;
};

#endif  // TESTS_DATAHANDLER_DATAHANDLER_TEST_UTIL_H_
