#include "platform/strongswan/SdBus.h"

#include <dlfcn.h>

namespace platform::strongswan {

namespace {

struct Loaded {
    SdBus functions{};
    std::string error;
    bool complete = false;
};

template <typename Function>
bool bind(void* library, const char* name, Function& function, std::string& error) {
    void* symbol = ::dlsym(library, name);
    if (symbol == nullptr) {
        error = std::string("libsystemd has no ") + name;
        return false;
    }
    function = reinterpret_cast<Function>(symbol);
    return true;
}

Loaded load() {
    Loaded loaded;
    // The soname the library has had since sd-bus became public.
    void* library = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* why = ::dlerror();
        loaded.error = why ? why : "libsystemd.so.0 cannot be loaded";
        return loaded;
    }
    SdBus& f = loaded.functions;
    std::string& e = loaded.error;
    loaded.complete =
        bind(library, "sd_bus_open_system", f.open_system, e) &&
        bind(library, "sd_bus_new", f.new_bus, e) &&
        bind(library, "sd_bus_set_address", f.set_address, e) &&
        bind(library, "sd_bus_set_bus_client", f.set_bus_client, e) &&
        bind(library, "sd_bus_start", f.start, e) && bind(library, "sd_bus_unref", f.unref, e) &&
        bind(library, "sd_bus_close_unref", f.close_unref, e) &&
        bind(library, "sd_bus_get_fd", f.get_fd, e) &&
        bind(library, "sd_bus_get_events", f.get_events, e) &&
        bind(library, "sd_bus_get_timeout", f.get_timeout, e) &&
        bind(library, "sd_bus_process", f.process, e) &&
        bind(library, "sd_bus_match_signal_async", f.match_signal_async, e) &&
        bind(library, "sd_bus_call_method_async", f.call_method_async, e) &&
        bind(library, "sd_bus_slot_unref", f.slot_unref, e) &&
        bind(library, "sd_bus_message_is_method_error", f.message_is_method_error, e) &&
        bind(library, "sd_bus_message_get_error", f.message_get_error, e) &&
        bind(library, "sd_bus_message_read", f.message_read, e);
    return loaded;
}

}  // namespace

const SdBus* loadSdBus(std::string& error) {
    static const Loaded loaded = load();
    if (!loaded.complete) {
        error = loaded.error;
        return nullptr;
    }
    return &loaded.functions;
}

}  // namespace platform::strongswan
