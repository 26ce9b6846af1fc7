#pragma once

// sd-bus, loaded from libsystemd when a sleep watch first opens a bus.
// Linked at build time, libsystemd and the libraries it needs (gcrypt,
// gpg-error, lz4, zstd, lzma, cap) would be loaded by every run of the tool,
// adding more than a millisecond and a megabyte to the modes that never
// touch a bus.

#include <systemd/sd-bus.h>

#include <string>

namespace platform::strongswan {

// The functions the sleep watch calls: each one's field and the library's
// symbol, which gives the field its type and the loader its name.
#define ORVANE_SD_BUS_FUNCTIONS(X)                             \
    X(open_system, sd_bus_open_system)                         \
    X(new_bus, sd_bus_new)                                     \
    X(set_address, sd_bus_set_address)                         \
    X(set_bus_client, sd_bus_set_bus_client)                   \
    X(start, sd_bus_start)                                     \
    X(unref, sd_bus_unref)                                     \
    X(close_unref, sd_bus_close_unref)                         \
    X(get_fd, sd_bus_get_fd)                                   \
    X(get_events, sd_bus_get_events)                           \
    X(get_timeout, sd_bus_get_timeout)                         \
    X(process, sd_bus_process)                                 \
    X(match_signal_async, sd_bus_match_signal_async)           \
    X(call_method_async, sd_bus_call_method_async)             \
    X(slot_unref, sd_bus_slot_unref)                           \
    X(message_is_method_error, sd_bus_message_is_method_error) \
    X(message_get_error, sd_bus_message_get_error)             \
    X(message_read, sd_bus_message_read)

struct SdBus {
#define ORVANE_SD_BUS_FIELD(field, symbol) decltype(&symbol) field;
    ORVANE_SD_BUS_FUNCTIONS(ORVANE_SD_BUS_FIELD)
#undef ORVANE_SD_BUS_FIELD
};

// The functions, loaded on the first call and kept for the process's life;
// nullptr, with the loader's reason in `error`, when libsystemd or one of
// them cannot be found.
const SdBus* loadSdBus(std::string& error);

}  // namespace platform::strongswan
