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
#endif

#endif /* ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_PROTO_RECORD_H_ */
