// Helpers shared by the protocol tests: byte vectors written independently
// of the codec under test, and exactly sized heap copies so that ASan
// reports any read past the end.
#ifndef TESTS_PROTOCOL_PROTO_TEST_UTIL_H_
#define TESTS_PROTOCOL_PROTO_TEST_UTIL_H_

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace proto_test {

using Bytes = std::vector<uint8_t>;

inline Bytes Hex(std::initializer_list<int> list) {
  Bytes out;
  for (int b : list) out.push_back(static_cast<uint8_t>(b));
  return out;
}

// Appends the low nLen bytes of v, least significant first, by arithmetic
// rather than by memory layout.
inline void PutLe(Bytes* pOut, uint64_t v, int nLen) {
  for (int i = 0; i < nLen; ++i) pOut->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

inline void PutRaw(Bytes* pOut, const void* p, size_t n) {
  const uint8_t* q = static_cast<const uint8_t*>(p);
  pOut->insert(pOut->end(), q, q + n);
}

inline Bytes ToBytes(const char* p, size_t n) {
  return Bytes(reinterpret_cast<const uint8_t*>(p), reinterpret_cast<const uint8_t*>(p) + n);
}

// A heap copy of exactly n bytes (a 0-byte copy is still a distinct
// allocation, so even reading its first byte is reported).
inline std::unique_ptr<char[]> ExactCopy(const uint8_t* p, size_t n) {
  std::unique_ptr<char[]> copy(new char[n]);
  if (n > 0) std::memcpy(copy.get(), p, n);
  return copy;
}

}  // namespace proto_test

#endif  // TESTS_PROTOCOL_PROTO_TEST_UTIL_H_
