// zdBuffer: the service in the foreground of a console. Stops on "q" or "Q",
// or on SIGTERM / SIGINT (how a service manager stops it).
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "Buffer.h"
#include "zdos.h"

// Set by a termination signal; read by the main thread before every read of
// the console.
volatile sig_atomic_t g_bShouldExit = 0;

namespace {

// Written by the signal handler so that a console read waiting for a word
// wakes at once.
int g_nWakeFds[2] = {-1, -1};

void OnTerminate(int) {
  int nSavedErrno = errno;
  g_bShouldExit = 1;
  if (g_nWakeFds[1] >= 0) (void)!write(g_nWakeFds[1], "x", 1);
  errno = nSavedErrno;
}

// Only the main thread takes the termination signals: the service's threads
// start with them blocked (they inherit this mask), and main unblocks them.
void BlockTerminationSignals(int nHow) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(nHow, &set, nullptr);
}

void InstallTerminationHandler() {
  if (pipe(g_nWakeFds) != 0) g_nWakeFds[0] = g_nWakeFds[1] = -1;
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = OnTerminate;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

// Waits until standard input has something to read or a termination signal
// arrived; false in the second case.
bool WaitForConsole() {
  while (!g_bShouldExit) {
    struct pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {g_nWakeFds[0], POLLIN, 0}};
    int n = poll(fds, g_nWakeFds[0] >= 0 ? 2 : 1, -1);
    if (n > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) return true;
  }
  return false;
}

void PrintBanner(bool bWithQuitLine) {
  printf("+====================================+\n");
  printf("|  Welcome to %s!  |\n", "Buffer");
  printf("+====================================+\n");
  if (bWithQuitLine) printf("Q/q: Quit\n");
  fflush(stdout);
}

int Run() {
  CBuffer buffer;
  int32 nRet = buffer.Init();
  if (nRet != 0) {
    printf("Buffer init failed\n");
    buffer.Release();
    return nRet;
  }
  nRet = buffer.Start();
  if (nRet != 0) {
    printf("Buffer start failed\n");
    buffer.Release();
    return nRet;
  }
  BlockTerminationSignals(SIG_UNBLOCK);
  PrintBanner(true);

  char szInputCommand[16] = {0};
  while (!g_bShouldExit) {
    if (!WaitForConsole()) break;
    // At end of input scanf returns at once and the word keeps its value.
    if (scanf("%15s", szInputCommand) == EOF) clearerr(stdin);
    if (strcmp(szInputCommand, "q") == 0 || strcmp(szInputCommand, "Q") == 0) break;
    PrintBanner(false);
    os_sleep(1000);
  }
  buffer.Stop();
  buffer.Release();
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  (void)argc;
  (void)argv;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  InstallTerminationHandler();
  BlockTerminationSignals(SIG_BLOCK);
  // The service's own code returns statuses; this catches what a library
  // might throw.
  try {
    return Run();
  } catch (...) {
    printf("UNKNOWN! $$$$$$$$$$$$$$$$$$$$$$$$$$$$$$\n\n");
    return 0;
  }
}
