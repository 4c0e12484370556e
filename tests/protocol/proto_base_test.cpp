// Field codec: wire order, in-place swapping and the cursor steps.
#include "protocol/proto_base.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "proto_test_util.h"

namespace {

using proto_test::Bytes;
using proto_test::Hex;
using proto_test::PutLe;
using proto_test::ToBytes;

TEST(ProtoBaseTest, HostOrderMatchesRuntimeProbe) {
  const uint32 nOne = 1;
  unsigned char first = 0;
  std::memcpy(&first, &nOne, 1);
  EXPECT_EQ(is_cpu_big_endian(), first != 1);
}

TEST(ProtoBaseTest, ByteSwapReversesEveryLength) {
  for (int32 nLen = 0; nLen <= 9; ++nLen) {
    Bytes v;
    for (int32 i = 0; i < nLen; ++i) v.push_back(static_cast<uint8_t>(i + 1));
    Bytes expect(v.rbegin(), v.rend());
    byte_swap(v.data(), nLen);
    EXPECT_EQ(expect, v) << "length " << nLen;
    byte_swap(v.data(), nLen);
    Bytes again(expect.rbegin(), expect.rend());
    EXPECT_EQ(again, v) << "twice restores, length " << nLen;
  }
  Bytes three = Hex({0x01, 0x02, 0x03});
  byte_swap(three.data(), 3);
  EXPECT_EQ(Hex({0x03, 0x02, 0x01}), three);
  // Bytes outside nLen are never touched.
  Bytes guarded = Hex({0xAA, 0x01, 0x02, 0x03, 0x04, 0x05, 0xBB});
  byte_swap(guarded.data() + 1, 5);
  EXPECT_EQ(Hex({0xAA, 0x05, 0x04, 0x03, 0x02, 0x01, 0xBB}), guarded);
}

// No big-endian host is available, so the swapping instance of the codec is
// run directly: it must behave as the codec would on such a host.
TEST(ProtoBaseTest, BigEndianHostPathConvertsNumbersOnly) {
  // 258 as a big-endian host holds it in memory.
  const Bytes hostBe = Hex({0x00, 0x00, 0x01, 0x02});
  char wire[4];
  proto_detail::pack_value_as<true>(hostBe.data(), 4, wire, false);
  EXPECT_EQ(Hex({0x02, 0x01, 0x00, 0x00}), ToBytes(wire, 4));
  EXPECT_EQ(Hex({0x00, 0x00, 0x01, 0x02}), hostBe) << "source untouched";

  unsigned char back[4];
  proto_detail::unpack_value_as<true>(wire, back, 4, false);
  EXPECT_EQ(hostBe, ToBytes(reinterpret_cast<char*>(back), 4));

  // Odd lengths: the middle byte stays.
  Bytes odd = Hex({0x01, 0x02, 0x03, 0x04, 0x05});
  proto_detail::serial_as<true>(odd.data(), 5);
  EXPECT_EQ(Hex({0x05, 0x04, 0x03, 0x02, 0x01}), odd);
  proto_detail::serial_as<true>(odd.data(), 5);
  EXPECT_EQ(Hex({0x01, 0x02, 0x03, 0x04, 0x05}), odd);

  // Strings and blobs are never reordered.
  char text[3];
  proto_detail::pack_value_as<true>("abc", 3, text, true);
  EXPECT_EQ(Hex({'a', 'b', 'c'}), ToBytes(text, 3));
  proto_detail::unpack_value_as<true>("xyz", text, 3, true);
  EXPECT_EQ(Hex({'x', 'y', 'z'}), ToBytes(text, 3));

  // The little-endian instance copies.
  Bytes same = Hex({0x01, 0x02, 0x03});
  proto_detail::serial_as<false>(same.data(), 3);
  EXPECT_EQ(Hex({0x01, 0x02, 0x03}), same);
}

TEST(ProtoBaseTest, Int32ValueIsLittleEndianOnWire) {
  const int32 nValue = 258;
  char wire[4];
  pack_value(&nValue, 4, wire, false);
  EXPECT_EQ(Hex({0x02, 0x01, 0x00, 0x00}), ToBytes(wire, 4));
  EXPECT_EQ(258, nValue);
  int32 nBack = 0;
  unpack_value(wire, &nBack, 4, false);
  EXPECT_EQ(258, nBack);

  char text[3];
  pack_value("abc", 3, text, true);
  EXPECT_EQ(Hex({'a', 'b', 'c'}), ToBytes(text, 3));
}

// Values around every power of two, against bytes computed by arithmetic.
template <typename T>
void CheckAroundPowersOfTwo() {
  using U = std::make_unsigned_t<T>;
  const int nBits = 8 * sizeof(T);
  for (int k = 0; k < nBits; ++k) {
    for (int d = -1; d <= 1; ++d) {
      const U u = static_cast<U>((static_cast<U>(1) << k) + static_cast<U>(d));
      const T v = static_cast<T>(u);
      Bytes expect;
      PutLe(&expect, static_cast<uint64_t>(u), sizeof(T));
      char wire[sizeof(T)];
      char* pCursor = wire;
      PackFixStep<T>(&pCursor, v);
      ASSERT_EQ(wire + sizeof(T), pCursor);
      ASSERT_EQ(expect, ToBytes(wire, sizeof(T))) << "bit " << k << " delta " << d;
      T back{};
      pCursor = wire;
      ParseFixStep<T>(&pCursor, &back);
      ASSERT_EQ(wire + sizeof(T), pCursor);
      ASSERT_EQ(v, back);
    }
  }
}

TEST(ProtoBaseTest, FixStepsAroundPowersOfTwo) {
  CheckAroundPowersOfTwo<uint16>();
  CheckAroundPowersOfTwo<int16>();
  CheckAroundPowersOfTwo<uint32>();
  CheckAroundPowersOfTwo<int32>();
  CheckAroundPowersOfTwo<uint64>();
  CheckAroundPowersOfTwo<int64>();

  char wire[2];
  char* pCursor = wire;
  PackFixStep<uint16>(&pCursor, 0x0102);
  EXPECT_EQ(wire + 2, pCursor);
  EXPECT_EQ(Hex({0x02, 0x01}), ToBytes(wire, 2));
}

TEST(ProtoBaseTest, StringStepsCountTheTerminator) {
  char wire[16];
  std::memset(wire, 0x7F, sizeof(wire));
  char* pCursor = wire;
  PackStringStep(&pCursor, "abc");
  EXPECT_EQ(wire + 6, pCursor);
  EXPECT_EQ(Hex({0x04, 0x00, 0x61, 0x62, 0x63, 0x00, 0x7F}), ToBytes(wire, 7));

  char text[8];
  std::memset(text, 0x7F, sizeof(text));
  pCursor = wire;
  ParseStringStep(&pCursor, text);
  EXPECT_EQ(wire + 6, pCursor);
  EXPECT_STREQ("abc", text);
  EXPECT_EQ(0x7F, text[4]) << "nothing written beyond the field's length";

  pCursor = wire;
  PackStringStep(&pCursor, "");
  EXPECT_EQ(wire + 3, pCursor);
  EXPECT_EQ(Hex({0x01, 0x00, 0x00}), ToBytes(wire, 3));
  pCursor = wire;
  text[0] = 'x';
  ParseStringStep(&pCursor, text);
  EXPECT_EQ(wire + 3, pCursor);
  EXPECT_STREQ("", text);
}

TEST(ProtoBaseTest, LongestStringFillsTheSixteenBitLength) {
  const std::string longest(65534, 'z');
  std::vector<char> wire(2 + 65535);
  char* pCursor = wire.data();
  PackStringStep(&pCursor, longest.c_str());
  EXPECT_EQ(wire.data() + wire.size(), pCursor);
  EXPECT_EQ(Hex({0xFF, 0xFF}), ToBytes(wire.data(), 2));
  std::vector<char> back(65535);
  pCursor = wire.data();
  ParseStringStep(&pCursor, back.data());
  EXPECT_EQ(longest, std::string(back.data()));
}

}  // namespace
