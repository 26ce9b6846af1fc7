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
    loaded.complete = true;
#define ORVANE_SD_BUS_BIND(field, symbol) \
    loaded.complete =                     \
        loaded.complete && bind(library, #symbol, loaded.functions.field, loaded.error);
    ORVANE_SD_BUS_FUNCTIONS(ORVANE_SD_BUS_BIND)
#undef ORVANE_SD_BUS_BIND
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
