/* Control messages between a collector and the service (control queue 1).
 *
 * Requests are copied raw, in the sender's host order, no conversion:
 *
 *   BufferHead, the first 38 bytes of every request
 *     0   2  nCommand   uint16    BUFFER_CMD_INIT or BUFFER_CMD_LOGIN
 *     2  16  szIP       char[16]  server IPv4 dotted-decimal, zero-terminated
 *    18   2  nPort      uint16
 *    20  16  szBakIP    char[16]  backup server, same form
 *    36   2  nBakPort   uint16
 *   init message (42 bytes): head, then BufferInitInfo
 *    38   4  nQueueID   int32     the collector's reply queue
 *   login message (230 bytes): head (address fields unused), then ProtoScLogin
 *    38  64  szUserName char[64]  zero-terminated
 *   102 128  szPasswd   char[128] zero-terminated
 *
 * The init reply goes through the field codec, little-endian on every host:
 *     0   4  return code int32    0 for success
 *     4   4  nQueueID    int32    only when the return code is 0: the data
 *                                 queue to which batches are sent
 *   so a successful reply is 8 bytes, a failure reply 4.
 */
#ifndef ZDHEADERS_INCLUDE_PROTOCOL_PROTO_BUFFER_H_
#define ZDHEADERS_INCLUDE_PROTOCOL_PROTO_BUFFER_H_

#include "protocol/proto_base.h"
#include "zd_errcode.h"
#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Command codes (BufferHead.nCommand). Any other value is invalid. */
enum {
  BUFFER_CMD_INIT = 1, /* body: BufferInitInfo */
  BUFFER_CMD_LOGIN = 2 /* body: ProtoScLogin */
};

/* The service's control queue, to which init and login messages are sent. */
enum { BUFFER_CTRL_QUEUE_ID = 1 };

/* Sizes of the control messages, in bytes. */
enum {
  BUFFER_HEAD_LEN = 38,
  BUFFER_INIT_INFO_LEN = 4,
  BUFFER_LOGIN_INFO_LEN = 192,
  BUFFER_INIT_MSG_LEN = 42,      /* head + BufferInitInfo */
  BUFFER_LOGIN_MSG_LEN = 230,    /* head + ProtoScLogin */
  BUFFER_INIT_REPLY_OK_LEN = 8,  /* return code 0 + queue id */
  BUFFER_INIT_REPLY_ERR_LEN = 4, /* non-zero return code alone */
  BUFFER_CTRL_MSG_MAX_LEN = 256  /* every request fits the service's receive buffer */
};

/* Natural alignment leaves no padding in any of these; the layouts are
 * pinned below. */
typedef struct {
  uint16 nCommand;
  char szIP[16];
  uint16 nPort;
  char szBakIP[16];
  uint16 nBakPort;
} BufferHead;

typedef struct {
  int32 nQueueID;
} BufferInitInfo;

typedef struct {
  char szUserName[64];
  char szPasswd[128];
} ProtoScLogin;

/* Copies the first 38 bytes of szBuffer into *pHead as they stand. nBufLen is
 * not looked at: REQUIRES szBuffer holds at least 38 readable bytes (the
 * service's receive buffer holds 256). Returns 0, or EC_NULL_POINTER for a
 * null argument. */
int32 proto_buffer_unpack_head(const char* szBuffer, int32 nBufLen, BufferHead* pHead);

/* Decodes the init body: szBuffer is the message + 38, nBufLen the message
 * length - 38 (negative for a message shorter than the head). Copies the first
 * 4 bytes raw into pInitInfo->nQueueID; later bytes are ignored.
 * Returns 0, EC_NULL_POINTER, or EC_MSG_TOO_SHORT when nBufLen < 4. */
int32 proto_buffer_unpack_init_info(const char* szBuffer, int32 nBufLen, BufferInitInfo* pInitInfo);

/* Builds the init reply in a buffer allocated here: 8 bytes (nRetCode 0 and
 * initInfo.nQueueID) or 4 bytes (non-zero nRetCode alone), little-endian.
 * The caller releases *ppBuffer with proto_pack_free; after a failure it is
 * null. Returns 0, EC_NULL_POINTER, or EC_NO_MEMORY. */
int32 proto_buffer_pack_init_ret(int32 nRetCode, BufferInitInfo initInfo, char** ppBuffer,
                                 int32* pnBufLen);

#ifdef __cplusplus
} /* extern "C" */
#include <cstddef>
static_assert(sizeof(BufferHead) == BUFFER_HEAD_LEN);
static_assert(offsetof(BufferHead, nCommand) == 0);
static_assert(offsetof(BufferHead, szIP) == 2);
static_assert(offsetof(BufferHead, nPort) == 18);
static_assert(offsetof(BufferHead, szBakIP) == 20);
static_assert(offsetof(BufferHead, nBakPort) == 36);
static_assert(sizeof(BufferInitInfo) == BUFFER_INIT_INFO_LEN);
static_assert(sizeof(ProtoScLogin) == BUFFER_LOGIN_INFO_LEN);
static_assert(offsetof(ProtoScLogin, szUserName) == 0);
static_assert(offsetof(ProtoScLogin, szPasswd) == 64);
static_assert(BUFFER_INIT_MSG_LEN == BUFFER_HEAD_LEN + BUFFER_INIT_INFO_LEN);
static_assert(BUFFER_LOGIN_MSG_LEN == BUFFER_HEAD_LEN + BUFFER_LOGIN_INFO_LEN);
static_assert(BUFFER_LOGIN_MSG_LEN <= BUFFER_CTRL_MSG_MAX_LEN);
#else
_Static_assert(sizeof(BufferHead) == 38, "BufferHead is 38 bytes");
_Static_assert(sizeof(BufferInitInfo) == 4, "BufferInitInfo is 4 bytes");
_Static_assert(sizeof(ProtoScLogin) == 192, "ProtoScLogin is 192 bytes");
#endif

#endif /* ZDHEADERS_INCLUDE_PROTOCOL_PROTO_BUFFER_H_ */
