#include "protocol/buffer_proto_record.h"

#include "protocol/proto_base.h"

namespace {

// Reads a fixed-size number at pValue if the nLeft bytes of the body hold it.
template <typename T>
inline int32 ParseFixBounded(const char* pValue, int32 nLeft, T* pField) {
  if (nLeft < static_cast<int32>(sizeof(T))) return EC_MSG_TOO_SHORT;
  unpack_value(pValue, pField, static_cast<int32>(sizeof(T)), false);
  return EC_OK;
}

// Copies the string/blob bytes. Kept out of line and opaque to
// interprocedural analysis on purpose: where GCC sees the 1,000-byte bound it
// inlines the copy as `rep movsq`, whose start-up cost made a 16-byte string
// take ~30 ns instead of ~4 ns; with the length unknown it calls the
// library's memcpy, which is fast for every length.
#if defined(__GNUC__) && !defined(__clang__)
[[gnu::noipa]]
#else
[[gnu::noinline]]
#endif
void UnpackStrBlob(const char* pSrc, char* pDst, int32 nLen) {
  unpack_value(pSrc, pDst, nLen, true);
}

}  // namespace

int32 buffer_proto_parse_buffer_to_zdrecord(ZD3Record* pRecord, const char* pBuffer,
                                            int32 nBufLen) {
  if (pRecord == nullptr || pBuffer == nullptr) return EC_NULL_POINTER;
  // Invariant from here: no byte at or beyond pBuffer + nBufLen is read.
  if (nBufLen < BUFFER_RECORD_HEAD_LEN) return EC_MSG_TOO_SHORT;

  unpack_value(pBuffer + 0, &pRecord->nSec, 4, false);
  unpack_value(pBuffer + 4, &pRecord->nMsec, 2, false);
  unpack_value(pBuffer + 6, &pRecord->nQuality, 2, false);
  // Checked before it is stored: an enum object must never hold a value
  // outside its enumerators' range.
  uint32 nTagType = 0;
  unpack_value(pBuffer + 8, &nTagType, 4, false);
  if (nTagType > ZD3_TAG_TYPE_MAX) return EC_REC_BAD_TYPE;
  pRecord->nTagType = static_cast<ZD3_TAG_TYPE>(nTagType);

  const char* pValue = pBuffer + BUFFER_RECORD_HEAD_LEN;
  const int32 nLeft = nBufLen - BUFFER_RECORD_HEAD_LEN;
  ZD3Value& value = pRecord->value;
  switch (nTagType) {
    case ZD3_TAG_TYPE_INT8:
      return ParseFixBounded(pValue, nLeft, &value.nInt8);
    case ZD3_TAG_TYPE_INT16:
      return ParseFixBounded(pValue, nLeft, &value.nInt16);
    case ZD3_TAG_TYPE_INT32:
      return ParseFixBounded(pValue, nLeft, &value.nInt32);
    case ZD3_TAG_TYPE_FLOAT32:
      return ParseFixBounded(pValue, nLeft, &value.fFloat32);
    case ZD3_TAG_TYPE_FLOAT64:
      return ParseFixBounded(pValue, nLeft, &value.fFloat64);
    case ZD3_TAG_TYPE_DIGITAL:
      return ParseFixBounded(pValue, nLeft, &value.nDigital);
    default:
      break;  // string or blob
  }

  int32 nRet = ParseFixBounded(pValue, nLeft, &value.strBlob.nLenBuf);
  if (nRet != EC_OK) return nRet;
  const int32 nLenBuf = value.strBlob.nLenBuf;
  if (nLenBuf > BUFFER_STRBLOB_MAX_LEN) return EC_REC_BAD_LEN;
  if (nLeft - BUFFER_STRBLOB_LEN_LEN < nLenBuf) return EC_MSG_TOO_SHORT;
  if (value.strBlob.pBuf == nullptr) return EC_NULL_POINTER;
  UnpackStrBlob(pValue + BUFFER_STRBLOB_LEN_LEN, value.strBlob.pBuf, nLenBuf);
  return EC_OK;
}

int32 buffer_proto_check_record(const char* pBuffer, int32 nBufLen) {
  if (pBuffer == nullptr) return EC_NULL_POINTER;
  if (nBufLen < BUFFER_RECORD_HEAD_LEN) return EC_MSG_TOO_SHORT;
  uint32 nTagType = 0;
  unpack_value(pBuffer + 8, &nTagType, 4, false);
  if (nTagType > ZD3_TAG_TYPE_MAX) return EC_REC_BAD_TYPE;
  const int32 nLeft = nBufLen - BUFFER_RECORD_HEAD_LEN;
  if (nLeft < buffer_proto_value_head_len(nTagType)) return EC_MSG_TOO_SHORT;
  if (nTagType == ZD3_TAG_TYPE_STRING || nTagType == ZD3_TAG_TYPE_BLOB) {
    uint16 nLenBuf = 0;
    unpack_value(pBuffer + BUFFER_RECORD_HEAD_LEN, &nLenBuf, 2, false);
    if (nLenBuf > BUFFER_STRBLOB_MAX_LEN) return EC_REC_BAD_LEN;
    if (nLeft - BUFFER_STRBLOB_LEN_LEN < nLenBuf) return EC_MSG_TOO_SHORT;
  }
  return EC_OK;
}
