#pragma once

// sd-bus, loaded from libsystemd when a sleep watch first opens a bus.
// Linked at build time, libsystemd and the libraries it needs (gcrypt,
// gpg-error, lz4, zstd, lzma, cap) would be loaded by every run of the tool,
// adding more than a millisecond and a megabyte to the modes that never
// touch a bus.

#include <systemd/sd-bus.h>

#include <string>

namespace platform::strongswan {

// The functions the sleep watch calls, with the library's own signatures.
struct SdBus {
    decltype(&sd_bus_open_system) open_system;
    decltype(&sd_bus_new) new_bus;
    decltype(&sd_bus_set_address) set_address;
    decltype(&sd_bus_set_bus_client) set_bus_client;
    decltype(&sd_bus_start) start;
    decltype(&sd_bus_unref) unref;
    decltype(&sd_bus_close_unref) close_unref;
    decltype(&sd_bus_get_fd) get_fd;
    decltype(&sd_bus_get_events) get_events;
    decltype(&sd_bus_get_timeout) get_timeout;
    decltype(&sd_bus_process) process;
    decltype(&sd_bus_match_signal_async) match_signal_async;
    decltype(&sd_bus_call_method_async) call_method_async;
    decltype(&sd_bus_slot_unref) slot_unref;
    decltype(&sd_bus_message_is_method_error) message_is_method_error;
    decltype(&sd_bus_message_get_error) message_get_error;
    decltype(&sd_bus_message_read) message_read;
};

// The functions, loaded on the first call and kept for the process's life;
// nullptr, with the loader's reason in `error`, when libsystemd or one of
// them cannot be found.
const SdBus* loadSdBus(std::string& error);

}  // namespace platform::strongswan
