/* zdc_: the collector side of the buffer service's protocol, callable from C.
 *
 * A collector
 *   1. sends an init message (zdc_build_init_msg) to the control queue
 *      (BUFFER_CTRL_QUEUE_ID) and waits on its reply queue for the init reply
 *      (zdc_parse_init_reply), which names the data queue;
 *   2. optionally sends a login message (zdc_build_login_msg; no reply);
 *   3. builds batches (ZdcBatch) and sends each one, as a whole message, to
 *      the data queue.
 * Byte layouts: protocol/proto_buffer.h and protocol/buffer_proto_record.h.
 *
 * Statuses: 0 for success, otherwise
 *   EC_NULL_POINTER      119501  a required pointer is null
 *   EC_NO_MEMORY         110241  allocation failed, or the caller's buffer is
 *                                too small for the message
 *   EC_MSG_TOO_SHORT     116201  an init reply shorter than its code requires
 *   EC_REC_BAD_TYPE      110653  record type outside 0..7
 *   ZDC_E_VALUE_TOO_LONG 116601  string/blob longer than 1,000 bytes
 *   ZDC_E_BATCH_FULL     116602  the record does not fit: the batch would
 *                                exceed BUFFER_BATCH_MAX_LEN (1,048,576
 *                                bytes), its buffer's capacity, or 65,535
 *                                records. Send the batch, reset it, append
 *                                the record again.
 *   ZDC_E_BATCH_EMPTY    116603  the batch holds no record (the service
 *                                refuses a batch with count 0)
 *   ZDC_E_TEXT_TOO_LONG  116604  an address, user name or password does not
 *                                fit its field with the terminator (15, 63,
 *                                127 characters at most)
 *   ZDC_E_BAD_ARG        116605  a length or capacity out of range
 * A failed append leaves the batch exactly as it was.
 *
 * Thread safety: a ZdcBatch belongs to one thread at a time; the functions
 * keep no other state.
 */
#ifndef ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_COLLECTOR_H_
#define ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_COLLECTOR_H_

#include "protocol/buffer_proto_record.h"
#include "protocol/proto_buffer.h"
#include "zd3_record.h"
#include "zd_errcode.h"
#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  ZDC_E_VALUE_TOO_LONG = 116601,
  ZDC_E_BATCH_FULL = 116602,
  ZDC_E_BATCH_EMPTY = 116603,
  ZDC_E_TEXT_TOO_LONG = 116604,
  ZDC_E_BAD_ARG = 116605
};

/* A batch under construction. The bytes pBuf[0 .. nLen) are always a
 * complete batch (the count is kept up to date by every append), ready to be
 * sent once nCount >= 1. Read the fields, never write them. */
typedef struct {
  char* pBuf;      /* batch bytes */
  int32 nCapacity; /* usable bytes at pBuf, at most BUFFER_BATCH_MAX_LEN */
  int32 nLen;      /* bytes in use, count included (2 for an empty batch) */
  uint16 nCount;   /* records in the batch */
  uint8 bOwned;    /* 1 when pBuf was allocated by zdc_batch_create */
} ZdcBatch;

/* Uses the caller's buffer of nCapacity bytes, which must stay valid while
 * the batch is in use. Only the first BUFFER_BATCH_MAX_LEN bytes of a larger
 * buffer are used. Capacity < 2: EC_NO_MEMORY. */
int32 zdc_batch_init(ZdcBatch* pBatch, char* pBuf, int32 nCapacity);
/* Allocates a buffer of nCapacity bytes (0: BUFFER_BATCH_MAX_LEN; 2 to
 * BUFFER_BATCH_MAX_LEN otherwise, else ZDC_E_BAD_ARG), released by
 * zdc_batch_destroy. */
int32 zdc_batch_create(ZdcBatch* pBatch, int32 nCapacity);
/* Releases an owned buffer (a borrowed one is left alone) and clears the
 * batch; a cleared or null batch is ignored. */
void zdc_batch_destroy(ZdcBatch* pBatch);
/* Empties the batch for the next one; the buffer is kept. */
int32 zdc_batch_reset(ZdcBatch* pBatch);

/* Appends one record with tag id nTagId, time stamp nSec.nMsec and quality
 * nQuality, of the type the name says. */
int32 zdc_batch_add_int8(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                         int8 nValue);
int32 zdc_batch_add_int16(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                          int16 nValue);
int32 zdc_batch_add_int32(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                          int32 nValue);
int32 zdc_batch_add_float32(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                            uint16 nQuality, float32 fValue);
int32 zdc_batch_add_float64(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                            uint16 nQuality, float64 fValue);
int32 zdc_batch_add_digital(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                            uint16 nQuality, int8 nState);
/* szText is zero-terminated; its characters are sent without the terminator
 * (at most 1,000). */
int32 zdc_batch_add_string(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec,
                           uint16 nQuality, const char* szText);
/* nLen bytes (0 to 1,000) at pData; pData may be null when nLen is 0. */
int32 zdc_batch_add_blob(ZdcBatch* pBatch, uint32 nTagId, int32 nSec, int16 nMsec, uint16 nQuality,
                         const void* pData, int32 nLen);
/* Appends pRecord as it stands, any type: the member of value selected by
 * nTagType; for types 6 and 7, value.strBlob.nLenBuf bytes of
 * value.strBlob.pBuf (no terminator is implied). */
int32 zdc_batch_add_record(ZdcBatch* pBatch, uint32 nTagId, const ZD3Record* pRecord);

/* The message to send: *ppData and *pnLen receive the batch's bytes.
 * ZDC_E_BATCH_EMPTY when it holds no record. */
int32 zdc_batch_get(const ZdcBatch* pBatch, const char** ppData, int32* pnLen);

/* Writes the 42-byte init message into pBuf (nBufLen >= 42, else
 * EC_NO_MEMORY): the server's address and port, the backup's (szBakIP may be
 * null: empty), and the collector's reply queue. Host order; text fields are
 * zero-padded. *pnMsgLen (may be null) receives 42. */
int32 zdc_build_init_msg(const char* szIP, uint16 nPort, const char* szBakIP, uint16 nBakPort,
                         int32 nReplyQueueID, char* pBuf, int32 nBufLen, int32* pnMsgLen);
/* Writes the 230-byte login message into pBuf (nBufLen >= 230): the head with
 * only its command set, then user name and password, zero-padded.
 * *pnMsgLen (may be null) receives 230. */
int32 zdc_build_login_msg(const char* szUserName, const char* szPasswd, char* pBuf, int32 nBufLen,
                          int32* pnMsgLen);
/* Reads an init reply of nLen bytes: *pnRetCode receives the service's
 * return code; when it is 0, *pnDataQueueID receives the data queue (else -1).
 * EC_MSG_TOO_SHORT for fewer than 4 bytes, or fewer than 8 with code 0. */
int32 zdc_parse_init_reply(const char* pReply, int32 nLen, int32* pnRetCode, int32* pnDataQueueID);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZDHEADERS_INCLUDE_PROTOCOL_BUFFER_COLLECTOR_H_ */
