#include "protocol/proto_buffer.h"

#include <cstdlib>
#include <cstring>

int32 proto_buffer_unpack_head(const char* szBuffer, int32 /*nBufLen*/, BufferHead* pHead) {
  if (szBuffer == nullptr || pHead == nullptr) return EC_NULL_POINTER;
  // Raw, host order: the sender is a process on this host.
  std::memcpy(&pHead->nCommand, szBuffer + 0, 2);
  std::memcpy(pHead->szIP, szBuffer + 2, 16);
  std::memcpy(&pHead->nPort, szBuffer + 18, 2);
  std::memcpy(pHead->szBakIP, szBuffer + 20, 16);
  std::memcpy(&pHead->nBakPort, szBuffer + 36, 2);
  return EC_OK;
}

int32 proto_buffer_unpack_init_info(const char* szBuffer, int32 nBufLen,
                                    BufferInitInfo* pInitInfo) {
  if (szBuffer == nullptr || pInitInfo == nullptr) return EC_NULL_POINTER;
  if (nBufLen < BUFFER_INIT_INFO_LEN) return EC_MSG_TOO_SHORT;
  std::memcpy(&pInitInfo->nQueueID, szBuffer, sizeof(pInitInfo->nQueueID));
  return EC_OK;
}

int32 proto_buffer_pack_init_ret(int32 nRetCode, BufferInitInfo initInfo, char** ppBuffer,
                                 int32* pnBufLen) {
  if (ppBuffer == nullptr) return EC_NULL_POINTER;
  *ppBuffer = nullptr;
  if (pnBufLen == nullptr) return EC_NULL_POINTER;

  // The queue id is only meaningful, and only sent, with a success code.
  const int32 nLen = nRetCode == 0 ? BUFFER_INIT_REPLY_OK_LEN : BUFFER_INIT_REPLY_ERR_LEN;
  *pnBufLen = nLen;
  char* pBuf = static_cast<char*>(std::malloc(static_cast<size_t>(nLen)));
  if (pBuf == nullptr) return EC_NO_MEMORY;

  char* pCursor = pBuf;
  PackFixStep<int32>(&pCursor, nRetCode);
  if (nRetCode == 0) PackFixStep<int32>(&pCursor, initInfo.nQueueID);
  *ppBuffer = pBuf;
  return EC_OK;
}
