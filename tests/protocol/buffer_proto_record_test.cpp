// Record decoder: every type against hand-assembled bodies, every truncation
// length, bad types and over-long strings. Bodies live in exactly sized heap
// buffers, so ASan reports any read past the body's length.
#include "protocol/buffer_proto_record.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <memory>
#include <functional>
#include <string>
#include <vector>

#include "proto_test_util.h"

namespace {

using proto_test::Bytes;
using proto_test::ExactCopy;
using proto_test::Hex;
using proto_test::PutLe;

Bytes Body(int32 nSec, int16 nMsec, uint16 nQuality, uint32 nTagType, const Bytes& value) {
  Bytes body;
  PutLe(&body, static_cast<uint32>(nSec), 4);
  PutLe(&body, static_cast<uint16>(nMsec), 2);
  PutLe(&body, nQuality, 2);
  PutLe(&body, nTagType, 4);
  body.insert(body.end(), value.begin(), value.end());
  return body;
}

Bytes StrBlobValue(const Bytes& data) {
  Bytes value;
  PutLe(&value, data.size(), 2);
  value.insert(value.end(), data.begin(), data.end());
  return value;
}

// A record whose every byte is a known pattern, with a 1,000-byte value
// buffer on the heap (exactly sized: an overlong copy is reported).
class DecodeTarget {
 public:
  DecodeTarget() : m_pValueBuf(new char[ZD3_MAX_STRBLOB_LEN]) {
    std::memset(m_pValueBuf.get(), 0x7F, ZD3_MAX_STRBLOB_LEN);
    std::memset(&m_record, 0x5A, sizeof(m_record));
    m_record.nTagType = ZD3_TAG_TYPE_INT16;
    m_record.value.strBlob.pBuf = m_pValueBuf.get();
  }
  ZD3Record* Record() { return &m_record; }
  const char* ValueBuf() const { return m_pValueBuf.get(); }

  int32 Decode(const Bytes& body, size_t nLen) {
    auto copy = ExactCopy(body.data(), nLen);
    return buffer_proto_parse_buffer_to_zdrecord(&m_record, copy.get(), static_cast<int32>(nLen));
  }

 private:
  std::unique_ptr<char[]> m_pValueBuf;
  ZD3Record m_record;
};

struct TypeCase {
  std::string name;
  ZD3_TAG_TYPE nTagType;
  Bytes value;                            // value bytes on the wire
  std::function<void(ZD3Record*)> apply;  // what the decoder must change
};

std::vector<TypeCase> EveryTypeCases() {
  std::vector<TypeCase> cases;
  cases.push_back(
      {"int8", ZD3_TAG_TYPE_INT8, Hex({0x80}), [](ZD3Record* r) { r->value.nInt8 = -128; }});
  cases.push_back(
      {"int16", ZD3_TAG_TYPE_INT16, Hex({0xFE, 0xFF}), [](ZD3Record* r) { r->value.nInt16 = -2; }});
  cases.push_back({"int32", ZD3_TAG_TYPE_INT32, Hex({0x78, 0x56, 0x34, 0x12}),
                   [](ZD3Record* r) { r->value.nInt32 = 0x12345678; }});
  Bytes f32;
  PutLe(&f32, std::bit_cast<uint32>(1.5f), 4);
  cases.push_back(
      {"float32", ZD3_TAG_TYPE_FLOAT32, f32, [](ZD3Record* r) { r->value.fFloat32 = 1.5f; }});
  Bytes f64;
  PutLe(&f64, std::bit_cast<uint64>(-0.1), 8);
  cases.push_back(
      {"float64", ZD3_TAG_TYPE_FLOAT64, f64, [](ZD3Record* r) { r->value.fFloat64 = -0.1; }});
  cases.push_back(
      {"digital", ZD3_TAG_TYPE_DIGITAL, Hex({0x01}), [](ZD3Record* r) { r->value.nDigital = 1; }});
  for (ZD3_TAG_TYPE nType : {ZD3_TAG_TYPE_STRING, ZD3_TAG_TYPE_BLOB}) {
    for (size_t n : {size_t{0}, size_t{1}, size_t{5}, size_t{1000}}) {
      Bytes data;
      for (size_t i = 0; i < n; ++i) data.push_back(static_cast<uint8_t>(i * 7));  // zeros inside
      cases.push_back({(nType == ZD3_TAG_TYPE_STRING ? "string" : "blob") + std::to_string(n),
                       nType, StrBlobValue(data),
                       [n](ZD3Record* r) { r->value.strBlob.nLenBuf = static_cast<uint16>(n); }});
    }
  }
  return cases;
}

TEST(BufferProtoRecordTest, EveryTypeDecodesOnlyItsMember) {
  for (const TypeCase& c : EveryTypeCases()) {
    SCOPED_TRACE(c.name);
    const Bytes body = Body(-1700000000, -250, 0xC0C1, c.nTagType, c.value);
    DecodeTarget target;
    ZD3Record expect = *target.Record();
    expect.nSec = -1700000000;
    expect.nMsec = -250;
    expect.nQuality = 0xC0C1;
    expect.nTagType = c.nTagType;
    c.apply(&expect);

    ASSERT_EQ(0, target.Decode(body, body.size()));
    EXPECT_EQ(0, std::memcmp(&expect, target.Record(), sizeof(ZD3Record)));
    if (c.nTagType == ZD3_TAG_TYPE_STRING || c.nTagType == ZD3_TAG_TYPE_BLOB) {
      const size_t n = c.value.size() - 2;
      EXPECT_EQ(0, std::memcmp(c.value.data() + 2, target.ValueBuf(), n));
      if (n < ZD3_MAX_STRBLOB_LEN) {
        EXPECT_EQ(0x7F, target.ValueBuf()[n]) << "no terminator added";
      }
    }
    // Bytes after what the type needs are left to the caller.
    Bytes longer = body;
    longer.insert(longer.end(), {0xEE, 0xEE, 0xEE});
    EXPECT_EQ(0, target.Decode(longer, longer.size()));
  }
}

TEST(BufferProtoRecordTest, EveryTruncationIsTooShortAndStaysInBounds) {
  for (const TypeCase& c : EveryTypeCases()) {
    SCOPED_TRACE(c.name);
    const Bytes body = Body(1, 2, 3, c.nTagType, c.value);
    DecodeTarget target;
    for (size_t nLen = 0; nLen < body.size(); ++nLen) {
      ASSERT_EQ(EC_MSG_TOO_SHORT, target.Decode(body, nLen)) << "length " << nLen;
    }
  }
}

TEST(BufferProtoRecordTest, TypeAboveSevenIsRefused) {
  for (uint32 nType : {8u, 0xFFFFFFFFu, 0x80000000u, 0x100u}) {
    SCOPED_TRACE(nType);
    // Followed by enough bytes for any type, and with exactly the fixed part.
    Bytes body = Body(1, 2, 3, nType, Bytes(20, 0));
    DecodeTarget target;
    EXPECT_EQ(EC_REC_BAD_TYPE, target.Decode(body, body.size()));
    EXPECT_EQ(EC_REC_BAD_TYPE, target.Decode(body, 12));
    EXPECT_EQ(ZD3_TAG_TYPE_INT16, target.Record()->nTagType) << "type field left as it was";
  }
  Bytes ff = Hex({0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF});
  DecodeTarget target;
  EXPECT_EQ(EC_REC_BAD_TYPE, target.Decode(ff, ff.size()));
}

TEST(BufferProtoRecordTest, StringLengthAboveThousandIsRefused) {
  for (ZD3_TAG_TYPE nType : {ZD3_TAG_TYPE_STRING, ZD3_TAG_TYPE_BLOB}) {
    DecodeTarget target;
    const Bytes ok = Body(1, 2, 3, nType, StrBlobValue(Bytes(1000, 'x')));
    EXPECT_EQ(0, target.Decode(ok, ok.size()));
    EXPECT_EQ(1000, target.Record()->value.strBlob.nLenBuf);

    const Bytes over = Body(1, 2, 3, nType, StrBlobValue(Bytes(1001, 'x')));
    EXPECT_EQ(EC_REC_BAD_LEN, target.Decode(over, over.size()));
    // The length is judged before the body's size: a short body with an
    // overlong length still reports the length.
    EXPECT_EQ(EC_REC_BAD_LEN, target.Decode(over, 14));

    Bytes max = Body(1, 2, 3, nType, Hex({0xFF, 0xFF}));
    EXPECT_EQ(EC_REC_BAD_LEN, target.Decode(max, max.size()));
  }
}

TEST(BufferProtoRecordTest, NullPointersAreRefused) {
  const Bytes body = Body(1, 2, 3, ZD3_TAG_TYPE_STRING, StrBlobValue(Hex({'a'})));
  auto copy = ExactCopy(body.data(), body.size());
  ZD3Record record{};
  EXPECT_EQ(EC_NULL_POINTER,
            buffer_proto_parse_buffer_to_zdrecord(nullptr, copy.get(), (int32)body.size()));
  EXPECT_EQ(EC_NULL_POINTER,
            buffer_proto_parse_buffer_to_zdrecord(&record, nullptr, (int32)body.size()));
  EXPECT_EQ(EC_NULL_POINTER,
            buffer_proto_parse_buffer_to_zdrecord(&record, copy.get(), (int32)body.size()))
      << "string without a value buffer";
  EXPECT_EQ(EC_MSG_TOO_SHORT, buffer_proto_parse_buffer_to_zdrecord(&record, copy.get(), -1));
}

// The two batches given as wire examples, walked entry by entry.
TEST(BufferProtoRecordTest, KnownBatchesDecode) {
  const Bytes int32Batch =
      Hex({0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0xf1, 0x53, 0x65,
           0xfa, 0x00, 0xc0, 0x00, 0x02, 0x00, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00});
  ASSERT_EQ(24u, int32Batch.size());
  ASSERT_EQ(Hex({0x01, 0x00}), Bytes(int32Batch.begin(), int32Batch.begin() + 2));
  ASSERT_EQ(Hex({0x07, 0, 0, 0, 0x10, 0}), Bytes(int32Batch.begin() + 2, int32Batch.begin() + 8));
  DecodeTarget target;
  ASSERT_EQ(0, target.Decode(Bytes(int32Batch.begin() + 8, int32Batch.end()), 16));
  EXPECT_EQ(1700000000, target.Record()->nSec);
  EXPECT_EQ(250, target.Record()->nMsec);
  EXPECT_EQ(192, target.Record()->nQuality);
  EXPECT_EQ(ZD3_TAG_TYPE_INT32, target.Record()->nTagType);
  EXPECT_EQ(100, target.Record()->value.nInt32);

  const Bytes strBatch =
      Hex({0x01, 0x00, 0x09, 0x00, 0x00, 0x00, 0x11, 0x00, 0x00, 0xf1, 0x53, 0x65, 0x00,
           0x00, 0xc0, 0x00, 0x06, 0x00, 0x00, 0x00, 0x03, 0x00, 0x61, 0x62, 0x63});
  ASSERT_EQ(25u, strBatch.size());
  DecodeTarget strTarget;
  ASSERT_EQ(0, strTarget.Decode(Bytes(strBatch.begin() + 8, strBatch.end()), 17));
  EXPECT_EQ(1700000000, strTarget.Record()->nSec);
  EXPECT_EQ(0, strTarget.Record()->nMsec);
  EXPECT_EQ(ZD3_TAG_TYPE_STRING, strTarget.Record()->nTagType);
  EXPECT_EQ(3, strTarget.Record()->value.strBlob.nLenBuf);
  EXPECT_EQ("abc", std::string(strTarget.ValueBuf(), 3));
  EXPECT_EQ(0x7F, strTarget.ValueBuf()[3]) << "no terminator added";
}

// The checker that guards batches before they are joined must agree with
// the decoder on every body, or a batch it lets through could still spoil a
// whole send buffer. Exactly sized heap copies let ASan see any overread.
TEST(BufferProtoRecordTest, CheckAgreesWithTheDecoderOnRandomBodies) {
  uint32 nSeed = 12345;
  auto next = [&nSeed]() { return nSeed = nSeed * 1103515245u + 12345u; };
  static char szValue[BUFFER_STRBLOB_MAX_LEN];
  for (int nCase = 0; nCase < 50000; ++nCase) {
    int32 nLen = static_cast<int32>(next() % 1040);
    std::vector<char> body(static_cast<size_t>(nLen));
    for (char& c : body) c = static_cast<char>(next() >> 13);
    if (nLen >= 12) {
      uint32 nType = next() % 10;  // 8 and 9 are bad types
      if (next() % 50 == 0) nType = 0xFFFFFFFFu;
      memcpy(body.data() + 8, &nType, 4);
      if (nLen >= 14 && (nType == 6 || nType == 7)) {
        uint16 nStr = static_cast<uint16>(next() % 3 == 0 ? 995 + next() % 10 : next() % (nLen - 13));
        memcpy(body.data() + 12, &nStr, 2);
      }
    }
    std::unique_ptr<char[]> pExact(new char[nLen > 0 ? nLen : 1]);
    if (nLen > 0) memcpy(pExact.get(), body.data(), static_cast<size_t>(nLen));
    ZD3Record record{};
    record.value.strBlob.pBuf = szValue;
    ASSERT_EQ(buffer_proto_parse_buffer_to_zdrecord(&record, pExact.get(), nLen),
              buffer_proto_check_record(pExact.get(), nLen))
        << "case " << nCase << " length " << nLen;
  }
}

}  // namespace
