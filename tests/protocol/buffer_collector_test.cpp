// Collector API: exact bytes of built messages, limits, buffer reuse, and
// round trips of built batches through the service's decoder.
#include "protocol/buffer_collector.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "proto_test_util.h"

extern "C" int zdc_c_build_int32_example(char* pOut, int nCapacity, int* pnLen);

namespace {

using proto_test::Bytes;
using proto_test::ExactCopy;
using proto_test::Hex;
using proto_test::ToBytes;

const Bytes kInt32Batch =
    Hex({0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0xf1, 0x53, 0x65,
         0xfa, 0x00, 0xc0, 0x00, 0x02, 0x00, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00});
const Bytes kStringBatch =
    Hex({0x01, 0x00, 0x09, 0x00, 0x00, 0x00, 0x11, 0x00, 0x00, 0xf1, 0x53, 0x65, 0x00,
         0x00, 0xc0, 0x00, 0x06, 0x00, 0x00, 0x00, 0x03, 0x00, 0x61, 0x62, 0x63});

uint64_t GetLe(const char* p, int nLen) {
  uint64_t v = 0;
  for (int i = 0; i < nLen; ++i) v |= static_cast<uint64_t>(static_cast<uint8_t>(p[i])) << (8 * i);
  return v;
}

// One record as the collector meant it: the record and its string/blob bytes.
struct Source {
  uint32 nTagId;
  ZD3Record record;
  std::string data;
};

bool IsStrBlob(ZD3_TAG_TYPE t) { return t == ZD3_TAG_TYPE_STRING || t == ZD3_TAG_TYPE_BLOB; }

Source MakeSource(uint32 nTagId, ZD3_TAG_TYPE nType, std::mt19937* pRng, int32 nStrLen = -1) {
  std::uniform_int_distribution<uint32> bits;
  Source s{nTagId, {}, {}};
  s.record.nSec = static_cast<int32>(bits(*pRng));
  s.record.nMsec = static_cast<int16>(bits(*pRng));
  s.record.nQuality = static_cast<uint16>(bits(*pRng));
  s.record.nTagType = nType;
  ZD3Value& v = s.record.value;
  switch (nType) {
    case ZD3_TAG_TYPE_INT8:
      v.nInt8 = static_cast<int8>(bits(*pRng));
      break;
    case ZD3_TAG_TYPE_INT16:
      v.nInt16 = static_cast<int16>(bits(*pRng));
      break;
    case ZD3_TAG_TYPE_INT32:
      v.nInt32 = static_cast<int32>(bits(*pRng));
      break;
    case ZD3_TAG_TYPE_FLOAT32:
      v.fFloat32 = std::bit_cast<float32>(bits(*pRng));
      break;
    case ZD3_TAG_TYPE_FLOAT64:
      v.fFloat64 = std::bit_cast<float64>((uint64)bits(*pRng) << 32 | bits(*pRng));
      break;
    case ZD3_TAG_TYPE_DIGITAL:
      v.nDigital = static_cast<int8>(bits(*pRng) & 1);
      break;
    default: {
      const int32 n = nStrLen >= 0 ? nStrLen : static_cast<int32>(bits(*pRng) % 1001);
      for (int32 i = 0; i < n; ++i) {
        // Strings are text (sent through zdc_batch_add_string); blobs any byte.
        s.data.push_back(nType == ZD3_TAG_TYPE_STRING ? static_cast<char>('a' + bits(*pRng) % 26)
                                                      : static_cast<char>(bits(*pRng)));
      }
    }
  }
  return s;
}

// Bytes the record takes in a batch: entry head, record head, value.
int32 EntryLen(const Source& s) {
  const int32 nValue = IsStrBlob(s.record.nTagType)
                           ? 2 + static_cast<int32>(s.data.size())
                           : buffer_proto_value_head_len(s.record.nTagType);
  return 6 + 12 + nValue;
}

// Appends through the typed functions, as a collector would.
int32 AddTyped(ZdcBatch* pBatch, const Source& s) {
  const ZD3Record& r = s.record;
  switch (r.nTagType) {
    case ZD3_TAG_TYPE_INT8:
      return zdc_batch_add_int8(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, r.value.nInt8);
    case ZD3_TAG_TYPE_INT16:
      return zdc_batch_add_int16(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, r.value.nInt16);
    case ZD3_TAG_TYPE_INT32:
      return zdc_batch_add_int32(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, r.value.nInt32);
    case ZD3_TAG_TYPE_FLOAT32:
      return zdc_batch_add_float32(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, r.value.fFloat32);
    case ZD3_TAG_TYPE_FLOAT64:
      return zdc_batch_add_float64(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, r.value.fFloat64);
    case ZD3_TAG_TYPE_DIGITAL:
      return zdc_batch_add_digital(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, r.value.nDigital);
    case ZD3_TAG_TYPE_STRING:
      return zdc_batch_add_string(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, s.data.c_str());
    default:
      return zdc_batch_add_blob(pBatch, s.nTagId, r.nSec, r.nMsec, r.nQuality, s.data.data(),
                                static_cast<int32>(s.data.size()));
  }
}

// Appends the ZD3Record as it stands.
int32 AddRecord(ZdcBatch* pBatch, const Source& s) {
  ZD3Record r = s.record;
  r.value.strBlob.pBuf = const_cast<char*>(s.data.data());
  r.value.strBlob.nLenBuf = static_cast<uint16>(s.data.size());
  return zdc_batch_add_record(pBatch, s.nTagId, &r);
}

// Walks the batch as the service's send path does (count, then tag id,
// length and body per entry, all bounded by the batch's length), decodes
// every body from an exactly sized copy, and compares with the sources.
void ExpectBatchHolds(const char* pBatch, int32 nLen, const std::vector<Source>& sources) {
  ASSERT_GE(nLen, 2);
  ASSERT_EQ(sources.size(), GetLe(pBatch, 2));
  int32 nPos = 2;
  std::vector<char> valueBuf(ZD3_MAX_STRBLOB_LEN);
  for (size_t i = 0; i < sources.size(); ++i) {
    SCOPED_TRACE("entry " + std::to_string(i));
    ASSERT_LE(nPos + 6, nLen);
    const Source& s = sources[i];
    EXPECT_EQ(s.nTagId, GetLe(pBatch + nPos, 4));
    const int32 nBodyLen = static_cast<int32>(GetLe(pBatch + nPos + 4, 2));
    nPos += 6;
    ASSERT_LE(nPos + nBodyLen, nLen);
    auto body = ExactCopy(reinterpret_cast<const uint8_t*>(pBatch + nPos), nBodyLen);
    ZD3Record got{};
    got.value.strBlob.pBuf = valueBuf.data();
    ASSERT_EQ(0, buffer_proto_parse_buffer_to_zdrecord(&got, body.get(), nBodyLen));
    nPos += nBodyLen;

    const ZD3Record& want = s.record;
    EXPECT_EQ(want.nSec, got.nSec);
    EXPECT_EQ(want.nMsec, got.nMsec);
    EXPECT_EQ(want.nQuality, got.nQuality);
    ASSERT_EQ(want.nTagType, got.nTagType);
    switch (want.nTagType) {
      case ZD3_TAG_TYPE_INT8:
        EXPECT_EQ(want.value.nInt8, got.value.nInt8);
        break;
      case ZD3_TAG_TYPE_INT16:
        EXPECT_EQ(want.value.nInt16, got.value.nInt16);
        break;
      case ZD3_TAG_TYPE_INT32:
        EXPECT_EQ(want.value.nInt32, got.value.nInt32);
        break;
      case ZD3_TAG_TYPE_FLOAT32:
        EXPECT_EQ(std::bit_cast<uint32>(want.value.fFloat32),
                  std::bit_cast<uint32>(got.value.fFloat32));
        break;
      case ZD3_TAG_TYPE_FLOAT64:
        EXPECT_EQ(std::bit_cast<uint64>(want.value.fFloat64),
                  std::bit_cast<uint64>(got.value.fFloat64));
        break;
      case ZD3_TAG_TYPE_DIGITAL:
        EXPECT_EQ(want.value.nDigital, got.value.nDigital);
        break;
      default:
        // The body holds exactly the value: no terminator, no slack.
        EXPECT_EQ(static_cast<int32>(14 + s.data.size()), nBodyLen);
        ASSERT_EQ(s.data.size(), got.value.strBlob.nLenBuf);
        EXPECT_EQ(s.data, std::string(valueBuf.data(), got.value.strBlob.nLenBuf));
    }
  }
  EXPECT_EQ(nLen, nPos) << "entries fill the batch exactly";
}

class CollectorBatchTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, zdc_batch_create(&m_batch, 0)); }
  void TearDown() override { zdc_batch_destroy(&m_batch); }
  Bytes Content() const { return ToBytes(m_batch.pBuf, m_batch.nLen); }

  ZdcBatch m_batch{};
  std::mt19937 m_rng{20261122};
};

TEST_F(CollectorBatchTest, KnownBatchesAreBuiltByteForByte) {
  ASSERT_EQ(0, zdc_batch_add_int32(&m_batch, 7, 1700000000, 250, 192, 100));
  EXPECT_EQ(kInt32Batch, Content());

  ASSERT_EQ(0, zdc_batch_reset(&m_batch));
  ASSERT_EQ(0, zdc_batch_add_string(&m_batch, 9, 1700000000, 0, 192, "abc"));
  EXPECT_EQ(kStringBatch, Content());

  char cBuf[24];
  int nLen = 0;
  ASSERT_EQ(0, zdc_c_build_int32_example(cBuf, sizeof(cBuf), &nLen));
  EXPECT_EQ(kInt32Batch, ToBytes(cBuf, nLen)) << "built from C";
}

TEST_F(CollectorBatchTest, EveryTypeRoundTripsThroughTheDecoder) {
  std::vector<Source> sources;
  for (int nType = ZD3_TAG_TYPE_MIN; nType <= ZD3_TAG_TYPE_MAX; ++nType) {
    const ZD3_TAG_TYPE t = static_cast<ZD3_TAG_TYPE>(nType);
    if (IsStrBlob(t)) {
      for (int32 n : {0, 1, 999, 1000}) sources.push_back(MakeSource(100 + nType, t, &m_rng, n));
    } else {
      for (int i = 0; i < 4; ++i) sources.push_back(MakeSource(100 + nType, t, &m_rng));
    }
  }
  Source extreme = MakeSource(0xFFFFFFFF, ZD3_TAG_TYPE_INT8, &m_rng);
  extreme.record.nSec = INT32_MIN;
  extreme.record.nMsec = INT16_MIN;
  extreme.record.nQuality = 0xFFFF;
  extreme.record.value.nInt8 = INT8_MIN;
  sources.push_back(extreme);

  for (const Source& s : sources) ASSERT_EQ(0, AddTyped(&m_batch, s));
  ExpectBatchHolds(m_batch.pBuf, m_batch.nLen, sources);

  // The generic append writes the same bytes as the typed ones.
  const Bytes typed = Content();
  ASSERT_EQ(0, zdc_batch_reset(&m_batch));
  for (const Source& s : sources) ASSERT_EQ(0, AddRecord(&m_batch, s));
  EXPECT_EQ(typed, Content());
}

// Model-based: random records until the batch is full, then "send" (decode
// and compare), reset and go on with the record that did not fit.
TEST_F(CollectorBatchTest, RandomBatchesRoundTripAcrossResets) {
  char* const pBuf = m_batch.pBuf;
  std::vector<Source> pending;
  int nBatches = 0;
  while (nBatches < 3) {
    const Source s = MakeSource(m_rng() % 100000, static_cast<ZD3_TAG_TYPE>(m_rng() % 8), &m_rng);
    const Bytes before = Content();
    const int32 nRet = AddTyped(&m_batch, s);
    if (nRet == ZDC_E_BATCH_FULL) {
      EXPECT_EQ(before, Content()) << "a refused append changes nothing";
      EXPECT_GT(EntryLen(s), BUFFER_BATCH_MAX_LEN - m_batch.nLen) << "refused only when full";
      const char* pData = nullptr;
      int32 nLen = 0;
      ASSERT_EQ(0, zdc_batch_get(&m_batch, &pData, &nLen));
      ExpectBatchHolds(pData, nLen, pending);
      ASSERT_EQ(0, zdc_batch_reset(&m_batch));
      EXPECT_EQ(pBuf, m_batch.pBuf) << "reset keeps the buffer";
      pending.clear();
      ++nBatches;
      ASSERT_EQ(0, AddTyped(&m_batch, s));
    } else {
      ASSERT_EQ(0, nRet);
    }
    pending.push_back(s);
    ASSERT_EQ(pending.size(), m_batch.nCount);
    ASSERT_EQ(m_batch.nCount, GetLe(m_batch.pBuf, 2)) << "count kept current";
  }
}

TEST_F(CollectorBatchTest, BatchFillsExactlyOneMebibyteAndNoMore) {
  std::vector<Source> sources;
  auto room = [&] { return BUFFER_BATCH_MAX_LEN - m_batch.nLen; };
  // A blob entry of n bytes takes 20 + n; fill with the largest until two
  // entries can cover the rest exactly.
  while (room() > 2 * 1020) {
    sources.push_back(MakeSource(1, ZD3_TAG_TYPE_BLOB, &m_rng, 1000));
    ASSERT_EQ(0, AddTyped(&m_batch, sources.back()));
  }
  const int32 nFirst = room() / 2;
  sources.push_back(MakeSource(2, ZD3_TAG_TYPE_BLOB, &m_rng, nFirst - 20));
  ASSERT_EQ(0, AddTyped(&m_batch, sources.back()));

  const int32 nLast = room() - 20;
  ASSERT_LE(nLast, 1000);
  const Bytes before = Content();
  Source onePast = MakeSource(3, ZD3_TAG_TYPE_STRING, &m_rng, nLast + 1);
  EXPECT_EQ(ZDC_E_BATCH_FULL, AddTyped(&m_batch, onePast));
  EXPECT_EQ(before, Content());

  sources.push_back(MakeSource(3, ZD3_TAG_TYPE_STRING, &m_rng, nLast));
  ASSERT_EQ(0, AddTyped(&m_batch, sources.back()));
  EXPECT_EQ(BUFFER_BATCH_MAX_LEN, m_batch.nLen);

  // Even the smallest record no longer fits.
  EXPECT_EQ(ZDC_E_BATCH_FULL, zdc_batch_add_int8(&m_batch, 1, 1, 1, 1, 1));
  EXPECT_EQ(ZDC_E_BATCH_FULL, zdc_batch_add_blob(&m_batch, 1, 1, 1, 1, nullptr, 0));
  EXPECT_EQ(BUFFER_BATCH_MAX_LEN, m_batch.nLen);
  ExpectBatchHolds(m_batch.pBuf, m_batch.nLen, sources);
}

TEST_F(CollectorBatchTest, ValueLimitsAreReportedAndChangeNothing) {
  ASSERT_EQ(0, zdc_batch_add_int8(&m_batch, 1, 1, 1, 1, 1));
  const Bytes before = Content();
  const std::string s1000(1000, 's');
  const std::string s1001(1001, 's');
  EXPECT_EQ(ZDC_E_VALUE_TOO_LONG, zdc_batch_add_string(&m_batch, 1, 1, 1, 1, s1001.c_str()));
  EXPECT_EQ(ZDC_E_VALUE_TOO_LONG, zdc_batch_add_blob(&m_batch, 1, 1, 1, 1, s1001.data(), 1001));
  EXPECT_EQ(ZDC_E_BAD_ARG, zdc_batch_add_blob(&m_batch, 1, 1, 1, 1, s1000.data(), -1));
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_add_blob(&m_batch, 1, 1, 1, 1, nullptr, 3));
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_add_string(&m_batch, 1, 1, 1, 1, nullptr));
  // An unterminated text is measured only as far as the limit needs.
  const Bytes unterminated(1001, 'u');
  auto pText = ExactCopy(unterminated.data(), unterminated.size());
  EXPECT_EQ(ZDC_E_VALUE_TOO_LONG, zdc_batch_add_string(&m_batch, 1, 1, 1, 1, pText.get()));

  ZD3Record record{};
  record.nTagType = ZD3_TAG_TYPE_BLOB;
  record.value.strBlob.pBuf = const_cast<char*>(s1001.data());
  record.value.strBlob.nLenBuf = 1001;
  EXPECT_EQ(ZDC_E_VALUE_TOO_LONG, zdc_batch_add_record(&m_batch, 1, &record));
  const uint32 nBadType = 8;
  std::memcpy(&record.nTagType, &nBadType, 4);
  EXPECT_EQ(EC_REC_BAD_TYPE, zdc_batch_add_record(&m_batch, 1, &record));
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_add_record(&m_batch, 1, nullptr));
  EXPECT_EQ(before, Content());

  EXPECT_EQ(0, zdc_batch_add_string(&m_batch, 1, 1, 1, 1, s1000.c_str()));
  EXPECT_EQ(0, zdc_batch_add_blob(&m_batch, 1, 1, 1, 1, s1000.data(), 1000));
  EXPECT_EQ(0, zdc_batch_add_blob(&m_batch, 1, 1, 1, 1, nullptr, 0));
}

TEST_F(CollectorBatchTest, ResetAndEmptyBatch) {
  const char* pData = reinterpret_cast<const char*>(1);
  int32 nLen = 99;
  EXPECT_EQ(ZDC_E_BATCH_EMPTY, zdc_batch_get(&m_batch, &pData, &nLen));
  EXPECT_EQ(nullptr, pData);
  EXPECT_EQ(0, nLen);
  EXPECT_EQ(Hex({0, 0}), Content());

  ASSERT_EQ(0, zdc_batch_add_float64(&m_batch, 5, 6, 7, 8, 9.5));
  const Bytes first = Content();
  ASSERT_EQ(0, zdc_batch_reset(&m_batch));
  EXPECT_EQ(Hex({0, 0}), Content());
  EXPECT_EQ(0, m_batch.nCount);
  ASSERT_EQ(0, zdc_batch_add_float64(&m_batch, 5, 6, 7, 8, 9.5));
  EXPECT_EQ(first, Content());

  // The 16-bit count cannot wrap: at 65,535 records the batch is full (a
  // 1 MiB batch cannot get there, so the count is forced here).
  m_batch.nCount = 65535;
  EXPECT_EQ(ZDC_E_BATCH_FULL, zdc_batch_add_int8(&m_batch, 1, 1, 1, 1, 1));
}

TEST(CollectorBufferTest, CallerBufferBoundsTheBatch) {
  // Exactly one int32 entry fits in 24 bytes; the buffer is exactly sized.
  std::unique_ptr<char[]> pBuf(new char[24]);
  ZdcBatch batch;
  ASSERT_EQ(0, zdc_batch_init(&batch, pBuf.get(), 24));
  ASSERT_EQ(0, zdc_batch_add_int32(&batch, 7, 1700000000, 250, 192, 100));
  EXPECT_EQ(kInt32Batch, ToBytes(pBuf.get(), 24));
  EXPECT_EQ(ZDC_E_BATCH_FULL, zdc_batch_add_int8(&batch, 1, 1, 1, 1, 1));
  zdc_batch_destroy(&batch);  // borrowed: not freed here

  std::unique_ptr<char[]> pSmall(new char[23]);
  ASSERT_EQ(0, zdc_batch_init(&batch, pSmall.get(), 23));
  EXPECT_EQ(ZDC_E_BATCH_FULL, zdc_batch_add_int32(&batch, 7, 1, 1, 1, 1));
  EXPECT_EQ(0, zdc_batch_add_int8(&batch, 7, 1, 1, 1, 1)) << "19-byte entry still fits";

  EXPECT_EQ(EC_NO_MEMORY, zdc_batch_init(&batch, pSmall.get(), 1));
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_init(&batch, nullptr, 24));
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_init(nullptr, pSmall.get(), 24));

  // A larger buffer is used only up to the batch limit.
  std::vector<char> big(BUFFER_BATCH_MAX_LEN + 100);
  ASSERT_EQ(0, zdc_batch_init(&batch, big.data(), static_cast<int32>(big.size())));
  EXPECT_EQ(BUFFER_BATCH_MAX_LEN, batch.nCapacity);

  EXPECT_EQ(ZDC_E_BAD_ARG, zdc_batch_create(&batch, 1));
  EXPECT_EQ(ZDC_E_BAD_ARG, zdc_batch_create(&batch, BUFFER_BATCH_MAX_LEN + 1));
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_add_int8(&batch, 1, 1, 1, 1, 1)) << "failed create";
  ASSERT_EQ(0, zdc_batch_create(&batch, 100));
  EXPECT_EQ(100, batch.nCapacity);
  zdc_batch_destroy(&batch);
  zdc_batch_destroy(&batch);
  zdc_batch_destroy(nullptr);
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_add_int8(&batch, 1, 1, 1, 1, 1)) << "after destroy";
  EXPECT_EQ(EC_NULL_POINTER, zdc_batch_reset(&batch));
}

TEST(CollectorControlTest, InitMessageDecodesOnTheServiceSide) {
  char msg[64];
  std::memset(msg, 0x5A, sizeof(msg));
  int32 nLen = 0;
  ASSERT_EQ(0, zdc_build_init_msg("192.168.100.200", 9000, "10.1.2.3", 9001, 77, msg, 42, &nLen));
  ASSERT_EQ(BUFFER_INIT_MSG_LEN, nLen);
  EXPECT_EQ(0x5A, msg[42]) << "nothing past the message";

  // Raw host order at the fixed offsets.
  uint16 nCommand = 0, nPort = 0, nBakPort = 0;
  int32 nQueue = 0;
  std::memcpy(&nCommand, msg + 0, 2);
  std::memcpy(&nPort, msg + 18, 2);
  std::memcpy(&nBakPort, msg + 36, 2);
  std::memcpy(&nQueue, msg + 38, 4);
  EXPECT_EQ(BUFFER_CMD_INIT, nCommand);
  EXPECT_EQ(9000, nPort);
  EXPECT_EQ(9001, nBakPort);
  EXPECT_EQ(77, nQueue);
  EXPECT_EQ(Bytes(8, 0), ToBytes(msg + 20 + 8, 8)) << "backup address terminated and zero-padded";

  BufferHead head;
  BufferInitInfo info;
  ASSERT_EQ(0, proto_buffer_unpack_head(msg, nLen, &head));
  ASSERT_EQ(0, proto_buffer_unpack_init_info(msg + BUFFER_HEAD_LEN, nLen - BUFFER_HEAD_LEN, &info));
  EXPECT_STREQ("192.168.100.200", head.szIP);
  EXPECT_STREQ("10.1.2.3", head.szBakIP);
  EXPECT_EQ(77, info.nQueueID);

  ASSERT_EQ(0, zdc_build_init_msg("1.2.3.4", 1, nullptr, 0, 2, msg, 42, nullptr));
  EXPECT_EQ(Bytes(16, 0), ToBytes(msg + 20, 16)) << "no backup: empty";
  EXPECT_EQ(ZDC_E_TEXT_TOO_LONG,
            zdc_build_init_msg("1234567890123456", 1, "", 0, 2, msg, 42, &nLen));
  EXPECT_EQ(ZDC_E_TEXT_TOO_LONG,
            zdc_build_init_msg("", 1, "1234567890123456", 0, 2, msg, 42, &nLen));
  EXPECT_EQ(EC_NO_MEMORY, zdc_build_init_msg("1.2.3.4", 1, "", 0, 2, msg, 41, &nLen));
  EXPECT_EQ(EC_NULL_POINTER, zdc_build_init_msg(nullptr, 1, "", 0, 2, msg, 42, &nLen));
}

TEST(CollectorControlTest, LoginMessageCarriesCredentialsAfterTheHead) {
  std::vector<char> msg(BUFFER_LOGIN_MSG_LEN, 0x5A);
  int32 nLen = 0;
  const std::string user(63, 'u');
  const std::string passwd(127, 'p');
  ASSERT_EQ(0, zdc_build_login_msg(user.c_str(), passwd.c_str(), msg.data(), BUFFER_LOGIN_MSG_LEN,
                                   &nLen));
  ASSERT_EQ(BUFFER_LOGIN_MSG_LEN, nLen);
  uint16 nCommand = 0;
  std::memcpy(&nCommand, msg.data(), 2);
  EXPECT_EQ(BUFFER_CMD_LOGIN, nCommand);
  EXPECT_EQ(Bytes(36, 0), ToBytes(msg.data() + 2, 36)) << "address fields unused";
  // The service copies the 192 bytes after the head as they stand.
  ProtoScLogin login;
  std::memcpy(&login, msg.data() + BUFFER_HEAD_LEN, sizeof(login));
  EXPECT_EQ(user, login.szUserName);
  EXPECT_EQ(passwd, login.szPasswd);

  ASSERT_EQ(0, zdc_build_login_msg("sa", "", msg.data(), BUFFER_LOGIN_MSG_LEN, &nLen));
  EXPECT_EQ(Bytes(62, 0), ToBytes(msg.data() + 40, 62)) << "user name zero-padded";
  EXPECT_EQ(ZDC_E_TEXT_TOO_LONG,
            zdc_build_login_msg(std::string(64, 'u').c_str(), "", msg.data(), 230, &nLen));
  EXPECT_EQ(ZDC_E_TEXT_TOO_LONG,
            zdc_build_login_msg("", std::string(128, 'p').c_str(), msg.data(), 230, &nLen));
  EXPECT_EQ(EC_NO_MEMORY, zdc_build_login_msg("u", "p", msg.data(), 229, &nLen));
  EXPECT_EQ(EC_NULL_POINTER, zdc_build_login_msg(nullptr, "p", msg.data(), 230, &nLen));
}

TEST(CollectorControlTest, InitReplyFromTheServiceIsParsed) {
  char* pReply = nullptr;
  int32 nReplyLen = 0;
  int32 nCode = -1, nQueue = 0;
  ASSERT_EQ(0, proto_buffer_pack_init_ret(0, BufferInitInfo{5}, &pReply, &nReplyLen));
  ASSERT_EQ(0, zdc_parse_init_reply(pReply, nReplyLen, &nCode, &nQueue));
  EXPECT_EQ(0, nCode);
  EXPECT_EQ(5, nQueue);
  const Bytes ok = ToBytes(pReply, nReplyLen);
  proto_pack_free(pReply);

  ASSERT_EQ(0, proto_buffer_pack_init_ret(110241, BufferInitInfo{5}, &pReply, &nReplyLen));
  ASSERT_EQ(0, zdc_parse_init_reply(pReply, nReplyLen, &nCode, &nQueue));
  EXPECT_EQ(110241, nCode);
  EXPECT_EQ(-1, nQueue);
  const Bytes failure = ToBytes(pReply, nReplyLen);
  proto_pack_free(pReply);

  // Truncated replies, each in an exactly sized buffer.
  for (int32 n = 0; n < 8; ++n) {
    auto copy = ExactCopy(ok.data(), n);
    EXPECT_EQ(EC_MSG_TOO_SHORT, zdc_parse_init_reply(copy.get(), n, &nCode, &nQueue)) << n;
  }
  for (int32 n = 0; n < 4; ++n) {
    auto copy = ExactCopy(failure.data(), n);
    EXPECT_EQ(EC_MSG_TOO_SHORT, zdc_parse_init_reply(copy.get(), n, &nCode, &nQueue)) << n;
  }
  EXPECT_EQ(EC_NULL_POINTER, zdc_parse_init_reply(nullptr, 8, &nCode, &nQueue));
}

}  // namespace
