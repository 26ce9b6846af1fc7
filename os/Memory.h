#pragma once

// Memory that holds a secret: wiping it, and keeping the whole process's
// memory from other readers while it holds one. One implementation per OS.

#include <cstddef>
#include <string>

namespace os {

// Overwrites `size` bytes at `data` with zeros. The stores are kept even when
// the memory is freed or goes out of scope right after.
void wipeMemory(void* data, std::size_t size);

// Zeros a string's whole buffer (the bytes past its length too), then
// empties it.
inline void wipeString(std::string& text) {
    // Growing to the capacity zero-fills the tail, which may still hold
    // bytes of an earlier, longer content.
    text.resize(text.capacity());
    wipeMemory(text.data(), text.size());
    text.clear();
}

// Keeps this process's memory from other readers for the rest of its life.
// Linux: the process is no longer dumpable, so no core file is written and
// its /proc/PID/mem and ptrace are closed to every process that lacks
// CAP_SYS_PTRACE, its own user's included. macOS: no core file is written
// (a core size limit of 0); what keeps debuggers and task ports out there is
// the hardened runtime the tool is signed with, not a call. False (errno
// set) when the system refused.
bool denyMemoryInspection();

}  // namespace os
