// memset_s is declared only when this is set before the first C header.
#define __STDC_WANT_LIB_EXT1__ 1

#include "os/Memory.h"

#include <string.h>
#include <sys/resource.h>

namespace os {

void wipeMemory(void* data, std::size_t size) {
    if (size > 0) {
        ::memset_s(data, size, 0, size);
    }
}

bool denyMemoryInspection() {
    // macOS has no per-process switch like Linux's dumpable flag; a core
    // size limit of 0 keeps the memory out of /cores.
    const struct rlimit none = {0, 0};
    return ::setrlimit(RLIMIT_CORE, &none) == 0;
}

}  // namespace os
