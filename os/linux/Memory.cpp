#include "os/Memory.h"

#include <string.h>
#include <sys/prctl.h>

namespace os {

void wipeMemory(void* data, std::size_t size) {
    if (size > 0) {
        ::explicit_bzero(data, size);
    }
}

bool denyMemoryInspection() {
    return ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
}

}  // namespace os
