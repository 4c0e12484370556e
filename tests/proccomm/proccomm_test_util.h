// Helpers shared by the zdProcComm tests: unique instance names, message
// patterns and forked children with a bounded wait.
#ifndef TESTS_PROCCOMM_PROCCOMM_TEST_UTIL_H_
#define TESTS_PROCCOMM_PROCCOMM_TEST_UTIL_H_

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "proccomm.h"

namespace pctest {

// Names differ per process and per call, so tests of several build trees
// may run at once.
inline std::string UniqueName(const char* szTag) {
  static std::atomic<int> s_nSeq{0};
  return "t" + std::to_string(getpid()) + "_" + szTag + "_" + std::to_string(s_nSeq++);
}

// Bytes of message nSeq; differ in every position and between messages.
inline void FillPattern(char* pBuf, int32 nLen, uint32 nSeq) {
  uint32 x = nSeq * 2654435761u + 1;
  for (int32 i = 0; i < nLen; ++i) {
    x = x * 1103515245u + 12345u;
    pBuf[i] = static_cast<char>(x >> 16);
  }
}

inline bool CheckPattern(const char* pBuf, int32 nLen, uint32 nSeq) {
  std::vector<char> expect(static_cast<size_t>(nLen));
  FillPattern(expect.data(), nLen, nSeq);
  return nLen == 0 || memcmp(expect.data(), pBuf, static_cast<size_t>(nLen)) == 0;
}

inline int32 SizeOf(uint32 nSeq) {
  // Mostly small, with regular large ones crossing block and copy limits.
  if (nSeq % 97 == 0) return 300000 + static_cast<int32>(nSeq % 7) * 1000;
  if (nSeq % 13 == 0) return 16385 + static_cast<int32>(nSeq % 5000);
  return 1 + static_cast<int32>((nSeq * 37) % 5000);
}

// Sends nCount numbered messages, retrying while memory is full.
inline int SendNumbered(ProcCommQueueHandle hQ, uint32 nFrom, uint32 nCount) {
  std::vector<char> buf(PROCCOMM_MAX_MSG_LEN);
  for (uint32 nSeq = nFrom; nSeq < nFrom + nCount; ++nSeq) {
    int32 nLen = SizeOf(nSeq);
    memcpy(buf.data(), &nSeq, 4);
    FillPattern(buf.data() + 4, nLen - 4 > 0 ? nLen - 4 : 0, nSeq);
    int32 nRet;
    for (int nTry = 0;
         (nRet = proccomm_send(hQ, buf.data(), nLen < 4 ? 4 : nLen)) == EC_RD_PROCCOMM_NO_SPACE;
         ++nTry) {
      if (nTry > 200000) return 10;
      usleep(50);
    }
    if (nRet != 0) return 11;
  }
  return 0;
}

// Runs fn in a forked child; the child's exit status is fn's result.
inline pid_t Spawn(const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

// Waits up to nTimeoutMs for the child; kills it when it overstays.
// Returns its exit status, 128 + signal when killed by one, -1 on timeout.
inline int WaitChild(pid_t pid, int nTimeoutMs = 8000) {
  int nStatus = 0;
  for (int nWaited = 0; nWaited < nTimeoutMs; nWaited += 2) {
    pid_t r = waitpid(pid, &nStatus, WNOHANG);
    if (r == pid) {
      if (WIFEXITED(nStatus)) return WEXITSTATUS(nStatus);
      if (WIFSIGNALED(nStatus)) return 128 + WTERMSIG(nStatus);
      return -1;
    }
    usleep(2000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, &nStatus, 0);
  return -1;
}

struct CPipe {
  int fd[2] = {-1, -1};
  CPipe() {
    if (pipe(fd) != 0) fd[0] = fd[1] = -1;
  }
  ~CPipe() {
    if (fd[0] >= 0) close(fd[0]);
    if (fd[1] >= 0) close(fd[1]);
  }
  CPipe(const CPipe&) = delete;
  CPipe& operator=(const CPipe&) = delete;
  void Signal() const {
    char c = 'x';
    (void)!write(fd[1], &c, 1);
  }
  // Waits for one signal; false after nTimeoutMs.
  bool Wait(int nTimeoutMs = 5000) const;
};

}  // namespace pctest

#include <poll.h>

inline bool pctest::CPipe::Wait(int nTimeoutMs) const {
  struct pollfd pfd = {fd[0], POLLIN, 0};
  if (poll(&pfd, 1, nTimeoutMs) != 1) return false;
  char c;
  return read(fd[0], &c, 1) == 1;
}

#endif  // TESTS_PROCCOMM_PROCCOMM_TEST_UTIL_H_
