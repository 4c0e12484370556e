#include "protocol/buffer_proto_record.h"

namespace buffer_proto::detail {

// Kept out of line and opaque to interprocedural analysis on purpose: where
// GCC sees the 1,000-byte bound it inlines the copy as `rep movsq`, whose
// start-up cost made a 16-byte string take ~30 ns instead of ~4 ns; with the
// length unknown it calls the library's memcpy, which is fast for every
// length.
#if defined(__GNUC__) && !defined(__clang__)
[[gnu::noipa]]
#else
[[gnu::noinline]]
#endif
void UnpackStrBlob(const char* pSrc, char* pDst, int32 nLen) {
  unpack_value(pSrc, pDst, nLen, true);
}

}  // namespace buffer_proto::detail

int32 buffer_proto_parse_buffer_to_zdrecord(ZD3Record* pRecord, const char* pBuffer,
                                            int32 nBufLen) {
  return buffer_proto::ParseRecord(pRecord, pBuffer, nBufLen);
}

int32 buffer_proto_check_record(const char* pBuffer, int32 nBufLen) {
  return buffer_proto::CheckRecord(pBuffer, nBufLen);
}
