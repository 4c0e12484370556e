// Fuzz target: one raw message on the control queue.
//
// Input: the message as received (at most 256 bytes, the control thread's
// receive buffer; a longer one is refused by the receive). The target does
// what the control thread does with it: pads the buffer with zeros, decodes
// the head and dispatches on the command.
//   init:  the body decoder, then the reply packer for success and for a
//          failure code; each reply must read back through the collector's
//          reply parser to the same code and queue.
//   login: the connection manager's login handler, against a data handler
//          that was never started but holds a real cache file, so the
//          credentials reach the server entry on disk.
// The init handler itself is not called: it registers queues and starts
// data threads, which belong to the end-to-end tests.
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
};

namespace {

CCacheFile* g_pCache = nullptr;

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
  auto* pHandler = new CDataHandler("127.0.0.1", 5000, "", 0, 2, 100, 1, 1);
  pHandler->Init(nullptr, g_pCache);
  CAPIConnectorProbe::SetHandler(pHandler);
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
