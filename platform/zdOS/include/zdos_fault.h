/* Fault injection for the positioned file operations of zdOS, for tests.
 *
 * Counts every os_file_seek_read and os_file_seek_write of the process and,
 * when armed, makes the N-th matching call fail with a chosen errno. A write
 * may first store part of its bytes (a torn write). In sticky mode every
 * matching call after the N-th fails too, which is what a process killed at
 * that moment looks like from the file's point of view: reopen the file to
 * see what survived. Not meant for production use; harmless when disarmed
 * (one relaxed atomic increment per call). */
#ifndef PLATFORM_ZDOS_INCLUDE_ZDOS_FAULT_H_
#define PLATFORM_ZDOS_INCLUDE_ZDOS_FAULT_H_

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  OS_FAULT_READ = 1,
  OS_FAULT_WRITE = 2,
  OS_FAULT_ANY = OS_FAULT_READ | OS_FAULT_WRITE
};

typedef struct {
  int32 nOps;          /* OS_FAULT_READ, OS_FAULT_WRITE or OS_FAULT_ANY */
  int64 nNth;          /* 1-based index among matching calls counted from arming */
  int32 nErrno;        /* status the failing call returns (e.g. EIO, ENOSPC) */
  int32 nPartialBytes; /* writes only: bytes stored before failing (0 = none) */
  int32 bSticky;       /* non-zero: every matching call after the N-th fails too */
} OsFaultPlan;

/* Arms a plan and restarts the counts. */
void os_fault_arm(const OsFaultPlan* pPlan);
/* Disarms and restarts the counts. */
void os_fault_disarm(void);
/* Matching calls counted since the last arm/disarm (e.g. to learn how many
 * writes an operation makes, then fail each in turn). */
int64 os_fault_count(int32 nOps);
/* Non-zero once the armed fault has fired. */
int32 os_fault_fired(void);

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* PLATFORM_ZDOS_INCLUDE_ZDOS_FAULT_H_ */
