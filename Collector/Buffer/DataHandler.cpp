#include "DataHandler.h"

#include <stdio.h>
#include <string.h>

#include <chrono>
#include <new>

#include "protocol/buffer_proto_record.h"
#include "protocol/proto_base.h"
#include "zd_errcode.h"

namespace {

constexpr int32 kBufferSize = BUFFER_BATCH_MAX_LEN;  // every transfer buffer, and the largest batch
constexpr int32 kSmallestSendable = 2;       // a send buffer of more bytes is worth keeping
constexpr int32 kConnectDelayMs = 500;       // before the first connection attempt
constexpr int32 kRetryPauseMs = 2000;        // between connection or log-in attempts
constexpr int32 kCacheRetryPauseMs = 1000;   // after a failed delivery from the cache file
constexpr float64 kFlowControlThreshold = 0.3;
constexpr int32 kBatchHeadSize = BUFFER_BATCH_HEAD_LEN;  // uint16 record count
constexpr int32 kEntryHeadSize = BUFFER_ENTRY_HEAD_LEN;  // uint32 tag id + uint16 record length

int64 GetCurrentTimeMs() {
  uint32 nSec = 0;
  uint16 nMsec = 0;
  os_get_curr_time_sec_and_msec(&nSec, &nMsec);
  return static_cast<int64>(nSec) * 1000 + nMsec;
}

// The record count of a batch (its first two bytes, little-endian).
uint16 BatchCount(const char* pBatch, int32 nLen) {
  uint16 nCount = 0;
  if (nLen >= kBatchHeadSize) unpack_value(pBatch, &nCount, sizeof(nCount), false);
  return nCount;
}

// Joins a received batch to the send buffer: the counts are added, the
// received entries follow the old ones. The caller has checked that the
// result fits the send buffer and that the received batch has its count.
void AppendBuf(const char* pRecv, int32 nLenRecv, char* pSendBuf, int32* pnLenSendBuf) {
  if (*pnLenSendBuf == 0) {
    memcpy(pSendBuf, pRecv, static_cast<size_t>(nLenRecv));
    *pnLenSendBuf = nLenRecv;
    return;
  }
  uint16 nRecvCount = 0, nSendCount = 0;
  unpack_value(pRecv, &nRecvCount, sizeof(nRecvCount), false);
  unpack_value(pSendBuf, &nSendCount, sizeof(nSendCount), false);
  uint16 nSum = static_cast<uint16>(nRecvCount + nSendCount);
  pack_value(&nSum, sizeof(nSum), pSendBuf, false);
  memcpy(pSendBuf + *pnLenSendBuf, pRecv + kBatchHeadSize,
         static_cast<size_t>(nLenRecv - kBatchHeadSize));
  *pnLenSendBuf += nLenRecv - kBatchHeadSize;
}

// Checks a received batch's frame before it is joined to others: a count of
// at least 1, every entry inside the batch, every record decodable. A bad
// batch joined to good ones would make the whole send buffer undeliverable,
// so it is refused alone. Returns 0 and the length of the framed part
// (bytes after the last entry are not joined), or the decoder's status.
int32 CheckBatchFrame(const char* pBatch, int32 nLen, int32* pnFramedLen) {
  uint16 nCount = BatchCount(pBatch, nLen);
  if (nLen < kBatchHeadSize || nCount == 0) return EC_MSG_TOO_SHORT;
  int32 nPos = kBatchHeadSize;
  for (uint16 i = 0; i < nCount; ++i) {
    if (nLen - nPos < kEntryHeadSize) return EC_MSG_TOO_SHORT;
    uint16 nLenRecord = 0;
    unpack_value(pBatch + nPos + 4, &nLenRecord, sizeof(nLenRecord), false);
    nPos += kEntryHeadSize;
    if (nLen - nPos < nLenRecord) return EC_MSG_TOO_SHORT;
    int32 nRet = buffer_proto::CheckRecord(pBatch + nPos, nLenRecord);
    if (nRet != 0) return nRet;
    nPos += nLenRecord;
  }
  *pnFramedLen = nPos;
  return 0;
}

}  // namespace

std::atomic<bool> CDataHandler::m_bQuit{false};
std::atomic<int32> CDataHandler::m_nCountersPeriodMs{60000};
ProcCommHandle* CDataHandler::m_pProcCommHandle = nullptr;
CCacheFile* CDataHandler::m_pCacheFile = nullptr;
LOGC_CATEGORY CDataHandler::m_cat = nullptr;

bool SendScratch::Reserve(int32 nRecords) {
  if (nRecords <= nCapacity) return true;
  int32 nNew = nCapacity == 0 ? 256 : nCapacity;
  while (nNew < nRecords) nNew *= 2;
  // new[] without () leaves the value buffers untouched: pages are only
  // faulted in when a string or blob is decoded into them.
  std::unique_ptr<uint32[]> pNewIds(new (std::nothrow) uint32[nNew]);
  std::unique_ptr<ZD3Record[]> pNewRecs(new (std::nothrow) ZD3Record[nNew]);
  std::unique_ptr<int32[]> pNewErrs(new (std::nothrow) int32[nNew]);
  std::unique_ptr<char[]> pNewValues(
      new (std::nothrow) char[static_cast<size_t>(nNew) * ZD3_MAX_STRBLOB_LEN]);
  if (!pNewIds || !pNewRecs || !pNewErrs || !pNewValues) return false;
  pIds = std::move(pNewIds);
  pRecs = std::move(pNewRecs);
  pErrs = std::move(pNewErrs);
  pValues = std::move(pNewValues);
  nCapacity = nNew;
  return true;
}

int32 CDataHandler::CheckReceivedBatch(const char* pBatch, int32 nLen, int32* pnFramedLen) {
  return CheckBatchFrame(pBatch, nLen, pnFramedLen);
}

// ---- The handler object --------------------------------------------------

CDataHandler::CDataHandler(const char* szIP, uint16 nPort, const char* szBakIP, uint16 nBakPort,
                           int32 nQueueID, int32 nSendPeriod, int32 nSendTimeout,
                           int32 nConnTimeout)
    : m_nQueueID(nQueueID),
      m_bNeedSaveToFile(false),
      m_conn(),
      m_nSendPeriod(nSendPeriod),
      m_nSendTimeout(nSendTimeout),
      m_nIP(0),
      m_szUser(),
      m_szPassWord(),
      m_hThread(nullptr),
      m_hProcCommQueue(nullptr),
      m_pScratch(nullptr) {
  // Re-arm the shared quit flag: the previous handler has been joined.
  m_bQuit.store(false);
  snprintf(m_conn.szAddress, sizeof(m_conn.szAddress), "%s", szIP != nullptr ? szIP : "");
  snprintf(m_conn.szBakAddress, sizeof(m_conn.szBakAddress), "%s", szBakIP != nullptr ? szBakIP : "");
  m_conn.nPort = nPort;
  m_conn.nBakPort = nBakPort;
  m_conn.nTimeout = nConnTimeout;
  os_network_ip2int(m_conn.szAddress, &m_nIP);
}

CDataHandler::~CDataHandler() {}

void CDataHandler::Init(ProcCommHandle* pProcCommHandle, CCacheFile* pCacheFile) {
  m_pProcCommHandle = pProcCommHandle;
  m_pCacheFile = pCacheFile;
  m_cat = logc_get_category("Zandor.Buffer");
  if (m_cat == nullptr) printf("Logc get category failed\n");
}

int32 CDataHandler::Start() {
  int32 nRet = proccomm_reg(*m_pProcCommHandle, m_nQueueID, &m_hProcCommQueue);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "Proccomm reg queue handle failed");
    m_hProcCommQueue = nullptr;
    return nRet;
  }
  nRet = os_thread_create(&m_hThread, ThreadHandleData, this);
  if (nRet != 0) m_hThread = nullptr;
  return nRet;
}

void CDataHandler::Stop() {
  {
    // Under the mutex, so that a pause that has just tested the flag cannot
    // miss the notification.
    std::lock_guard<std::mutex> lock(m_quitMutex);
    m_bQuit.store(true);
  }
  m_quitCond.notify_all();
  if (m_hProcCommQueue != nullptr) proccomm_recv_quit(m_hProcCommQueue);
  if (m_hThread != nullptr) {
    os_thread_join(m_hThread);
    m_hThread = nullptr;  // a second Stop joins nothing
  }
  if (m_hProcCommQueue != nullptr) {
    proccomm_unreg(*m_pProcCommHandle, m_nQueueID, m_hProcCommQueue);
    m_hProcCommQueue = nullptr;
  }
}

int32 CDataHandler::SetUserPassWord(const char* szUser, const char* szPassWord) {
  {
    std::lock_guard<std::mutex> lock(m_credMutex);
    // The last byte of each field is never written: both stay terminated.
    strncpy(m_szUser, szUser != nullptr ? szUser : "", sizeof(m_szUser) - 1);
    strncpy(m_szPassWord, szPassWord != nullptr ? szPassWord : "", sizeof(m_szPassWord) - 1);
  }
  if (m_pCacheFile == nullptr) return 0;
  SrvHandle hSrv = nullptr;
  int32 nRet = m_pCacheFile->SaveSrvInfo(m_nIP, m_conn.nPort, &hSrv);
  if (nRet != 0) return nRet;
  char szUserCopy[sizeof(m_szUser)], szPassWordCopy[sizeof(m_szPassWord)];
  {
    std::lock_guard<std::mutex> lock(m_credMutex);
    memcpy(szUserCopy, m_szUser, sizeof(szUserCopy));
    memcpy(szPassWordCopy, m_szPassWord, sizeof(szPassWordCopy));
  }
  nRet = m_pCacheFile->SetUserPassWord(hSrv, szUserCopy, szPassWordCopy);
  explicit_bzero(szPassWordCopy, sizeof(szPassWordCopy));
  return nRet;
}

bool CDataHandler::PauseUnlessQuit(int32 nMs) {
  std::unique_lock<std::mutex> lock(m_quitMutex);
  m_quitCond.wait_for(lock, std::chrono::milliseconds(nMs), [] { return m_bQuit.load(); });
  return !m_bQuit.load();
}

// Returns 0 once connected and logged in, or EC_RD_PROCCOMM_RECV_QUIT when a
// stop request ended the attempts (they are retried without limit otherwise).
int32 CDataHandler::Connect() {
  if (!PauseUnlessQuit(kConnectDelayMs)) return EC_RD_PROCCOMM_RECV_QUIT;
  int32 nRet = nt3_connect(&m_conn);
  LOGC_WRITE(m_cat, LL_INFO, 0, "connect %s:%d %s:%d, nRet %d", m_conn.szAddress, m_conn.nPort,
             m_conn.szBakAddress, m_conn.nBakPort, nRet);
  while (nRet != 0) {
    nt3_disconnect();
    if (!PauseUnlessQuit(kRetryPauseMs)) return EC_RD_PROCCOMM_RECV_QUIT;
    nRet = nt3_connect(&m_conn);
    LOGC_WRITE(m_cat, LL_INFO, 0, "connect %s:%d %s:%d, nRet %d", m_conn.szAddress, m_conn.nPort,
               m_conn.szBakAddress, m_conn.nBakPort, nRet);
  }

  char szUser[sizeof(m_szUser)];
  nRet = Login(szUser);
  LOGC_WRITE(m_cat, LL_INFO, 0, "login, user %s nRet %d", szUser, nRet);
  while (nRet != 0) {
    if (!PauseUnlessQuit(kRetryPauseMs)) return EC_RD_PROCCOMM_RECV_QUIT;
    nRet = Login(szUser);
    LOGC_WRITE(m_cat, LL_INFO, 0, "login, user %s nRet %d", szUser, nRet);
  }
  ut3_set_api_option(1);
  return 0;
}

int32 CDataHandler::Login(char* szUser) {
  char szPassWord[sizeof(m_szPassWord)];
  {
    std::lock_guard<std::mutex> lock(m_credMutex);
    memcpy(szUser, m_szUser, sizeof(m_szUser));
    memcpy(szPassWord, m_szPassWord, sizeof(szPassWord));
  }
  // A server without credentials counts as logged in.
  int32 nRet = 0;
  if (szUser[0] != '\0' && szPassWord[0] != '\0') nRet = sc3_login(szUser, szPassWord);
  explicit_bzero(szPassWord, sizeof(szPassWord));
  return nRet;
}

int32 CDataHandler::Disconnect() { return nt3_disconnect(); }

// ---- Send path -----------------------------------------------------------

int32 CDataHandler::SendRecToSrv(char* pSendBuf, int32 nLenSendBuf) {
  m_bNeedSaveToFile = false;
  if (nLenSendBuf == 0) return 0;

  int32 nLeft = nLenSendBuf - kBatchHeadSize;
  if (nLeft < 0) return EC_MSG_TOO_SHORT;
  char* pCursor = pSendBuf;
  uint16 nRecNum = 0;
  ParseFixStep<uint16>(&pCursor, &nRecNum);
  if (nRecNum == 0) return EC_MSG_TOO_SHORT;

  SendScratch* pScratch = m_pScratch;
  SendScratch localScratch;  // only when called outside the data thread
  if (pScratch == nullptr) pScratch = &localScratch;
  if (!pScratch->Reserve(nRecNum)) return EC_NO_MEMORY;
  uint32* ids = pScratch->pIds.get();
  ZD3Record* recs = pScratch->pRecs.get();
  int32* errs = pScratch->pErrs.get();

  // Each record is zeroed, given its own value buffer (nLenBuf preset to the
  // buffer's size) and decoded in one pass, while its cache line is hot: a
  // 1 MiB batch holds up to 55,188 records, 3.5 MB of ZD3Record, and one
  // pass instead of three is what keeps the send path near memory speed.
  // Records after a fault are never looked at: the call returns before the
  // server sees any.
  for (int32 i = 0; i < nRecNum; ++i) {
    memset(&recs[i], 0, sizeof(ZD3Record));
    recs[i].value.strBlob.pBuf = pScratch->pValues.get() + static_cast<size_t>(i) * ZD3_MAX_STRBLOB_LEN;
    recs[i].value.strBlob.nLenBuf = ZD3_MAX_STRBLOB_LEN;
    errs[i] = 0;
    nLeft -= 4;
    if (nLeft < 0) return EC_MSG_TOO_SHORT;
    ParseFixStep<uint32>(&pCursor, &ids[i]);
    nLeft -= 2;
    if (nLeft < 0) return EC_MSG_TOO_SHORT;
    uint16 nLenRecord = 0;
    ParseFixStep<uint16>(&pCursor, &nLenRecord);
    nLeft -= nLenRecord;
    if (nLeft < 0) return EC_MSG_TOO_SHORT;
    int32 nRet = buffer_proto::ParseRecord(&recs[i], pCursor, nLenRecord);
    if (nRet != 0) return nRet;
    pCursor += nLenRecord;
  }

  struct timeval tvStart, tvEnd, tvCost;
  os_gettimeofday_high_res(&tvStart);
  LOGC_WRITE(m_cat, LL_DEBUG, 0, "sn3_save_ id0:%d, t:%d.%d", ids[0], recs[0].nSec, recs[0].nMsec);
  int32 nRet = sn3_save_tags_disorder_snapshots(nRecNum, ids, recs, errs);
  os_gettimeofday_high_res(&tvEnd);
  os_timevalue_sub(&tvCost, &tvEnd, &tvStart);
  LOGC_WRITE(m_cat, LL_DEBUG, 0, "sn3_save_tags_disorder_snapshots: nRecNum = %d, cost %f sec\n",
             nRecNum, tvCost.tv_sec + tvCost.tv_usec * 0.000001);
  if (nRet != 0)
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "sn3_save_tags_disorder_snapshots failed errs[0] %d", errs[0]);
  m_bNeedSaveToFile = IsNeedSaveToFile(nRet, errs, nRecNum);
  return nRet;
}

// Whether a failed delivery may succeed later: network and session failures,
// codes below 110000, server busy, storage unavailable, and per-record
// timeouts. Everything else (0 included) is final.
bool CDataHandler::IsNeedSaveToFile(int32 nRet, int32* nErrs, int32 nNum) {
  if (nRet >= 110330 && nRet <= 110376) return true;
  if (nRet >= 1 && nRet <= 109999) return true;
  if (nRet == 110707 || nRet == 119632) return true;
  if (nRet == 119609) {
    for (int32 i = 0; i < nNum; ++i) {
      if (nErrs[i] == 110350) {
        LOGC_WRITE(m_cat, LL_ERROR, 119609, "some record save timeout, need save to file");
        return true;
      }
    }
  }
  return false;
}

bool CDataHandler::IsProcCommHasEnoughSpace() {
  float64 fUnused = proccomm_get_unused_block_percent(*m_pProcCommHandle);
  if (fUnused < kFlowControlThreshold) {
    LOGC_WRITE(m_cat, LL_INFO, 0, "proccomm has not enough space %f", fUnused);
    return false;
  }
  return true;  // also when the value is not a number
}

// ---- The data thread -----------------------------------------------------

// The loop of ThreadHandleData with its state: the three 1 MiB buffers, the
// server's cache file entry and the send deadline. Each turn chooses live
// mode (wait for batches, deliver per send period) or drain mode (take
// batches without waiting, deliver the cache file oldest first).
class CDataHandler::CDataThread {
 public:
  explicit CDataThread(CDataHandler* pHandler) : m_p(pHandler) {}
  CDataThread(const CDataThread&) = delete;
  CDataThread& operator=(const CDataThread&) = delete;

  int32 Run();

 private:
  enum class Turn { kNext, kEnd };

  bool AllocateBuffers();
  Turn DrainTurn();
  Turn LiveTurn();
  void CacheReadFailed(int32 nRet);
  // Checks a received batch and joins it to the send buffer, first storing
  // or (live) delivering the send buffer when the batch would overflow it.
  void TakeReceived(bool bLive);
  void DeliverSendBuffer(bool bAtTimeout);
  // Counts the send buffer as stored in the cache file, or as lost when the
  // store failed, and empties it.
  void EmptySendBuffer(bool bStored);
  void LogCounters(const char* szWhen);
  void MaybeLogCounters();

  CDataHandler* m_p;
  SrvHandle m_hSrv = nullptr;
  std::unique_ptr<char[]> m_pSendBuf, m_pSendBufForCacheFile, m_pRecvBufFromAPI;
  int32 m_nLenSendBuf = 0;
  int32 m_nLenSendBufForCacheFile = 0;
  int32 m_nLenRecvFromAPI = 0;
  int64 m_nNextTimeOutMs = 0;  // send deadline, ms since the epoch; 0: not armed
  int64 m_nCurrentMs = 0;      // when the deadline was last armed
  int32 m_nRet = 0;
  SendScratch m_scratch;
  DataHandlerCounters m_counters;
  int64 m_nNextCountersMs = 0;
};

int32 CDataHandler::ThreadHandleData(void* pParam) {
  CDataThread thread(static_cast<CDataHandler*>(pParam));
  return thread.Run();
}

bool CDataHandler::CDataThread::AllocateBuffers() {
  m_pSendBuf.reset(new (std::nothrow) char[kBufferSize]);
  m_pSendBufForCacheFile.reset(new (std::nothrow) char[kBufferSize]);
  m_pRecvBufFromAPI.reset(new (std::nothrow) char[kBufferSize]);
  return m_pSendBuf && m_pSendBufForCacheFile && m_pRecvBufFromAPI;
}

int32 CDataHandler::CDataThread::Run() {
  LOGC_CATEGORY cat = m_cat;
  LOGC_WRITE(cat, LL_INFO, 0,
             "DataHandler thread start ip:%s port:%d bakip:%s bakport %d timeout:%d send perid:%d",
             m_p->m_conn.szAddress, m_p->m_conn.nPort, m_p->m_conn.szBakAddress,
             m_p->m_conn.nBakPort, m_p->m_nSendTimeout, m_p->m_nSendPeriod);
  m_nRet = m_p->Connect();
  LOGC_WRITE(cat, LL_INFO, 0, "Connect %d", m_nRet);
  if (m_nRet != 0) {  // stopped before the server ever answered
    m_p->Disconnect();
    return m_nRet;
  }

  uint32 nIP = 0;
  os_network_ip2int(m_p->m_conn.szAddress, &nIP);
  m_nRet = m_pCacheFile->SaveSrvInfo(nIP, m_p->m_conn.nPort, &m_hSrv);
  if (m_nRet != 0) {
    LOGC_WRITE(cat, LL_ERROR, m_nRet, "SaveSrvInfo to cache file failed");
    m_p->Disconnect();
    return m_nRet;
  }
  if (!AllocateBuffers() || !m_scratch.Reserve(1)) {
    LOGC_WRITE(cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for transfer buffers failed");
    m_p->Disconnect();
    return EC_NO_MEMORY;
  }
  m_p->m_pScratch = &m_scratch;
  ut3_set_request_timeout(m_p->m_nSendTimeout);
  m_nNextCountersMs = GetCurrentTimeMs() + m_nCountersPeriodMs.load();

  Turn turn = Turn::kNext;
  while (turn == Turn::kNext) {
    if (m_bQuit.load()) {
      if (m_nLenSendBuf > kSmallestSendable) {
        int32 nRet = m_pCacheFile->SaveRecord(m_hSrv, m_pSendBuf.get(), m_nLenSendBuf);
        LOGC_WRITE(cat, LL_TRACE, 0, "receive quit msg, save %d rec to server, nRet %d",
                   m_nLenSendBuf, nRet);
        EmptySendBuffer(/*bStored=*/nRet == 0);
      }
      break;
    }
    MaybeLogCounters();
    // The flow-control test is made only when the cache file holds nothing
    // for the server.
    bool bDrain = m_pCacheFile->HasRecord(m_hSrv) || !IsProcCommHasEnoughSpace();
    turn = bDrain ? DrainTurn() : LiveTurn();
  }

  LogCounters("at stop");
  m_p->m_pScratch = nullptr;
  m_p->Disconnect();
  return m_nRet;
}

CDataHandler::CDataThread::Turn CDataHandler::CDataThread::DrainTurn() {
  LOGC_CATEGORY cat = m_cat;
  m_nLenRecvFromAPI = kBufferSize;
  int32 nRet = proccomm_recv(m_p->m_hProcCommQueue, m_pRecvBufFromAPI.get(), &m_nLenRecvFromAPI, 0, 0);
  if (nRet != 0) {
    LOGC_WRITE(cat, LL_ERROR, nRet, "Receive records from proccomm failed");
    return Turn::kNext;
  }
  LOGC_WRITE(cat, LL_TRACE, 0, "cache file has rec, recv %d bytes from proccomm", m_nLenRecvFromAPI);
  if (m_nLenRecvFromAPI != 0) {
    TakeReceived(/*bLive=*/false);
    return Turn::kNext;
  }

  // The queue is empty: deliver the oldest cached batch.
  m_nLenSendBufForCacheFile = kBufferSize;
  nRet = m_pCacheFile->ReadCurRecord(m_hSrv, m_pSendBufForCacheFile.get(), &m_nLenSendBufForCacheFile);
  if (nRet != 0) {
    LOGC_WRITE(cat, LL_ERROR, nRet, "Read records from file failed");
    CacheReadFailed(nRet);
    return Turn::kNext;
  }
  LOGC_WRITE(cat, LL_TRACE, 0, "read %d bytes from cache file", m_nLenSendBufForCacheFile);
  nRet = m_p->SendRecToSrv(m_pSendBufForCacheFile.get(), m_nLenSendBufForCacheFile);
  LOGC_WRITE(cat, LL_TRACE, 0, "send %d bytes to server nRet: %d", m_nLenSendBufForCacheFile, nRet);
  if (m_p->m_bNeedSaveToFile) {
    // The batch stays at the head of the cache file and is tried again.
    LOGC_WRITE(cat, LL_INFO, nRet, "Send records to srv failed");
    m_p->PauseUnlessQuit(kCacheRetryPauseMs);
    return Turn::kNext;
  }
  uint64 nRecords = BatchCount(m_pSendBufForCacheFile.get(), m_nLenSendBufForCacheFile);
  if (nRet == 0) {
    m_counters.nDrainedBatches++;
    m_counters.nDrainedRecords += nRecords;
  } else if (nRet == EC_MSG_TOO_SHORT || nRet == EC_REC_BAD_TYPE || nRet == EC_REC_BAD_LEN) {
    m_counters.nMalformedBatches++;
    m_counters.nMalformedRecords += nRecords;
  } else {
    m_counters.nRefusedBatches++;
    m_counters.nRefusedRecords += nRecords;
  }
  nRet = m_pCacheFile->DelCurRecord(m_hSrv);
  LOGC_WRITE(cat, LL_TRACE, 0, "del %d bytes from cache file", m_nLenSendBufForCacheFile);
  if (nRet != 0) LOGC_WRITE(cat, LL_ERROR, nRet, "Del records from file failed");
  return Turn::kNext;
}

// A cached batch that cannot be read. An I/O error may pass: retry after a
// pause. A stored length above our buffer (only a damaged file holds one)
// can be stepped over when the queue is that long: remove that record. A
// length of 0 or less, one that runs past the queue, or a broken chain,
// cannot be stepped over: the rest of the queue is unreachable
// and is dropped whole.
// Either loss is logged, with what was lost.
void CDataHandler::CDataThread::CacheReadFailed(int32 nRet) {
  LOGC_CATEGORY cat = m_cat;
  if (nRet == EC_CACHE_BUF_SMALL) {
    int32 nDel = m_pCacheFile->DelCurRecord(m_hSrv);
    if (nDel == 0) {
      LOGC_WRITE(cat, LL_ERROR, nRet,
                 "cached batch of %d bytes is larger than any batch (%d bytes): dropped it",
                 m_nLenSendBufForCacheFile, kBufferSize);
      m_counters.nLostBatches++;
      return;
    }
    // The damaged length runs past the end of the queue's chain, so the
    // record cannot be stepped over either: drop the queue as below.
    LOGC_WRITE(cat, LL_ERROR, nDel,
               "cached batch of %d bytes is larger than any batch (%d bytes) and runs past the "
               "cached queue",
               m_nLenSendBufForCacheFile, kBufferSize);
    nRet = EC_CACHE_BAD_CHAIN;
  }
  if (nRet == EC_CACHE_BAD_REC_LEN || nRet == EC_CACHE_BAD_CHAIN) {
    int32 nDropped = 0;
    int32 nDel = m_pCacheFile->DropAllRecords(m_hSrv, &nDropped);
    LOGC_WRITE(cat, LL_ERROR, nRet,
               "cached batch with a damaged length or chain: dropped the server's cached queue "
               "(%d blocks), nRet %d",
               nDropped, nDel);
    m_counters.nLostBatches++;
  } else if (nRet == EC_CACHE_EMPTY) {
    // Drain mode for want of shared memory with nothing cached: wait a send
    // period for batches instead of turning without pause.
    m_p->PauseUnlessQuit(m_p->m_nSendPeriod < kCacheRetryPauseMs ? m_p->m_nSendPeriod : kCacheRetryPauseMs);
  } else {
    m_p->PauseUnlessQuit(kCacheRetryPauseMs);
  }
}

CDataHandler::CDataThread::Turn CDataHandler::CDataThread::LiveTurn() {
  LOGC_CATEGORY cat = m_cat;
  m_nLenRecvFromAPI = kBufferSize;
  int32 nRet = proccomm_recv(m_p->m_hProcCommQueue, m_pRecvBufFromAPI.get(), &m_nLenRecvFromAPI, 1,
                             static_cast<uint32>(m_p->m_nSendPeriod));
  if (nRet != 0) m_nLenRecvFromAPI = 0;
  LOGC_WRITE(cat, LL_TRACE, 0, "cache file has no rec, receive %d bytes from proccomm nRet: %d",
             m_nLenRecvFromAPI, nRet);
  switch (nRet) {
    case EC_RD_PROCCOMM_RECV_TIMEOUT:
      if (m_nLenSendBuf > kSmallestSendable)
        DeliverSendBuffer(/*bAtTimeout=*/true);
      else
        LOGC_WRITE(cat, LL_TRACE, 0, "EC_RD_PROCCOMM_RECV_TIMEOUT NoRec");
      return Turn::kNext;
    case EC_RD_PROCCOMM_RECV_QUIT:
      if (m_nLenSendBuf > kSmallestSendable) {
        int32 nSave = m_pCacheFile->SaveRecord(m_hSrv, m_pSendBuf.get(), m_nLenSendBuf);
        LOGC_WRITE(cat, LL_TRACE, 0, "receive quit msg, save %d rec to server, nRet %d",
                   m_nLenSendBuf, nSave);
        if (nSave != 0) LOGC_WRITE(cat, LL_ERROR, nSave, "Save records to file failed");
        EmptySendBuffer(/*bStored=*/nSave == 0);
      }
      return Turn::kEnd;
    case 0:
      if (m_nNextTimeOutMs == 0) {
        m_nCurrentMs = GetCurrentTimeMs();
        m_nNextTimeOutMs = m_nCurrentMs + m_p->m_nSendPeriod;
      }
      TakeReceived(/*bLive=*/true);
      return Turn::kNext;
    default:
      LOGC_WRITE(cat, LL_ERROR, nRet, "Receive records form proccomm failed");
      return Turn::kNext;
  }
}

void CDataHandler::CDataThread::TakeReceived(bool bLive) {
  LOGC_CATEGORY cat = m_cat;
  int32 nFramed = 0;
  int32 nCheck = CheckBatchFrame(m_pRecvBufFromAPI.get(), m_nLenRecvFromAPI, &nFramed);
  if (nCheck != 0) {
    LOGC_WRITE(cat, LL_ERROR, nCheck, "malformed batch of %d bytes from the queue dropped",
               m_nLenRecvFromAPI);
    m_counters.nMalformedBatches++;
    m_counters.nMalformedRecords += BatchCount(m_pRecvBufFromAPI.get(), m_nLenRecvFromAPI);
    return;
  }
  bool bOverflow = static_cast<int64>(m_nLenSendBuf) + nFramed > kBufferSize;
  if (bLive) {
    bool bDeadline = GetCurrentTimeMs() >= m_nNextTimeOutMs;
    if (bOverflow || bDeadline) {
      // A flush forced by size before the deadline keeps the deadline.
      if (bDeadline) m_nNextTimeOutMs = 0;
      DeliverSendBuffer(/*bAtTimeout=*/false);
    }
  } else if (bOverflow) {
    int32 nLen = m_nLenSendBuf;
    int32 nRet = m_pCacheFile->SaveRecord(m_hSrv, m_pSendBuf.get(), m_nLenSendBuf);
    if (nRet != 0) LOGC_WRITE(cat, LL_ERROR, nRet, "Save %d bytes to file failed", nLen);
    LOGC_WRITE(cat, LL_TRACE, 0, "save %d bytes to cache file", nLen);
    EmptySendBuffer(/*bStored=*/nRet == 0);
  }
  // After a flush at the deadline this batch starts the next send buffer;
  // the next batch to arrive arms the next deadline.
  AppendBuf(m_pRecvBufFromAPI.get(), nFramed, m_pSendBuf.get(), &m_nLenSendBuf);
}

// Delivers the send buffer; a failure that may pass stores it in the cache
// file. The send buffer is empty afterwards.
void CDataHandler::CDataThread::DeliverSendBuffer(bool bAtTimeout) {
  LOGC_CATEGORY cat = m_cat;
  int32 nLen = m_nLenSendBuf;
  uint64 nRecords = BatchCount(m_pSendBuf.get(), nLen);
  int32 nRet = m_p->SendRecToSrv(m_pSendBuf.get(), nLen);
  LOGC_WRITE(cat, LL_TRACE, 0, "send %d bytes to server nRet %d", nLen, nRet);
  if (nRet != 0) {
    if (bAtTimeout)
      LOGC_WRITE(cat, LL_INFO, nRet, "Send Records to srv failed");
    else
      LOGC_WRITE(cat, LL_ERROR, nRet, "SendRecToSrv");
  }
  if (m_p->m_bNeedSaveToFile) {
    if (!bAtTimeout) LOGC_WRITE(cat, LL_INFO, nRet, "Send records to srv failed");
    int32 nSave = m_pCacheFile->SaveRecord(m_hSrv, m_pSendBuf.get(), nLen);
    LOGC_WRITE(cat, LL_TRACE, 0, "save %d bytes to cache file", nLen);
    if (nSave != 0) {
      if (bAtTimeout)
        LOGC_WRITE(cat, LL_ERROR, nSave, "save %d bytes to cache file", nLen);
      else
        LOGC_WRITE(cat, LL_ERROR, nSave, "SaveRecord");
    }
    EmptySendBuffer(/*bStored=*/nSave == 0);
    return;
  }
  if (bAtTimeout) LOGC_WRITE(cat, LL_TRACE, 0, "del %d bytes rec", nLen);
  if (nLen > 0) {
    if (nRet == 0) {
      m_counters.nLiveBatches++;
      m_counters.nLiveRecords += nRecords;
    } else {
      m_counters.nRefusedBatches++;
      m_counters.nRefusedRecords += nRecords;
    }
  }
  m_nLenSendBuf = 0;
}

void CDataHandler::CDataThread::EmptySendBuffer(bool bStored) {
  uint64 nRecords = BatchCount(m_pSendBuf.get(), m_nLenSendBuf);
  if (bStored) {
    m_counters.nStoredBatches++;
    m_counters.nStoredRecords += nRecords;
  } else {
    m_counters.nLostBatches++;
    m_counters.nLostRecords += nRecords;
  }
  m_nLenSendBuf = 0;
}

void CDataHandler::CDataThread::MaybeLogCounters() {
  int64 nNow = GetCurrentTimeMs();
  if (nNow < m_nNextCountersMs) return;
  m_nNextCountersMs = nNow + m_nCountersPeriodMs.load();
  LogCounters("since start");
}

void CDataHandler::CDataThread::LogCounters(const char* szWhen) {
  const DataHandlerCounters& c = m_counters;
  int32 nUsedBlocks = 0, nMaxBlocks = 0;
  m_pCacheFile->GetFill(&nUsedBlocks, &nMaxBlocks);
  LOGC_WRITE(m_cat, LL_INFO, 0,
             "counters %s: live %llu batches/%llu records, stored %llu/%llu, drained %llu/%llu, "
             "malformed %llu/%llu, refused %llu/%llu, lost %llu/%llu; cache file %d of %d blocks",
             szWhen, (unsigned long long)c.nLiveBatches, (unsigned long long)c.nLiveRecords,
             (unsigned long long)c.nStoredBatches, (unsigned long long)c.nStoredRecords,
             (unsigned long long)c.nDrainedBatches, (unsigned long long)c.nDrainedRecords,
             (unsigned long long)c.nMalformedBatches, (unsigned long long)c.nMalformedRecords,
             (unsigned long long)c.nRefusedBatches, (unsigned long long)c.nRefusedRecords,
             (unsigned long long)c.nLostBatches, (unsigned long long)c.nLostRecords, nUsedBlocks,
             nMaxBlocks);
}
