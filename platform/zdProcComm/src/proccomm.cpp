// zdProcComm: queues of messages in a named shared-memory instance.
//
// Locking: one robust, process-shared mutex in the header guards the free
// stack, the queue table, the attach slots and the in-flight table. Messages
// up to kLockedCopyMax bytes are copied while it is held (one lock round per
// message); longer ones reserve their chain under the lock, copy without it
// and take the lock again to queue it (send) or free it (receive), so a
// sender and a receiver copy large messages in parallel.
//
// Recovery: a process that dies holding the mutex leaves it EOWNERDEAD; the
// next locker repairs before it goes on (see Repair). A process that dies
// while copying outside the lock leaves an in-flight entry whose owner's
// lock byte is free; such chains are taken back when memory runs short, when
// an attach slot is reused and by Repair.
#include "proccomm.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "proccomm_layout.h"
#include "proccomm_test.h"

using zdpc::kNil;
using zdpc::SBlockHeader;
using zdpc::SHeader;
using zdpc::SInflight;
using zdpc::SQueue;

struct proccomm_instance {
  uint32 nMagic;
  int nFd;
  uint8* pBase;
  size_t nSize;
  SHeader* pHdr;
  SQueue* pQueues;
  SBlockHeader* pLinks;
  uint32* pStack;
  uint8* pBitmap;
  uint8* pBlocks;
  uint32 nBlockSize;
  uint32 nBlocks;
  uint32 nMaxQueues;
  int32 nAttach;  // our attach slot
  bool bCreator;
  std::atomic<int64> nNextCreatorCheckMs;
  char szShmName[256];
};

struct proccomm_queue {
  uint32 nMagic;
  proccomm_instance* pInst;
  uint32 nIndex;  // slot in the queue table
  int32 nId;
  std::atomic<uint32> bQuit;
};

namespace {

constexpr uint32 kInstanceMagic = 0x50434931;  // live handle marks
constexpr uint32 kQueueMagic = 0x50435131;
constexpr int32 kMaxNameLen = 200;
// Messages up to this size are copied with the lock held: one lock round
// trip costs more than copying them.
constexpr int32 kLockedCopyMax = 16384;
// A sender that is not the creator checks the creator's lock byte at most
// this often (a receiver too, whenever it looks at its queue).
constexpr int64 kCreatorCheckMs = 100;
// Tries of a contended lock before sleeping on it (a few microseconds).
constexpr int kLockSpins = 32;
constexpr uint32 kModeBits = 0666;
constexpr char kShmDir[] = "/dev/shm";  // where shm_open keeps its objects

std::atomic<ProcCommTestHook> g_pHook{nullptr};
std::atomic<int32> g_nCreateMode{-1};  // -1: not set by proccomm_set_create_mode
thread_local int32 t_nLastErrno = 0;

inline void run_hook(int32 nPoint) {
  ProcCommTestHook fn = g_pHook.load(std::memory_order_relaxed);
  if (fn != nullptr) fn(nPoint);
}

int32 system_error(int nErrno) {
  t_nLastErrno = nErrno;
  return EC_RD_PROCCOMM_SYSTEM;
}

inline void bump(std::atomic<uint64>& counter, uint64 nBy = 1) {
  counter.fetch_add(nBy, std::memory_order_relaxed);
}

// Keeps the compiler from moving stores across a point where a SIGKILL must
// find them done (the x86 store order does the rest).
inline void crash_order() { std::atomic_signal_fence(std::memory_order_seq_cst); }

int64 now_coarse_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<int64>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void futex_wake_all(std::atomic<uint32>* pWord) {
  syscall(SYS_futex, reinterpret_cast<uint32*>(pWord), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Sleeps while *pWord == nExpected, until the absolute CLOCK_MONOTONIC
// deadline (null: none). Returns 0, or ETIMEDOUT / EAGAIN / EINTR.
int futex_wait(std::atomic<uint32>* pWord, uint32 nExpected, const struct timespec* pDeadline) {
  long r = syscall(SYS_futex, reinterpret_cast<uint32*>(pWord), FUTEX_WAIT_BITSET, nExpected,
                   pDeadline, nullptr, FUTEX_BITSET_MATCH_ANY);
  return r == 0 ? 0 : errno;
}

// ---- Lock bytes (open-file-description locks) -----------------------------

int ofd_lock(int nFd, int64 nByte, bool bWait) {
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = nByte;
  fl.l_len = 1;
  int r;
  do {
    r = fcntl(nFd, bWait ? F_OFD_SETLKW : F_OFD_SETLK, &fl);
  } while (r != 0 && errno == EINTR);
  return r == 0 ? 0 : errno;
}

// True when another open file description holds the byte. Locks of nFd's own
// description never show, so callers skip their own bytes. On error the
// holder is assumed alive: reclaiming live memory would be worse.
bool byte_held_by_other(int nFd, int64 nByte) {
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = nByte;
  fl.l_len = 1;
  if (fcntl(nFd, F_OFD_GETLK, &fl) != 0) return true;
  return fl.l_type != F_UNLCK;
}

// ---- Geometry ------------------------------------------------------------

struct SGeometry {
  uint64 nTotal;
  uint32 nBlockSize;
  uint32 nBlocks;
  uint32 nMaxQueues;
  uint64 nOffQueues, nOffLinks, nOffStack, nOffBitmap, nOffBlocks;
};

constexpr uint64 align_up(uint64 n, uint64 nAlign) { return (n + nAlign - 1) / nAlign * nAlign; }

bool compute_geometry(int32 nMemSizeMb, int32 nBlockSize, int32 nMaxQueues, SGeometry* pGeo) {
  pGeo->nTotal = static_cast<uint64>(nMemSizeMb) << 20;
  pGeo->nBlockSize = static_cast<uint32>(nBlockSize);
  pGeo->nMaxQueues = static_cast<uint32>(nMaxQueues);
  pGeo->nOffQueues = align_up(sizeof(SHeader), 64);
  uint64 nFixed = pGeo->nOffQueues + static_cast<uint64>(nMaxQueues) * sizeof(SQueue);
  if (nFixed + 4 * 4096 >= pGeo->nTotal) return false;
  // Each block costs its bytes, its links, a stack entry and a bit; leave
  // room for the alignment padding, then trim until the layout fits.
  uint64 nLeft = pGeo->nTotal - nFixed - 4 * 4096;
  uint64 nBlocks =
      nLeft * 8 / (8 * (static_cast<uint64>(nBlockSize) + zdpc::kBlockHeaderSize + 4) + 1);
  if (nBlocks >= kNil) nBlocks = kNil - 1;
  for (;; --nBlocks) {
    if (nBlocks == 0) return false;
    pGeo->nOffLinks = align_up(nFixed, 64);
    pGeo->nOffStack = align_up(pGeo->nOffLinks + zdpc::kBlockHeaderSize * nBlocks, 64);
    pGeo->nOffBitmap = align_up(pGeo->nOffStack + 4 * nBlocks, 64);
    pGeo->nOffBlocks = align_up(pGeo->nOffBitmap + (nBlocks + 7) / 8, 4096);
    if (pGeo->nOffBlocks + nBlocks * nBlockSize <= pGeo->nTotal) break;
  }
  pGeo->nBlocks = static_cast<uint32>(nBlocks);
  return true;
}

// ---- Instance helpers (lock held unless said otherwise) -------------------

// The links of a block (kept apart from its bytes, so that a block is a
// whole, aligned page of payload and chains are walked in a dense array).
inline SBlockHeader* block(proccomm_instance* p, uint32 nBlock) { return &p->pLinks[nBlock]; }
inline uint8* payload(proccomm_instance* p, uint32 nBlock) {
  return p->pBlocks + static_cast<size_t>(nBlock) * p->nBlockSize;
}
inline uint32 payload_size(const proccomm_instance* p) { return p->nBlockSize; }
inline uint32 blocks_for(const proccomm_instance* p, int32 nLen) {
  return (static_cast<uint32>(nLen) + payload_size(p) - 1) / payload_size(p);
}

void attach_views(proccomm_instance* p) {
  SHeader* h = reinterpret_cast<SHeader*>(p->pBase);
  p->pHdr = h;
  p->pQueues = reinterpret_cast<SQueue*>(p->pBase + h->nOffQueues);
  p->pLinks = reinterpret_cast<SBlockHeader*>(p->pBase + h->nOffLinks);
  p->pStack = reinterpret_cast<uint32*>(p->pBase + h->nOffStack);
  p->pBitmap = p->pBase + h->nOffBitmap;
  p->pBlocks = p->pBase + h->nOffBlocks;
  p->nBlockSize = h->nBlockSize;
  p->nBlocks = h->nBlocks;
  p->nMaxQueues = h->nMaxQueues;
}

// Takes n blocks off the free stack and links them into one message chain.
// Returns the first block, or kNil when fewer than n are free.
uint32 alloc_chain(proccomm_instance* p, uint32 nBlocks, int32 nLen) {
  SHeader* h = p->pHdr;
  uint32 nTop = h->nFreeTop.load(std::memory_order_relaxed);
  if (nTop < nBlocks) return kNil;
  uint32 nFirst = p->pStack[nTop - 1];
  for (uint32 k = 0; k < nBlocks; ++k) {
    block(p, p->pStack[nTop - 1 - k])->nNext = k + 1 < nBlocks ? p->pStack[nTop - 2 - k] : kNil;
  }
  SBlockHeader* pFirst = block(p, nFirst);
  pFirst->nNextMsg = kNil;
  pFirst->nMsgLen = static_cast<uint32>(nLen);
  pFirst->nMsgBlocks = nBlocks;
  h->nFreeTop.store(nTop - nBlocks, std::memory_order_relaxed);
  return nFirst;
}

// Pushes a chain back so that the first block ends on top: the next
// allocation gets the same blocks in the same order, mostly consecutive, and
// copies them as long runs. The walk is bounded by nBlocks and by kNil, so a
// damaged link cannot run away. A crash before nFreeTop moves frees nothing
// (Repair rebuilds the stack).
void free_chain(proccomm_instance* p, uint32 nFirst, uint32 nBlocks) {
  SHeader* h = p->pHdr;
  uint32 nTop = h->nFreeTop.load(std::memory_order_relaxed);
  uint32 nRoom = p->nBlocks - nTop;
  uint32 n = 0;
  for (uint32 b = nFirst; n < nBlocks && n < nRoom && b < p->nBlocks; b = block(p, b)->nNext) ++n;
  uint32 b = nFirst;
  for (uint32 k = 0; k < n; ++k) {
    p->pStack[nTop + n - 1 - k] = b;
    b = block(p, b)->nNext;
  }
  crash_order();
  h->nFreeTop.store(nTop + n, std::memory_order_relaxed);
}

// Queue append. A crash between the two link stores leaves the message
// reachable from its predecessor, which Repair follows.
void append(proccomm_instance* p, SQueue* q, uint32 nFirst) {
  if (q->nTail == kNil) {
    q->nHead = nFirst;
  } else {
    block(p, q->nTail)->nNextMsg = nFirst;
  }
  crash_order();
  q->nTail = nFirst;
  q->nCount.store(q->nCount.load(std::memory_order_relaxed) + 1, std::memory_order_seq_cst);
  q->nSeq.fetch_add(1, std::memory_order_seq_cst);
  p->pHdr->nSent.store(p->pHdr->nSent.load(std::memory_order_relaxed) + 1,
                       std::memory_order_relaxed);
}

uint32 pop(proccomm_instance* p, SQueue* q) {
  uint32 nFirst = q->nHead;
  q->nHead = block(p, nFirst)->nNextMsg;
  if (q->nHead == kNil) q->nTail = kNil;
  q->nCount.store(q->nCount.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
  return nFirst;
}

// Copies between a chain and a flat buffer, one memcpy per run of
// consecutive blocks.
template <bool bIn>
void copy_chain(proccomm_instance* p, uint32 nFirst, char* pBuf, int32 nLen) {
  const size_t nChunk = payload_size(p);
  size_t nLeft = static_cast<size_t>(nLen);
  uint32 b = nFirst;
  while (nLeft > 0) {
    uint32 nRunStart = b;
    size_t nRun = nChunk;
    uint32 nNext = block(p, b)->nNext;
    while (nRun < nLeft && nNext == b + 1) {
      b = nNext;
      nNext = block(p, b)->nNext;
      nRun += nChunk;
    }
    if (nRun > nLeft) nRun = nLeft;
    if (bIn) {
      memcpy(payload(p, nRunStart), pBuf, nRun);
    } else {
      memcpy(pBuf, payload(p, nRunStart), nRun);
    }
    pBuf += nRun;
    nLeft -= nRun;
    b = nNext;
  }
}

void copy_in(proccomm_instance* p, uint32 nFirst, const char* pBuf, int32 nLen) {
  copy_chain<true>(p, nFirst, const_cast<char*>(pBuf), nLen);
}
void copy_out(proccomm_instance* p, uint32 nFirst, char* pBuf, int32 nLen) {
  copy_chain<false>(p, nFirst, pBuf, nLen);
}

int32 inflight_take(proccomm_instance* p, uint32 nFirst, uint32 nBlocks) {
  for (int32 i = 0; i < zdpc::kMaxInflight; ++i) {
    SInflight& e = p->pHdr->inflight[i];
    if (e.nAttach >= 0) continue;
    e.nFirst = nFirst;
    e.nBlocks = nBlocks;
    crash_order();
    e.nAttach = p->nAttach;  // last: an entry with an owner is complete
    p->pHdr->nInflightUsed.fetch_add(1, std::memory_order_relaxed);
    return i;
  }
  return -1;
}

// Frees queue slot q (lock held): its messages' chains go back to the pool.
void free_queue(proccomm_instance* p, SQueue* q) {
  uint32 b = q->nHead;
  for (uint32 n = q->nCount.load(std::memory_order_relaxed); n > 0 && b < p->nBlocks; --n) {
    uint32 nNextMsg = block(p, b)->nNextMsg;
    free_chain(p, b, block(p, b)->nMsgBlocks);
    b = nNextMsg;
  }
  q->nHead = kNil;
  q->nTail = kNil;
  q->nCount.store(0);
  q->nRefs = 0;
  crash_order();
  q->nId = 0;
  p->pHdr->nQueuesInUse--;
}

// Records one more (nDelta 1) or one less (-1) handle of our slot on queue
// slot nQueue (lock held).
void track_reg(proccomm_instance* p, uint32 nQueue, int32 nDelta) {
  zdpc::SAttachReg* pRegs = p->pHdr->attach[p->nAttach].regs;
  zdpc::SAttachReg* pFree = nullptr;
  for (int32 i = 0; i < zdpc::kMaxRegsPerAttach; ++i) {
    if (pRegs[i].nCount > 0 && pRegs[i].nQueue == nQueue) {
      pRegs[i].nCount += nDelta;
      return;
    }
    if (pRegs[i].nCount <= 0 && pFree == nullptr) pFree = &pRegs[i];
  }
  if (nDelta > 0 && pFree != nullptr) {
    pFree->nQueue = nQueue;
    pFree->nCount = nDelta;
  }
}

// Drops the queue registrations of slot nSlot (a dead process, or our own
// release); a queue left without handles and messages is freed (lock held,
// queue counts consistent).
void drop_regs(proccomm_instance* p, int32 nSlot) {
  zdpc::SAttachReg* pRegs = p->pHdr->attach[nSlot].regs;
  for (int32 i = 0; i < zdpc::kMaxRegsPerAttach; ++i) {
    if (pRegs[i].nCount > 0 && pRegs[i].nQueue < p->nMaxQueues) {
      SQueue* q = &p->pQueues[pRegs[i].nQueue];
      if (q->nId != 0) {
        q->nRefs = q->nRefs > pRegs[i].nCount ? q->nRefs - pRegs[i].nCount : 0;
        if (q->nRefs == 0 && q->nCount.load() == 0) free_queue(p, q);
      }
    }
    pRegs[i].nCount = 0;
  }
}

// Drops attach slot nSlot of a dead process and gives its in-flight chains
// back to the free stack. Only called when the lock is consistent, so no
// such chain is also on a queue (send queues a chain only after clearing its
// entry; receive sets an entry only after taking the chain off its queue).
void reclaim_slot(proccomm_instance* p, int32 nSlot) {
  SHeader* h = p->pHdr;
  for (int32 i = 0; i < zdpc::kMaxInflight; ++i) {
    SInflight& e = h->inflight[i];
    if (e.nAttach != nSlot) continue;
    uint32 nBefore = h->nFreeTop.load();
    free_chain(p, e.nFirst, e.nBlocks);
    bump(h->nReclaimedBlocks, h->nFreeTop.load() - nBefore);
    e.nAttach = -1;
    h->nInflightUsed.fetch_sub(1, std::memory_order_relaxed);
  }
  if (h->attach[nSlot].bUsed) {
    drop_regs(p, nSlot);
    h->attach[nSlot].bUsed = 0;
    h->nAttached--;
  }
}

// Reclaims the in-flight chains of dead processes (and their slots). Only
// slots that own an entry are looked at, so that a sender retrying on a
// full pool pays no system call unless there is something to gain. Returns
// true if any was found.
bool sweep_dead(proccomm_instance* p) {
  SHeader* h = p->pHdr;
  bool bFound = false;
  for (int32 i = 0; i < zdpc::kMaxInflight; ++i) {
    int32 nSlot = h->inflight[i].nAttach;
    if (nSlot < 0 || nSlot == p->nAttach || nSlot >= PROCCOMM_MAX_ATTACH) continue;
    if (byte_held_by_other(p->nFd, zdpc::kLockByteAttach0 + nSlot)) continue;
    reclaim_slot(p, nSlot);
    bFound = true;
  }
  return bFound;
}

// Drops the attach slots of dead processes (for an exact count).
void sweep_dead_slots(proccomm_instance* p) {
  SHeader* h = p->pHdr;
  for (int32 i = 0; i < PROCCOMM_MAX_ATTACH; ++i) {
    if (i == p->nAttach || !h->attach[i].bUsed) continue;
    if (!byte_held_by_other(p->nFd, zdpc::kLockByteAttach0 + i)) reclaim_slot(p, i);
  }
}

inline bool marked(const proccomm_instance* p, uint32 b) {
  return (p->pBitmap[b >> 3] >> (b & 7)) & 1;
}
inline void set_mark(proccomm_instance* p, uint32 b, bool bOn) {
  if (bOn) {
    p->pBitmap[b >> 3] = static_cast<uint8>(p->pBitmap[b >> 3] | (1u << (b & 7)));
  } else {
    p->pBitmap[b >> 3] = static_cast<uint8>(p->pBitmap[b >> 3] & ~(1u << (b & 7)));
  }
}

// Marks the chain of a message; false (and nothing marked) if it is damaged:
// a bad index, a block already owned, or a length that disagrees.
bool mark_chain(proccomm_instance* p, uint32 nFirst, uint32 nBlocks, uint32 nLen) {
  if (nFirst >= p->nBlocks || nBlocks == 0 || nBlocks > p->nBlocks) return false;
  if (nLen != 0 &&
      (nLen > PROCCOMM_MAX_MSG_LEN || blocks_for(p, static_cast<int32>(nLen)) != nBlocks))
    return false;
  uint32 b = nFirst;
  uint32 k = 0;
  bool bOk = true;
  for (; k < nBlocks; ++k) {
    if (b >= p->nBlocks || marked(p, b)) {
      bOk = false;
      break;
    }
    set_mark(p, b, true);
    b = block(p, b)->nNext;
  }
  if (bOk && b != kNil) bOk = false;
  if (!bOk) {
    b = nFirst;
    for (uint32 j = 0; j < k; ++j) {
      set_mark(p, b, false);
      b = block(p, b)->nNext;
    }
  }
  return bOk;
}

// Runs when the mutex came back EOWNERDEAD: its holder died somewhere inside
// a critical section. Invariants restored here, from the structures a crash
// cannot leave half-written (every store is ordered so that a message is
// linked only when complete):
//  - every queue is the list reachable from its head; a damaged message
//    ends the list there; tail and count are recomputed;
//  - in-flight entries of dead processes are dropped;
//  - the free stack is rebuilt as every block not reachable from a queue or
//    from a live in-flight entry (this takes back a chain that the dead
//    holder had allocated but not queued, or taken off a queue but not
//    freed);
//  - queue and attach counts are recounted.
// The holder's own attach slot usually still looks alive here: the kernel
// hands the mutex on before it closes the dead process's files. Its slot and
// in-flight chains are then reclaimed later, like those of any process that
// died outside the lock (sweep_dead).
// Queue reference counts and waiter counts cannot be known; a dead process's
// references keep its queues alive, a stale waiter count only costs a wake.
void repair(proccomm_instance* p) {
  SHeader* h = p->pHdr;
  memset(p->pBitmap, 0, (p->nBlocks + 7) / 8);
  uint32 nFreeBefore = h->nFreeTop.load();

  h->nAttached = 0;
  bool bDead[PROCCOMM_MAX_ATTACH] = {};
  for (int32 i = 0; i < PROCCOMM_MAX_ATTACH; ++i) {
    if (!h->attach[i].bUsed) continue;
    if (i != p->nAttach && !byte_held_by_other(p->nFd, zdpc::kLockByteAttach0 + i)) {
      h->attach[i].bUsed = 0;
      bDead[i] = true;
    } else {
      h->nAttached++;
    }
  }
  int32 nInflight = 0;
  for (int32 i = 0; i < zdpc::kMaxInflight; ++i) {
    SInflight& e = h->inflight[i];
    if (e.nAttach < 0) continue;
    if (e.nAttach >= PROCCOMM_MAX_ATTACH || !h->attach[e.nAttach].bUsed ||
        !mark_chain(p, e.nFirst, e.nBlocks, 0)) {
      e.nAttach = -1;
    } else {
      nInflight++;
    }
  }
  h->nInflightUsed.store(nInflight);
  h->nQueuesInUse = 0;
  for (uint32 qi = 0; qi < p->nMaxQueues; ++qi) {
    SQueue* q = &p->pQueues[qi];
    if (q->nId == 0) continue;
    h->nQueuesInUse++;
    uint32 nPrev = kNil;
    uint32 nCount = 0;
    for (uint32 b = q->nHead; b != kNil; b = block(p, b)->nNextMsg) {
      if (b >= p->nBlocks || block(p, b)->nMsgLen == 0 ||
          !mark_chain(p, b, block(p, b)->nMsgBlocks, block(p, b)->nMsgLen)) {
        if (nPrev == kNil) {
          q->nHead = kNil;
        } else {
          block(p, nPrev)->nNextMsg = kNil;
        }
        break;
      }
      nPrev = b;
      nCount++;
    }
    q->nTail = nPrev;
    q->nCount.store(nCount);
    if (q->nRefs < 0) q->nRefs = 0;
  }
  // With the queues consistent again, the dead processes' registrations go
  // (a queue freed here is empty, so it gives no block back).
  for (int32 i = 0; i < PROCCOMM_MAX_ATTACH; ++i) {
    if (bDead[i]) drop_regs(p, i);
  }
  uint32 nTop = 0;
  for (uint32 b = p->nBlocks; b-- > 0;) {  // lowest index on top
    if (!marked(p, b)) p->pStack[nTop++] = b;
  }
  h->nFreeTop.store(nTop);
  if (nTop > nFreeBefore) bump(h->nReclaimedBlocks, nTop - nFreeBefore);
  bump(h->nRecoveries);
}

// Critical sections are short (about 100 ns unless a small message is
// copied), so a contended lock is retried briefly before sleeping: a sleep
// and wake-up of the kernel's futex would cost microseconds, which matters
// most to a receiver that has just been woken by the sender (the sender
// often takes the lock again at once for its next call).
int32 lock(proccomm_instance* p) {
  // Spin on reading the lock word (glibc keeps the owner's thread id there,
  // 0 when free) and try only when it looks free: a failed try would take
  // the cache line away from the holder.
  int r = pthread_mutex_trylock(&p->pHdr->mutex);
  for (int i = 0; i < kLockSpins && r == EBUSY; ++i) {
    __builtin_ia32_pause();
    if (__atomic_load_n(&p->pHdr->mutex.__data.__lock, __ATOMIC_RELAXED) == 0)
      r = pthread_mutex_trylock(&p->pHdr->mutex);
  }
  if (r == EBUSY) r = pthread_mutex_lock(&p->pHdr->mutex);
  if (r == 0) return 0;
  if (r == EOWNERDEAD) {
    repair(p);
    pthread_mutex_consistent(&p->pHdr->mutex);
    return 0;
  }
  return system_error(r);
}

// True when the kernel has marked the lock's owner dead: the next locker
// repairs, so lock-free shortcuts must not skip taking it.
inline bool lock_owner_died(proccomm_instance* p) {
  return (__atomic_load_n(&p->pHdr->mutex.__data.__lock, __ATOMIC_RELAXED) & FUTEX_OWNER_DIED) != 0;
}

inline void unlock(proccomm_instance* p) { pthread_mutex_unlock(&p->pHdr->mutex); }

void wake_every_queue(proccomm_instance* p) {
  for (uint32 qi = 0; qi < p->nMaxQueues; ++qi) {
    SQueue* q = &p->pQueues[qi];
    q->nSeq.fetch_add(1, std::memory_order_seq_cst);
    futex_wake_all(&q->nSeq);
  }
}

// Non-creators: has the creator released the instance or died? The lock
// byte is looked at most every kCreatorCheckMs.
bool instance_gone(proccomm_instance* p) {
  if (p->pHdr->bGone.load(std::memory_order_seq_cst) != 0) return true;
  if (p->bCreator) return false;
  int64 nNow = now_coarse_ms();
  if (nNow < p->nNextCreatorCheckMs.load(std::memory_order_relaxed)) return false;
  p->nNextCreatorCheckMs.store(nNow + kCreatorCheckMs, std::memory_order_relaxed);
  if (byte_held_by_other(p->nFd, zdpc::kLockByteCreator)) return false;
  // The creator died without releasing: tell every attacher at once.
  p->pHdr->bGone.store(1, std::memory_order_seq_cst);
  wake_every_queue(p);
  return true;
}

bool valid_instance(proccomm_instance* p) { return p != nullptr && p->nMagic == kInstanceMagic; }
bool valid_queue(proccomm_queue* q) {
  return q != nullptr && q->nMagic == kQueueMagic && valid_instance(q->pInst);
}

uint32 create_mode() {
  int32 nMode = g_nCreateMode.load();
  if (nMode >= 0) return static_cast<uint32>(nMode) & kModeBits;
  const char* szEnv = getenv("ZD_PROCCOMM_MODE");
  if (szEnv != nullptr && szEnv[0] != '\0') {
    char* pEnd = nullptr;
    unsigned long nVal = strtoul(szEnv, &pEnd, 8);
    if (pEnd != nullptr && *pEnd == '\0') return static_cast<uint32>(nVal) & kModeBits;
  }
  return 0600;
}

bool build_names(const char* szName, proccomm_instance* p) {
  size_t nLen = strlen(szName);
  if (nLen == 0 || nLen > static_cast<size_t>(kMaxNameLen)) return false;
  char szSafe[kMaxNameLen + 1];
  for (size_t i = 0; i <= nLen; ++i) {
    char c = szName[i];
    bool bOk = c == '\0' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.' || c == '/';
    if (!bOk) return false;
    szSafe[i] = c == '/' ? '_' : c;
  }
  snprintf(p->szShmName, sizeof(p->szShmName), "/zdpcm.%s", szSafe);
  return true;
}

int32 map_fd(proccomm_instance* p, size_t nSize) {
  void* pMem = mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, p->nFd, 0);
  if (pMem == MAP_FAILED) return system_error(errno);
  p->pBase = static_cast<uint8*>(pMem);
  p->nSize = nSize;
  return 0;
}

void unmap_close(proccomm_instance* p) {
  if (p->pBase != nullptr) munmap(p->pBase, p->nSize);
  p->pBase = nullptr;
  if (p->nFd >= 0) close(p->nFd);  // drops every lock byte of this handle
  p->nFd = -1;
}

// Takes a free attach slot (or the slot of a dead process) and its lock
// byte. Lock held.
int32 claim_slot(proccomm_instance* p) {
  SHeader* h = p->pHdr;
  for (int32 i = 0; i < PROCCOMM_MAX_ATTACH; ++i) {
    if (ofd_lock(p->nFd, zdpc::kLockByteAttach0 + i, false) != 0) continue;  // a live owner
    if (h->attach[i].bUsed) reclaim_slot(p, i);  // its owner died without releasing
    for (int32 k = 0; k < zdpc::kMaxRegsPerAttach; ++k) h->attach[i].regs[k].nCount = 0;
    h->attach[i].nPid = getpid();
    h->attach[i].bUsed = 1;
    h->nAttached++;
    p->nAttach = i;
    return 0;
  }
  return EC_RD_PROCCOMM_NO_SLOT;
}

int32 create_instance(proccomm_instance* p, const SGeometry& geo) {
  uint32 nMode = create_mode();
  p->nFd = shm_open(p->szShmName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, nMode);
  if (p->nFd < 0) return system_error(errno);
  int32 nRet = 0;
  if (fchmod(p->nFd, nMode) != 0)
    nRet = system_error(errno);  // the umask must not widen or narrow it
  if (nRet == 0 && ofd_lock(p->nFd, zdpc::kLockByteCreator, false) != 0) nRet = system_error(errno);
  if (nRet == 0 && ftruncate(p->nFd, static_cast<off_t>(geo.nTotal)) != 0)
    nRet = system_error(errno);
  if (nRet == 0) nRet = map_fd(p, geo.nTotal);
  if (nRet != 0) {
    unmap_close(p);
    shm_unlink(p->szShmName);
    return nRet;
  }
  SHeader* h = new (p->pBase) SHeader;
  h->nVersion = zdpc::kLayoutVersion;
  h->nTotalSize = geo.nTotal;
  h->nBlockSize = geo.nBlockSize;
  h->nBlocks = geo.nBlocks;
  h->nMaxQueues = geo.nMaxQueues;
  h->nOffQueues = geo.nOffQueues;
  h->nOffLinks = geo.nOffLinks;
  h->nOffStack = geo.nOffStack;
  h->nOffBitmap = geo.nOffBitmap;
  h->nOffBlocks = geo.nOffBlocks;
  h->nCreatorPid = getpid();
  h->bGone.store(0);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  int r = pthread_mutex_init(&h->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (r != 0) {
    unmap_close(p);
    shm_unlink(p->szShmName);
    return system_error(r);
  }
  for (int32 i = 0; i < zdpc::kMaxInflight; ++i) h->inflight[i].nAttach = -1;
  attach_views(p);
  for (uint32 qi = 0; qi < p->nMaxQueues; ++qi) new (&p->pQueues[qi]) SQueue{};
  // Lower indices on top: a fresh instance hands out blocks in address order.
  for (uint32 b = 0; b < p->nBlocks; ++b) p->pStack[b] = p->nBlocks - 1 - b;
  h->nFreeTop.store(p->nBlocks);
  h->nInflightUsed.store(0);
  p->bCreator = true;
  nRet = claim_slot(p);
  if (nRet != 0) {
    unmap_close(p);
    shm_unlink(p->szShmName);
    return nRet;
  }
  h->nMagic.store(zdpc::kMagic, std::memory_order_release);
  return 0;
}

// Marks an instance whose creator died as gone, wakes its sleepers and
// removes its name. Any process still mapping it sees EC_RD_PROCCOMM_GONE.
void retire_stale(proccomm_instance* p, size_t nSize) {
  if (nSize >= sizeof(SHeader) && map_fd(p, nSize) == 0) {
    SHeader* h = reinterpret_cast<SHeader*>(p->pBase);
    if (h->nMagic.load() == zdpc::kMagic && h->nTotalSize == nSize) {
      attach_views(p);
      h->bGone.store(1);
      wake_every_queue(p);
    }
  }
  unmap_close(p);
  shm_unlink(p->szShmName);
}

// Under the name's init lock: attach to a live instance, or replace a stale
// one, or create it. With no geometry (attach only), a missing or stale
// instance is EC_RD_PROCCOMM_GONE and is left for its creator to replace.
int32 open_locked(proccomm_instance* p, const SGeometry* pGeo) {
  p->nFd = shm_open(p->szShmName, O_RDWR | O_CLOEXEC, 0);
  if (p->nFd < 0) {
    if (errno != ENOENT) return system_error(errno);
    return pGeo != nullptr ? create_instance(p, *pGeo) : EC_RD_PROCCOMM_GONE;
  }
  struct stat st;
  if (fstat(p->nFd, &st) != 0) {
    int32 nRet = system_error(errno);
    unmap_close(p);
    return nRet;
  }
  size_t nSize = static_cast<size_t>(st.st_size);
  if (!byte_held_by_other(p->nFd, zdpc::kLockByteCreator)) {
    if (pGeo == nullptr) {
      unmap_close(p);
      return EC_RD_PROCCOMM_GONE;
    }
    retire_stale(p, nSize);
    return create_instance(p, *pGeo);
  }
  int32 nRet = nSize >= sizeof(SHeader) ? map_fd(p, nSize) : EC_RD_PROCCOMM_INCOMPATIBLE;
  SHeader* h = reinterpret_cast<SHeader*>(p->pBase);
  if (nRet == 0 && (h->nMagic.load(std::memory_order_acquire) != zdpc::kMagic ||
                    h->nVersion != zdpc::kLayoutVersion || h->nTotalSize != nSize)) {
    nRet = EC_RD_PROCCOMM_INCOMPATIBLE;
  }
  if (nRet == 0) {
    attach_views(p);
    p->bCreator = false;
    nRet = lock(p);
    if (nRet == 0) {
      nRet = claim_slot(p);
      unlock(p);
    }
  }
  if (nRet != 0) unmap_close(p);
  return nRet;
}

// Creation, replacement and removal of instances are serialised by an
// flock on the shared-memory directory itself: they are rare and short, the
// kernel drops the lock of a killed holder, and no lock file is left behind.
int lock_names() {
  int nFd = open(kShmDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (nFd < 0) return -1;
  int r;
  do {
    r = flock(nFd, LOCK_EX);
  } while (r != 0 && errno == EINTR);
  if (r != 0) {
    int nErr = errno;
    close(nFd);
    errno = nErr;
    return -1;
  }
  return nFd;
}

// Takes the oldest message off q into pBuf (cap bytes). Lock held on entry,
// released on return.
void take_message(proccomm_instance* p, SQueue* q, char* pBuf, int32* pnLen) {
  SHeader* h = p->pHdr;
  uint32 nFirst = pop(p, q);
  SBlockHeader* pFirst = block(p, nFirst);
  int32 nMsgLen = static_cast<int32>(pFirst->nMsgLen);
  uint32 nBlocks = pFirst->nMsgBlocks;
  int32 nCopy = nMsgLen <= *pnLen ? nMsgLen : *pnLen;
  h->nReceived.store(h->nReceived.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  if (nCopy < nMsgLen)
    h->nCut.store(h->nCut.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  int32 nEntry = nCopy > kLockedCopyMax ? inflight_take(p, nFirst, nBlocks) : -1;
  if (nEntry < 0) {
    copy_out(p, nFirst, pBuf, nCopy);
    run_hook(PROCCOMM_HOOK_RECV_LOCKED);
    free_chain(p, nFirst, nBlocks);
    unlock(p);
  } else {
    unlock(p);
    copy_out(p, nFirst, pBuf, nCopy);
    run_hook(PROCCOMM_HOOK_RECV_COPY);
    if (lock(p) == 0) {
      // Repair may have dropped the entry if it judged us dead; then the
      // chain is no longer ours to free.
      if (h->inflight[nEntry].nAttach == p->nAttach && h->inflight[nEntry].nFirst == nFirst) {
        h->inflight[nEntry].nAttach = -1;
        h->nInflightUsed.fetch_sub(1, std::memory_order_relaxed);
        crash_order();
        free_chain(p, nFirst, nBlocks);
      }
      unlock(p);
    }
  }
  *pnLen = nCopy;
}

int32 open_instance(const char* szName, const SGeometry* pGeo, ProcCommHandle* phOut) {
  if (szName == nullptr) return EC_RD_PROCCOMM_INVALID_ARG;
  proccomm_instance* p = new (std::nothrow) proccomm_instance;
  if (p == nullptr) return system_error(ENOMEM);
  p->nMagic = 0;
  p->nFd = -1;
  p->pBase = nullptr;
  p->nSize = 0;
  p->nAttach = -1;
  p->bCreator = false;
  p->nNextCreatorCheckMs.store(0);
  if (!build_names(szName, p)) {
    delete p;
    return EC_RD_PROCCOMM_INVALID_ARG;
  }
  int nLockFd = lock_names();
  if (nLockFd < 0) {
    int32 nRet = system_error(errno);
    delete p;
    return nRet;
  }
  int32 nRet = open_locked(p, pGeo);
  close(nLockFd);
  if (nRet != 0) {
    delete p;
    return nRet;
  }
  p->nMagic = kInstanceMagic;
  *phOut = p;
  return 0;
}

}  // namespace

extern "C" {

void proccomm_test_set_hook(ProcCommTestHook fn) { g_pHook.store(fn); }

int32 proccomm_set_create_mode(uint32 nMode) {
  if ((nMode & ~kModeBits) != 0) return EC_RD_PROCCOMM_INVALID_ARG;
  g_nCreateMode.store(static_cast<int32>(nMode));
  return 0;
}

int32 proccomm_last_errno(void) { return t_nLastErrno; }

int32 proccomm_init(const char* szName, int32 nMemSizeMb, int32 nBlockSize, int32 nMaxQueues,
                    ProcCommHandle* phOut) {
  if (phOut == nullptr) return EC_RD_PROCCOMM_INVALID_ARG;
  *phOut = nullptr;
  if (nMemSizeMb < 1 || nMemSizeMb > 65536 || nBlockSize < 256 ||
      nBlockSize > PROCCOMM_MAX_MSG_LEN || nBlockSize % 64 != 0 || nMaxQueues < 2 ||
      nMaxQueues > 65536)
    return EC_RD_PROCCOMM_INVALID_ARG;
  SGeometry geo;
  if (!compute_geometry(nMemSizeMb, nBlockSize, nMaxQueues, &geo))
    return EC_RD_PROCCOMM_INVALID_ARG;
  return open_instance(szName, &geo, phOut);
}

int32 proccomm_attach(const char* szName, ProcCommHandle* phOut) {
  if (phOut == nullptr) return EC_RD_PROCCOMM_INVALID_ARG;
  *phOut = nullptr;
  return open_instance(szName, nullptr, phOut);
}

int32 proccomm_release(ProcCommHandle p) {
  if (!valid_instance(p)) return EC_RD_PROCCOMM_INVALID_ARG;
  // Serialise with proccomm_init of the same name, so that no process
  // attaches to an instance whose name is about to go.
  int nLockFd = p->bCreator ? lock_names() : -1;
  if (lock(p) == 0) {
    SHeader* h = p->pHdr;
    reclaim_slot(p, p->nAttach);
    unlock(p);
    if (p->bCreator) {
      h->bGone.store(1, std::memory_order_seq_cst);
      wake_every_queue(p);
      // Unlink only our own object (compare the inode).
      int nFd = shm_open(p->szShmName, O_RDONLY | O_CLOEXEC, 0);
      if (nFd >= 0) {
        struct stat stOurs, stNamed;
        if (fstat(nFd, &stNamed) == 0 && fstat(p->nFd, &stOurs) == 0 &&
            stNamed.st_ino == stOurs.st_ino)
          shm_unlink(p->szShmName);
        close(nFd);
      }
    }
  }
  unmap_close(p);
  if (nLockFd >= 0) close(nLockFd);
  p->nMagic = 0;
  delete p;
  return 0;
}

int32 proccomm_reg(ProcCommHandle p, int32 nQueueId, ProcCommQueueHandle* phQueue) {
  if (phQueue != nullptr) *phQueue = nullptr;
  if (!valid_instance(p) || phQueue == nullptr || nQueueId < 1) return EC_RD_PROCCOMM_INVALID_ARG;
  if (instance_gone(p)) return EC_RD_PROCCOMM_GONE;
  proccomm_queue* pq = new (std::nothrow) proccomm_queue;
  if (pq == nullptr) return system_error(ENOMEM);
  int32 nRet = lock(p);
  if (nRet != 0) {
    delete pq;
    return nRet;
  }
  uint32 nFree = kNil;
  uint32 nFound = kNil;
  for (uint32 qi = 0; qi < p->nMaxQueues; ++qi) {
    if (p->pQueues[qi].nId == nQueueId) {
      nFound = qi;
      break;
    }
    if (nFree == kNil && p->pQueues[qi].nId == 0) nFree = qi;
  }
  if (nFound == kNil && nFree == kNil) {
    // The table is full: a queue nobody has registered (messages for a
    // process that never came or died) makes way. Its messages are dropped.
    for (uint32 qi = 0; qi < p->nMaxQueues; ++qi) {
      if (p->pQueues[qi].nRefs == 0) {
        free_queue(p, &p->pQueues[qi]);
        bump(p->pHdr->nEvictedQueues);
        nFree = qi;
        break;
      }
    }
  }
  if (nFound == kNil && nFree != kNil) {
    SQueue* q = &p->pQueues[nFree];
    q->nRefs = 0;
    q->nHead = kNil;
    q->nTail = kNil;
    q->nCount.store(0);
    crash_order();
    q->nId = nQueueId;
    p->pHdr->nQueuesInUse++;
    nFound = nFree;
  }
  if (nFound != kNil) {
    p->pQueues[nFound].nRefs++;
    track_reg(p, nFound, 1);
  }
  unlock(p);
  if (nFound == kNil) {
    delete pq;
    return EC_RD_PROCCOMM_NO_QUEUE;
  }
  pq->nMagic = kQueueMagic;
  pq->pInst = p;
  pq->nIndex = nFound;
  pq->nId = nQueueId;
  pq->bQuit.store(0);
  *phQueue = pq;
  return 0;
}

int32 proccomm_unreg(ProcCommHandle p, int32 nQueueId, ProcCommQueueHandle pq) {
  if (!valid_instance(p) || !valid_queue(pq)) return EC_RD_PROCCOMM_INVALID_ARG;
  if (pq->pInst != p || pq->nId != nQueueId) return EC_RD_PROCCOMM_NOT_REGISTERED;
  int32 nRet = lock(p);
  if (nRet != 0) return nRet;
  SQueue* q = &p->pQueues[pq->nIndex];
  if (q->nId == nQueueId) {
    if (q->nRefs > 0) q->nRefs--;
    track_reg(p, pq->nIndex, -1);
    // A queue still holding messages stays (and keeps its id in use) until
    // someone registers and drains it.
    if (q->nRefs == 0 && q->nCount.load() == 0) {
      q->nId = 0;
      p->pHdr->nQueuesInUse--;
    }
  }
  unlock(p);
  pq->nMagic = 0;
  delete pq;
  return 0;
}

int32 proccomm_send(ProcCommQueueHandle pq, const char* pBuf, int32 nLen) {
  if (!valid_queue(pq) || pBuf == nullptr || nLen <= 0) return EC_RD_PROCCOMM_INVALID_ARG;
  proccomm_instance* p = pq->pInst;
  SHeader* h = p->pHdr;
  if (nLen > PROCCOMM_MAX_MSG_LEN) {
    bump(h->nRefusedTooLarge);
    return EC_RD_PROCCOMM_MSG_TOO_LARGE;
  }
  if (instance_gone(p)) return EC_RD_PROCCOMM_GONE;
  uint32 nBlocks = blocks_for(p, nLen);
  if (nBlocks > p->nBlocks) {
    bump(h->nRefusedNoSpace);
    return EC_RD_PROCCOMM_NO_SPACE;
  }
  // No room and nothing a dead process could give back: refuse without the
  // lock, so that a sender retrying on a full pool does not slow down the
  // receivers that are making room.
  if (h->nFreeTop.load(std::memory_order_relaxed) < nBlocks &&
      h->nInflightUsed.load(std::memory_order_relaxed) == 0 && !lock_owner_died(p)) {
    bump(h->nRefusedNoSpace);
    return EC_RD_PROCCOMM_NO_SPACE;
  }
  int32 nRet = lock(p);
  if (nRet != 0) return nRet;
  SQueue* q = &p->pQueues[pq->nIndex];
  uint32 nFirst = alloc_chain(p, nBlocks, nLen);
  if (nFirst == kNil && sweep_dead(p)) nFirst = alloc_chain(p, nBlocks, nLen);
  if (nFirst == kNil) {
    h->nRefusedNoSpace.store(h->nRefusedNoSpace.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
    unlock(p);
    return EC_RD_PROCCOMM_NO_SPACE;
  }
  int32 nEntry = nLen > kLockedCopyMax ? inflight_take(p, nFirst, nBlocks) : -1;
  if (nEntry < 0) {
    copy_in(p, nFirst, pBuf, nLen);
    run_hook(PROCCOMM_HOOK_SEND_LOCKED);
  } else {
    unlock(p);
    copy_in(p, nFirst, pBuf, nLen);
    run_hook(PROCCOMM_HOOK_SEND_COPY);
    nRet = lock(p);
    if (nRet != 0) return nRet;
    if (h->inflight[nEntry].nAttach != p->nAttach || h->inflight[nEntry].nFirst != nFirst) {
      // Repair judged us dead and took the chain back: nothing was sent.
      unlock(p);
      return EC_RD_PROCCOMM_NO_SPACE;
    }
    // Clear the reservation before queueing: a chain is never owned by an
    // in-flight entry and a queue at once.
    h->inflight[nEntry].nAttach = -1;
    h->nInflightUsed.fetch_sub(1, std::memory_order_relaxed);
    crash_order();
  }
  append(p, q, nFirst);
  unlock(p);
  // append bumped nSeq (seq_cst) before this load: see proccomm_recv.
  if (q->nWaiters.load(std::memory_order_seq_cst) > 0) futex_wake_all(&q->nSeq);
  return 0;
}

int32 proccomm_recv(ProcCommQueueHandle pq, char* pBuf, int32* pnLen, int32 bWait,
                    uint32 nTimeoutMs) {
  if (!valid_queue(pq) || pBuf == nullptr || pnLen == nullptr || *pnLen <= 0) {
    if (pnLen != nullptr) *pnLen = 0;
    return EC_RD_PROCCOMM_INVALID_ARG;
  }
  proccomm_instance* p = pq->pInst;
  SQueue* q = &p->pQueues[pq->nIndex];
  struct timespec deadline;
  bool bDeadline = bWait && nTimeoutMs != PROCCOMM_WAIT_FOREVER;
  if (bDeadline) {
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += nTimeoutMs / 1000;
    deadline.tv_nsec += static_cast<long>(nTimeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec++;
      deadline.tv_nsec -= 1000000000L;
    }
  }
  int32 nCap = *pnLen;
  *pnLen = 0;
  bool bTimedOut = false;
  for (;;) {
    // The futex word is read before the quit and gone flags and before the
    // count: whoever sets a flag or queues a message bumps the word
    // afterwards, so anything missed here makes the sleep below return at
    // once.
    uint32 nSeq = q->nSeq.load(std::memory_order_seq_cst);
    if (instance_gone(p)) return EC_RD_PROCCOMM_GONE;
    if (bWait && pq->bQuit.load(std::memory_order_seq_cst) != 0) return EC_RD_PROCCOMM_RECV_QUIT;
    // An empty queue is seen without the lock, so a receiver going to sleep
    // never holds up the sender that is about to wake it.
    if (q->nCount.load(std::memory_order_seq_cst) > 0) {
      int32 nRet = lock(p);
      if (nRet != 0) return nRet;
      if (q->nCount.load(std::memory_order_relaxed) > 0) {
        *pnLen = nCap;
        take_message(p, q, pBuf, pnLen);  // unlocks
        return 0;
      }
      unlock(p);  // another receiver was first
      continue;
    }
    if (!bWait) return 0;
    if (bTimedOut) return EC_RD_PROCCOMM_RECV_TIMEOUT;
    // Dekker-style pairing with send: we publish ourselves as a waiter and
    // then look at the word; a sender bumps the word and then looks at the
    // waiter count. One of the two sees the other.
    q->nWaiters.fetch_add(1, std::memory_order_seq_cst);
    int r = 0;
    if (q->nSeq.load(std::memory_order_seq_cst) == nSeq)
      r = futex_wait(&q->nSeq, nSeq, bDeadline ? &deadline : nullptr);
    q->nWaiters.fetch_sub(1, std::memory_order_seq_cst);
    if (r == ETIMEDOUT) bTimedOut = true;  // one more look, then time out
  }
}

int32 proccomm_recv_quit(ProcCommQueueHandle pq) {
  if (!valid_queue(pq)) return EC_RD_PROCCOMM_INVALID_ARG;
  SQueue* q = &pq->pInst->pQueues[pq->nIndex];
  pq->bQuit.store(1, std::memory_order_seq_cst);
  q->nSeq.fetch_add(1, std::memory_order_seq_cst);
  futex_wake_all(&q->nSeq);
  return 0;
}

int32 proccomm_get_unused_queueid(ProcCommHandle p, int32* pnQueueId) {
  if (pnQueueId != nullptr) *pnQueueId = 0;
  if (!valid_instance(p) || pnQueueId == nullptr) return EC_RD_PROCCOMM_INVALID_ARG;
  int32 nRet = lock(p);
  if (nRet != 0) return nRet;
  if (p->pHdr->nQueuesInUse >= static_cast<int32>(p->nMaxQueues)) {
    bool bOrphan = false;  // a reg of a new id would evict it
    for (uint32 qi = 0; qi < p->nMaxQueues && !bOrphan; ++qi) bOrphan = p->pQueues[qi].nRefs == 0;
    if (!bOrphan) {
      unlock(p);
      return EC_RD_PROCCOMM_NO_QUEUE;
    }
  }
  // Fewer than nMaxQueues ids are taken, so one of 2..nMaxQueues+1 is free:
  // mark the taken ones of that range and pick the lowest free.
  uint8 taken[65536 / 8 + 1] = {};
  for (uint32 qi = 0; qi < p->nMaxQueues; ++qi) {
    int64 nOff = static_cast<int64>(p->pQueues[qi].nId) - 2;
    if (nOff >= 0 && nOff < static_cast<int64>(p->nMaxQueues))
      taken[nOff >> 3] = static_cast<uint8>(taken[nOff >> 3] | (1u << (nOff & 7)));
  }
  int32 nId = 2;
  while (((taken[(nId - 2) >> 3] >> ((nId - 2) & 7)) & 1) != 0) ++nId;
  unlock(p);
  *pnQueueId = nId;
  return 0;
}

float64 proccomm_get_unused_block_percent(ProcCommHandle p) {
  if (!valid_instance(p)) return -1.0;
  float64 fFree = static_cast<float64>(p->pHdr->nFreeTop.load()) / p->nBlocks;
  if (fFree >= 0.3 || (p->pHdr->nInflightUsed.load() == 0 && !lock_owner_died(p))) return fFree;
  // Memory held by dead processes counts as free once it is found; look
  // only when it matters, since each look is a system call per process.
  if (lock(p) != 0) return fFree;
  sweep_dead(p);
  fFree = static_cast<float64>(p->pHdr->nFreeTop.load()) / p->nBlocks;
  unlock(p);
  return fFree;
}

int32 proccomm_get_stats(ProcCommHandle p, ProcCommStats* pStats) {
  if (!valid_instance(p) || pStats == nullptr) return EC_RD_PROCCOMM_INVALID_ARG;
  int32 nRet = lock(p);
  if (nRet != 0) return nRet;
  SHeader* h = p->pHdr;
  sweep_dead(p);  // so that nAttached and nFreeBlocks count no dead process
  sweep_dead_slots(p);
  pStats->nSent = h->nSent.load();
  pStats->nReceived = h->nReceived.load();
  pStats->nCutMessages = h->nCut.load();
  pStats->nRefusedNoSpace = h->nRefusedNoSpace.load();
  pStats->nRefusedTooLarge = h->nRefusedTooLarge.load();
  pStats->nRecoveries = h->nRecoveries.load();
  pStats->nReclaimedBlocks = h->nReclaimedBlocks.load();
  pStats->nEvictedQueues = h->nEvictedQueues.load();
  pStats->nTotalBlocks = p->nBlocks;
  pStats->nFreeBlocks = h->nFreeTop.load();
  pStats->nBlockSize = static_cast<int32>(p->nBlockSize);
  pStats->nMaxQueues = static_cast<int32>(p->nMaxQueues);
  pStats->nQueuesInUse = h->nQueuesInUse;
  pStats->nAttached = h->nAttached;
  unlock(p);
  return 0;
}

}  // extern "C"
