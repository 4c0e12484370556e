#include "record_source.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

const char* const kTypeNames[] = {"int8",    "int16",   "int32",  "float32",
                                  "float64", "digital", "string", "blob"};

// Splits the line in place at commas outside quotes; returns the number of
// fields (at most nMax). A quoted field is unquoted in place ("" -> ").
int split_csv(char* szLine, char** fields, int* pnLens, int nMax) {
  int n = 0;
  char* p = szLine;
  while (n < nMax) {
    char* pOut = p;
    fields[n] = p;
    if (*p == '"') {
      ++p;
      for (;;) {
        if (*p == '\0') break;
        if (*p == '"') {
          if (p[1] == '"') {
            *pOut++ = '"';
            p += 2;
            continue;
          }
          ++p;
          break;
        }
        *pOut++ = *p++;
      }
      while (*p != ',' && *p != '\0') ++p;  // anything after the closing quote
    } else {
      while (*p != ',' && *p != '\0') *pOut++ = *p++;
    }
    char c = *p;
    *pOut = '\0';
    pnLens[n] = static_cast<int>(pOut - fields[n]);
    ++n;
    if (c == '\0') break;
    ++p;
  }
  return n;
}

bool parse_long(const char* sz, long long nMin, long long nMax, long long* pOut) {
  if (*sz == '\0') return false;
  char* pEnd = nullptr;
  errno = 0;
  long long n = strtoll(sz, &pEnd, 10);
  if (errno != 0 || *pEnd != '\0' || n < nMin || n > nMax) return false;
  *pOut = n;
  return true;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int32 zdcollect_parse_type(const char* szText) {
  for (int32 i = 0; i < 8; ++i)
    if (strcmp(szText, kTypeNames[i]) == 0) return i;
  long long n = 0;
  return parse_long(szText, 0, 7, &n) ? static_cast<int32>(n) : -1;
}

CSyntheticSource::CSyntheticSource(uint32 nFirstTag, uint32 nTags, uint32 nFirstSeq,
                                   std::vector<int32> types)
    : m_nFirstTag(nFirstTag), m_nTags(nTags), m_nFirstSeq(nFirstSeq), m_types(std::move(types)) {
  if (m_types.empty()) m_types.push_back(ZD3_TAG_TYPE_INT32);
}

int32 CSyntheticSource::Append(ZdcBatch* pBatch, uint64 nIndex, int32 nSec, int16 nMsec) const {
  constexpr uint16 kQualityGood = 192;
  uint32 nOffset = static_cast<uint32>(nIndex % m_nTags);
  uint32 nTag = m_nFirstTag + nOffset;
  uint32 nSeq = m_nFirstSeq + static_cast<uint32>(nIndex / m_nTags);
  switch (m_types[nOffset % m_types.size()]) {
    case ZD3_TAG_TYPE_INT8:
      return zdc_batch_add_int8(pBatch, nTag, nSec, nMsec, kQualityGood, static_cast<int8>(nSeq));
    case ZD3_TAG_TYPE_INT16:
      return zdc_batch_add_int16(pBatch, nTag, nSec, nMsec, kQualityGood, static_cast<int16>(nSeq));
    case ZD3_TAG_TYPE_FLOAT32:
      return zdc_batch_add_float32(pBatch, nTag, nSec, nMsec, kQualityGood,
                                   static_cast<float32>(nSeq));
    case ZD3_TAG_TYPE_FLOAT64:
      return zdc_batch_add_float64(pBatch, nTag, nSec, nMsec, kQualityGood,
                                   static_cast<float64>(nSeq));
    case ZD3_TAG_TYPE_DIGITAL:
      return zdc_batch_add_digital(pBatch, nTag, nSec, nMsec, kQualityGood,
                                   static_cast<int8>(nSeq & 1));
    case ZD3_TAG_TYPE_STRING: {
      char szText[16];
      snprintf(szText, sizeof(szText), "%u", nSeq);
      return zdc_batch_add_string(pBatch, nTag, nSec, nMsec, kQualityGood, szText);
    }
    case ZD3_TAG_TYPE_BLOB: {
      unsigned char bytes[4] = {
          static_cast<unsigned char>(nSeq), static_cast<unsigned char>(nSeq >> 8),
          static_cast<unsigned char>(nSeq >> 16), static_cast<unsigned char>(nSeq >> 24)};
      return zdc_batch_add_blob(pBatch, nTag, nSec, nMsec, kQualityGood, bytes, 4);
    }
    default:
      return zdc_batch_add_int32(pBatch, nTag, nSec, nMsec, kQualityGood, static_cast<int32>(nSeq));
  }
}

int32 CCsvSource::ParseLine() {
  char* fields[6];
  int lens[6];
  size_t n = strlen(m_szLine);
  while (n > 0 && (m_szLine[n - 1] == '\n' || m_szLine[n - 1] == '\r')) m_szLine[--n] = '\0';
  if (n == 0 || m_szLine[0] == '#') return 1;
  if (split_csv(m_szLine, fields, lens, 6) != 6) {
    long long nDummy = 0;
    return m_nLine == 1 && !parse_long(fields[0], 0, UINT32_MAX, &nDummy) ? 1 : ZDC_E_BAD_ARG;
  }
  long long nTag = 0, nSec = 0, nMsec = 0, nQuality = 0;
  if (!parse_long(fields[0], 0, UINT32_MAX, &nTag))
    return m_nLine == 1 ? 1 : ZDC_E_BAD_ARG;  // a header line
  int32 nType = zdcollect_parse_type(fields[4]);
  if (!parse_long(fields[1], INT32_MIN, INT32_MAX, &nSec) ||
      !parse_long(fields[2], INT16_MIN, INT16_MAX, &nMsec) ||
      !parse_long(fields[3], 0, UINT16_MAX, &nQuality) || nType < 0)
    return ZDC_E_BAD_ARG;
  memset(&m_record, 0, sizeof(m_record));
  m_nTagId = static_cast<uint32>(nTag);
  m_record.nSec = static_cast<int32>(nSec);
  m_record.nMsec = static_cast<int16>(nMsec);
  m_record.nQuality = static_cast<uint16>(nQuality);
  m_record.nTagType = static_cast<ZD3_TAG_TYPE>(nType);
  const char* szValue = fields[5];
  long long nValue = 0;
  char* pEnd = nullptr;
  switch (nType) {
    case ZD3_TAG_TYPE_INT8:
    case ZD3_TAG_TYPE_DIGITAL:
      if (!parse_long(szValue, INT8_MIN, INT8_MAX, &nValue)) return ZDC_E_BAD_ARG;
      m_record.value.nInt8 = static_cast<int8>(nValue);
      m_record.value.nDigital = static_cast<int8>(nValue);
      break;
    case ZD3_TAG_TYPE_INT16:
      if (!parse_long(szValue, INT16_MIN, INT16_MAX, &nValue)) return ZDC_E_BAD_ARG;
      m_record.value.nInt16 = static_cast<int16>(nValue);
      break;
    case ZD3_TAG_TYPE_INT32:
      if (!parse_long(szValue, INT32_MIN, INT32_MAX, &nValue)) return ZDC_E_BAD_ARG;
      m_record.value.nInt32 = static_cast<int32>(nValue);
      break;
    case ZD3_TAG_TYPE_FLOAT32:
    case ZD3_TAG_TYPE_FLOAT64: {
      double f = strtod(szValue, &pEnd);
      if (*szValue == '\0' || *pEnd != '\0') return ZDC_E_BAD_ARG;
      m_record.value.fFloat32 = static_cast<float32>(f);
      m_record.value.fFloat64 = f;
      break;
    }
    case ZD3_TAG_TYPE_STRING:
      if (lens[5] > ZD3_MAX_STRBLOB_LEN) return ZDC_E_VALUE_TOO_LONG;
      memcpy(m_value, szValue, static_cast<size_t>(lens[5]));
      m_record.value.strBlob.pBuf = m_value;
      m_record.value.strBlob.nLenBuf = static_cast<uint16>(lens[5]);
      break;
    default: {  // blob
      const char* p = szValue[0] == 'x' || szValue[0] == 'X' ? szValue + 1 : szValue;
      size_t nHex = strlen(p);
      if (nHex % 2 != 0) return ZDC_E_BAD_ARG;
      if (nHex / 2 > ZD3_MAX_STRBLOB_LEN) return ZDC_E_VALUE_TOO_LONG;
      for (size_t i = 0; i < nHex / 2; ++i) {
        int hi = hex_digit(p[2 * i]), lo = hex_digit(p[2 * i + 1]);
        if (hi < 0 || lo < 0) return ZDC_E_BAD_ARG;
        m_value[i] = static_cast<char>(hi << 4 | lo);
      }
      m_record.value.strBlob.pBuf = m_value;
      m_record.value.strBlob.nLenBuf = static_cast<uint16>(nHex / 2);
      break;
    }
  }
  return 0;
}

int32 CCsvSource::Next(ZdcBatch* pBatch) {
  while (!m_bPending) {
    if (fgets(m_szLine, sizeof(m_szLine), m_pFile) == nullptr) return 1;
    ++m_nLine;
    size_t n = strlen(m_szLine);
    if (n == sizeof(m_szLine) - 1 && m_szLine[n - 1] != '\n') return ZDC_E_VALUE_TOO_LONG;
    int32 nRet = ParseLine();
    if (nRet == 1) continue;
    if (nRet != 0) return nRet;
    m_bPending = true;
  }
  int32 nRet = zdc_batch_add_record(pBatch, m_nTagId, &m_record);
  if (nRet == 0) m_bPending = false;
  return nRet;
}
