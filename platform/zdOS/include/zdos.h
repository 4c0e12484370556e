/* zdOS: the operating-system layer, a thin and honest wrapper of POSIX.
 *
 * Status convention: every call returns an int32, 0 for success, otherwise a
 * positive status. Failures of a system call return its errno value
 * unchanged (EINTR is retried internally and never returned); failures that
 * have no errno use the OS_E* codes below. Callers pass the status upward
 * unchanged. */
#ifndef PLATFORM_ZDOS_INCLUDE_ZDOS_H_
#define PLATFORM_ZDOS_INCLUDE_ZDOS_H_

#include <pthread.h>
#include <sys/time.h>

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses without an errno of their own (above every errno value). */
enum {
  OS_EINVAL_ARG = 10001,   /* a null pointer or an impossible argument */
  OS_EBUF_SMALL = 10002,   /* an output buffer is too small for the result */
  OS_EBAD_ADDRESS = 10003, /* text is not an IPv4 dotted-decimal address */
  OS_ESEMA_BUSY = 10004    /* the process semaphore is held by another holder */
};

/* ---- Threads ---------------------------------------------------------- */

/* A thread body takes its parameter and returns an int32 status. */
typedef int32 (*OS_THREAD_FUNC)(void* pParam);
typedef struct os_thread* ThreadHandle; /* null: no thread */

/* Starts fn(pParam) on a new joinable thread. */
int32 os_thread_create(ThreadHandle* phThread, OS_THREAD_FUNC fn, void* pParam);
/* Waits for the thread to end and releases its handle. Returns the join's
 * status (0), not the thread's result; *pnResult, when not null, receives the
 * thread's result. A null handle returns OS_EINVAL_ARG at once. */
int32 os_thread_join_result(ThreadHandle hThread, int32* pnResult);
int32 os_thread_join(ThreadHandle hThread);

/* ---- Mutexes ---------------------------------------------------------- */

/* A pointer to a POSIX mutex, locked with pthread_mutex_lock/unlock.
 * Mutexes made here are RECURSIVE: the owner may lock again and must unlock
 * as often. Null means not created. */
typedef pthread_mutex_t* MutexHandle;

int32 os_mutex_init(MutexHandle* phMutex);
/* Destroys and frees the mutex; a null handle is ignored. */
int32 os_mutex_destroy(MutexHandle hMutex);

/* ---- Process semaphores (single-instance guard) ----------------------- */

/* A file descriptor of a lock file in /dev/shm ("<name>.lock", mode 0600)
 * locked with flock(2). The kernel drops the lock when its holder dies, even
 * by SIGKILL, so a crashed holder never blocks the next start. -1: none. */
typedef int32 SemaHandle;

/* Opens (creating if needed) the named guard. Only a count of 1 is
 * supported: the guard is held by one holder at a time. */
int32 os_proc_sema_init(const char* szName, int32 nInitCount, SemaHandle* phSema);
/* Takes the guard without waiting; OS_ESEMA_BUSY when another open handle,
 * in this or another process, holds it. */
int32 os_proc_sema_tryacquire(SemaHandle hSema);
int32 os_proc_sema_release(SemaHandle hSema);
/* Closes this process's handle only; the lock file stays for other holders. */
int32 os_proc_sema_destroy(SemaHandle hSema);

/* ---- Files ------------------------------------------------------------ */

typedef int32 HANDLE; /* a file descriptor; -1: no file */

/* 0 when access(2) grants nMode (0 = the file exists). */
int32 os_file_access(const char* szPath, int32 nMode);
/* Opens with the POSIX flags given, plus O_CLOEXEC; a created file gets mode
 * 0600, since the cache file holds a password. */
int32 os_file_open(const char* szPath, int32 nFlags, HANDLE* phFile);
int32 os_file_get_size(HANDLE hFile, int64* pnSize);
/* Positioned read of nLen bytes at nOffset; loops over EINTR and short
 * counts. Bytes past the end of the file read as zeros (as in a sparse file)
 * and *pnDone reports the bytes actually read from the file. */
int32 os_file_seek_read(HANDLE hFile, int64 nOffset, void* pBuf, int32 nLen, int32* pnDone);
/* Positioned write of all nLen bytes at nOffset; loops over EINTR and short
 * counts. *pnDone (may be null) reports the bytes written. */
int32 os_file_seek_write(HANDLE hFile, int64 nOffset, const void* pBuf, int32 nLen, int32* pnDone);
int32 os_file_close(HANDLE hFile);

/* Creates the directory and any missing parents; an existing directory is
 * success. A trailing '/' is allowed. */
int32 os_dir_create(const char* szPath);

/* ---- Time ------------------------------------------------------------- */

/* Wall-clock time as seconds and milliseconds since the epoch. */
int32 os_get_curr_time_sec_and_msec(uint32* pnSec, uint16* pnMsec);
/* Wall-clock time with microseconds. */
int32 os_gettimeofday_high_res(struct timeval* pTime);
/* *pResult = *pLater - *pEarlier, normalised (0 <= tv_usec < 1,000,000). */
int32 os_timevalue_sub(struct timeval* pResult, const struct timeval* pLater,
                       const struct timeval* pEarlier);
/* Sleeps nMs milliseconds (resumes after signals). */
int32 os_sleep(int32 nMs);

/* ---- Network and text ------------------------------------------------- */

/* IPv4 dotted-decimal text to the 32-bit address in network byte order, as
 * inet_pton stores it. OS_EBAD_ADDRESS for any other text. */
int32 os_network_ip2int(const char* szIP, uint32* pnIP);

/* Converts UTF-8 text into the encoding of the current locale with iconv (a
 * plain copy when that is UTF-8, or the C locale, where names are bytes). The result and its terminator must fit
 * nOutSize bytes, else OS_EBUF_SMALL and nothing past the buffer is written;
 * unconvertible text gives EILSEQ. */
int32 os_lang_conv_utf8_to_sys(const char* szUtf8, char* szOut, int32 nOutSize);

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* PLATFORM_ZDOS_INCLUDE_ZDOS_H_ */
