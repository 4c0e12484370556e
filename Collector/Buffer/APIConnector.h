// CAPIConnector: the control thread. It owns queue 1, answers collectors'
// init messages with the data queue to use, creates or replaces the one data
// handler, and hands log-in credentials to it.
#ifndef COLLECTOR_BUFFER_APICONNECTOR_H_
#define COLLECTOR_BUFFER_APICONNECTOR_H_

#include <atomic>
#include <list>

#include "CacheFile.h"
#include "logc.h"
#include "proccomm.h"
#include "zd_types.h"
#include "zdos.h"

class CDataHandler;

// Parameter block of the control thread; allocated by CBuffer::Start,
// released by the thread when it ends.
struct ConnManageParam {
  CCacheFile* pCacheFile;
};

class CAPIConnector {
 public:
  CAPIConnector();
  CAPIConnector(const CAPIConnector&) = delete;
  CAPIConnector& operator=(const CAPIConnector&) = delete;

  // Stores the settings every data handler gets. listSrvInfo and pCacheFile
  // are accepted and not used: handlers receive the cache file through the
  // thread's parameter. Always 0.
  int32 init(int32 nSendPeriod, int32 nSendTimeout, int32 nConnTimeout,
             ProcCommHandle* pProcCommHandle, std::list<SrvInfo*> listSrvInfo,
             CCacheFile* pCacheFile);
  // Starts the control thread; it takes ownership of pConnMangeParam.
  int32 Start(ConnManageParam* pConnMangeParam);
  // Makes the control thread quit and joins it, then stops the data handler
  // (so that no init message can meet a stopped handler), then detaches
  // queue 1. Returns the join's status.
  int32 Stop();

  static int32 ConnnectManage(void* pParam);

 private:
  friend struct CAPIConnectorProbe;  // tests

  // Serves one init message; false when the control thread must end, with
  // its status in *pnStatus.
  static bool HandleInit(const char* pBuffer, int32 nLength, ConnManageParam* pParam,
                         int32* pnQueueIDRet, int32* pnStatus);
  static void HandleLogin(const char* pBuffer);
  // Creates, initialises and starts a handler; 0 or the failure's status
  // (the handler is then destroyed and the slot left empty).
  static int32 CreateHandler(const char* szIP, uint16 nPort, const char* szBakIP,
                             uint16 nBakPort, int32 nQueueID, CCacheFile* pCacheFile);

  ThreadHandle m_hApiConnectThread;

  static int32 m_nSendPeriod;
  static int32 m_nSendTimeout;
  static int32 m_nConnTimeout;
  // Written by the control thread, read by Stop on the main thread; with
  // m_bStopping they form a Dekker pair, so a Stop that comes before the
  // queue is attached is still seen by the thread.
  static std::atomic<ProcCommQueueHandle> m_hRecvQueue;
  static std::atomic<bool> m_bStopping;
  static ProcCommHandle* m_pProcCommHandle;
  static CDataHandler* m_pDataHandler;
  static LOGC_CATEGORY m_cat;
};

#endif  // COLLECTOR_BUFFER_APICONNECTOR_H_
