/* Record batches: the unit in which tag values travel from collectors through
 * the service's data queue, send buffer and cache file to the server.
 *
 * Every number is little-endian (field codec); string and blob bytes are
 * copied unchanged. No padding anywhere.
 *
 *   batch   0  2  count      uint16  number of entries that follow (>= 1 to be
 *                                    delivered)
 *           2  .. entries    one after another
 *   entry   0  4  tag id     uint32
 *           4  2  length     uint16  bytes of the body that follows
 *           6  .. body
 *   body    0  4  nSec       int32   time stamp, seconds
 *           4  2  nMsec      int16   milliseconds part
 *           6  2  nQuality   uint16  passed to the server unchanged
 *           8  4  nTagType   int32   ZD3_TAG_TYPE, 0..7
 *          12  .. value      by type:
 *     0 INT8 1 byte | 1 INT16 2 | 2 INT32 4 | 3 FLOAT32 4 | 4 FLOAT64 8 |
 *     5 DIGITAL 1 | 6 STRING, 7 BLOB: uint16 n (0..1000) then n bytes, no
 *     terminating zero.
 *   Body lengths: 13, 14, 16, 16, 20, 13, 14 + n, 14 + n.
 *
 * The smallest entry is 19 bytes, so a batch of at most 1 MiB holds at most
 * 55,188 entries and its count never reaches the 16-bit limit.
 */
#ifndef ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_PROTO_RECORD_H_
#define ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_PROTO_RECORD_H_

#include "zd3_record.h"
#include "zd_errcode.h"
#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  BUFFER_BATCH_HEAD_LEN = 2,                    /* the count */
  BUFFER_ENTRY_HEAD_LEN = 6,                    /* tag id + body length */
  BUFFER_RECORD_HEAD_LEN = 12,                  /* nSec, nMsec, nQuality, nTagType */
  BUFFER_STRBLOB_LEN_LEN = 2,                   /* the uint16 length before string/blob bytes */
  BUFFER_STRBLOB_MAX_LEN = ZD3_MAX_STRBLOB_LEN, /* 1,000 */
  BUFFER_BATCH_MAX_LEN = 1048576                /* 1 MiB: the service's receive and send buffers */
};

/* Bytes of the value of a type, before any string/blob bytes (for types 6 and
 * 7 the 2-byte length); -1 for a type outside 0..7. */
static inline int32 buffer_proto_value_head_len(uint32 nTagType) {
  switch (nTagType) {
    case ZD3_TAG_TYPE_INT8:
      return 1;
    case ZD3_TAG_TYPE_INT16:
      return 2;
    case ZD3_TAG_TYPE_INT32:
      return 4;
    case ZD3_TAG_TYPE_FLOAT32:
      return 4;
    case ZD3_TAG_TYPE_FLOAT64:
      return 8;
    case ZD3_TAG_TYPE_DIGITAL:
      return 1;
    case ZD3_TAG_TYPE_STRING:
      return BUFFER_STRBLOB_LEN_LEN;
    case ZD3_TAG_TYPE_BLOB:
      return BUFFER_STRBLOB_LEN_LEN;
    default:
      return -1;
  }
}

/* Decodes one record body into *pRecord: nSec, nMsec, nQuality, nTagType and
 * the member of value that the type selects; other members are left as they
 * were. For strings and blobs, value.strBlob.nLenBuf gets n and the n bytes are
 * copied to value.strBlob.pBuf, which REQUIRES room for 1,000 bytes; no
 * terminator is added.
 *
 * pBuffer is the start of the body and nBufLen the entry's body length; the
 * decoder reads only the bytes the type needs and never more than nBufLen.
 * Bytes beyond what the type needs are left for the caller to skip.
 *
 * Returns 0, or the first fault:
 *   EC_NULL_POINTER  pRecord or pBuffer null, or value.strBlob.pBuf null for
 *                    a string/blob
 *   EC_MSG_TOO_SHORT nBufLen shorter than the fixed fields, the type's value
 *                    or the string/blob bytes
 *   EC_REC_BAD_TYPE  type field, as unsigned, greater than 7 (nTagType of the
 *                    record is then left unchanged)
 *   EC_REC_BAD_LEN   string/blob length greater than 1,000
 * After a fault the record's contents are unspecified. */
int32 buffer_proto_parse_buffer_to_zdrecord(ZD3Record* pRecord, const char* pBuffer, int32 nBufLen);

/* The status buffer_proto_parse_buffer_to_zdrecord would return for this
 * body (given a value buffer), without decoding it: for checking a batch
 * before it is accepted. Reads nothing at or beyond pBuffer + nBufLen. */
int32 buffer_proto_check_record(const char* pBuffer, int32 nBufLen);

#ifdef __cplusplus
} /* extern "C" */
static_assert(BUFFER_BATCH_MAX_LEN / (BUFFER_ENTRY_HEAD_LEN + BUFFER_RECORD_HEAD_LEN + 1) < 65536,
              "a full batch cannot overflow its 16-bit count");

#include "protocol/proto_base.h"

/* The two functions above, inline for C++ loops that run them once per
 * record (the service's batch check and send path): a call into the library
 * per record cost a third of their work. Same contracts. */
namespace buffer_proto {

namespace detail {
/* Copies string/blob bytes; out of line on purpose (see its definition). */
void UnpackStrBlob(const char* pSrc, char* pDst, int32 nLen);

/* Reads a fixed-size number at pValue if the nLeft bytes of the body hold it. */
template <typename T>
inline int32 ParseFixBounded(const char* pValue, int32 nLeft, T* pField) {
  if (nLeft < static_cast<int32>(sizeof(T))) return EC_MSG_TOO_SHORT;
  unpack_value(pValue, pField, static_cast<int32>(sizeof(T)), false);
  return EC_OK;
}
}  // namespace detail

inline int32 ParseRecord(ZD3Record* pRecord, const char* pBuffer, int32 nBufLen) {
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
      return detail::ParseFixBounded(pValue, nLeft, &value.nInt8);
    case ZD3_TAG_TYPE_INT16:
      return detail::ParseFixBounded(pValue, nLeft, &value.nInt16);
    case ZD3_TAG_TYPE_INT32:
      return detail::ParseFixBounded(pValue, nLeft, &value.nInt32);
    case ZD3_TAG_TYPE_FLOAT32:
      return detail::ParseFixBounded(pValue, nLeft, &value.fFloat32);
    case ZD3_TAG_TYPE_FLOAT64:
      return detail::ParseFixBounded(pValue, nLeft, &value.fFloat64);
    case ZD3_TAG_TYPE_DIGITAL:
      return detail::ParseFixBounded(pValue, nLeft, &value.nDigital);
    default:
      break;  // string or blob
  }

  int32 nRet = detail::ParseFixBounded(pValue, nLeft, &value.strBlob.nLenBuf);
  if (nRet != EC_OK) return nRet;
  const int32 nLenBuf = value.strBlob.nLenBuf;
  if (nLenBuf > BUFFER_STRBLOB_MAX_LEN) return EC_REC_BAD_LEN;
  if (nLeft - BUFFER_STRBLOB_LEN_LEN < nLenBuf) return EC_MSG_TOO_SHORT;
  if (value.strBlob.pBuf == nullptr) return EC_NULL_POINTER;
  detail::UnpackStrBlob(pValue + BUFFER_STRBLOB_LEN_LEN, value.strBlob.pBuf, nLenBuf);
  return EC_OK;
}

inline int32 CheckRecord(const char* pBuffer, int32 nBufLen) {
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

}  // namespace buffer_proto
#endif

#endif /* ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_PROTO_RECORD_H_ */
