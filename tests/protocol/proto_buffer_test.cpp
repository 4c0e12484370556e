// Control messages: request layouts (raw host order), init body bounds and
// the little-endian init reply.
#include "protocol/proto_buffer.h"

#include <gtest/gtest.h>

#include "proto_test_util.h"

namespace {

using proto_test::Bytes;
using proto_test::ExactCopy;
using proto_test::Hex;
using proto_test::PutRaw;
using proto_test::ToBytes;

// An init message assembled field by field at the documented offsets.
Bytes InitMessage(uint16 nCommand, const char* szIP, uint16 nPort, const char* szBakIP,
                  uint16 nBakPort, int32 nQueueID) {
  Bytes msg;
  char ip[16] = {};
  char bak[16] = {};
  std::strncpy(ip, szIP, 15);
  std::strncpy(bak, szBakIP, 15);
  PutRaw(&msg, &nCommand, 2);
  PutRaw(&msg, ip, 16);
  PutRaw(&msg, &nPort, 2);
  PutRaw(&msg, bak, 16);
  PutRaw(&msg, &nBakPort, 2);
  PutRaw(&msg, &nQueueID, 4);
  return msg;
}

TEST(ProtoBufferTest, HeadIsCopiedFieldForFieldInHostOrder) {
  const Bytes msg = InitMessage(BUFFER_CMD_INIT, "192.168.100.200", 0x1234, "10.0.0.1", 0xBEEF, 7);
  ASSERT_EQ(42u, msg.size());
  BufferHead head;
  std::memset(&head, 0x5A, sizeof(head));
  ASSERT_EQ(0, proto_buffer_unpack_head(reinterpret_cast<const char*>(msg.data()),
                                        static_cast<int32>(msg.size()), &head));
  EXPECT_EQ(BUFFER_CMD_INIT, head.nCommand);
  EXPECT_STREQ("192.168.100.200", head.szIP);
  EXPECT_EQ(0x1234, head.nPort);
  EXPECT_STREQ("10.0.0.1", head.szBakIP);
  EXPECT_EQ(0xBEEF, head.nBakPort);
  // Exactly the 38 head bytes, nothing converted.
  EXPECT_EQ(Bytes(msg.begin(), msg.begin() + 38), ToBytes(reinterpret_cast<char*>(&head), 38));

  EXPECT_EQ(EC_NULL_POINTER, proto_buffer_unpack_head(nullptr, 38, &head));
  EXPECT_EQ(EC_NULL_POINTER,
            proto_buffer_unpack_head(reinterpret_cast<const char*>(msg.data()), 38, nullptr));
}

// Decodes the init body of a message of nMsgLen bytes held in an exactly
// sized heap buffer, as the connection manager passes it.
int32 UnpackInitBody(const Bytes& msg, int32 nMsgLen, BufferInitInfo* pInfo) {
  auto copy = ExactCopy(msg.data(), static_cast<size_t>(nMsgLen));
  // A message shorter than the head still yields a pointer 38 bytes in; the
  // negative length keeps it from being read.
  const char* pBody = copy.get() + (nMsgLen >= 38 ? 38 : nMsgLen);
  return proto_buffer_unpack_init_info(pBody, nMsgLen - 38, pInfo);
}

TEST(ProtoBufferTest, InitBodyNeedsFourBytes) {
  Bytes msg = InitMessage(BUFFER_CMD_INIT, "127.0.0.1", 9000, "", 0, 0x01020304);
  BufferInitInfo info = {-1};
  EXPECT_EQ(0, UnpackInitBody(msg, 42, &info));
  EXPECT_EQ(0x01020304, info.nQueueID);

  for (int32 nLen : {41, 39, 38, 37, 30, 0}) {
    info.nQueueID = -1;
    EXPECT_EQ(EC_MSG_TOO_SHORT, UnpackInitBody(msg, nLen, &info)) << "length " << nLen;
    EXPECT_EQ(-1, info.nQueueID) << "untouched on failure";
  }

  // A longer message: bytes 38..41 are the queue, the rest is ignored and
  // nothing past the 4-byte structure is written.
  msg.resize(60, 0xEE);
  struct {
    BufferInitInfo info;
    int32 nGuard;
  } guarded = {{-1}, 0x0BADF00D};
  EXPECT_EQ(0, UnpackInitBody(msg, 60, &guarded.info));
  EXPECT_EQ(0x01020304, guarded.info.nQueueID);
  EXPECT_EQ(0x0BADF00D, guarded.nGuard);

  EXPECT_EQ(EC_NULL_POINTER, proto_buffer_unpack_init_info(nullptr, 4, &info));
  EXPECT_EQ(EC_NULL_POINTER,
            proto_buffer_unpack_init_info(reinterpret_cast<const char*>(msg.data()), 4, nullptr));
}

TEST(ProtoBufferTest, InitReplyIsLittleEndian) {
  char* pReply = nullptr;
  int32 nLen = 0;
  ASSERT_EQ(0, proto_buffer_pack_init_ret(0, BufferInitInfo{5}, &pReply, &nLen));
  ASSERT_EQ(8, nLen);
  EXPECT_EQ(Hex({0, 0, 0, 0, 0x05, 0, 0, 0}), ToBytes(pReply, 8));
  proto_pack_free(pReply);

  ASSERT_EQ(0, proto_buffer_pack_init_ret(110241, BufferInitInfo{5}, &pReply, &nLen));
  ASSERT_EQ(4, nLen);
  EXPECT_EQ(Hex({0xA1, 0xAE, 0x01, 0x00}), ToBytes(pReply, 4));
  proto_pack_free(pReply);

  // Any non-zero code, negative included, goes alone.
  ASSERT_EQ(0, proto_buffer_pack_init_ret(-2, BufferInitInfo{5}, &pReply, &nLen));
  ASSERT_EQ(4, nLen);
  EXPECT_EQ(Hex({0xFE, 0xFF, 0xFF, 0xFF}), ToBytes(pReply, 4));
  proto_pack_free(pReply);
}

TEST(ProtoBufferTest, InitReplyRefusesNullOutputs) {
  EXPECT_EQ(EC_NULL_POINTER, proto_buffer_pack_init_ret(0, BufferInitInfo{5}, nullptr, nullptr));
  char sentinel = 0;
  char* pReply = &sentinel;
  EXPECT_EQ(EC_NULL_POINTER, proto_buffer_pack_init_ret(0, BufferInitInfo{5}, &pReply, nullptr));
  EXPECT_EQ(nullptr, pReply) << "the out pointer is cleared, so freeing it is harmless";
  proto_pack_free(pReply);
}

}  // namespace
