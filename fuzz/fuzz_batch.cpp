// Fuzz target: a record batch as the data thread receives it from a
// collector's queue, or as it reads it back from the cache file.
//
// Input: the batch bytes (at most 1 MiB, the receive buffer). Steps:
//   1. the frame check the data thread runs on every received batch;
//   2. the send path's decoding (SendRecToSrv) of the whole input, as drain
//      mode hands it a stored batch without a frame check;
//   3. when the frame check accepted the batch, the send path's decoding of
//      the framed part: it must accept what the frame check accepted.
// The client library has no session, so the server call returns at once
// with a network status after checking the records it was given.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "DataHandler.h"
#include "protocol/buffer_proto_record.h"
#include "zd_errcode.h"

struct CDataHandlerProbe {
  static int32 Check(const char* p, int32 n, int32* pnFramed) {
    return CDataHandler::CheckReceivedBatch(p, n, pnFramed);
  }
  static int32 Send(CDataHandler* h, char* p, int32 n) { return h->SendRecToSrv(p, n); }
  static void SetScratch(CDataHandler* h, SendScratch* s) { h->m_pScratch = s; }
};

namespace {

// Statuses of the decoding itself, before the server call.
bool IsDecodeStatus(int32 nRet) {
  return nRet == EC_MSG_TOO_SHORT || nRet == EC_REC_BAD_TYPE || nRet == EC_REC_BAD_LEN;
}

CDataHandler* Handler() {
  // Never started: no thread, no queue. The scratch is reused like the data
  // thread's, so a count of 65,535 costs its allocation once.
  static CDataHandler* pHandler = [] {
    auto* p = new CDataHandler("127.0.0.1", 1, "", 0, 2, 100, 1, 1);
    static SendScratch scratch;
    CDataHandlerProbe::SetScratch(p, &scratch);
    return p;
  }();
  return pHandler;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  if (nSize > BUFFER_BATCH_MAX_LEN) return 0;
  const int32 nLen = static_cast<int32>(nSize);
  // Exactly sized heap copies: ASan reports a read one byte past the batch.
  std::unique_ptr<char[]> pCopy(new char[nSize + (nSize == 0 ? 1 : 0)]);
  if (nSize > 0) memcpy(pCopy.get(), pData, nSize);

  int32 nFramed = -1;
  const int32 nCheck = CDataHandlerProbe::Check(pCopy.get(), nLen, &nFramed);
  if (nCheck == 0 && (nFramed < BUFFER_BATCH_HEAD_LEN + BUFFER_ENTRY_HEAD_LEN || nFramed > nLen)) {
    fprintf(stderr, "frame check accepted with framed length %d of %d\n", nFramed, nLen);
    abort();
  }

  const int32 nWhole = CDataHandlerProbe::Send(Handler(), pCopy.get(), nLen);
  (void)nWhole;

  if (nCheck == 0) {
    std::unique_ptr<char[]> pFramed(new char[nFramed]);
    memcpy(pFramed.get(), pData, static_cast<size_t>(nFramed));
    const int32 nRet = CDataHandlerProbe::Send(Handler(), pFramed.get(), nFramed);
    if (IsDecodeStatus(nRet)) {
      fprintf(stderr, "frame check accepted %d bytes, send path refused them: %d\n", nFramed, nRet);
      abort();
    }
  }
  return 0;
}
