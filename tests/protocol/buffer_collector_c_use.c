/* Compiled as C: the collector API must be usable from C programs. */
#include "protocol/buffer_collector.h"

/* Builds the one-record int32 batch (tag 7, 1700000000.250, quality 192,
 * value 100) into pOut; returns the API's status. */
int zdc_c_build_int32_example(char* pOut, int nCapacity, int* pnLen) {
  ZdcBatch batch;
  const char* pData = 0;
  int32 nLen = 0;
  int32 nRet = zdc_batch_init(&batch, pOut, nCapacity);
  if (nRet == 0) nRet = zdc_batch_add_int32(&batch, 7, 1700000000, 250, 192, 100);
  if (nRet == 0) nRet = zdc_batch_get(&batch, &pData, &nLen);
  if (nRet == 0) *pnLen = nLen;
  zdc_batch_destroy(&batch);
  return nRet;
}
