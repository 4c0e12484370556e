/* zdProcComm: numbered message queues in a named shared-memory instance,
 * shared by the buffer service and its collector processes.
 *
 * An instance is one POSIX shared-memory object of a fixed size holding a
 * header, a table of queues and a pool of equal-sized blocks. A message is a
 * chain of blocks; sending copies it into the pool and returns at once,
 * receiving copies it out and gives the blocks back. Memory never grows past
 * the size given to the creator and nothing is allocated per message outside
 * the instance. The layout, locking and crash recovery are described in
 * docs/proccomm.md.
 *
 * Life cycle:
 *  - proccomm_init creates the instance, or attaches to it when a live
 *    creator holds it. An instance whose creator died (even by SIGKILL) is
 *    stale: the next proccomm_init marks it gone, removes it and creates a
 *    fresh one. Attachers take the geometry of the existing instance; their
 *    own size arguments are only checked for range.
 *  - proccomm_release detaches. When the creator releases, the instance is
 *    marked gone and removed from the name space; the other attachers then
 *    get EC_RD_PROCCOMM_GONE from send, recv and reg, and should release and
 *    attach again (collectors: proccomm_attach), then re-announce. A creator that died without releasing is noticed
 *    by senders and receivers within about 100 ms.
 *  - A handle is not inherited across fork(): a child calls proccomm_init.
 *    Queue handles must be unregistered before their instance is released.
 *
 * Permissions: the shared-memory object is created with mode 0600. To let a
 * group attach, set the environment variable ZD_PROCCOMM_MODE to an octal
 * mode (e.g. "0660") or call proccomm_set_create_mode before the creator's
 * proccomm_init. Only read/write bits of owner, group and others are used.
 *
 * Thread safety: every call may be made from any thread of any attached
 * process. Several threads may send to and receive from the same queue.
 *
 * Statuses: 0 for success, otherwise one of the EC_RD_PROCCOMM_* codes. */
#ifndef PLATFORM_ZDPROCCOMM_INCLUDE_PROCCOMM_H_
#define PLATFORM_ZDPROCCOMM_INCLUDE_PROCCOMM_H_

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct proccomm_instance* ProcCommHandle;   /* null: none */
typedef struct proccomm_queue* ProcCommQueueHandle; /* null: none */

enum {
  /* null handle or pointer, bad name, size, id, length or capacity */
  EC_RD_PROCCOMM_INVALID_ARG = 116101,
  /* message longer than PROCCOMM_MAX_MSG_LEN: refused */
  EC_RD_PROCCOMM_MSG_TOO_LARGE = 116102,
  /* the instance has no room for the message now: refused, nothing sent */
  EC_RD_PROCCOMM_NO_SPACE = 116103,
  /* every queue slot is in use */
  EC_RD_PROCCOMM_NO_QUEUE = 116104,
  /* the creator released the instance or died: release, init again, re-announce */
  EC_RD_PROCCOMM_GONE = 116105,
  /* a system call failed (proccomm_last_errno tells which) */
  EC_RD_PROCCOMM_SYSTEM = 116106,
  /* a waiting receive was ended by proccomm_recv_quit */
  EC_RD_PROCCOMM_RECV_QUIT = 116107,
  /* a waiting receive timed out */
  EC_RD_PROCCOMM_RECV_TIMEOUT = 116108,
  /* a live instance of that name has another layout version */
  EC_RD_PROCCOMM_INCOMPATIBLE = 116109,
  /* too many processes attached (PROCCOMM_MAX_ATTACH) */
  EC_RD_PROCCOMM_NO_SLOT = 116110,
  /* unreg with an id or instance that do not match the queue handle */
  EC_RD_PROCCOMM_NOT_REGISTERED = 116111
};

enum {
  PROCCOMM_MAX_MSG_LEN = 1048576, /* bytes; longer messages are refused */
  PROCCOMM_MAX_ATTACH = 128,      /* processes (proccomm_init calls) attached at once */
  PROCCOMM_CONTROL_QUEUE = 1      /* the service's control queue */
};

#define PROCCOMM_WAIT_FOREVER 0xFFFFFFFFu /* nTimeoutMs of proccomm_recv */

/* Creates or attaches to the instance szName (letters, digits, '_', '-',
 * '.'; at most 200 characters; '/' is mapped to '_'). nMemSizeMb: total
 * size of the shared memory in MiB (1..65536); nBlockSize: bytes per block
 * of the message pool (256..1048576, a multiple of 64); nMaxQueues: the
 * greatest number of queues alive at once (2..65536). */
int32 proccomm_init(const char* szName, int32 nMemSizeMb, int32 nBlockSize, int32 nMaxQueues,
                    ProcCommHandle* phOut);
/* Attaches to the live instance szName, never creating one: for collectors,
 * so that one started before the service does not become the creator (and
 * take the instance away when it exits). EC_RD_PROCCOMM_GONE when there is
 * no instance or only a stale one (retry later). */
int32 proccomm_attach(const char* szName, ProcCommHandle* phOut);

/* Detaches and frees the handle; the creator also removes the instance. */
int32 proccomm_release(ProcCommHandle h);

/* Attaches to queue nQueueId (>= 1), creating it when new. Each successful
 * reg returns its own handle (with its own quit latch) and must be matched
 * by one unreg. A queue disappears when its last handle is unregistered and
 * it holds no message; until then its id is in use. The registrations of a
 * process that dies are dropped. When the table is full, a new queue takes
 * the place of a queue that nobody has registered (its messages are
 * dropped and counted in ProcCommStats.nEvictedQueues). */
int32 proccomm_reg(ProcCommHandle h, int32 nQueueId, ProcCommQueueHandle* phQueue);
int32 proccomm_unreg(ProcCommHandle h, int32 nQueueId, ProcCommQueueHandle hQueue);

/* Receives the oldest message of the queue into pBuf. *pnLen: capacity in,
 * bytes received out (0 on any non-zero status).
 * - bWait == 0: returns at once; 0 with *pnLen == 0 when the queue is empty.
 * - bWait != 0: sleeps until a message arrives (0), nTimeoutMs passes
 *   (EC_RD_PROCCOMM_RECV_TIMEOUT; PROCCOMM_WAIT_FOREVER: no limit) or
 *   proccomm_recv_quit is called on this handle (EC_RD_PROCCOMM_RECV_QUIT).
 *   The quit is latched: every later waiting receive on the handle returns
 *   it at once. A receive without wait ignores the latch.
 * A message longer than the capacity is cut: status 0, *pnLen == capacity,
 * the rest is dropped and counted in ProcCommStats.nCutMessages. */
int32 proccomm_recv(ProcCommQueueHandle hQueue, char* pBuf, int32* pnLen, int32 bWait,
                    uint32 nTimeoutMs);
/* Latches quit on the handle and wakes its waiting receive. Meant to be
 * called from another thread; may come before, during or after a wait. */
int32 proccomm_recv_quit(ProcCommQueueHandle hQueue);

/* Copies one message (1..PROCCOMM_MAX_MSG_LEN bytes) into the queue and
 * returns without waiting for a receiver. All or nothing: a message that
 * does not fit the free memory now is refused with EC_RD_PROCCOMM_NO_SPACE,
 * a longer one with EC_RD_PROCCOMM_MSG_TOO_LARGE. */
int32 proccomm_send(ProcCommQueueHandle hQueue, const char* pBuf, int32 nLen);

/* The smallest queue id > 1 that no queue uses, or EC_RD_PROCCOMM_NO_QUEUE
 * when the queue table is full of registered queues. */
int32 proccomm_get_unused_queueid(ProcCommHandle h, int32* pnQueueId);

/* The free share of the message pool, 0.0..1.0 (-1.0 for a null handle). */
float64 proccomm_get_unused_block_percent(ProcCommHandle h);

/* Counters of the instance (shared by every attached process). */
typedef struct ProcCommStats {
  uint64 nSent;            /* messages accepted by send */
  uint64 nReceived;        /* messages handed to a receiver */
  uint64 nCutMessages;     /* messages cut to the receiver's capacity */
  uint64 nRefusedNoSpace;  /* sends refused with EC_RD_PROCCOMM_NO_SPACE */
  uint64 nRefusedTooLarge; /* sends refused with EC_RD_PROCCOMM_MSG_TOO_LARGE */
  uint64 nRecoveries;      /* repairs after a process died holding the lock */
  uint64 nReclaimedBlocks; /* blocks taken back from dead processes */
  uint64 nEvictedQueues;   /* unregistered queues dropped, with their messages, for a new one */
  uint32 nTotalBlocks;     /* blocks in the pool */
  uint32 nFreeBlocks;      /* blocks free now */
  int32 nBlockSize;        /* bytes per block */
  int32 nMaxQueues;        /* queue table size */
  int32 nQueuesInUse;      /* queues alive now */
  int32 nAttached;         /* processes attached now */
} ProcCommStats;

int32 proccomm_get_stats(ProcCommHandle h, ProcCommStats* pStats);

/* The mode given to instances this process creates from now on (see
 * Permissions above); overrides ZD_PROCCOMM_MODE. */
int32 proccomm_set_create_mode(uint32 nMode);

/* The errno of the last EC_RD_PROCCOMM_SYSTEM returned on this thread. */
int32 proccomm_last_errno(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* PLATFORM_ZDPROCCOMM_INCLUDE_PROCCOMM_H_ */
