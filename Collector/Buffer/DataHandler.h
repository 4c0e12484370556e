// CDataHandler: forwards the record batches of one shared-memory queue to one
// database server, live while the server answers, through the cache file
// while it does not.
//
// Threads: the connection manager's thread constructs, starts, passes
// credentials and stops the handler; the handler's own thread
// (ThreadHandleData) connects, logs in and forwards. There is at most one
// handler in the process at a time: the quit flag and the shared handles are
// static members that every handler uses.
#ifndef COLLECTOR_BUFFER_DATAHANDLER_H_
#define COLLECTOR_BUFFER_DATAHANDLER_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "CacheFile.h"
#include "logc.h"
#include "proccomm.h"
#include "zd_types.h"
#include "zdorlo_api.h"
#include "zdos.h"

// Decoded records of one delivery, owned by the data thread and reused from
// call to call so that a delivery allocates nothing once warmed up. Every
// record gets its own ZD3_MAX_STRBLOB_LEN-byte value buffer.
struct SendScratch {
  int32 nCapacity = 0;  // records the arrays below can hold
  std::unique_ptr<uint32[]> pIds;
  std::unique_ptr<ZD3Record[]> pRecs;
  std::unique_ptr<int32[]> pErrs;
  std::unique_ptr<char[]> pValues;  // nCapacity * ZD3_MAX_STRBLOB_LEN bytes, untouched until used

  // Makes room for nRecords; false when memory cannot be had.
  bool Reserve(int32 nRecords);
};

// What the data thread has done since it started; logged once a minute and
// at stop, so that nothing is lost silently.
struct DataHandlerCounters {
  uint64 nLiveBatches = 0, nLiveRecords = 0;          // delivered from the send buffer
  uint64 nStoredBatches = 0, nStoredRecords = 0;      // written to the cache file
  uint64 nDrainedBatches = 0, nDrainedRecords = 0;    // delivered from the cache file
  uint64 nMalformedBatches = 0, nMalformedRecords = 0;// refused or dropped as malformed
  uint64 nRefusedBatches = 0, nRefusedRecords = 0;    // refused for good by the server
  uint64 nLostBatches = 0, nLostRecords = 0;          // lost to a failed cache file write or damage
};

class CDataHandler {
 public:
  CDataHandler(const char* szIP, uint16 nPort, const char* szBakIP, uint16 nBakPort,
               int32 nQueueID, int32 nSendPeriod, int32 nSendTimeout, int32 nConnTimeout);
  ~CDataHandler();
  CDataHandler(const CDataHandler&) = delete;
  CDataHandler& operator=(const CDataHandler&) = delete;

  // Stores the shared process-communication handle address and cache file.
  void Init(ProcCommHandle* pProcCommHandle, CCacheFile* pCacheFile);
  // Registers queue m_nQueueID and starts the thread.
  int32 Start();
  // Replaces the credentials used at the next log-in and stores them in the
  // server's cache file entry. Safe against the handler's thread.
  int32 SetUserPassWord(const char* szUser, const char* szPassWord);
  // Makes the thread quit (it stores an unsent send buffer in the cache file
  // and closes the session), joins it and unregisters the queue. Safe after a
  // failed Start and when called twice.
  void Stop();

  static int32 ThreadHandleData(void* pParam);
  // False while the shared memory's free share is below 0.3.
  static bool IsProcCommHasEnoughSpace();

  int32 m_nQueueID;          // queue the collectors send batches to
  bool m_bNeedSaveToFile;    // set by each delivery: keep the batch for later
  ZD3Connection m_conn;      // primary/backup address and port, connect timeout

 private:
  class CDataThread;  // the thread's loop and its buffers (DataHandler.cpp)
  friend class CDataThread;
  friend struct CDataHandlerProbe;  // tests

  int32 Connect();
  // Logs in with the current credentials, copying the user name (64 bytes)
  // into szUser for the caller's log line.
  int32 Login(char* szUser);
  int32 Disconnect();
  int32 SendRecToSrv(char* pSendBuf, int32 nLenSendBuf);
  // The data thread's frame check of one received batch (0 and the length
  // of its framed part, or the decoder's status); a member only so that the
  // test probe reaches it.
  static int32 CheckReceivedBatch(const char* pBatch, int32 nLen, int32* pnFramedLen);
  bool IsNeedSaveToFile(int32 nRet, int32* nErrs, int32 nNum);
  // Sleeps nMs milliseconds or until Stop; false when stopped.
  bool PauseUnlessQuit(int32 nMs);

  int32 m_nSendPeriod;       // ms
  int32 m_nSendTimeout;      // s
  uint32 m_nIP;              // primary address, as os_network_ip2int gives it
  char m_szUser[64];
  char m_szPassWord[128];
  ThreadHandle m_hThread;
  ProcCommQueueHandle m_hProcCommQueue;

  std::mutex m_credMutex;    // m_szUser and m_szPassWord change under it
  std::mutex m_quitMutex;    // with m_quitCond: wakes the retry pauses on Stop
  std::condition_variable m_quitCond;
  SendScratch* m_pScratch;   // the thread's decode storage; set while it runs

  static std::atomic<bool> m_bQuit;
  // How often the thread logs its counters line: a minute (tests shorten it).
  static std::atomic<int32> m_nCountersPeriodMs;
  static ProcCommHandle* m_pProcCommHandle;
  static CCacheFile* m_pCacheFile;
  static LOGC_CATEGORY m_cat;
};

#endif  // COLLECTOR_BUFFER_DATAHANDLER_H_
