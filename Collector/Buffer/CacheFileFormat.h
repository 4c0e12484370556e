// On-disk layout of the cache file, shared by its writer (CCacheFile) and its
// readers (the consistency checker, the operator tool).
//
// Every integer is copied raw in host byte order (little-endian on the
// target). The file is a 128-byte header at byte 0 followed by blocks of
// kBlockSize bytes; block n begins at byte kHeaderSize + n * nBlockSize
// (64-bit arithmetic). See docs/cache-file-format.md for the prose version.
#ifndef COLLECTOR_BUFFER_CACHEFILEFORMAT_H_
#define COLLECTOR_BUFFER_CACHEFILEFORMAT_H_

#include "zd_types.h"

namespace cachefile {

// ---- File header (byte 0, always written whole) ---------------------------
constexpr int32 kHeaderSize = 128;
constexpr int32 kHdrBlockSizeOffset = 0;      // int32: kBlockSizeSmall or kBlockSizeLarge
constexpr int32 kHdrTotalBlockNumOffset = 4;  // int32: blocks handed out since creation
constexpr int32 kHdrIdleHeadOffset = 8;       // int32: top of the idle stack, -1 if empty
constexpr int32 kHdrSrvInfoHeadOffset = 12;   // int32: first server-info block, always 0
constexpr int32 kHdrSrvInfoTailOffset = 16;   // int32: last server-info block
constexpr int32 kHdrVersionLenOffset = 20;    // uint16: strlen(version) + 1
constexpr int32 kHdrVersionOffset = 22;       // version bytes + one zero byte
constexpr int32 kVersionMaxChars = 63;        // longest version kept
constexpr int32 kVersionFieldSize = kVersionMaxChars + 1;
static_assert(kHdrVersionOffset + kVersionFieldSize <= kHeaderSize,
              "the version must fit in the header");
static_assert(kHdrVersionOffset + kVersionFieldSize == 86, "used part of the header");

// ---- Block geometry --------------------------------------------------------
constexpr int32 kBlockSizeSmall = 4096;             // files configured below kLargeBlockMinMb
constexpr int32 kBlockSizeLarge = 4 * 1024 * 1024;  // files configured at kLargeBlockMinMb or more
constexpr int32 kLargeBlockMinMb = 40;
constexpr int64 kBytesPerMb = 1024 * 1024;
constexpr int32 kNoBlock = -1;        // end of a chain or list
constexpr int32 kNextLinkOffset = 0;  // int32 at the start of every block
constexpr int32 kNextLinkSize = 4;

// Byte offset of block n.
constexpr int64 BlockOffset(int32 nBlockNo, int32 nBlockSize) {
  return kHeaderSize + static_cast<int64>(nBlockNo) * nBlockSize;
}
// Blocks a file of nSizeMb may ever hold: block n exists only while
// kHeaderSize + (n + 1) * nBlockSize <= nSizeMb MiB.
constexpr int64 MaxBlockCount(int64 nSizeMb, int32 nBlockSize) {
  return (nSizeMb * kBytesPerMb - kHeaderSize) / nBlockSize;
}
static_assert(MaxBlockCount(1, kBlockSizeSmall) == 255, "1 MB file, 4 KiB blocks");
static_assert(MaxBlockCount(39, kBlockSizeSmall) == 9983, "39 MB file, 4 KiB blocks");
static_assert(MaxBlockCount(40, kBlockSizeLarge) == 9, "40 MB file, 4 MiB blocks");
static_assert(MaxBlockCount(100, kBlockSizeLarge) == 24, "100 MB file, 4 MiB blocks");

// ---- Server-info block -----------------------------------------------------
constexpr int32 kSibNextOffset = 0;   // int32: next server-info block, -1 at the tail
constexpr int32 kSibPrevOffset = 4;   // int32: previous server-info block, -1 in block 0
constexpr int32 kSibCountOffset = 8;  // int32: entries in slots 1..count
constexpr int32 kSibHeaderSize = 12;  // slot k (from 1) at 12 + 231 * (k - 1)

// ---- Server entry (231 bytes, packed) --------------------------------------
constexpr int32 kEntrySize = 231;
constexpr int32 kEntIsIpv4Offset = 0;  // uint8, 1 for IPv4
constexpr int32 kEntAddrOffset = 1;    // 16 bytes: uint32 address then 12 zero bytes
constexpr int32 kEntAddrSize = 16;
constexpr int32 kEntPortOffset = 17;          // uint16
constexpr int32 kEntBlockNumUsedOffset = 19;  // int32: blocks in the chain
constexpr int32 kEntHeadNoOffset = 23;        // int32: first block, -1 when empty
constexpr int32 kEntTailNoOffset = 27;        // int32: last block, -1 when empty
constexpr int32 kEntReadOffsetOffset = 31;   // int32: length field of the oldest record in the head
constexpr int32 kEntWriteOffsetOffset = 35;  // int32: where the next record begins in the tail
constexpr int32 kEntUserOffset = 39;         // char[64], zero-padded
constexpr int32 kEntUserSize = 64;
constexpr int32 kEntPasswordOffset = 103;  // char[128], zero-padded
constexpr int32 kEntPasswordSize = 128;
static_assert(kEntAddrOffset + kEntAddrSize == kEntPortOffset, "entry fields are packed");
static_assert(kEntPortOffset + 2 == kEntBlockNumUsedOffset, "entry fields are packed");
static_assert(kEntWriteOffsetOffset + 4 == kEntUserOffset, "entry fields are packed");
static_assert(kEntUserOffset + kEntUserSize == kEntPasswordOffset, "entry fields are packed");
static_assert(kEntPasswordOffset + kEntPasswordSize == kEntrySize, "entry is 231 bytes");

constexpr int32 MaxEntriesPerBlock(int32 nBlockSize) {
  return (nBlockSize - kSibHeaderSize) / kEntrySize;
}
static_assert(MaxEntriesPerBlock(kBlockSizeSmall) == 17, "17 entries in a 4 KiB block");
static_assert(MaxEntriesPerBlock(kBlockSizeLarge) == 18157, "18,157 entries in a 4 MiB block");

// Byte offset of entry slot k (from 1) of server-info block n.
constexpr int64 EntryOffset(int32 nBlockNo, int32 nSlot, int32 nBlockSize) {
  return BlockOffset(nBlockNo, nBlockSize) + kSibHeaderSize +
         static_cast<int64>(nSlot - 1) * kEntrySize;
}
static_assert(EntryOffset(0, 1, kBlockSizeSmall) == 140, "first entry of a file");

// ---- Data block and record stream ------------------------------------------
// A data block is a next-block link (meaningful only when the block is not
// its chain's tail) followed by a data area. The data areas of a chain, in
// chain order, hold records laid end to end: int32 length L >= 1, then L
// bytes. Any piece (length or payload) that does not fit the current block
// continues at kDataAreaOffset of the next block; a position equal to the
// block size stands for kDataAreaOffset of the next block.
constexpr int32 kDataAreaOffset = 4;
constexpr int32 kRecordLenSize = 4;

// Largest record a file of nMaxBlocks blocks could ever hold: every block but
// block 0 a data block, the record starting at the first byte of a data area.
constexpr int64 MaxRecordLen(int64 nMaxBlocks, int32 nBlockSize) {
  return (nMaxBlocks - 1) * (nBlockSize - kDataAreaOffset) - kRecordLenSize;
}
static_assert(MaxRecordLen(255, kBlockSizeSmall) == 254 * 4092 - 4, "1 MB file");

}  // namespace cachefile

#endif  // COLLECTOR_BUFFER_CACHEFILEFORMAT_H_
