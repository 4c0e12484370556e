// Where zdcollect's records come from: a synthetic generator whose values
// are per-tag sequence numbers, or a CSV file. Both append straight into the
// caller's batch; nothing is allocated per record.
#ifndef TOOLS_ZDCOLLECT_RECORD_SOURCE_H_
#define TOOLS_ZDCOLLECT_RECORD_SOURCE_H_

#include <cstdio>
#include <vector>

#include "protocol/buffer_collector.h"
#include "zd_types.h"

// Parses a type name ("int32", "float64", ...) or number 0..7; -1 if neither.
int32 zdcollect_parse_type(const char* szText);

// Synthetic records, tag by tag in rounds: record k (from 0) belongs to tag
// nFirstTag + k % nTags and carries the value nFirstSeq + k / nTags, so every
// tag sees 1, 2, 3, ... (with nFirstSeq 1). Tag t takes the type
// types[(t - nFirstTag) % types.size()]; non-integer types carry the same
// number (float), its parity (digital), its decimal text (string) or its 4
// little-endian bytes (blob).
class CSyntheticSource {
 public:
  CSyntheticSource(uint32 nFirstTag, uint32 nTags, uint32 nFirstSeq, std::vector<int32> types);
  // Appends record number nIndex with time stamp nSec.nMsec.
  int32 Append(ZdcBatch* pBatch, uint64 nIndex, int32 nSec, int16 nMsec) const;
  uint32 Tags() const { return m_nTags; }
  uint32 FirstTag() const { return m_nFirstTag; }
  uint32 FirstSeq() const { return m_nFirstSeq; }

 private:
  uint32 m_nFirstTag;
  uint32 m_nTags;
  uint32 m_nFirstSeq;
  std::vector<int32> m_types;
};

// CSV records, one a line: tag,sec,msec,quality,type,value. type is a name
// or 0..7; a string value may be quoted ("" for a quote); a blob value is
// hex, optionally after an x. Blank lines, lines starting with # and a
// header line (first field not a number) are skipped.
class CCsvSource {
 public:
  explicit CCsvSource(FILE* pFile) : m_pFile(pFile) {}
  // Reads the next record into the batch: 0, or 1 at the end of the file, or
  // a status for a malformed line (Line() says which). A record that does not
  // fit the batch (ZDC_E_BATCH_FULL) stays pending and is appended by the
  // next call, after the caller has sent and reset the batch.
  int32 Next(ZdcBatch* pBatch);
  int64 Line() const { return m_nLine; }

 private:
  int32 ParseLine();

  FILE* m_pFile;
  int64 m_nLine = 0;
  bool m_bPending = false;
  uint32 m_nTagId = 0;
  ZD3Record m_record{};
  char m_szLine[8192];
  char m_value[ZD3_MAX_STRBLOB_LEN];
};

#endif  // TOOLS_ZDCOLLECT_RECORD_SOURCE_H_
