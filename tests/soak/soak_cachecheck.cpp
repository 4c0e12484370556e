// soak_cachecheck FILE SIZE_MB
// Runs the cache file checker on a file the service is not using and prints
//   check damage=D leaks=L duplicates=U queues=Q records=R
// Exit status: 0 no damage (leaks and duplicate entries are allowed: a
// crash between two writes leaves them by design), 1 damage, 2 the file
// could not be checked or bad arguments. Damage findings go to stderr.
#include <stdio.h>
#include <stdlib.h>

#include <vector>

#include "CacheFileCheck.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: soak_cachecheck FILE SIZE_MB\n");
    return 2;
  }
  std::vector<CacheCheckFinding> findings;
  std::vector<CacheQueueStat> stats;
  int32 nRet = cache_file_check(argv[1], atoi(argv[2]), &findings, &stats);
  if (nRet != 0) {
    fprintf(stderr, "soak_cachecheck: %s cannot be checked: %d\n", argv[1], nRet);
    return 2;
  }
  long long nRecords = 0;
  for (const CacheQueueStat& s : stats) nRecords += s.nRecords;
  int32 nDamage = cache_check_count(findings, CACHE_CHECK_DAMAGE);
  printf("check damage=%d leaks=%d duplicates=%d queues=%zu records=%lld\n", nDamage,
         cache_check_count(findings, CACHE_CHECK_LEAK),
         cache_check_count(findings, CACHE_CHECK_DUPLICATE), stats.size(), nRecords);
  for (const CacheCheckFinding& f : findings)
    if (f.nKind == CACHE_CHECK_DAMAGE) fprintf(stderr, "damage: %s\n", f.strText.c_str());
  return nDamage == 0 ? 0 : 1;
}
