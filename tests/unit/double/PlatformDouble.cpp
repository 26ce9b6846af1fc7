#include "tests/unit/double/PlatformDouble.h"

#include "platform/NilText.h"
#include "platform/RunLoop.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace platform_double {

namespace {

class DoubleConnection final : public NEVPNConnection {
  public:
    NEVPNStatus status() const override { return ScriptedPlatform::instance().status(); }
    OptionalError startVPNTunnel(const NEVPNStartOptions& options) override {
        return ScriptedPlatform::instance().requestStart(options);
    }
    void stopVPNTunnel() override { ScriptedPlatform::instance().requestStop(); }
};

class DoubleManager final : public NEVPNManager {
  public:
    void loadFromPreferences(CompletionHandler handler) override {
        ScriptedPlatform::instance().requestLoad(std::move(handler));
    }
    void saveToPreferences(CompletionHandler handler) override {
        ScriptedPlatform::instance().requestSave(std::move(handler));
    }
    void removeFromPreferences(CompletionHandler handler) override {
        ScriptedPlatform::instance().requestRemove(std::move(handler));
    }
    NEVPNConnection* connection() override {
        return ScriptedPlatform::instance().hasConnection() ? &connection_ : nullptr;
    }

  private:
    DoubleConnection connection_;
};

DoubleManager& doubleManager() {
    static auto* manager = new DoubleManager;
    return *manager;
}

std::string optionalText(const std::optional<std::string>& text) {
    return std::string(platform::orNull(text));
}

std::string describeParameters(const NEVPNIKEv2SecurityAssociationParameters& p) {
    return fmt::format("{}/{}/{}/{}", static_cast<std::int64_t>(p.encryptionAlgorithm),
                       static_cast<std::int64_t>(p.integrityAlgorithm),
                       static_cast<std::int64_t>(p.diffieHellmanGroup), p.lifetimeMinutes);
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return "";
    }
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

bool parseError(std::istringstream& in, OptionalError& error) {
    NSError parsed;
    if (!(in >> parsed.code)) {
        return false;
    }
    std::string rest;
    std::getline(in, rest);
    parsed.description = trimmed(rest);
    error = parsed;
    return true;
}

bool parseChange(std::istringstream& in, std::vector<std::pair<int, NEVPNStatus>>& changes) {
    int delay = 0;
    std::int64_t status = 0;
    if (!(in >> delay >> status)) {
        return false;
    }
    changes.emplace_back(delay, static_cast<NEVPNStatus>(status));
    return true;
}

}  // namespace

std::optional<Script> parseScript(const std::string& text) {
    Script script;
    script.autoAnswer = true;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        line = trimmed(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream in(line);
        std::string word;
        in >> word;
        bool ok = true;
        if (word == "profile") {
            script.storedProfile = NEVPNProtocolIKEv2{};
        } else if (word == "load-error") {
            ok = parseError(in, script.loadError);
        } else if (word == "save-error") {
            ok = parseError(in, script.saveError);
        } else if (word == "remove-error") {
            ok = parseError(in, script.removeError);
        } else if (word == "start-error") {
            ok = parseError(in, script.startError);
        } else if (word == "no-connection") {
            script.hasConnection = false;
        } else if (word == "on-start") {
            ok = parseChange(in, script.onStart);
        } else if (word == "on-stop") {
            ok = parseChange(in, script.onStop);
        } else if (word == "last-disconnect-error") {
            std::string rest;
            std::getline(in, rest);
            script.lastDisconnectError = trimmed(rest);
        } else if (word == "service") {
            std::string rest;
            std::getline(in, rest);
            const auto bar = rest.rfind('|');
            if (bar == std::string::npos) {
                return std::nullopt;
            }
            NetworkService service{trimmed(rest.substr(0, bar)), trimmed(rest.substr(bar + 1))};
            if (service.interfaceName == "-") {
                service.interfaceName.reset();
            }
            if (!script.services) {
                script.services.emplace();
            }
            script.services->push_back(service);
        } else if (word == "raise-on-load") {
            ok = static_cast<bool>(in >> script.raiseOnLoad);
        } else if (word == "no-services") {
            script.services.reset();
        } else {
            ok = false;
        }
        if (!ok) {
            return std::nullopt;
        }
    }
    return script;
}

std::string describeProfile(const SavedProfile& saved) {
    const NEVPNProtocolIKEv2& p = saved.protocol;
    return fmt::format(
        "username={} serverAddress={} remoteIdentifier={} localIdentifier={} "
        "authenticationMethod={} "
        "useExtendedAuthentication={} enableRevocationCheck={} enablePFS={} disconnectOnSleep={} "
        "deadPeerDetectionRate={} ike={} child={} enabled={} localizedDescription={}",
        optionalText(p.username), optionalText(p.serverAddress), optionalText(p.remoteIdentifier),
        optionalText(p.localIdentifier), static_cast<std::int64_t>(p.authenticationMethod),
        p.useExtendedAuthentication ? 1 : 0, p.enableRevocationCheck ? 1 : 0, p.enablePFS ? 1 : 0,
        p.disconnectOnSleep ? 1 : 0, static_cast<std::int64_t>(p.deadPeerDetectionRate),
        describeParameters(p.IKESecurityAssociationParameters),
        describeParameters(p.childSecurityAssociationParameters), saved.enabled ? 1 : 0,
        optionalText(saved.localizedDescription));
}

ScriptedPlatform& ScriptedPlatform::instance() {
    static auto* platform = new ScriptedPlatform;
    return *platform;
}

ScriptedPlatform::ScriptedPlatform() {
    if (const char* recordPath = std::getenv("ORVANE_DOUBLE_RECORD")) {
        recordFd_ = ::open(recordPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    }
    if (const char* scriptPath = std::getenv("ORVANE_DOUBLE_SCRIPT")) {
        std::ifstream file(scriptPath);
        std::stringstream text;
        text << file.rdbuf();
        auto script = file ? parseScript(text.str()) : std::nullopt;
        if (!script) {
            std::fprintf(stderr, "platform double: unusable script %s\n", scriptPath);
            std::_Exit(97);
        }
        script_ = std::move(*script);
    }
}

void ScriptedPlatform::reset() {
    script_ = Script{};
    calls_.clear();
    saved_.clear();
    startRequests_.clear();
    stopCount_ = 0;
    fetchRequests_.clear();
    serviceLookups_ = 0;
    pendingLoad_ = nullptr;
    pendingSave_ = nullptr;
    pendingRemove_ = nullptr;
    status_ = NEVPNStatusInvalid;
    DoubleManager& manager = doubleManager();
    manager.setProtocolConfiguration(std::nullopt);
    manager.setEnabled(false);
    manager.setLocalizedDescription(std::nullopt);
}

void ScriptedPlatform::useScript(Script script) {
    script_ = std::move(script);
}

void ScriptedPlatform::record(const std::string& line) {
    if (recordFd_ < 0) {
        return;
    }
    const std::string text = line + "\n";
    [[maybe_unused]] const ssize_t written = ::write(recordFd_, text.data(), text.size());
}

void ScriptedPlatform::setStatus(NEVPNStatus status) {
    status_ = status;
    record(fmt::format("status {}", static_cast<std::int64_t>(status)));
}

void ScriptedPlatform::fireStatus(NEVPNStatus status) {
    setStatus(status);
    postStatusDidChange();
}

void ScriptedPlatform::schedule(const std::vector<std::pair<int, NEVPNStatus>>& changes) {
    for (const auto& [delay, status] : changes) {
        RunLoop::main().dispatchAfter(std::chrono::milliseconds(delay),
                                      [this, status = status] { fireStatus(status); });
    }
}

void ScriptedPlatform::requestLoad(CompletionHandler handler) {
    calls_.push_back("load");
    record("load");
    pendingLoad_ = std::move(handler);
    if (script_.autoAnswer) {
        RunLoop::main().post([this] { completeLoad(script_.loadError); });
    }
    if (script_.raiseOnLoad != 0) {
        std::raise(script_.raiseOnLoad);
    }
}

void ScriptedPlatform::requestSave(CompletionHandler handler) {
    DoubleManager& manager = doubleManager();
    SavedProfile asked{manager.protocolConfiguration().value_or(NEVPNProtocolIKEv2{}),
                       manager.enabled(), manager.localizedDescription()};
    calls_.push_back("save");
    record("save " + describeProfile(asked));
    saved_.push_back(std::move(asked));
    pendingSave_ = std::move(handler);
    if (script_.autoAnswer) {
        RunLoop::main().post([this] { completeSave(script_.saveError); });
    }
}

void ScriptedPlatform::requestRemove(CompletionHandler handler) {
    calls_.push_back("remove");
    record("remove");
    pendingRemove_ = std::move(handler);
    if (script_.autoAnswer) {
        RunLoop::main().post([this] { completeRemove(script_.removeError); });
    }
}

void ScriptedPlatform::completeLoad(OptionalError error) {
    CompletionHandler handler = std::move(pendingLoad_);
    pendingLoad_ = nullptr;
    if (!error) {
        doubleManager().setProtocolConfiguration(script_.storedProfile);
    }
    if (handler) {
        handler(error);
    }
}

void ScriptedPlatform::completeSave(OptionalError error) {
    CompletionHandler handler = std::move(pendingSave_);
    pendingSave_ = nullptr;
    if (!error) {
        script_.storedProfile = doubleManager().protocolConfiguration();
    }
    if (handler) {
        handler(error);
    }
}

void ScriptedPlatform::completeRemove(OptionalError error) {
    CompletionHandler handler = std::move(pendingRemove_);
    pendingRemove_ = nullptr;
    if (!error) {
        script_.storedProfile.reset();
        doubleManager().setProtocolConfiguration(std::nullopt);
    }
    if (handler) {
        handler(error);
    }
}

OptionalError ScriptedPlatform::requestStart(const NEVPNStartOptions& options) {
    calls_.push_back("start");
    record(fmt::format("start username={} password-length={}", options.username,
                       options.password.size()));
    // The tool's test build keeps no copy, as a backend must not: its memory
    // is searched for the password while it runs.
    if (!script_.autoAnswer) {
        startRequests_.push_back({options.username, Secret(options.password.view())});
    }
    if (script_.startError) {
        return script_.startError;
    }
    if (script_.autoAnswer) {
        schedule(script_.onStart);
    }
    return std::nullopt;
}

void ScriptedPlatform::requestStop() {
    calls_.push_back("stop");
    record("stop");
    ++stopCount_;
    if (script_.autoAnswer) {
        schedule(script_.onStop);
    }
}

std::string ScriptedPlatform::answerLastDisconnectError(
    std::optional<SystemClock::time_point> since) {
    fetchRequests_.push_back(since);
    record(since ? fmt::format(
                       "fetch-last-disconnect-error since={}",
                       std::chrono::duration_cast<std::chrono::seconds>(since->time_since_epoch())
                           .count())
                 : std::string("fetch-last-disconnect-error since=none"));
    return script_.lastDisconnectError;
}

std::optional<std::vector<NetworkService>> ScriptedPlatform::answerServices() {
    ++serviceLookups_;
    record("copy-all-network-services");
    return script_.services;
}

}  // namespace platform_double

namespace platform {

NEVPNManager& NEVPNManager::sharedManager() {
    return platform_double::doubleManager();
}

std::string fetchLastDisconnectError(std::optional<SystemClock::time_point> since) {
    return platform_double::ScriptedPlatform::instance().answerLastDisconnectError(since);
}

std::optional<std::vector<NetworkService>> copyAllNetworkServices() {
    return platform_double::ScriptedPlatform::instance().answerServices();
}

}  // namespace platform
