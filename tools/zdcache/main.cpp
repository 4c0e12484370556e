// zdcache: inspects the service's cache file (see zdcache.h for the commands
// and docs/zdcache.md for the operator's guide).
#include <stdio.h>

#include "zdcache.h"

int main(int argc, char* argv[]) { return zdcache_main(argc, argv, stdout, stderr); }
