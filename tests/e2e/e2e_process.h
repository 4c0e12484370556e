// Child processes for the end-to-end and tool tests: spawn a program with
// its output in files, feed its standard input, wait with a bound, signal
// it; scratch directories; polling helpers. Every child still running when
// its CProcess is destroyed is killed, so a failing test leaves nothing.
#ifndef TESTS_E2E_E2E_PROCESS_H_
#define TESTS_E2E_E2E_PROCESS_H_

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace e2e {

inline int64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

inline std::string ReadFile(const std::string& szPath) {
  std::ifstream in(szPath, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void WriteFile(const std::string& szPath, const std::string& szText) {
  std::ofstream out(szPath, std::ios::binary | std::ios::trunc);
  out << szText;
}

inline bool FileExists(const std::string& szPath) {
  struct stat st;
  return stat(szPath.c_str(), &st) == 0;
}

inline int64_t FileSize(const std::string& szPath) {
  struct stat st;
  return stat(szPath.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

// Polls pred every 10 ms for up to nTimeoutMs.
inline bool WaitFor(const std::function<bool()>& pred, int nTimeoutMs) {
  int64_t nEnd = NowMs() + nTimeoutMs;
  for (;;) {
    if (pred()) return true;
    if (NowMs() >= nEnd) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// A scratch directory, removed with its contents unless E2E_KEEP is set.
class CScratchDir {
 public:
  explicit CScratchDir(const char* szTag) {
    std::string szTmpl = std::string(getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp") +
                         "/zd_" + szTag + "_XXXXXX";
    std::vector<char> buf(szTmpl.begin(), szTmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) m_szPath = buf.data();
  }
  ~CScratchDir() {
    if (!m_szPath.empty() && getenv("E2E_KEEP") == nullptr)
      (void)!system(("rm -rf '" + m_szPath + "'").c_str());
  }
  CScratchDir(const CScratchDir&) = delete;
  CScratchDir& operator=(const CScratchDir&) = delete;
  const std::string& Path() const { return m_szPath; }
  std::string operator/(const std::string& szName) const { return m_szPath + "/" + szName; }

 private:
  std::string m_szPath;
};

class CProcess {
 public:
  CProcess() = default;
  ~CProcess() { Kill(SIGKILL); }
  CProcess(const CProcess&) = delete;
  CProcess& operator=(const CProcess&) = delete;

  // Starts argv[0] with stdout and stderr into the given files (appended),
  // in szCwd (empty: ours). bStdinPipe: standard input is a pipe that Write
  // feeds and CloseStdin closes; otherwise /dev/null.
  bool Start(const std::vector<std::string>& argv, const std::string& szOut,
             const std::string& szErr, const std::string& szCwd = "", bool bStdinPipe = false) {
    m_szOut = szOut;
    m_szErr = szErr;
    int fdIn[2] = {-1, -1};
    if (bStdinPipe && pipe2(fdIn, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (bStdinPipe)
      posix_spawn_file_actions_adddup2(&fa, fdIn[0], 0);
    else
      posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, szOut.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, szErr.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (!szCwd.empty()) posix_spawn_file_actions_addchdir_np(&fa, szCwd.c_str());
    std::vector<char*> args;
    for (const std::string& s : argv) args.push_back(const_cast<char*>(s.c_str()));
    args.push_back(nullptr);
    int r = posix_spawn(&m_pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (bStdinPipe) {
      close(fdIn[0]);
      m_fdStdin = fdIn[1];
    }
    if (r != 0) {
      m_pid = -1;
      CloseStdin();
      return false;
    }
    return true;
  }

  bool Write(const std::string& szText) {
    return m_fdStdin >= 0 &&
           write(m_fdStdin, szText.data(), szText.size()) == static_cast<ssize_t>(szText.size());
  }
  void CloseStdin() {
    if (m_fdStdin >= 0) close(m_fdStdin);
    m_fdStdin = -1;
  }

  // Exit status, 128 + signal when killed, -1 still running after nTimeoutMs
  // (left running), -2 never started.
  int Wait(int nTimeoutMs) {
    if (m_pid <= 0) return m_nStatus;
    int64_t nEnd = NowMs() + nTimeoutMs;
    for (;;) {
      int nStatus = 0;
      pid_t r = waitpid(m_pid, &nStatus, WNOHANG);
      if (r == m_pid) {
        m_nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
        m_pid = -1;
        CloseStdin();
        return m_nStatus;
      }
      if (NowMs() >= nEnd) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  bool Running() {
    if (m_pid <= 0) return false;
    return Wait(0) == -1;
  }
  void Signal(int nSig) {
    if (m_pid > 0) kill(m_pid, nSig);
  }
  // Kills (if still running) and reaps.
  void Kill(int nSig) {
    if (m_pid > 0) {
      kill(m_pid, nSig);
      Wait(10000);
    }
    CloseStdin();
  }
  pid_t Pid() const { return m_pid; }
  std::string Out() const { return ReadFile(m_szOut); }
  std::string Err() const { return ReadFile(m_szErr); }

 private:
  pid_t m_pid = -1;
  int m_nStatus = -2;
  int m_fdStdin = -1;
  std::string m_szOut;
  std::string m_szErr;
};

// Runs a program to its end (bounded); returns its exit status and leaves
// standard output in *pOut and standard error in *pErr.
inline int RunToEnd(const std::vector<std::string>& argv, const std::string& szDir, int nTimeoutMs,
                    std::string* pOut = nullptr, std::string* pErr = nullptr) {
  static int s_nSeq = 0;
  std::string szBase = szDir + "/run" + std::to_string(getpid()) + "_" + std::to_string(s_nSeq++);
  CProcess proc;
  if (!proc.Start(argv, szBase + ".out", szBase + ".err")) return -2;
  int nRet = proc.Wait(nTimeoutMs);
  if (nRet == -1) proc.Kill(SIGKILL);
  if (pOut != nullptr) *pOut = ReadFile(szBase + ".out");
  if (pErr != nullptr) *pErr = ReadFile(szBase + ".err");
  return nRet;
}

}  // namespace e2e

#endif  // TESTS_E2E_E2E_PROCESS_H_
