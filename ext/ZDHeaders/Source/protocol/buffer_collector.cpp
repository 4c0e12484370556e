#include "protocol/buffer_collector.h"

#include <cstdlib>
#include <cstring>

#include "protocol/proto_base.h"

namespace {

constexpr int32 kMaxCount = 65535;

// Status of appending an entry whose body is nBodyLen bytes. Every append
// checks room before writing anything, so a failed append leaves the batch
// untouched.
inline int32 CheckRoom(const ZdcBatch* pBatch, int32 nBodyLen) {
  if (pBatch == nullptr || pBatch->pBuf == nullptr) return EC_NULL_POINTER;
  if (pBatch->nCapacity - pBatch->nLen < BUFFER_ENTRY_HEAD_LEN + nBodyLen ||
      pBatch->nCount >= kMaxCount) {
    return ZDC_E_BATCH_FULL;
  }
  return EC_OK;
}

// Writes tag id, body length and the fixed record fields at the end of the
// batch; returns the cursor at the value. REQUIRES CheckRoom passed.
inline char* BeginEntry(ZdcBatch* pBatch, uint32 nTagId, int32 nBodyLen, int32 nSec, int16 nMsec,
                        uint16 nQuality, ZD3_TAG_TYPE nTagType) {
  char* pCursor = pBatch->pBuf + pBatch->nLen;
  PackFixStep<uint32>(&pCursor, nTagId);
  PackFixStep<uint16>(&pCursor, static_cast<uint16>(nBodyLen));
  PackFixStep<int32>(&pCursor, nSec);
  PackFixStep<int16>(&pCursor, nMsec);
  PackFixStep<uint16>(&pCursor, nQuality);
  PackFixStep<int32>(&pCursor, static_cast<int32>(nTagType));
  return pCursor;
}

// Accounts for the entry just written and rewrites the count, so the buffer
// stays a complete batch after every append.
inline void CommitEntry(ZdcBatch* pBatch, int32 nBodyLen) {
  pBatch->nLen += BUFFER_ENTRY_HEAD_LEN + nBodyLen;
  ++pBatch->nCount;
  char* pCursor = pBatch->pBuf;
  PackFixStep<uint16>(&pCursor, pBatch->nCount);
}

template <typename T>
inline int32 AddFixed(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                      ZD3_TAG_TYPE nTagType, T value) {
  constexpr int32 nBodyLen = BUFFER_RECORD_HEAD_LEN + static_cast<int32>(sizeof(T));
  const int32 nRet = CheckRoom(pBatch, nBodyLen);
  if (nRet != EC_OK) return nRet;
  char* pCursor = BeginEntry(pBatch, nTagId, nBodyLen, nSec, nMsec, nQuality, nTagType);
  PackFixStep<T>(&pCursor, value);
  CommitEntry(pBatch, nBodyLen);
  return EC_OK;
}

// REQUIRES 0 <= nLen <= BUFFER_STRBLOB_MAX_LEN, and pData valid when nLen > 0.
inline int32 AddStrBlob(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                        ZD3_TAG_TYPE nTagType, const void* pData, int32 nLen) {
  const int32 nBodyLen = BUFFER_RECORD_HEAD_LEN + BUFFER_STRBLOB_LEN_LEN + nLen;
  const int32 nRet = CheckRoom(pBatch, nBodyLen);
  if (nRet != EC_OK) return nRet;
  char* pCursor = BeginEntry(pBatch, nTagId, nBodyLen, nSec, nMsec, nQuality, nTagType);
  PackFixStep<uint16>(&pCursor, static_cast<uint16>(nLen));
  if (nLen > 0) pack_value(pData, nLen, pCursor, true);
  CommitEntry(pBatch, nBodyLen);
  return EC_OK;
}

inline void ResetBatch(ZdcBatch* pBatch) {
  pBatch->nLen = BUFFER_BATCH_HEAD_LEN;
  pBatch->nCount = 0;
  char* pCursor = pBatch->pBuf;
  PackFixStep<uint16>(&pCursor, 0);
}

// Copies szText into a zero-padded field of nField bytes; it must leave room
// for the terminator.
int32 CopyTextField(char* szField, int32 nField, const char* szText) {
  std::memset(szField, 0, static_cast<size_t>(nField));
  if (szText == nullptr) return EC_OK;
  const size_t nLen = strnlen(szText, static_cast<size_t>(nField));
  if (nLen >= static_cast<size_t>(nField)) return ZDC_E_TEXT_TOO_LONG;
  std::memcpy(szField, szText, nLen);
  return EC_OK;
}

}  // namespace

int32 zdc_batch_init(ZdcBatch* pBatch, char* pBuf, int32 nCapacity) {
  if (pBatch == nullptr || pBuf == nullptr) return EC_NULL_POINTER;
  if (nCapacity < BUFFER_BATCH_HEAD_LEN) return EC_NO_MEMORY;
  pBatch->pBuf = pBuf;
  pBatch->nCapacity = nCapacity < BUFFER_BATCH_MAX_LEN ? nCapacity : BUFFER_BATCH_MAX_LEN;
  pBatch->bOwned = 0;
  ResetBatch(pBatch);
  return EC_OK;
}

int32 zdc_batch_create(ZdcBatch* pBatch, int32 nCapacity) {
  if (pBatch == nullptr) return EC_NULL_POINTER;
  std::memset(pBatch, 0, sizeof(*pBatch));
  if (nCapacity == 0) nCapacity = BUFFER_BATCH_MAX_LEN;
  if (nCapacity < BUFFER_BATCH_HEAD_LEN || nCapacity > BUFFER_BATCH_MAX_LEN) return ZDC_E_BAD_ARG;
  char* pBuf = static_cast<char*>(std::malloc(static_cast<size_t>(nCapacity)));
  if (pBuf == nullptr) return EC_NO_MEMORY;
  const int32 nRet = zdc_batch_init(pBatch, pBuf, nCapacity);
  if (nRet != EC_OK) {
    std::free(pBuf);
    return nRet;
  }
  pBatch->bOwned = 1;
  return EC_OK;
}

void zdc_batch_destroy(ZdcBatch* pBatch) {
  if (pBatch == nullptr) return;
  if (pBatch->bOwned) std::free(pBatch->pBuf);
  std::memset(pBatch, 0, sizeof(*pBatch));
}

int32 zdc_batch_reset(ZdcBatch* pBatch) {
  if (pBatch == nullptr || pBatch->pBuf == nullptr) return EC_NULL_POINTER;
  ResetBatch(pBatch);
  return EC_OK;
}

int32 zdc_batch_add_int8(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                         int8 nValue) {
  return AddFixed(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_INT8, nValue);
}

int32 zdc_batch_add_int16(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                          int16 nValue) {
  return AddFixed(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_INT16, nValue);
}

int32 zdc_batch_add_int32(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                          int32 nValue) {
  return AddFixed(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_INT32, nValue);
}

int32 zdc_batch_add_float32(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                            uint16 nQuality, float32 fValue) {
  return AddFixed(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_FLOAT32, fValue);
}

int32 zdc_batch_add_float64(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                            uint16 nQuality, float64 fValue) {
  return AddFixed(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_FLOAT64, fValue);
}

int32 zdc_batch_add_digital(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                            uint16 nQuality, int8 nState) {
  return AddFixed(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_DIGITAL, nState);
}

int32 zdc_batch_add_string(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                           uint16 nQuality, const char* szText) {
  if (szText == nullptr) return EC_NULL_POINTER;
  // Bounded scan: a long text is refused without reading all of it.
  const size_t nLen = strnlen(szText, BUFFER_STRBLOB_MAX_LEN + 1);
  if (nLen > BUFFER_STRBLOB_MAX_LEN) return ZDC_E_VALUE_TOO_LONG;
  return AddStrBlob(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_STRING, szText,
                    static_cast<int32>(nLen));
}

int32 zdc_batch_add_blob(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                         const void* pData, int32 nLen) {
  if (nLen < 0) return ZDC_E_BAD_ARG;
  if (nLen > BUFFER_STRBLOB_MAX_LEN) return ZDC_E_VALUE_TOO_LONG;
  if (pData == nullptr && nLen > 0) return EC_NULL_POINTER;
  return AddStrBlob(pBatch, nTagId, nSec, nMsec, nQuality, ZD3_TAG_TYPE_BLOB, pData, nLen);
}

int32 zdc_batch_add_record(ZdcBatch* pBatch, uint32 nTagId, const ZD3Record* pRecord) {
  if (pRecord == nullptr) return EC_NULL_POINTER;
  // Read as plain bits: a C caller may have stored any value in the enum.
  uint32 nTagType = 0;
  std::memcpy(&nTagType, &pRecord->nTagType, sizeof(nTagType));
  const ZD3Value& value = pRecord->value;
  const int32 nSec = pRecord->nSec;
  const int16 nMsec = pRecord->nMsec;
  const uint16 nQuality = pRecord->nQuality;
  switch (nTagType) {
    case ZD3_TAG_TYPE_INT8:
      return zdc_batch_add_int8(pBatch, nTagId, nSec, nMsec, nQuality, value.nInt8);
    case ZD3_TAG_TYPE_INT16:
      return zdc_batch_add_int16(pBatch, nTagId, nSec, nMsec, nQuality, value.nInt16);
    case ZD3_TAG_TYPE_INT32:
      return zdc_batch_add_int32(pBatch, nTagId, nSec, nMsec, nQuality, value.nInt32);
    case ZD3_TAG_TYPE_FLOAT32:
      return zdc_batch_add_float32(pBatch, nTagId, nSec, nMsec, nQuality, value.fFloat32);
    case ZD3_TAG_TYPE_FLOAT64:
      return zdc_batch_add_float64(pBatch, nTagId, nSec, nMsec, nQuality, value.fFloat64);
    case ZD3_TAG_TYPE_DIGITAL:
      return zdc_batch_add_digital(pBatch, nTagId, nSec, nMsec, nQuality, value.nDigital);
    case ZD3_TAG_TYPE_STRING:
    case ZD3_TAG_TYPE_BLOB: {
      const int32 nLen = value.strBlob.nLenBuf;
      if (nLen > BUFFER_STRBLOB_MAX_LEN) return ZDC_E_VALUE_TOO_LONG;
      if (value.strBlob.pBuf == nullptr && nLen > 0) return EC_NULL_POINTER;
      return AddStrBlob(pBatch, nTagId, nSec, nMsec, nQuality, static_cast<ZD3_TAG_TYPE>(nTagType),
                        value.strBlob.pBuf, nLen);
    }
    default:
      return EC_REC_BAD_TYPE;
  }
}

int32 zdc_batch_get(const ZdcBatch* pBatch, const char** ppData, int32* pnLen) {
  if (pBatch == nullptr || pBatch->pBuf == nullptr || ppData == nullptr || pnLen == nullptr) {
    return EC_NULL_POINTER;
  }
  *ppData = nullptr;
  *pnLen = 0;
  if (pBatch->nCount == 0) return ZDC_E_BATCH_EMPTY;
  *ppData = pBatch->pBuf;
  *pnLen = pBatch->nLen;
  return EC_OK;
}

int32 zdc_build_init_msg(const char* szIP, uint16 nPort, const char* szBakIP, uint16 nBakPort,
                         int32 nReplyQueueID, char* pBuf, int32 nBufLen, int32* pnMsgLen) {
  if (szIP == nullptr || pBuf == nullptr) return EC_NULL_POINTER;
  if (nBufLen < BUFFER_INIT_MSG_LEN) return EC_NO_MEMORY;
  BufferHead head;
  int32 nRet = CopyTextField(head.szIP, sizeof(head.szIP), szIP);
  if (nRet == EC_OK) nRet = CopyTextField(head.szBakIP, sizeof(head.szBakIP), szBakIP);
  if (nRet != EC_OK) return nRet;
  head.nCommand = BUFFER_CMD_INIT;
  head.nPort = nPort;
  head.nBakPort = nBakPort;
  const BufferInitInfo initInfo = {nReplyQueueID};
  // Requests travel raw in host order: sender and service share the host.
  std::memcpy(pBuf, &head, BUFFER_HEAD_LEN);
  std::memcpy(pBuf + BUFFER_HEAD_LEN, &initInfo, BUFFER_INIT_INFO_LEN);
  if (pnMsgLen != nullptr) *pnMsgLen = BUFFER_INIT_MSG_LEN;
  return EC_OK;
}

int32 zdc_build_login_msg(const char* szUserName, const char* szPasswd, char* pBuf, int32 nBufLen,
                          int32* pnMsgLen) {
  if (szUserName == nullptr || szPasswd == nullptr || pBuf == nullptr) return EC_NULL_POINTER;
  if (nBufLen < BUFFER_LOGIN_MSG_LEN) return EC_NO_MEMORY;
  ProtoScLogin login;
  int32 nRet = CopyTextField(login.szUserName, sizeof(login.szUserName), szUserName);
  if (nRet == EC_OK) nRet = CopyTextField(login.szPasswd, sizeof(login.szPasswd), szPasswd);
  if (nRet != EC_OK) return nRet;
  BufferHead head;
  std::memset(&head, 0, sizeof(head));
  head.nCommand = BUFFER_CMD_LOGIN;
  std::memcpy(pBuf, &head, BUFFER_HEAD_LEN);
  std::memcpy(pBuf + BUFFER_HEAD_LEN, &login, BUFFER_LOGIN_INFO_LEN);
  if (pnMsgLen != nullptr) *pnMsgLen = BUFFER_LOGIN_MSG_LEN;
  return EC_OK;
}

int32 zdc_parse_init_reply(const char* pReply, int32 nLen, int32* pnRetCode, int32* pnDataQueueID) {
  if (pReply == nullptr || pnRetCode == nullptr || pnDataQueueID == nullptr) {
    return EC_NULL_POINTER;
  }
  *pnDataQueueID = -1;
  if (nLen < BUFFER_INIT_REPLY_ERR_LEN) return EC_MSG_TOO_SHORT;
  int32 nRetCode = 0;
  unpack_value(pReply, &nRetCode, 4, false);
  if (nRetCode == 0 && nLen < BUFFER_INIT_REPLY_OK_LEN) return EC_MSG_TOO_SHORT;
  *pnRetCode = nRetCode;
  if (nRetCode == 0) unpack_value(pReply + 4, pnDataQueueID, 4, false);
  return EC_OK;
}
