// Writes the seed corpora of the fuzz targets: batches and control messages
// built with the collector library's encoders, cache files built by the
// cache file itself, and configuration files like the shipped one.
//
//   fuzz_seedgen <corpus dir>    (writes <dir>/batch, control, cachefile, config)
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <string>
#include <vector>

#include "CacheFile.h"
#include "protocol/buffer_collector.h"
#include "protocol/proto_buffer.h"

namespace {

std::string g_strRoot;

void Put(const std::string& strTarget, const std::string& strName, const void* p, size_t n) {
  std::string strDir = g_strRoot + "/" + strTarget;
  mkdir(strDir.c_str(), 0755);
  std::string strPath = strDir + "/" + strName;
  FILE* fp = fopen(strPath.c_str(), "wb");
  if (fp == nullptr || (n > 0 && fwrite(p, 1, n, fp) != n)) {
    fprintf(stderr, "cannot write %s\n", strPath.c_str());
    exit(1);
  }
  fclose(fp);
}

void PutBatch(const std::string& strName, const ZdcBatch& b) { Put("batch", strName, b.pBuf, b.nLen); }

void Batches() {
  ZdcBatch b;
  zdc_batch_create(&b, 64 * 1024);
  zdc_batch_add_int8(&b, 1, 1700000000, 1, 192, -5);
  PutBatch("int8", b);
  zdc_batch_reset(&b);
  zdc_batch_add_int16(&b, 2, 1700000000, 2, 192, -300);
  PutBatch("int16", b);
  zdc_batch_reset(&b);
  zdc_batch_add_int32(&b, 3, 1700000000, 3, 192, 123456);
  PutBatch("int32", b);
  zdc_batch_reset(&b);
  zdc_batch_add_float32(&b, 4, 1700000000, 4, 192, 1.5f);
  PutBatch("float32", b);
  zdc_batch_reset(&b);
  zdc_batch_add_float64(&b, 5, 1700000000, 5, 192, -2.25);
  PutBatch("float64", b);
  zdc_batch_reset(&b);
  zdc_batch_add_digital(&b, 6, 1700000000, 6, 192, 1);
  PutBatch("digital", b);
  zdc_batch_reset(&b);
  zdc_batch_add_string(&b, 7, 1700000000, 7, 192, "pump 3 running");
  PutBatch("string", b);
  zdc_batch_reset(&b);
  zdc_batch_add_string(&b, 7, 1700000000, 7, 192, "");
  PutBatch("string_empty", b);
  zdc_batch_reset(&b);
  std::vector<char> blob(1000);
  for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<char>(i * 7);
  zdc_batch_add_blob(&b, 8, 1700000000, 8, 192, blob.data(), 1000);
  PutBatch("blob_max", b);
  zdc_batch_reset(&b);
  // The soak's stream: per-tag sequence numbers, several tags per batch.
  for (uint32 nTag = 1; nTag <= 20; ++nTag) {
    zdc_batch_add_int32(&b, nTag, 1700000000 + static_cast<int32>(nTag), 0, 192,
                        static_cast<int32>(nTag * 10));
    zdc_batch_add_float64(&b, nTag, 1700000000, 500, 0, nTag * 0.5);
  }
  zdc_batch_add_string(&b, 99, 1700000000, 999, 192, "mixed");
  PutBatch("mixed_41", b);
  std::vector<char> damaged(b.pBuf, b.pBuf + b.nLen);
  zdc_batch_destroy(&b);
  // Damage the tests look at: count 0, a count above the entries, a length
  // past the end, a type outside 0..7, a string longer than 1,000.
  std::vector<char> v = damaged;
  v[0] = 0, v[1] = 0;
  Put("batch", "count_zero", v.data(), v.size());
  v = damaged;
  v[0] = 42;
  Put("batch", "count_above_entries", v.data(), v.size());
  v.assign(damaged.begin(), damaged.begin() + 30);
  Put("batch", "truncated", v.data(), v.size());
  v = damaged;
  v[2 + 6 + 8] = 9;  // type of the first record
  Put("batch", "bad_type", v.data(), v.size());
  v = damaged;
  v.push_back(1), v.push_back(2), v.push_back(3);  // bytes after the last entry
  Put("batch", "trailing_bytes", v.data(), v.size());
}

void Control() {
  char buf[BUFFER_CTRL_MSG_MAX_LEN];
  int32 nLen = 0;
  zdc_build_init_msg("127.0.0.1", 5000, "127.0.0.2", 5001, 17, buf, sizeof(buf), &nLen);
  Put("control", "init", buf, static_cast<size_t>(nLen));
  Put("control", "init_short_body", buf, BUFFER_HEAD_LEN + 2);
  Put("control", "head_only", buf, BUFFER_HEAD_LEN);
  Put("control", "short", buf, 7);
  zdc_build_init_msg("255.255.255.255", 65535, "", 0, 1, buf, sizeof(buf), &nLen);
  Put("control", "init_reply_to_control_queue", buf, static_cast<size_t>(nLen));
  zdc_build_login_msg("operator", "secret", buf, sizeof(buf), &nLen);
  Put("control", "login", buf, static_cast<size_t>(nLen));
  Put("control", "login_short", buf, 60);
  memset(buf + BUFFER_HEAD_LEN, 'x', BUFFER_LOGIN_INFO_LEN);  // unterminated names
  Put("control", "login_unterminated", buf, BUFFER_LOGIN_MSG_LEN);
  buf[0] = 3, buf[1] = 0;
  Put("control", "unknown_command", buf, BUFFER_LOGIN_MSG_LEN);
}

// Cache files: byte 0 is the fuzz target's size selector (0: 1 MB).
void PutCacheFile(const std::string& strName, const std::string& strPath) {
  std::vector<char> v(1, 0);
  FILE* fp = fopen(strPath.c_str(), "rb");
  if (fp != nullptr) {
    char tmp[65536];
    size_t n;
    while ((n = fread(tmp, 1, sizeof(tmp), fp)) > 0) v.insert(v.end(), tmp, tmp + n);
    fclose(fp);
  }
  Put("cachefile", strName, v.data(), v.size());
}

std::vector<char> Payload(int32 nLen, int32 nSeed) {
  std::vector<char> v(static_cast<size_t>(nLen));
  for (int32 i = 0; i < nLen; ++i) v[static_cast<size_t>(i)] = static_cast<char>(nSeed + i);
  return v;
}

void CacheFiles() {
  char szDir[] = "/tmp/zdseedgen.XXXXXX";
  if (mkdtemp(szDir) == nullptr) exit(1);
  auto make = [&](const std::string& strName, auto fill) {
    std::string strPath = std::string(szDir) + "/" + strName + "_buffer.buf";
    CCacheFile cache;
    std::list<SrvInfo*> list;
    if (cache.Init("1.0.0", strPath.c_str(), 1, &list) != 0) exit(1);
    fill(cache);
    cache.Release();
    PutCacheFile(strName, strPath);
    unlink(strPath.c_str());
  };
  make("fresh", [](CCacheFile&) {});
  make("one_entry_three_records", [](CCacheFile& c) {
    SrvHandle h = nullptr;
    if (c.SaveSrvInfo(0x0100007f, 5000, &h) != 0) exit(1);
    (void)c.SetUserPassWord(h, "operator", "secret");
    for (int32 i = 0; i < 3; ++i) {
      auto p = Payload(100 + i, i);
      (void)c.SaveRecord(h, p.data(), static_cast<int32>(p.size()));
    }
  });
  make("record_over_three_blocks", [](CCacheFile& c) {
    SrvHandle h = nullptr;
    if (c.SaveSrvInfo(0x0100007f, 5000, &h) != 0) exit(1);
    auto p = Payload(10000, 3);
    (void)c.SaveRecord(h, p.data(), static_cast<int32>(p.size()));
  });
  make("length_across_block_end", [](CCacheFile& c) {
    SrvHandle h = nullptr;
    if (c.SaveSrvInfo(0x0100007f, 5000, &h) != 0) exit(1);
    // 4,092 bytes of data area: 4 + 4,086 leaves 2 bytes, so the next
    // record's length field is split over two blocks.
    auto p = Payload(4086, 1);
    (void)c.SaveRecord(h, p.data(), static_cast<int32>(p.size()));
    auto q = Payload(50, 2);
    (void)c.SaveRecord(h, q.data(), static_cast<int32>(q.size()));
  });
  make("read_and_deleted_idle_list", [](CCacheFile& c) {
    SrvHandle h = nullptr;
    if (c.SaveSrvInfo(0x0100007f, 5000, &h) != 0) exit(1);
    for (int32 i = 0; i < 6; ++i) {
      auto p = Payload(3000, i);
      (void)c.SaveRecord(h, p.data(), static_cast<int32>(p.size()));
    }
    for (int32 i = 0; i < 4; ++i) (void)c.DelCurRecord(h);
  });
}

void Configs() {
  const char* szShipped =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<Buffer version=\"1.0.0\" name=\"zdBuffer\" memsizemb=\"64\">\n"
      "  <CacheFile Path=\"../cache/\" Prefix=\"zd\" SizeMb=\"1024\"/>\n"
      "  <Send PeriodMs=\"200\" ConnTimeOutSec=\"3\" SendTimeOutSec=\"10\"/>\n"
      "</Buffer>\n";
  Put("config", "shipped", szShipped, strlen(szShipped));
  const char* szMinimal =
      "<Buffer version=\"1\" name=\"n\"><CacheFile Path=\"c\" Prefix=\"\" SizeMb=\"1\"/>"
      "<Send PeriodMs=\"1\" ConnTimeOutSec=\"1\" SendTimeOutSec=\"1\"/></Buffer>";
  Put("config", "minimal", szMinimal, strlen(szMinimal));
  const char* szNested =
      "<?xml version=\"1.0\"?><Root><!-- comment --><Buffer version=\"2.0\" name=\"b\">"
      "<Inner><CacheFile Path=\"C:\\cache\\\" Prefix=\"p&amp;q\" SizeMb=\"1048576\"/></Inner>"
      "<Send PeriodMs=\"2147483648\" ConnTimeOutSec=\" 3x\" SendTimeOutSec=\"-1\"/>"
      "<![CDATA[ text ]]></Buffer></Root>";
  Put("config", "nested_odd_values", szNested, strlen(szNested));
  const char* szMissing = "<Buffer version=\"1.0.0\"><CacheFile Path=\"../cache/\"/></Buffer>";
  Put("config", "missing_attrs", szMissing, strlen(szMissing));
  std::string strLong = "<Buffer version=\"1\" name=\"" + std::string(300, 'n') +
                        "\"><CacheFile Path=\"" + std::string(600, '/') +
                        "\" Prefix=\"x\" SizeMb=\"2\"/><Send PeriodMs=\"1\" ConnTimeOutSec=\"1\" "
                        "SendTimeOutSec=\"1\"/></Buffer>";
  Put("config", "too_long", strLong.data(), strLong.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: fuzz_seedgen <corpus dir>\n");
    return 2;
  }
  g_strRoot = argv[1];
  mkdir(g_strRoot.c_str(), 0755);
  Batches();
  Control();
  CacheFiles();
  Configs();
  return 0;
}
