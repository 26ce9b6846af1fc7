#pragma once

// Memory that holds a secret: wiping it, and keeping the whole process's
// memory from other readers while it holds one. One implementation per OS.

#include <cstddef>

namespace os {

// Overwrites `size` bytes at `data` with zeros. The stores are kept even when
// the memory is freed or goes out of scope right after.
void wipeMemory(void* data, std::size_t size);

// Zeros the vector registers and the caller-saved general registers, where
// the last string and memory routines leave the data they worked on until
// other work overwrites it; the dynamic linker's lazy binding and signal
// delivery save those registers on the stack. x86-64 and arm64; nothing
// elsewhere.
void wipeRegisters();

// Keeps this process's memory from other readers for the rest of its life.
// Linux: the process is no longer dumpable, so no core file is written and
// its /proc/PID/mem and ptrace are closed to every process that lacks
// CAP_SYS_PTRACE, its own user's included. macOS: no core file is written
// (a core size limit of 0); what keeps debuggers and task ports out there is
// the hardened runtime the tool is signed with, not a call. False (errno
// set) when the system refused.
bool denyMemoryInspection();

}  // namespace os
