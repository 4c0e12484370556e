/* proto_base: the field codec of every message.
 *
 * The wire order of numeric fields is little-endian on every host. A field
 * either goes through pack_value/unpack_value (numbers are converted, strings
 * and blobs copied byte for byte) or is copied raw in host order; each message
 * format says which.
 *
 * None of these functions checks a length against a buffer, allocates, or
 * fails: REQUIRES nLen >= 0 and both source and destination hold nLen bytes.
 * They run once per field of every record, so they are inline and branch only
 * on the host's byte order, which is settled at compile time.
 *
 * String field written by the step functions:
 *   uint16 n (little-endian, counts the terminating zero) | n bytes (text + 0)
 */
#ifndef ZDHEADERS_INCLUDE_PROTOCOL_PROTO_BASE_H_
#define ZDHEADERS_INCLUDE_PROTOCOL_PROTO_BASE_H_

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Releases a buffer allocated by a proto_ or proto_buffer_ pack function.
 * A null pointer is ignored. */
void proto_pack_free(char* pBuf);

#ifdef __cplusplus
} /* extern "C" */

#include <bit>
#include <cstring>
#include <type_traits>

static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big,
              "mixed-endian hosts are not supported");

/* True when the host stores integers most significant byte first. */
constexpr bool is_cpu_big_endian() { return std::endian::native == std::endian::big; }

/* Reverses the nLen bytes at pWord in place; nLen of 0 or 1 changes nothing,
 * the middle byte of an odd length stays. */
inline void byte_swap(void* pWord, int32 nLen) {
  unsigned char* p = static_cast<unsigned char*>(pWord);
  for (int32 i = 0; i < nLen / 2; ++i) {
    const unsigned char c = p[i];
    p[i] = p[nLen - 1 - i];
    p[nLen - 1 - i] = c;
  }
}

namespace proto_detail {

/* The codec written for a host of the given order. The public functions below
 * pick the host's instance; tests call the other one directly, since no
 * big-endian host is available to run them on. */
template <bool kBigEndianHost>
inline void serial_as([[maybe_unused]] void* pValue, [[maybe_unused]] int32 nLen) {
  if constexpr (kBigEndianHost) byte_swap(pValue, nLen);
}

template <bool kBigEndianHost>
inline void pack_value_as(const void* pValue, int32 nLen, char* pBuf, bool bStrBlob) {
  std::memcpy(pBuf, pValue, static_cast<size_t>(nLen));
  if (!bStrBlob) serial_as<kBigEndianHost>(pBuf, nLen);
}

template <bool kBigEndianHost>
inline void unpack_value_as(const char* pBuf, void* pValue, int32 nLen, bool bStrBlob) {
  std::memcpy(pValue, pBuf, static_cast<size_t>(nLen));
  if (!bStrBlob) serial_as<kBigEndianHost>(pValue, nLen);
}

}  // namespace proto_detail

/* Converts the field at pValue between host order and wire order, in place.
 * Its own inverse. */
inline void serial(void* pValue, int32 nLen) {
  proto_detail::serial_as<is_cpu_big_endian()>(pValue, nLen);
}

/* Copies nLen bytes from pValue to pBuf, converting to wire order unless
 * bStrBlob; the source is left untouched. */
inline void pack_value(const void* pValue, int32 nLen, char* pBuf, bool bStrBlob) {
  proto_detail::pack_value_as<is_cpu_big_endian()>(pValue, nLen, pBuf, bStrBlob);
}

/* Copies nLen bytes from pBuf to pValue, converting to host order unless
 * bStrBlob. */
inline void unpack_value(const char* pBuf, void* pValue, int32 nLen, bool bStrBlob) {
  proto_detail::unpack_value_as<is_cpu_big_endian()>(pBuf, pValue, nLen, bStrBlob);
}

/* Writes the number fix at the cursor in wire order and advances the cursor
 * by sizeof(T). */
template <typename T>
inline void PackFixStep(char** ppBuf, T fix) {
  static_assert(std::is_arithmetic_v<T>, "only numeric fields are converted");
  pack_value(&fix, static_cast<int32>(sizeof(T)), *ppBuf, false);
  *ppBuf += sizeof(T);
}

/* Reads a number at the cursor into *pFix in host order and advances the
 * cursor by sizeof(T). */
template <typename T>
inline void ParseFixStep(char** ppBuf, T* pFix) {
  static_assert(std::is_arithmetic_v<T>, "only numeric fields are converted");
  unpack_value(*ppBuf, pFix, static_cast<int32>(sizeof(T)), false);
  *ppBuf += sizeof(T);
}

/* Writes pStr as a string field (length with terminator, then the text and
 * its terminator) and advances the cursor by 2 + strlen(pStr) + 1.
 * REQUIRES strlen(pStr) < 65535. */
inline void PackStringStep(char** ppBuf, const char* pStr) {
  const uint16 nLenString = static_cast<uint16>(std::strlen(pStr) + 1);
  PackFixStep<uint16>(ppBuf, nLenString);
  pack_value(pStr, nLenString, *ppBuf, true);
  *ppBuf += nLenString;
}

/* Reads a string field at the cursor into pStr (terminator included, as it
 * stands in the data) and advances the cursor past it.
 * REQUIRES pStr holds the length found in the data; a reader of untrusted
 * input checks that length first. */
inline void ParseStringStep(char** ppBuf, char* pStr) {
  uint16 nLenString = 0;
  ParseFixStep<uint16>(ppBuf, &nLenString);
  unpack_value(*ppBuf, pStr, nLenString, true);
  *ppBuf += nLenString;
}

#endif /* __cplusplus */

#endif /* ZDHEADERS_INCLUDE_PROTOCOL_PROTO_BASE_H_ */
