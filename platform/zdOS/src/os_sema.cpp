// The single-instance guard: an flock(2) on a lock file in /dev/shm.
//
// Why flock: the kernel releases it when the holder's last descriptor closes,
// including when the process is killed, so a crashed service never locks out
// its successor; and a lock taken through one open file description refuses
// every other description, in this process or another.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include "zdos.h"

static const char kLockDir[] = "/dev/shm/";

int32 os_proc_sema_init(const char* szName, int32 nInitCount, SemaHandle* phSema) {
  if (szName == nullptr || szName[0] == '\0' || phSema == nullptr || nInitCount != 1)
    return OS_EINVAL_ARG;
  char szPath[512];
  // A '/' in the name would point elsewhere in the file system: map it away.
  int nLen = snprintf(szPath, sizeof(szPath), "%s%s.lock", kLockDir, szName);
  if (nLen < 0 || nLen >= static_cast<int>(sizeof(szPath))) return OS_EBUF_SMALL;
  for (char* p = szPath + sizeof(kLockDir) - 1; *p != '\0'; ++p)
    if (*p == '/') *p = '_';
  int fd;
  do {
    fd = open(szPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  *phSema = fd;
  return 0;
}

int32 os_proc_sema_tryacquire(SemaHandle hSema) {
  if (hSema < 0) return OS_EINVAL_ARG;
  int nRet;
  do {
    nRet = flock(hSema, LOCK_EX | LOCK_NB);
  } while (nRet != 0 && errno == EINTR);
  if (nRet == 0) return 0;
  return errno == EWOULDBLOCK ? OS_ESEMA_BUSY : errno;
}

int32 os_proc_sema_release(SemaHandle hSema) {
  if (hSema < 0) return OS_EINVAL_ARG;
  return flock(hSema, LOCK_UN) == 0 ? 0 : errno;
}

int32 os_proc_sema_destroy(SemaHandle hSema) {
  if (hSema < 0) return OS_EINVAL_ARG;
  return close(hSema) == 0 ? 0 : errno;
}
