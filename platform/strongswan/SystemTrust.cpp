#include "platform/strongswan/SystemTrust.h"

#include "log/DDLog.h"

#include <fmt/format.h>
#include <nettle/sha2.h>
#include <asio/post.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <set>

namespace platform::strongswan {

namespace {

constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
// A trust store is a few hundred kilobytes; a file beyond this is no store.
constexpr std::size_t kMaxBundleSize = 32 * 1024 * 1024;

std::string sha256Hex(std::string_view data) {
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, data.size(), reinterpret_cast<const std::uint8_t*>(data.data()));
    std::uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&context, sizeof(digest), digest);
    std::string out;
    for (std::uint8_t byte : digest) {
        fmt::format_to(std::back_inserter(out), "{:02x}", byte);
    }
    return out;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// The whole file, or why it cannot be read; a file that does not exist
// has ENOENT as the error's cause.
Result<std::string> readBundle(const std::string& path) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rbe"));
    if (!file) {
        const int err = errno;
        return Error{fmt::format("{}: {}", path, std::strerror(err)),
                     NEVPNErrorConfigurationReadWriteFailed,
                     std::error_code(err, std::generic_category())};
    }
    // Read in place, into room for the whole file: a trust store is the
    // largest thing the tool holds.
    struct stat st {};
    std::size_t expected = ::fstat(::fileno(file.get()), &st) == 0 && S_ISREG(st.st_mode)
                               ? static_cast<std::size_t>(st.st_size)
                               : 0;
    std::string bytes;
    bytes.reserve(std::min(expected, kMaxBundleSize) + 1);
    std::size_t n = 0;
    do {
        std::size_t at = bytes.size();
        bytes.resize(std::max(bytes.capacity(), at + 4096));
        n = std::fread(bytes.data() + at, 1, bytes.size() - at, file.get());
        bytes.resize(at + n);
        if (bytes.size() > kMaxBundleSize) {
            return Error{fmt::format("{}: larger than {} bytes", path, kMaxBundleSize)};
        }
    } while (n > 0);
    if (std::ferror(file.get())) {
        return Error{fmt::format("{}: read error", path)};
    }
    return bytes;
}

}  // namespace

std::vector<std::string> defaultTrustBundles() {
    return {
        "/etc/ssl/certs/ca-certificates.crt",                 // Debian, Ubuntu, Arch
        "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  // Fedora, RHEL
        "/etc/pki/tls/certs/ca-bundle.crt",                   // older Fedora, RHEL
        "/etc/ssl/ca-bundle.pem",                             // openSUSE
        "/etc/ssl/cert.pem",                                  // Alpine
    };
}

std::vector<TrustAnchor> parseTrustBundle(std::string_view bundle) {
    std::vector<TrustAnchor> anchors;
    std::set<std::string> seen;
    std::size_t at = 0;
    while ((at = bundle.find(kBegin, at)) != std::string_view::npos) {
        std::size_t pemStart = at;
        std::size_t end = bundle.find(kEnd, at + kBegin.size());
        if (end == std::string_view::npos) {
            break;
        }
        std::string body;
        for (char c : bundle.substr(at + kBegin.size(), end - at - kBegin.size())) {
            if (c != '\n' && c != '\r' && c != ' ' && c != '\t') {
                body += c;
            }
        }
        at = end + kEnd.size();
        if (at < bundle.size() && bundle[at] == '\n') {
            ++at;
        }
        std::string_view pem = bundle.substr(pemStart, at - pemStart);
        // One VICI value holds at most 64 KiB; no CA certificate comes near.
        if (body.empty() || pem.size() >= kViciMaxValue) {
            continue;
        }
        std::string name = std::string(kTrustAnchorPrefix) + sha256Hex(body);
        if (seen.insert(name).second) {
            anchors.push_back({std::move(name), pem});
        }
    }
    return anchors;
}

TrustChanges planTrustChanges(const std::vector<std::string>& loaded,
                              const std::vector<TrustAnchor>& store) {
    std::set<std::string_view> have(loaded.begin(), loaded.end());
    std::set<std::string_view> want;
    TrustChanges changes;
    for (const TrustAnchor& anchor : store) {
        want.insert(anchor.name);
        if (have.count(anchor.name) == 0) {
            changes.load.push_back(&anchor);
        }
    }
    for (const std::string& name : loaded) {
        if (name.rfind(kTrustAnchorPrefix, 0) == 0 && want.count(name) == 0) {
            changes.unload.push_back(name);
        }
    }
    return changes;
}

SystemTrust::SystemTrust(asio::io_context& context, std::vector<std::string> bundles)
    : context_(context), bundles_(std::move(bundles)) {}

SystemTrust::~SystemTrust() {
    liveness_.end();
}

bool SystemTrust::readStore() {
    bundle_.clear();
    for (const std::string& path : bundles_) {
        Result<std::string> bytes = readBundle(path);
        if (bytes) {
            bundle_ = std::move(*bytes);
            break;
        }
        if (bytes.error().cause != std::errc::no_such_file_or_directory) {
            DDLogDebug("IKEv2 system trust store not read: {}", bytes.error().text);
            return false;
        }
    }
    // No store on this system (an empty bundle_): it trusts no CA.
    store_ = parseTrustBundle(bundle_);
    return true;
}

void SystemTrust::sync(const std::shared_ptr<ViciClient>& client, std::function<void()> done) {
    if (done) {
        waiters_.push_back(std::move(done));
    }
    if (state_ == State::Finished) {
        finish();
        return;
    }
    if (state_ == State::Running) {
        return;
    }
    state_ = State::Running;
    started_ = std::chrono::steady_clock::now();
    if (!client || !readStore()) {
        finish();
        return;
    }
    std::weak_ptr<ViciClient> weakClient = client;
    client->request("get-authorities", {},
                    liveness_.guard([this, weakClient](const ViciReply& reply) {
                        auto strong = weakClient.lock();
                        if (!reply.ok() || !strong) {
                            DDLogDebug("IKEv2 get-authorities: {}", reply.failure());
                            finish();
                            return;
                        }
                        const std::vector<std::string>* loaded = reply.message.list("authorities");
                        apply(strong, loaded != nullptr ? *loaded : std::vector<std::string>{});
                    }));
}

void SystemTrust::apply(const std::shared_ptr<ViciClient>& client,
                        const std::vector<std::string>& loaded) {
    changes_ = planTrustChanges(loaded, store_);
    DDLogDebug("IKEv2 system trust store: {} CA certificates, {} to load, {} to unload",
               store_.size(), changes_.load.size(), changes_.unload.size());
    if (changes_.load.empty() && changes_.unload.empty()) {
        finish();
        return;
    }
    // charon answers one request after the other: two in the queue keep it
    // busy without holding every certificate's message at once.
    sendNext(client);
    sendNext(client);
}

void SystemTrust::sendNext(const std::shared_ptr<ViciClient>& client) {
    std::size_t total = changes_.load.size() + changes_.unload.size();
    if (sent_ == total) {
        return;
    }
    std::size_t index = sent_++;
    std::weak_ptr<ViciClient> weakClient = client;
    ViciSection message;
    if (index < changes_.load.size()) {
        const TrustAnchor& anchor = *changes_.load[index];
        message.addSection(anchor.name).add("cacert", std::string(anchor.pem));
        client->request("load-authority", message,
                        liveness_.guard([this, weakClient](const ViciReply& reply) {
                            answered(weakClient, !reply.succeeded());
                        }));
        return;
    }
    message.add("name", changes_.unload[index - changes_.load.size()]);
    client->request("unload-authority", message,
                    liveness_.guard([this, weakClient](const ViciReply& reply) {
                        if (!reply.succeeded()) {
                            DDLogDebug("IKEv2 unload-authority: {}", reply.failure());
                        }
                        answered(weakClient, false);
                    }));
}

void SystemTrust::answered(const std::weak_ptr<ViciClient>& client, bool refused) {
    refused_ += refused ? 1 : 0;
    auto strong = client.lock();
    if (!strong) {
        finish();
        return;
    }
    if (++answered_ < changes_.load.size() + changes_.unload.size()) {
        sendNext(strong);
        return;
    }
    if (!changes_.load.empty()) {
        warmUp(*strong);
    } else {
        finish();
    }
}

void SystemTrust::warmUp(ViciClient& client) {
    // charon works out the key identifiers of certificates lazily, on the
    // first chain lookup: with the system's CAs that costs the first
    // exchange hundreds of milliseconds. A lookup by a key id that no
    // certificate has makes it work them out now, in the idle wait.
    ViciSection lookup;
    lookup.add("type", "X509").add("subject", "keyid:#00");
    client.request("list-certs", lookup, liveness_.guard([this](const ViciReply& reply) {
        if (!reply.ok()) {
            DDLogDebug("IKEv2 list-certs: {}", reply.failure());
        }
        finish();
    }));
}

void SystemTrust::finish() {
    if (state_ == State::Running) {
        DDLogDebug("IKEv2 system trust store in step after {} ms, {} CA certificates refused",
                   std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - started_)
                       .count(),
                   refused_);
    }
    state_ = State::Finished;
    changes_ = {};
    store_.clear();
    bundle_.clear();
    bundle_.shrink_to_fit();
    for (auto& waiter : waiters_) {
        asio::post(context_, std::move(waiter));
    }
    waiters_.clear();
}

}  // namespace platform::strongswan
