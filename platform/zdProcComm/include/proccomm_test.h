/* Test hooks of zdProcComm: a function called at fixed points inside a send
 * or a receive, so a test can stop or kill a process exactly there. Not for
 * production use; the hook is process-wide and null by default. */
#ifndef PLATFORM_ZDPROCCOMM_INCLUDE_PROCCOMM_TEST_H_
#define PLATFORM_ZDPROCCOMM_INCLUDE_PROCCOMM_TEST_H_

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  PROCCOMM_HOOK_SEND_LOCKED =
      1,                       /* small send: blocks taken and filled, lock held, not yet queued */
  PROCCOMM_HOOK_SEND_COPY = 2, /* large send: blocks reserved, copying without the lock */
  PROCCOMM_HOOK_RECV_LOCKED = 3, /* small receive: message taken off the queue, lock held */
  PROCCOMM_HOOK_RECV_COPY = 4    /* large receive: message reserved, copying without the lock */
};

typedef void (*ProcCommTestHook)(int32 nPoint);

/* Installs fn (null removes it). */
void proccomm_test_set_hook(ProcCommTestHook fn);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* PLATFORM_ZDPROCCOMM_INCLUDE_PROCCOMM_TEST_H_ */
