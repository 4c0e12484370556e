// Threads and recursive mutexes on pthreads.
#include "zdos.h"

#include <errno.h>
#include <stdlib.h>

struct os_thread {
  pthread_t tid;
  OS_THREAD_FUNC fn;
  void* pParam;
  int32 nResult;
};

static void* ThreadTrampoline(void* pArg) {
  os_thread* pThread = static_cast<os_thread*>(pArg);
  pThread->nResult = pThread->fn(pThread->pParam);
  return nullptr;
}

int32 os_thread_create(ThreadHandle* phThread, OS_THREAD_FUNC fn, void* pParam) {
  if (phThread == nullptr || fn == nullptr) return OS_EINVAL_ARG;
  os_thread* pThread = static_cast<os_thread*>(calloc(1, sizeof(os_thread)));
  if (pThread == nullptr) return ENOMEM;
  pThread->fn = fn;
  pThread->pParam = pParam;
  int nRet = pthread_create(&pThread->tid, nullptr, ThreadTrampoline, pThread);
  if (nRet != 0) {
    free(pThread);
    return nRet;
  }
  *phThread = pThread;
  return 0;
}

int32 os_thread_join_result(ThreadHandle hThread, int32* pnResult) {
  if (hThread == nullptr) return OS_EINVAL_ARG;
  int nRet = pthread_join(hThread->tid, nullptr);
  if (nRet != 0) return nRet;
  if (pnResult != nullptr) *pnResult = hThread->nResult;
  free(hThread);
  return 0;
}

int32 os_thread_join(ThreadHandle hThread) { return os_thread_join_result(hThread, nullptr); }

int32 os_mutex_init(MutexHandle* phMutex) {
  if (phMutex == nullptr) return OS_EINVAL_ARG;
  pthread_mutex_t* pMutex = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t)));
  if (pMutex == nullptr) return ENOMEM;
  pthread_mutexattr_t attr;
  int nRet = pthread_mutexattr_init(&attr);
  if (nRet == 0) nRet = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  if (nRet == 0) nRet = pthread_mutex_init(pMutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (nRet != 0) {
    free(pMutex);
    return nRet;
  }
  *phMutex = pMutex;
  return 0;
}

int32 os_mutex_destroy(MutexHandle hMutex) {
  if (hMutex == nullptr) return 0;
  int nRet = pthread_mutex_destroy(hMutex);
  free(hMutex);
  return nRet;
}
