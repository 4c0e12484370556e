// Layout of a zdProcComm instance in shared memory. Every attached process
// maps the same object; all offsets are from the start of the mapping, all
// block references are block indices (never pointers, since each process
// maps at its own address).
//
//   0                 SHeader (geometry, robust mutex, counters, attach
//                     slots, in-flight reservations)
//   nOffQueues        SQueue[nMaxQueues], 64 bytes each
//   nOffLinks         SBlockHeader[nBlocks]: the links of each block
//   nOffStack         uint32[nBlocks]: the free stack, entries [0, nFreeTop)
//   nOffBitmap        uint8[(nBlocks + 7) / 8]: scratch marks for repair
//   nOffBlocks        nBlocks blocks of nBlockSize bytes, 4096-aligned
//   ...               unused tail (< one block); total == nMemSizeMb MiB
//
// A block is nBlockSize bytes of payload; its links live apart, in the
// SBlockHeader of the same index. A message is a chain of nMsgBlocks blocks
// linked by nNext; the links of its first block also carry the message
// length and the next message of its queue (nNextMsg). A queue is a singly
// linked list of first blocks.
//
// Lock bytes: besides the data, byte offsets of the object serve as
// open-file-description locks (F_OFD_SETLK), which the kernel drops when the
// holder dies. Byte kLockByteCreator is held by the creator for its whole
// life; byte kLockByteAttach0 + i by the owner of attach slot i.
#ifndef PLATFORM_ZDPROCCOMM_SRC_PROCCOMM_LAYOUT_H_
#define PLATFORM_ZDPROCCOMM_SRC_PROCCOMM_LAYOUT_H_

#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "proccomm.h"
#include "zd_types.h"

namespace zdpc {

constexpr uint32 kMagic = 0x4350445A;  // "ZDPC" in memory order
constexpr uint32 kLayoutVersion = 3;
constexpr uint32 kNil = 0xFFFFFFFFu;  // no block
constexpr int32 kMaxInflight = 128;   // reservations copied outside the lock
constexpr int64 kLockByteCreator = 0;
constexpr int64 kLockByteAttach0 = 1;

struct SBlockHeader {
  uint32 nNext;       // next block of the same message, kNil at the last
  uint32 nNextMsg;    // first block only: first block of the next message of the queue
  uint32 nMsgLen;     // first block only: message length in bytes
  uint32 nMsgBlocks;  // first block only: blocks in the chain
};
constexpr uint32 kBlockHeaderSize = sizeof(SBlockHeader);
static_assert(kBlockHeaderSize == 16);

struct alignas(64) SQueue {
  int32 nId;                    // 0: the slot is free
  int32 nRefs;                  // registered handles, all processes
  uint32 nHead;                 // oldest message, kNil when empty
  uint32 nTail;                 // newest message, kNil when empty
  std::atomic<uint32> nCount;   // messages queued; written under the lock, read without
  std::atomic<int32> nWaiters;  // receivers about to sleep or sleeping on nSeq (no lock)
  // Futex word: bumped by every append, every quit and when the instance is
  // gone. Receivers read it before looking at the queue and sleep only while
  // it is unchanged, so no wake-up can be lost.
  std::atomic<uint32> nSeq;
};
static_assert(sizeof(SQueue) == 64);
static_assert(std::atomic<uint32>::is_always_lock_free);

// Queue registrations of one attach slot, so that those of a dead process
// can be dropped. A process holding more than kMaxRegsPerAttach distinct
// queues at once has the rest untracked (they stay counted if it dies).
constexpr int32 kMaxRegsPerAttach = 16;

struct SAttachReg {
  uint32 nQueue;  // index in the queue table
  int32 nCount;   // handles of this slot on it; 0: entry free
};

struct SAttach {
  int32 bUsed;
  int32 nPid;  // for diagnostics only; liveness is the lock byte
  SAttachReg regs[kMaxRegsPerAttach];
};

// A chain taken off the free stack (send) or off a queue (receive) whose
// bytes are copied without the lock. Owned by attach slot nAttach; if that
// process dies, the chain goes back to the free stack.
struct SInflight {
  int32 nAttach;  // -1: entry free
  uint32 nFirst;
  uint32 nBlocks;
};

struct SHeader {
  std::atomic<uint32> nMagic;  // written last when the creator has finished
  uint32 nVersion;
  uint64 nTotalSize;
  uint32 nBlockSize;
  uint32 nBlocks;
  uint32 nMaxQueues;
  uint32 nReserved;
  uint64 nOffQueues;
  uint64 nOffLinks;
  uint64 nOffStack;
  uint64 nOffBitmap;
  uint64 nOffBlocks;
  int32 nCreatorPid;
  std::atomic<uint32> bGone;  // set by the creator's release or by whoever finds it dead

  // Everything below is guarded by mutex (robust, process-shared). The
  // counters are atomics only so that stats can be read without the lock.
  alignas(64) pthread_mutex_t mutex;
  // Written under the lock; read without it by a sender that checks for
  // room before taking the lock, and by the free-share query.
  std::atomic<uint32> nFreeTop;
  std::atomic<int32> nInflightUsed;  // in-flight entries in use
  int32 nQueuesInUse;
  int32 nAttached;
  std::atomic<uint64> nSent;
  std::atomic<uint64> nReceived;
  std::atomic<uint64> nCut;
  std::atomic<uint64> nRefusedNoSpace;
  std::atomic<uint64> nRefusedTooLarge;  // counted without the lock
  std::atomic<uint64> nRecoveries;
  std::atomic<uint64> nReclaimedBlocks;
  std::atomic<uint64> nEvictedQueues;
  SAttach attach[PROCCOMM_MAX_ATTACH];
  SInflight inflight[kMaxInflight];
};

// Pinned for layout version 3 (x86-64, glibc's 40-byte pthread_mutex_t):
// a change here must bump kLayoutVersion, so that a process of another
// build refuses the instance (EC_RD_PROCCOMM_INCOMPATIBLE) instead of
// misreading it.
static_assert(sizeof(SHeader) == 19200);
static_assert(offsetof(SHeader, mutex) == 128);

}  // namespace zdpc

#endif  // PLATFORM_ZDPROCCOMM_SRC_PROCCOMM_LAYOUT_H_
