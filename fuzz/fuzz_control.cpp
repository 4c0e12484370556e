// Fuzz target: one raw message on the control queue.
//
// Input: the message as received (at most 256 bytes, the control thread's
// receive buffer; a longer one is refused by the receive). The target does
// what the control thread does with it: pads the buffer with zeros, decodes
// the head and dispatches on the command.
//   init:  the body decoder, then the reply packer for success and for a
//          failure code; each reply must read back through the collector's
//          reply parser to the same code and queue. When the message names
//          the address of the current handler (a never-started handler for
//          127.0.0.1), the connection manager's init handler itself runs
//          against a private shared-memory instance: it attaches to the
//          reply queue the message names (any int32), answers and detaches;
//          the reply found there must carry the handler's queue. It may end
//          the control thread only for a short body or a reply queue that
//          cannot be attached.
//   login: the connection manager's login handler, against a data handler
//          that was never started but holds a real cache file, so the
//          credentials reach the server entry on disk.
// An init for another address replaces the handler and starts a data
// thread: that path belongs to the service and end-to-end tests.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <list>
#include <string>

#include "APIConnector.h"
#include "CacheFile.h"
#include "DataHandler.h"
#include "protocol/buffer_collector.h"
#include "protocol/proto_buffer.h"
#include "zd_errcode.h"

struct CAPIConnectorProbe {
  static void SetHandler(CDataHandler* p) { CAPIConnector::m_pDataHandler = p; }
  static void HandleLogin(const char* p) { CAPIConnector::HandleLogin(p); }
  static void SetProcComm(ProcCommHandle* p) { CAPIConnector::m_pProcCommHandle = p; }
  static bool HandleInit(const char* p, int32 n, ConnManageParam* pParam, int32* pnStatus) {
    int32 nQueueIDRet = 0;
    return CAPIConnector::HandleInit(p, n, pParam, &nQueueIDRet, pnStatus);
  }
};

namespace {

constexpr int32 kHandlerQueueID = 2;
constexpr char kHandlerIP[] = "127.0.0.1";

CCacheFile* g_pCache = nullptr;
ProcCommHandle g_hProcComm = nullptr;
ConnManageParam g_param{};

// Runs the init handler and reads back the reply it left on the reply queue.
void RunInitHandler(const char* szBuffer, int32 nLength, int32 nReplyQueue) {
  int32 nStatus = 0;
  bool bGoOn = CAPIConnectorProbe::HandleInit(szBuffer, nLength, &g_param, &nStatus);
  if (!bGoOn) {
    ProcCommQueueHandle hProbe = nullptr;
    bool bRegFails = proccomm_reg(g_hProcComm, nReplyQueue, &hProbe) != 0;
    if (!bRegFails) proccomm_unreg(g_hProcComm, nReplyQueue, hProbe);
    if (nStatus == 0 || !bRegFails) {
      fprintf(stderr, "init handler ended the control thread (%d) for reply queue %d\n", nStatus,
              nReplyQueue);
      abort();
    }
    return;
  }
  ProcCommQueueHandle hQueue = nullptr;
  if (proccomm_reg(g_hProcComm, nReplyQueue, &hQueue) != 0) return;
  char reply[64];
  int32 nLen = sizeof(reply);
  while (proccomm_recv(hQueue, reply, &nLen, 0, 0) == 0 && nLen > 0) {
    int32 nCode = -1, nQueue = -1;
    if (zdc_parse_init_reply(reply, nLen, &nCode, &nQueue) != 0 || nCode != 0 ||
        nQueue != kHandlerQueueID) {
      fprintf(stderr, "init reply of %d bytes: code %d queue %d\n", nLen, nCode, nQueue);
      abort();
    }
    nLen = sizeof(reply);
  }
  proccomm_unreg(g_hProcComm, nReplyQueue, hQueue);
}

void CheckReply(int32 nCode, const BufferInitInfo& info) {
  char* pReply = nullptr;
  int32 nReplyLen = 0;
  if (proto_buffer_pack_init_ret(nCode, info, &pReply, &nReplyLen) != 0) {
    proto_pack_free(pReply);
    return;
  }
  int32 nGotCode = -1, nGotQueue = -1;
  int32 nRet = zdc_parse_init_reply(pReply, nReplyLen, &nGotCode, &nGotQueue);
  proto_pack_free(pReply);
  if (nRet != 0 || nGotCode != nCode || (nCode == 0 && nGotQueue != info.nQueueID)) {
    fprintf(stderr, "init reply %d/%d read back as %d: %d/%d\n", nCode, info.nQueueID, nRet,
            nGotCode, nGotQueue);
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char szDir[] = "/tmp/zdfuzz_control.XXXXXX";
  if (mkdtemp(szDir) == nullptr) abort();
  std::string strFile = std::string(szDir) + "/fuzz_buffer.buf";
  g_pCache = new CCacheFile();
  std::list<SrvInfo*> list;
  if (g_pCache->Init("fuzz", strFile.c_str(), 1, &list) != 0) abort();
  std::string strName = "zdfuzz_control_" + std::to_string(getpid());
  if (proccomm_init(strName.c_str(), 4, 256, 64, &g_hProcComm) != 0) abort();
  CAPIConnectorProbe::SetProcComm(&g_hProcComm);
  g_param.pCacheFile = g_pCache;
  auto* pHandler = new CDataHandler(kHandlerIP, 5000, "", 0, kHandlerQueueID, 100, 1, 1);
  pHandler->Init(&g_hProcComm, g_pCache);
  CAPIConnectorProbe::SetHandler(pHandler);
  // The instance is removed when its creator releases it.
  atexit([] { proccomm_release(g_hProcComm); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  if (nSize > BUFFER_CTRL_MSG_MAX_LEN) return 0;
  char szBuffer[BUFFER_CTRL_MSG_MAX_LEN];
  memset(szBuffer, 0, sizeof(szBuffer));
  if (nSize > 0) memcpy(szBuffer, pData, nSize);
  const int32 nLength = static_cast<int32>(nSize);

  BufferHead head;
  if (proto_buffer_unpack_head(szBuffer, nLength, &head) != 0) abort();
  switch (head.nCommand) {
    case BUFFER_CMD_INIT: {
      BufferInitInfo info;
      int32 nRet = proto_buffer_unpack_init_info(szBuffer + BUFFER_HEAD_LEN,
                                                 nLength - BUFFER_HEAD_LEN, &info);
      if ((nRet == 0) != (nLength >= BUFFER_INIT_MSG_LEN)) {
        fprintf(stderr, "init body of %d bytes decoded with %d\n", nLength - BUFFER_HEAD_LEN, nRet);
        abort();
      }
      if (nRet == 0) {
        CheckReply(0, info);
        int32 nCode = 0;
        memcpy(&nCode, szBuffer + BUFFER_HEAD_LEN, sizeof(nCode));  // any failure code
        if (nCode != 0) CheckReply(nCode, info);
        head.szIP[sizeof(head.szIP) - 1] = '\0';
        if (strcmp(head.szIP, kHandlerIP) == 0) RunInitHandler(szBuffer, nLength, info.nQueueID);
      }
      break;
    }
    case BUFFER_CMD_LOGIN:
      CAPIConnectorProbe::HandleLogin(szBuffer);
      break;
    default:
      break;
  }
  return 0;
}
