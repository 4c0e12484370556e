// Reading back what the reference server stored: a CSV dump, and a report
// that checks per-tag sequence numbers.
//
// The report assumes what test senders do: every record carries an integer
// value (types 0, 1, 2, 5) that is its per-tag sequence number. Per tag, in
// order of arrival:
//   duplicates    records whose value arrived before
//   out_of_order  first arrivals whose value is below a value that arrived
//                 earlier (duplicates removed first)
//   missing       values of the expected range never received; the range is
//                 first..last when given, otherwise min..max of what arrived
//   unexpected    distinct values outside first..last (only with a range)
//   not_sequence  records with a non-integer value (ignored otherwise)
#ifndef TOOLS_ZDREFSERVER_REFREPORT_H_
#define TOOLS_ZDREFSERVER_REFREPORT_H_

#include <cstdio>
#include <utility>
#include <vector>

#include "zd_types.h"

struct SRefExpect {
  std::vector<uint32> vTags;  // tags that must appear; empty: the tags stored
  bool bRange = false;        // nFirst..nLast given
  int64 nFirst = 0;
  int64 nLast = 0;
};

struct STagReport {
  uint32 nTag = 0;
  uint64 nReceived = 0;
  uint64 nDistinct = 0;
  uint64 nDuplicates = 0;
  uint64 nOutOfOrder = 0;
  uint64 nMissing = 0;
  uint64 nUnexpected = 0;
  uint64 nNotSequence = 0;
  int64 nMin = 0;  // smallest and largest value received; 0 when none
  int64 nMax = 0;
  // The first kMaxGaps runs of missing values, each [first, last].
  std::vector<std::pair<int64, int64>> vGaps;
};

constexpr size_t kMaxGaps = 20;

// Computes one report per tag (sorted by tag) from the database szDb, plus
// the sum of all of them in *pTotal (nTag 0). Returns 0 or
// ZD3_E_STORAGE_UNAVAILABLE when the database cannot be read.
int32 refreport_compute(const char* szDb, const SRefExpect& expect, std::vector<STagReport>* pvTags,
                        STagReport* pTotal);

// Writes the report as CSV: a header, one row per tag, and a row "total";
// with bGaps, then one line "gaps,<tag>,<first>-<last> ..." per tag that
// misses values.
void refreport_print(const std::vector<STagReport>& vTags, const STagReport& total, bool bGaps,
                     FILE* pOut);

// Writes the stored rows as CSV in order of arrival, all tags or only
// nTag (when >= 0). Strings are quoted, blobs hex. 0 or
// ZD3_E_STORAGE_UNAVAILABLE.
int32 refreport_dump(const char* szDb, int64 nTag, FILE* pOut);

#endif  // TOOLS_ZDREFSERVER_REFREPORT_H_
