#include "protocol/proto_base.h"

#include <cstdlib>

// Pack functions allocate with malloc; freeing here keeps allocation and
// release in the same module, whatever allocator the caller links.
void proto_pack_free(char* pBuf) { std::free(pBuf); }
