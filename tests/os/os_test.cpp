// The OS layer's contracts that the cache file and the service rely on.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "zdos.h"
#include "zdos_fault.h"

namespace {

class TempDir {
 public:
  TempDir() {
    char szTemplate[] = "/tmp/zdos_test_XXXXXX";
    m_strPath = mkdtemp(szTemplate);
  }
  ~TempDir() { (void)system(("rm -rf " + m_strPath).c_str()); }
  std::string Path(const std::string& strName) const { return m_strPath + "/" + strName; }

 private:
  std::string m_strPath;
};

TEST(OsMutex, IsRecursive) {
  MutexHandle hMutex = nullptr;
  ASSERT_EQ(0, os_mutex_init(&hMutex));
  ASSERT_EQ(0, pthread_mutex_lock(hMutex));
  ASSERT_EQ(0, pthread_mutex_lock(hMutex));  // a plain mutex would deadlock here
  EXPECT_EQ(0, pthread_mutex_unlock(hMutex));
  EXPECT_EQ(0, pthread_mutex_unlock(hMutex));
  EXPECT_EQ(0, os_mutex_destroy(hMutex));
  EXPECT_EQ(0, os_mutex_destroy(nullptr));
}

int32 ThreadBody(void* pParam) { return *static_cast<int32*>(pParam) + 1; }

TEST(OsThread, JoinReturnsResultAndRefusesNull) {
  int32 nParam = 41, nResult = 0;
  ThreadHandle hThread = nullptr;
  ASSERT_EQ(0, os_thread_create(&hThread, ThreadBody, &nParam));
  ASSERT_EQ(0, os_thread_join_result(hThread, &nResult));
  EXPECT_EQ(42, nResult);
  EXPECT_EQ(OS_EINVAL_ARG, os_thread_join(nullptr));
}

TEST(OsFile, CreatedPrivateAndCloseOnExec) {
  TempDir dir;
  mode_t oldMask = umask(022);
  HANDLE hFile = -1;
  ASSERT_EQ(0, os_file_open(dir.Path("f").c_str(), O_RDWR | O_CREAT, &hFile));
  umask(oldMask);
  struct stat st;
  ASSERT_EQ(0, fstat(hFile, &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  EXPECT_TRUE(fcntl(hFile, F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(0, os_file_close(hFile));
  EXPECT_EQ(0, os_file_access(dir.Path("f").c_str(), 0));
  EXPECT_EQ(ENOENT, os_file_access(dir.Path("missing").c_str(), 0));
  EXPECT_EQ(ENOENT, os_file_open(dir.Path("missing").c_str(), O_RDWR, &hFile));
}

TEST(OsFile, ReadPastEndZeroFillsAndReportsBytesRead) {
  TempDir dir;
  HANDLE hFile = -1;
  ASSERT_EQ(0, os_file_open(dir.Path("f").c_str(), O_RDWR | O_CREAT, &hFile));
  const char kData[] = "abcdef";
  int32 nDone = -1;
  ASSERT_EQ(0, os_file_seek_write(hFile, 4, kData, 6, &nDone));
  EXPECT_EQ(6, nDone);
  int64 nSize = 0;
  ASSERT_EQ(0, os_file_get_size(hFile, &nSize));
  EXPECT_EQ(10, nSize);

  std::vector<char> buf(16, 'x');
  ASSERT_EQ(0, os_file_seek_read(hFile, 2, buf.data(), 16, &nDone));
  EXPECT_EQ(8, nDone);  // bytes 2..9 exist
  EXPECT_EQ(std::string("\0\0abcdef", 8), std::string(buf.data(), 8));
  EXPECT_EQ(std::string(8, '\0'), std::string(buf.data() + 8, 8));

  ASSERT_EQ(0, os_file_seek_read(hFile, 1000, buf.data(), 4, &nDone));  // wholly past the end
  EXPECT_EQ(0, nDone);
  EXPECT_EQ(std::string(4, '\0'), std::string(buf.data(), 4));
  EXPECT_EQ(0, os_file_close(hFile));
}

TEST(OsFile, FaultHookFailsTheNthCallTearsAndSticks) {
  TempDir dir;
  HANDLE hFile = -1;
  ASSERT_EQ(0, os_file_open(dir.Path("f").c_str(), O_RDWR | O_CREAT, &hFile));
  const char kData[8] = {'1', '2', '3', '4', '5', '6', '7', '8'};

  OsFaultPlan plan = {OS_FAULT_WRITE, 2, ENOSPC, 3, 0};
  os_fault_arm(&plan);
  EXPECT_EQ(0, os_file_seek_write(hFile, 0, kData, 8, nullptr));
  int32 nDone = -1;
  EXPECT_EQ(ENOSPC, os_file_seek_write(hFile, 8, kData, 8, &nDone));  // torn: 3 bytes land
  EXPECT_EQ(3, nDone);
  EXPECT_TRUE(os_fault_fired());
  EXPECT_EQ(0, os_file_seek_write(hFile, 16, kData, 8, nullptr));  // one-shot
  char buf[24];
  EXPECT_EQ(0, os_file_seek_read(hFile, 0, buf, 24, &nDone));  // reads are not counted
  EXPECT_EQ(std::string("12345678123"), std::string(buf, 11));
  EXPECT_EQ(3, os_fault_count(OS_FAULT_WRITE));
  EXPECT_EQ(1, os_fault_count(OS_FAULT_READ));

  plan = {OS_FAULT_ANY, 1, EIO, 0, 1};  // a "killed" process: nothing gets through
  os_fault_arm(&plan);
  EXPECT_EQ(EIO, os_file_seek_read(hFile, 0, buf, 4, nullptr));
  EXPECT_EQ(EIO, os_file_seek_write(hFile, 0, kData, 4, nullptr));
  os_fault_disarm();
  EXPECT_EQ(0, os_file_seek_read(hFile, 0, buf, 4, nullptr));
  EXPECT_EQ('1', buf[0]);  // the sticky write did not land
  EXPECT_EQ(0, os_file_close(hFile));
}

TEST(OsDir, CreatesParentsAndAcceptsExisting) {
  TempDir dir;
  std::string strDeep = dir.Path("a/b/c/");
  EXPECT_EQ(0, os_dir_create(strDeep.c_str()));
  EXPECT_EQ(0, os_dir_create(strDeep.c_str()));
  struct stat st;
  ASSERT_EQ(0, stat(dir.Path("a/b/c").c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  HANDLE hFile = -1;
  ASSERT_EQ(0, os_file_open(dir.Path("file").c_str(), O_RDWR | O_CREAT, &hFile));
  os_file_close(hFile);
  EXPECT_NE(0, os_dir_create(dir.Path("file").c_str()));
  EXPECT_NE(0, os_dir_create(dir.Path("file/sub").c_str()));
}

// The single-instance guard across processes, as two services would use it.
class OsSemaTest : public ::testing::Test {
 protected:
  std::string m_strName = "zdos_test_guard_" + std::to_string(getpid());
  void TearDown() override { unlink(("/dev/shm/" + m_strName + ".lock").c_str()); }

  // Forks a holder that takes the guard, reports through a pipe and waits.
  pid_t StartHolder() {
    int fds[2];
    EXPECT_EQ(0, pipe(fds));
    pid_t pid = fork();
    if (pid == 0) {
      SemaHandle hSema = -1;
      char c = (os_proc_sema_init(m_strName.c_str(), 1, &hSema) == 0 &&
                os_proc_sema_tryacquire(hSema) == 0) ? 'y' : 'n';
      (void)!write(fds[1], &c, 1);
      pause();
      _exit(0);
    }
    close(fds[1]);
    char c = 0;
    EXPECT_EQ(1, read(fds[0], &c, 1));
    close(fds[0]);
    EXPECT_EQ('y', c);
    return pid;
  }
};

TEST_F(OsSemaTest, SecondHolderRefusedUntilFirstIsKilled) {
  pid_t pid = StartHolder();
  SemaHandle hSema = -1;
  ASSERT_EQ(0, os_proc_sema_init(m_strName.c_str(), 1, &hSema));
  EXPECT_EQ(OS_ESEMA_BUSY, os_proc_sema_tryacquire(hSema));

  // Closing our refused handle must not free the holder's guard.
  EXPECT_EQ(0, os_proc_sema_destroy(hSema));
  ASSERT_EQ(0, os_proc_sema_init(m_strName.c_str(), 1, &hSema));
  EXPECT_EQ(OS_ESEMA_BUSY, os_proc_sema_tryacquire(hSema));

  kill(pid, SIGKILL);  // the kernel releases the guard of a dead holder
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(0, os_proc_sema_tryacquire(hSema));
  EXPECT_EQ(0, os_proc_sema_release(hSema));
  EXPECT_EQ(0, os_proc_sema_destroy(hSema));
}

TEST_F(OsSemaTest, TwoHandlesInOneProcessExcludeEachOther) {
  SemaHandle hFirst = -1, hSecond = -1;
  ASSERT_EQ(0, os_proc_sema_init(m_strName.c_str(), 1, &hFirst));
  ASSERT_EQ(0, os_proc_sema_init(m_strName.c_str(), 1, &hSecond));
  EXPECT_EQ(0, os_proc_sema_tryacquire(hFirst));
  EXPECT_EQ(OS_ESEMA_BUSY, os_proc_sema_tryacquire(hSecond));
  EXPECT_EQ(0, os_proc_sema_release(hFirst));
  EXPECT_EQ(0, os_proc_sema_tryacquire(hSecond));
  os_proc_sema_destroy(hFirst);
  os_proc_sema_destroy(hSecond);
  EXPECT_EQ(OS_EINVAL_ARG, os_proc_sema_init(m_strName.c_str(), 2, &hFirst));
}

TEST(OsMisc, AddressesTimeAndConversion) {
  uint32 nIP = 0;
  ASSERT_EQ(0, os_network_ip2int("10.0.0.5", &nIP));
  const uint8* pBytes = reinterpret_cast<const uint8*>(&nIP);
  EXPECT_EQ(10, pBytes[0]);  // network order: first octet first in memory
  EXPECT_EQ(5, pBytes[3]);
  EXPECT_EQ(OS_EBAD_ADDRESS, os_network_ip2int("10.0.0.256", &nIP));
  EXPECT_EQ(OS_EBAD_ADDRESS, os_network_ip2int("", &nIP));

  struct timeval later = {10, 100}, earlier = {8, 900000}, diff;
  ASSERT_EQ(0, os_timevalue_sub(&diff, &later, &earlier));
  EXPECT_EQ(1, diff.tv_sec);
  EXPECT_EQ(100100, diff.tv_usec);

  char szOut[8];
  memset(szOut, 'x', sizeof(szOut));
  EXPECT_EQ(0, os_lang_conv_utf8_to_sys("/var/c", szOut, 7));
  EXPECT_STREQ("/var/c", szOut);
  memset(szOut, 'x', sizeof(szOut));
  EXPECT_EQ(OS_EBUF_SMALL, os_lang_conv_utf8_to_sys("/var/ca", szOut, 7));
  EXPECT_EQ('x', szOut[7]);  // nothing written past the buffer
}

}  // namespace
