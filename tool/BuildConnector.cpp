#include "tool/Tool.h"

#include "log/DDLog.h"
#include "os/Memory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace tool {

namespace {

bool fileExistsAtPath(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

}  // namespace

RunMode run_mode(const cli::GBSettings& settings) {
    RunMode mode;
    mode.checkOnly = settings.boolForKey("check") && !settings.boolForKey("create");
    mode.createOnly = settings.boolForKey("create");
    return mode;
}

std::shared_ptr<OVConnectorIKEv2> build_connector(const cli::GBSettings& settings,
                                                  const RunMode& mode, const Finish& finish) {
    const cli::Value config = settings.objectForKey("config");
    if (!config.isNil()) {
        // Used verbatim: a relative path is taken from the working directory.
        const std::string path = config.description();
        // One open serves the check and the read: the file read is the one
        // found.
        ConfigFile file = OpenConfigFile(path);
        if (!file.descriptor.valid() && !fileExistsAtPath(path)) {
            DDLogError("Config file {} doesn't exist!", path);
            finish(1);
            return nullptr;
        }
        // The file holds the password: the process's memory is closed to
        // others before it is read.
        if (!os::denyMemoryInspection()) {
            const int error = errno;
            DDLogError("Cannot keep the password out of reach of other processes: {}",
                       std::strerror(error));
            finish(1);
            return nullptr;
        }
        return OVConnectorIKEv2::initWithConfigFile(path, std::move(file));
    }
    if (mode.checkOnly || mode.createOnly) {
        std::string server = random_ip();
        std::string username = random_username();
        return OVConnectorIKEv2::initWithServer(std::move(server), std::move(username),
                                                platform::Secret());
    }
    DDLogError("Must provide a config file to start vpn tunnel!");
    finish(1);
    return nullptr;
}

}  // namespace tool
