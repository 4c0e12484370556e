#include "APIConnector.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "DataHandler.h"
#include "protocol/proto_base.h"
#include "protocol/proto_buffer.h"
#include "zd_errcode.h"

namespace {

constexpr int32 kControlQueueID = BUFFER_CTRL_QUEUE_ID;
constexpr int32 kRecvBufferSize = BUFFER_CTRL_MSG_MAX_LEN;  // every control message fits
constexpr uint32 kWaitForever = 0xFFFFFFFF;

}  // namespace

int32 CAPIConnector::m_nSendPeriod = 0;
int32 CAPIConnector::m_nSendTimeout = 0;
int32 CAPIConnector::m_nConnTimeout = 0;
std::atomic<ProcCommQueueHandle> CAPIConnector::m_hRecvQueue{nullptr};
std::atomic<bool> CAPIConnector::m_bStopping{false};
ProcCommHandle* CAPIConnector::m_pProcCommHandle = nullptr;
CDataHandler* CAPIConnector::m_pDataHandler = nullptr;
LOGC_CATEGORY CAPIConnector::m_cat = nullptr;

CAPIConnector::CAPIConnector() : m_hApiConnectThread(nullptr) {}

int32 CAPIConnector::init(int32 nSendPeriod, int32 nSendTimeout, int32 nConnTimeout,
                          ProcCommHandle* pProcCommHandle, std::list<SrvInfo*> listSrvInfo,
                          CCacheFile* pCacheFile) {
  (void)listSrvInfo;
  (void)pCacheFile;
  m_nSendPeriod = nSendPeriod;
  m_nSendTimeout = nSendTimeout;
  m_nConnTimeout = nConnTimeout;
  m_pProcCommHandle = pProcCommHandle;
  m_cat = logc_get_category("Zandor.Buffer");
  if (m_cat == nullptr) printf("Logc get category failed\n");
  LOGC_WRITE(m_cat, LL_INFO, 0, "APIConnector init succeed");
  return 0;
}

int32 CAPIConnector::Start(ConnManageParam* pConnMangeParam) {
  m_bStopping.store(false);
  return os_thread_create(&m_hApiConnectThread, ConnnectManage, pConnMangeParam);
}

int32 CAPIConnector::Stop() {
  // The control thread goes first: once it has been joined nothing can
  // create, replace or reach the data handler any more.
  m_bStopping.store(true);
  if (ProcCommQueueHandle hQueue = m_hRecvQueue.load()) proccomm_recv_quit(hQueue);
  int32 nRet = 0;
  if (m_hApiConnectThread != nullptr) {
    nRet = os_thread_join(m_hApiConnectThread);
    m_hApiConnectThread = nullptr;
  }
  if (m_pDataHandler != nullptr) {
    m_pDataHandler->Stop();
    delete m_pDataHandler;
    m_pDataHandler = nullptr;
  }
  if (ProcCommQueueHandle hQueue = m_hRecvQueue.exchange(nullptr))
    proccomm_unreg(*m_pProcCommHandle, kControlQueueID, hQueue);
  return nRet;
}

int32 CAPIConnector::ConnnectManage(void* pParam) {
  ConnManageParam* pConnManageParam = static_cast<ConnManageParam*>(pParam);
  LOGC_WRITE(m_cat, LL_INFO, 0, "APIConnector thread start");
  ProcCommQueueHandle hRecvQueue = nullptr;
  int32 nStatus = proccomm_reg(*m_pProcCommHandle, kControlQueueID, &hRecvQueue);
  if (nStatus != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nStatus, "proccomm_reg");
    hRecvQueue = nullptr;
  }
  m_hRecvQueue.store(hRecvQueue);
  // A Stop that found no queue to wake has set m_bStopping before we looked.
  if (hRecvQueue != nullptr && m_bStopping.load()) proccomm_recv_quit(hRecvQueue);

  char szBuffer[kRecvBufferSize];
  int32 nQueueIDRet = 0;  // identifier for a new handler
  bool bRun = nStatus == 0;
  while (bRun) {
    int32 nLength = kRecvBufferSize;
    LOGC_WRITE(m_cat, LL_DEBUG, 0, "proccomm_recv start");
    int32 nRet = proccomm_recv(hRecvQueue, szBuffer, &nLength, 1, kWaitForever);
    if (nRet == EC_RD_PROCCOMM_RECV_QUIT) {
      LOGC_WRITE(m_cat, LL_INFO, 0, "APIConnector proccomm recv quit command");
      nStatus = 0;
      break;
    }
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_WARN, nRet, "APIConnector proccomm recv failed");
      nStatus = nRet;
      break;
    }
    // The head decoder reads 38 bytes whatever was received: clear what a
    // short message did not fill, so nothing of an earlier message shows.
    if (nLength < kRecvBufferSize) memset(szBuffer + nLength, 0, kRecvBufferSize - nLength);
    BufferHead head;
    proto_buffer_unpack_head(szBuffer, nLength, &head);
    switch (head.nCommand) {
      case BUFFER_CMD_INIT:
        bRun = HandleInit(szBuffer, nLength, pConnManageParam, &nQueueIDRet, &nStatus);
        break;
      case BUFFER_CMD_LOGIN:
        HandleLogin(szBuffer);
        break;
      default:
        LOGC_WRITE(m_cat, LL_ERROR, 0, "invalid cmd type %d", head.nCommand);
        break;
    }
  }
  free(pConnManageParam);
  return nStatus;
}

bool CAPIConnector::HandleInit(const char* pBuffer, int32 nLength, ConnManageParam* pParam,
                               int32* pnQueueIDRet, int32* pnStatus) {
  BufferHead head;
  proto_buffer_unpack_head(pBuffer, nLength, &head);
  BufferInitInfo initInfo;
  if (proto_buffer_unpack_init_info(pBuffer + BUFFER_HEAD_LEN,
                                    nLength - BUFFER_HEAD_LEN, &initInfo) != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CTRL_BAD_MSG_LEN, "APIConnector proccomm recv invalid msg len");
    *pnStatus = EC_CTRL_BAD_MSG_LEN;
    return false;
  }
  // The texts come from another process: make sure they are terminated.
  head.szIP[sizeof(head.szIP) - 1] = '\0';
  head.szBakIP[sizeof(head.szBakIP) - 1] = '\0';
  LOGC_WRITE(m_cat, LL_INFO, 0,
             "APIConnector proccomm recv ip:%s port:%d bakip: %s bakport:%d, nSendQueueID:%d ",
             head.szIP, head.nPort, head.szBakIP, head.nBakPort, initInfo.nQueueID);

  // Choose the data handler. A failure to provide one is answered with its
  // code, so that no collector is sent to a queue nobody reads.
  int32 nReplyCode = 0;
  if (m_pDataHandler == nullptr) {
    nReplyCode = proccomm_get_unused_queueid(*m_pProcCommHandle, pnQueueIDRet);
    if (nReplyCode == 0)
      nReplyCode = CreateHandler(head.szIP, head.nPort, head.szBakIP, head.nBakPort,
                                 *pnQueueIDRet, pParam->pCacheFile);
  } else if (strcmp(m_pDataHandler->m_conn.szAddress, head.szIP) != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, 0, "data handler ip changed old ip:%s new ip %s",
               m_pDataHandler->m_conn.szAddress, head.szIP);
    *pnQueueIDRet = m_pDataHandler->m_nQueueID;
    m_pDataHandler->Stop();
    delete m_pDataHandler;
    m_pDataHandler = nullptr;
    nReplyCode = CreateHandler(head.szIP, head.nPort, head.szBakIP, head.nBakPort, *pnQueueIDRet,
                               pParam->pCacheFile);
  }

  BufferInitInfo replyInfo;
  replyInfo.nQueueID = m_pDataHandler != nullptr ? m_pDataHandler->m_nQueueID : 0;
  ProcCommQueueHandle hSendQueue = nullptr;
  int32 nRet = proccomm_reg(*m_pProcCommHandle, initInfo.nQueueID, &hSendQueue);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "proccomm reg send queue failed");
    *pnStatus = nRet;
    return false;
  }
  char* pSendBuf = nullptr;
  int32 nLenSendBuf = 0;
  if (proto_buffer_pack_init_ret(nReplyCode, replyInfo, &pSendBuf, &nLenSendBuf) != 0) {
    proto_pack_free(pSendBuf);
  } else {
    nRet = proccomm_send(hSendQueue, pSendBuf, nLenSendBuf);
    proto_pack_free(pSendBuf);
    if (nRet != 0)
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "proccomm send queue id failed");
    else
      LOGC_WRITE(m_cat, LL_TRACE, 0, "proccomm send queue id succeed");
  }
  proccomm_unreg(*m_pProcCommHandle, initInfo.nQueueID, hSendQueue);
  return true;
}

int32 CAPIConnector::CreateHandler(const char* szIP, uint16 nPort, const char* szBakIP,
                                   uint16 nBakPort, int32 nQueueID, CCacheFile* pCacheFile) {
  CDataHandler* pHandler = new (std::nothrow) CDataHandler(
      szIP, nPort, szBakIP, nBakPort, nQueueID, m_nSendPeriod, m_nSendTimeout, m_nConnTimeout);
  if (pHandler == nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for data handler failed");
    return EC_NO_MEMORY;
  }
  pHandler->Init(m_pProcCommHandle, pCacheFile);
  int32 nRet = pHandler->Start();
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "start data handler failed, queue %d", nQueueID);
    pHandler->Stop();
    delete pHandler;
    return nRet;
  }
  m_pDataHandler = pHandler;
  return 0;
}

void CAPIConnector::HandleLogin(const char* pBuffer) {
  ProtoScLogin login;
  memcpy(&login, pBuffer + BUFFER_HEAD_LEN, sizeof(login));
  login.szUserName[sizeof(login.szUserName) - 1] = '\0';
  login.szPasswd[sizeof(login.szPasswd) - 1] = '\0';
  LOGC_WRITE(m_cat, LL_INFO, 0, "recv cmd login user:%s", login.szUserName);
  if (m_pDataHandler == nullptr) return;  // the credentials are not kept
  LOGC_WRITE(m_cat, LL_DEBUG, 0, "SetUserPassWord start user:%s", login.szUserName);
  m_pDataHandler->SetUserPassWord(login.szUserName, login.szPasswd);
  LOGC_WRITE(m_cat, LL_INFO, 0, "buffer_login SetUserPassWord user:%s", login.szUserName);
  explicit_bzero(&login, sizeof(login));  // no copy of the password lingers on the stack
}
