// A collector-like peer for the zdProcComm tests, started with exec so that
// it shares nothing with the test process but the instance's name:
//   proccomm_peer send <name> <queue id> <first seq> <count>
// attaches, sends the numbered messages of SendNumbered and detaches. Exit
// status 0 on success.
#include <cstdlib>
#include <cstring>

#include "proccomm.h"
#include "proccomm_test_util.h"

int main(int argc, char** argv) {
  if (argc != 6 || strcmp(argv[1], "send") != 0) return 64;
  int32 nQueueId = atoi(argv[3]);
  uint32 nFrom = static_cast<uint32>(strtoul(argv[4], nullptr, 10));
  uint32 nCount = static_cast<uint32>(strtoul(argv[5], nullptr, 10));
  ProcCommHandle h = nullptr;
  if (proccomm_init(argv[2], 16, 4096, 1000, &h) != 0) return 65;
  ProcCommQueueHandle hQ = nullptr;
  int nRet = proccomm_reg(h, nQueueId, &hQ) == 0 ? pctest::SendNumbered(hQ, nFrom, nCount) : 66;
  if (hQ != nullptr) proccomm_unreg(h, nQueueId, hQ);
  proccomm_release(h);
  return nRet;
}
