// Per-record cost of building a batch with the collector API and of decoding
// it with the service's decoder, each next to a memcpy of the same bytes
// measured in the same run. Compare ratios, not absolute times: the machine
// is shared.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "protocol/buffer_collector.h"
#include "protocol/proto_base.h"

namespace {

constexpr int32 kInt32EntryLen = 6 + 16;
const char kText16[] = "temperature-0042";  // 16 characters
constexpr int32 kString16EntryLen = 6 + 14 + 16;

// Baseline for encoding: copy a ready-made entry to the end of a reused
// 1 MiB buffer, starting over when it is full.
void CopyEntries(benchmark::State& state, int32 nEntryLen) {
  std::vector<char> buf(BUFFER_BATCH_MAX_LEN);
  std::vector<char> entry(nEntryLen, 0x11);
  int32 nLen = 2;
  for (auto _ : state) {
    if (BUFFER_BATCH_MAX_LEN - nLen < nEntryLen) nLen = 2;
    std::memcpy(buf.data() + nLen, entry.data(), nEntryLen);
    nLen += nEntryLen;
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_MemcpyEntryInt32(benchmark::State& state) { CopyEntries(state, kInt32EntryLen); }
void BM_MemcpyEntryString16(benchmark::State& state) { CopyEntries(state, kString16EntryLen); }

void BM_EncodeInt32(benchmark::State& state) {
  ZdcBatch batch;
  zdc_batch_create(&batch, 0);
  int32 nValue = 0;
  for (auto _ : state) {
    if (zdc_batch_add_int32(&batch, 7, 1700000000, 250, 192, ++nValue) == ZDC_E_BATCH_FULL) {
      zdc_batch_reset(&batch);
      zdc_batch_add_int32(&batch, 7, 1700000000, 250, 192, nValue);
    }
    benchmark::DoNotOptimize(batch.pBuf);
  }
  state.SetItemsProcessed(state.iterations());
  zdc_batch_destroy(&batch);
}

void BM_EncodeString16(benchmark::State& state) {
  ZdcBatch batch;
  zdc_batch_create(&batch, 0);
  for (auto _ : state) {
    if (zdc_batch_add_string(&batch, 9, 1700000000, 0, 192, kText16) == ZDC_E_BATCH_FULL) {
      zdc_batch_reset(&batch);
      zdc_batch_add_string(&batch, 9, 1700000000, 0, 192, kText16);
    }
    benchmark::DoNotOptimize(batch.pBuf);
  }
  state.SetItemsProcessed(state.iterations());
  zdc_batch_destroy(&batch);
}

// A full batch of identical records, and a walk over it that hands each body
// to a per-entry function, as the send path does.
std::vector<char> FullBatch(bool bString) {
  ZdcBatch batch;
  zdc_batch_create(&batch, 0);
  for (;;) {
    const int32 nRet = bString ? zdc_batch_add_string(&batch, 9, 1700000000, 0, 192, kText16)
                               : zdc_batch_add_int32(&batch, 7, 1700000000, 250, 192, 100);
    if (nRet != 0) break;
  }
  std::vector<char> out(batch.pBuf, batch.pBuf + batch.nLen);
  zdc_batch_destroy(&batch);
  return out;
}

template <typename PerEntry>
void WalkBatches(benchmark::State& state, bool bString, PerEntry perEntry) {
  std::vector<char> batch = FullBatch(bString);
  int64_t nRecords = 0;
  for (auto _ : state) {
    char* pCursor = batch.data();
    uint16 nCount = 0;
    ParseFixStep<uint16>(&pCursor, &nCount);
    for (uint16 i = 0; i < nCount; ++i) {
      uint32 nTagId = 0;
      uint16 nLenRecord = 0;
      ParseFixStep<uint32>(&pCursor, &nTagId);
      ParseFixStep<uint16>(&pCursor, &nLenRecord);
      perEntry(i, nTagId, pCursor, nLenRecord);
      pCursor += nLenRecord;
    }
    nRecords += nCount;
  }
  state.SetItemsProcessed(nRecords);
}

// Decoded records land in a reused array, as in the send path; a batch of
// 16-character strings holds 29,127 records, of int32 records 47,662.
struct Sink {
  std::vector<ZD3Record> recs = std::vector<ZD3Record>(65536);
  std::vector<uint32> ids = std::vector<uint32>(65536);
  std::vector<char> values = std::vector<char>(1000);
  Sink() {
    for (ZD3Record& r : recs) r.value.strBlob.pBuf = values.data();
  }
};

void DecodeBatches(benchmark::State& state, bool bString) {
  Sink sink;
  WalkBatches(state, bString, [&](uint16 i, uint32 nTagId, const char* pBody, uint16 nLen) {
    sink.ids[i] = nTagId;
    benchmark::DoNotOptimize(buffer_proto_parse_buffer_to_zdrecord(&sink.recs[i], pBody, nLen));
  });
}

void MemcpyBatches(benchmark::State& state, bool bString) {
  Sink sink;
  WalkBatches(state, bString, [&](uint16 i, uint32 nTagId, const char* pBody, uint16 nLen) {
    sink.ids[i] = nTagId;
    std::memcpy(&sink.recs[i], pBody, nLen < sizeof(ZD3Record) ? nLen : sizeof(ZD3Record));
    benchmark::DoNotOptimize(&sink.recs[i]);
  });
}

void BM_DecodeInt32(benchmark::State& state) { DecodeBatches(state, false); }
void BM_MemcpyBodyInt32(benchmark::State& state) { MemcpyBatches(state, false); }
void BM_DecodeString16(benchmark::State& state) { DecodeBatches(state, true); }
void BM_MemcpyBodyString16(benchmark::State& state) { MemcpyBatches(state, true); }

BENCHMARK(BM_MemcpyEntryInt32);
BENCHMARK(BM_EncodeInt32);
BENCHMARK(BM_MemcpyEntryString16);
BENCHMARK(BM_EncodeString16);
BENCHMARK(BM_MemcpyBodyInt32);
BENCHMARK(BM_DecodeInt32);
BENCHMARK(BM_MemcpyBodyString16);
BENCHMARK(BM_DecodeString16);

}  // namespace
