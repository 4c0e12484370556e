// The client library's wire format, shared by the library and the reference
// server (docs/wire-protocol.md describes it in prose).
//
// Every message is one frame, all numbers little-endian:
//   0  u32  frame length, header included (kFrameHeaderSize..kMaxFrameSize)
//   4  u16  message type (EWireType); replies have kWireReplyBit set
//   6  u16  flags, 0
//   8  u32  request id; a reply echoes the id of its request
//  12  ...  body
//
// Bodies:
//   HELLO        u32 magic kWireMagic, u16 version, u16 0
//   HELLO reply  i32 status, u16 version, u16 0, u32 largest frame accepted
//   LOGIN        u16 n, n bytes user, u16 m, m bytes password (n, m <= 255)
//   LOGIN reply  i32 status
//   SAVE         u32 count, then count records:
//                  u32 tag, i32 sec, i16 msec, u16 quality, u8 type, value
//                value by type: 0 and 5: 1 byte; 1: 2; 2 and 3: 4; 4: 8;
//                6 and 7: u16 length (<= 1000), then the bytes
//   SAVE reply   i32 status, u32 failed count f, then f pairs
//                  (u32 record index, i32 code), indexes strictly increasing
#ifndef PLATFORM_ZDORLOAPI_INCLUDE_ZDORLO_WIRE_H_
#define PLATFORM_ZDORLOAPI_INCLUDE_ZDORLO_WIRE_H_

#include <cstddef>
#include <cstring>

#include "zd3_record.h"
#include "zd_types.h"

namespace zdorlo {

constexpr uint32 kWireMagic = 0x4F52445A;  // bytes 'Z' 'D' 'R' 'O'
constexpr uint16 kWireVersion = 1;
constexpr size_t kFrameHeaderSize = 12;
constexpr uint32 kMaxFrameSize = 64u << 20;  // 64 MiB, either direction
constexpr uint32 kMaxSaveCount = 1000000;
constexpr size_t kMaxLoginField = 255;
constexpr size_t kRecordFixedSize = 13;  // tag, sec, msec, quality, type
constexpr uint16 kWireReplyBit = 0x8000;

enum EWireType : uint16 {
  kWireHello = 1,
  kWireLogin = 2,
  kWireSave = 3,
};

// ---- little-endian fixed-width codec ----------------------------------

inline void put_u16(uint8* p, uint16 n) {
  p[0] = static_cast<uint8>(n);
  p[1] = static_cast<uint8>(n >> 8);
}
inline void put_u32(uint8* p, uint32 n) {
  p[0] = static_cast<uint8>(n);
  p[1] = static_cast<uint8>(n >> 8);
  p[2] = static_cast<uint8>(n >> 16);
  p[3] = static_cast<uint8>(n >> 24);
}
inline void put_u64(uint8* p, uint64 n) {
  put_u32(p, static_cast<uint32>(n));
  put_u32(p + 4, static_cast<uint32>(n >> 32));
}
inline uint16 get_u16(const uint8* p) { return static_cast<uint16>(p[0] | (p[1] << 8)); }
inline uint32 get_u32(const uint8* p) {
  return static_cast<uint32>(p[0]) | (static_cast<uint32>(p[1]) << 8) |
         (static_cast<uint32>(p[2]) << 16) | (static_cast<uint32>(p[3]) << 24);
}
inline uint64 get_u64(const uint8* p) {
  return static_cast<uint64>(get_u32(p)) | (static_cast<uint64>(get_u32(p + 4)) << 32);
}

struct SFrameHeader {
  uint32 nLength;
  uint16 nType;
  uint16 nFlags;
  uint32 nRequestId;
};

inline void wire_put_header(uint8* p, const SFrameHeader& h) {
  put_u32(p, h.nLength);
  put_u16(p + 4, h.nType);
  put_u16(p + 6, h.nFlags);
  put_u32(p + 8, h.nRequestId);
}
inline SFrameHeader wire_get_header(const uint8* p) {
  return SFrameHeader{get_u32(p), get_u16(p + 4), get_u16(p + 6), get_u32(p + 8)};
}

// Bytes of the value of a record of type nType; -1 for a type outside 0..7.
// For strings and blobs this is the length prefix plus nLen.
inline int32 wire_value_size(uint32 nType, uint16 nLen) {
  switch (nType) {
    case ZD3_TAG_TYPE_INT8:
    case ZD3_TAG_TYPE_DIGITAL:
      return 1;
    case ZD3_TAG_TYPE_INT16:
      return 2;
    case ZD3_TAG_TYPE_INT32:
    case ZD3_TAG_TYPE_FLOAT32:
      return 4;
    case ZD3_TAG_TYPE_FLOAT64:
      return 8;
    case ZD3_TAG_TYPE_STRING:
    case ZD3_TAG_TYPE_BLOB:
      return 2 + nLen;
    default:
      return -1;
  }
}

// Encodes one record at p, which must hold kRecordFixedSize +
// wire_value_size(...) bytes. REQUIRES: the record was validated.
inline uint8* wire_put_record(uint8* p, uint32 nTag, const ZD3Record& r) {
  put_u32(p, nTag);
  put_u32(p + 4, static_cast<uint32>(r.nSec));
  put_u16(p + 8, static_cast<uint16>(r.nMsec));
  put_u16(p + 10, r.nQuality);
  p[12] = static_cast<uint8>(r.nTagType);
  p += kRecordFixedSize;
  switch (r.nTagType) {
    case ZD3_TAG_TYPE_INT8:
      *p++ = static_cast<uint8>(r.value.nInt8);
      break;
    case ZD3_TAG_TYPE_DIGITAL:
      *p++ = static_cast<uint8>(r.value.nDigital);
      break;
    case ZD3_TAG_TYPE_INT16:
      put_u16(p, static_cast<uint16>(r.value.nInt16));
      p += 2;
      break;
    case ZD3_TAG_TYPE_INT32:
      put_u32(p, static_cast<uint32>(r.value.nInt32));
      p += 4;
      break;
    case ZD3_TAG_TYPE_FLOAT32: {
      uint32 n;
      std::memcpy(&n, &r.value.fFloat32, 4);
      put_u32(p, n);
      p += 4;
      break;
    }
    case ZD3_TAG_TYPE_FLOAT64: {
      uint64 n;
      std::memcpy(&n, &r.value.fFloat64, 8);
      put_u64(p, n);
      p += 8;
      break;
    }
    default: {  // string, blob
      const uint16 nLen = r.value.strBlob.nLenBuf;
      put_u16(p, nLen);
      if (nLen > 0) std::memcpy(p + 2, r.value.strBlob.pBuf, nLen);
      p += 2 + nLen;
      break;
    }
  }
  return p;
}

// One decoded record; pData points into the frame for strings and blobs.
struct SWireRecord {
  uint32 nTag;
  int32 nSec;
  int16 nMsec;
  uint16 nQuality;
  uint8 nType;
  int64 nInt;          // types 0, 1, 2, 5
  float64 fReal;       // types 3 (widened exactly) and 4
  const uint8* pData;  // types 6, 7
  uint16 nLen;
};

// Decodes one record from p with nLeft bytes available. Returns the bytes
// used, or 0 when the record is truncated, its type is outside 0..7 or a
// string or blob is longer than 1000 bytes. Never reads past p + nLeft.
inline size_t wire_get_record(const uint8* p, size_t nLeft, SWireRecord* pOut) {
  if (nLeft < kRecordFixedSize) return 0;
  SWireRecord& r = *pOut;
  r.nTag = get_u32(p);
  r.nSec = static_cast<int32>(get_u32(p + 4));
  r.nMsec = static_cast<int16>(get_u16(p + 8));
  r.nQuality = get_u16(p + 10);
  r.nType = p[12];
  r.pData = nullptr;
  r.nLen = 0;
  r.nInt = 0;
  r.fReal = 0;
  const uint8* v = p + kRecordFixedSize;
  nLeft -= kRecordFixedSize;
  uint16 nLen = 0;
  if (r.nType == ZD3_TAG_TYPE_STRING || r.nType == ZD3_TAG_TYPE_BLOB) {
    if (nLeft < 2) return 0;
    nLen = get_u16(v);
    if (nLen > ZD3_MAX_STRBLOB_LEN) return 0;
  }
  const int32 nValue = wire_value_size(r.nType, nLen);
  if (nValue < 0 || nLeft < static_cast<size_t>(nValue)) return 0;
  switch (r.nType) {
    case ZD3_TAG_TYPE_INT8:
    case ZD3_TAG_TYPE_DIGITAL:
      r.nInt = static_cast<int8>(v[0]);
      break;
    case ZD3_TAG_TYPE_INT16:
      r.nInt = static_cast<int16>(get_u16(v));
      break;
    case ZD3_TAG_TYPE_INT32:
      r.nInt = static_cast<int32>(get_u32(v));
      break;
    case ZD3_TAG_TYPE_FLOAT32: {
      const uint32 n = get_u32(v);
      float32 f;
      std::memcpy(&f, &n, 4);
      r.fReal = f;
      break;
    }
    case ZD3_TAG_TYPE_FLOAT64: {
      const uint64 n = get_u64(v);
      std::memcpy(&r.fReal, &n, 8);
      break;
    }
    default:
      r.nLen = nLen;
      r.pData = v + 2;
      break;
  }
  return kRecordFixedSize + static_cast<size_t>(nValue);
}

}  // namespace zdorlo

#endif  // PLATFORM_ZDORLOAPI_INCLUDE_ZDORLO_WIRE_H_
