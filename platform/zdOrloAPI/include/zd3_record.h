/* One tag value as the database client library takes it.
 *
 * The layout is the client library's and must not change: natural alignment
 * on a 64-bit host, 64 bytes in all. `value` is a structure with a member per
 * type, not a union; only the member of the record's type is meaningful. */
#ifndef PLATFORM_ZDORLOAPI_INCLUDE_ZD3_RECORD_H_
#define PLATFORM_ZDORLOAPI_INCLUDE_ZD3_RECORD_H_

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  ZD3_TAG_TYPE_INT8 = 0,
  ZD3_TAG_TYPE_INT16 = 1,
  ZD3_TAG_TYPE_INT32 = 2,
  ZD3_TAG_TYPE_FLOAT32 = 3,
  ZD3_TAG_TYPE_FLOAT64 = 4,
  ZD3_TAG_TYPE_DIGITAL = 5,
  ZD3_TAG_TYPE_STRING = 6,
  ZD3_TAG_TYPE_BLOB = 7,
  ZD3_TAG_TYPE_MIN = 0,
  ZD3_TAG_TYPE_MAX = 7
} ZD3_TAG_TYPE;

/* Largest string or blob value, in bytes. */
#define ZD3_MAX_STRBLOB_LEN 1000

typedef struct {
  char* pBuf;     /* caller-supplied buffer holding the bytes (types 6 and 7) */
  uint16 nLenBuf; /* number of bytes in pBuf */
} ZD3StrBlob;

typedef struct {
  int8 nInt8;       /* offset 0 in value, type 0 */
  int16 nInt16;     /* 2, type 1 */
  int32 nInt32;     /* 4, type 2 */
  float32 fFloat32; /* 8, type 3 */
  float64 fFloat64; /* 16, type 4 */
  int8 nDigital;    /* 24, type 5 */
  ZD3StrBlob strBlob; /* 32 (pBuf) and 40 (nLenBuf), types 6 and 7 */
} ZD3Value;

typedef struct {
  int32 nSec;           /* 0: time stamp, seconds */
  int16 nMsec;          /* 4: milliseconds part */
  uint16 nQuality;      /* 6: quality code, passed through unchanged */
  ZD3_TAG_TYPE nTagType;/* 8: value type */
  ZD3Value value;       /* 16: 48 bytes */
} ZD3Record;

#ifdef __cplusplus
}  /* extern "C" */
#include <cstddef>
static_assert(sizeof(ZD3_TAG_TYPE) == 4, "type field is 4 bytes");
static_assert(sizeof(ZD3Record) == 64, "ZD3Record is 64 bytes");
static_assert(offsetof(ZD3Record, nSec) == 0);
static_assert(offsetof(ZD3Record, nMsec) == 4);
static_assert(offsetof(ZD3Record, nQuality) == 6);
static_assert(offsetof(ZD3Record, nTagType) == 8);
static_assert(offsetof(ZD3Record, value) == 16);
static_assert(offsetof(ZD3Record, value.nInt8) == 16);
static_assert(offsetof(ZD3Record, value.nInt16) == 18);
static_assert(offsetof(ZD3Record, value.nInt32) == 20);
static_assert(offsetof(ZD3Record, value.fFloat32) == 24);
static_assert(offsetof(ZD3Record, value.fFloat64) == 32);
static_assert(offsetof(ZD3Record, value.nDigital) == 40);
static_assert(offsetof(ZD3Record, value.strBlob.pBuf) == 48);
static_assert(offsetof(ZD3Record, value.strBlob.nLenBuf) == 56);
#endif

#endif /* PLATFORM_ZDORLOAPI_INCLUDE_ZD3_RECORD_H_ */
