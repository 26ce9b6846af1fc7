#include "platform/strongswan/ProfileStore.h"

#include "os/File.h"

#include <fmt/format.h>
#include <plist/plist.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace platform::strongswan {

NSError makeVPNError(NEVPNErrorCode code, const std::string& text) {
    return NSError{code, fmt::format("Error Domain=NEVPNErrorDomain Code={} \"{}\"",
                                     static_cast<std::int64_t>(code), text)};
}

namespace {

// Bound on what load reads: a profile is well under a kilobyte.
constexpr std::size_t kMaxFileSize = 1024 * 1024;
constexpr std::uint64_t kFormatVersion = 1;

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistDeleter>;

void setString(plist_t dict, const char* key, const std::optional<std::string>& value) {
    if (value) {
        plist_dict_set_item(dict, key, plist_new_string(value->c_str()));
    }
}

plist_t saDict(const NEVPNIKEv2SecurityAssociationParameters& sa) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "EncryptionAlgorithm",
                        plist_new_uint(static_cast<std::uint64_t>(sa.encryptionAlgorithm)));
    plist_dict_set_item(dict, "IntegrityAlgorithm",
                        plist_new_uint(static_cast<std::uint64_t>(sa.integrityAlgorithm)));
    plist_dict_set_item(dict, "DiffieHellmanGroup",
                        plist_new_uint(static_cast<std::uint64_t>(sa.diffieHellmanGroup)));
    plist_dict_set_item(dict, "LifetimeMinutes",
                        plist_new_uint(static_cast<std::uint64_t>(sa.lifetimeMinutes)));
    return dict;
}

// Typed readers that fail on a missing key or a wrong type; the failure
// is kept for `error`.
class Reader {
  public:
    const Error& error() const { return *failure_; }

    bool dict(plist_t parent, const char* key, plist_t& out) {
        out = plist_dict_get_item(parent, key);
        return check(out, PLIST_DICT, key);
    }
    bool boolean(plist_t parent, const char* key, bool& out) {
        plist_t node = plist_dict_get_item(parent, key);
        if (!check(node, PLIST_BOOLEAN, key)) {
            return false;
        }
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        out = value != 0;
        return true;
    }
    // A key that files written before it existed lack: absent reads as false.
    bool optionalBoolean(plist_t parent, const char* key, bool& out) {
        out = false;
        return plist_dict_get_item(parent, key) == nullptr || boolean(parent, key, out);
    }
    bool number(plist_t parent, const char* key, std::int64_t low, std::int64_t high,
                std::int64_t& out) {
        plist_t node = plist_dict_get_item(parent, key);
        if (!check(node, PLIST_UINT, key)) {
            return false;
        }
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        if (value > static_cast<std::uint64_t>(high) || static_cast<std::int64_t>(value) < low) {
            return fail(fmt::format("{} out of range: {}", key, value));
        }
        out = static_cast<std::int64_t>(value);
        return true;
    }
    bool optionalString(plist_t parent, const char* key, std::optional<std::string>& out) {
        plist_t node = plist_dict_get_item(parent, key);
        out.reset();
        if (node == nullptr) {
            return true;
        }
        if (!check(node, PLIST_STRING, key)) {
            return false;
        }
        char* value = nullptr;
        plist_get_string_val(node, &value);
        out = value != nullptr ? std::string(value) : std::string();
        std::free(value);
        return true;
    }
    bool sa(plist_t parent, const char* key, NEVPNIKEv2SecurityAssociationParameters& out) {
        plist_t node = nullptr;
        std::int64_t encryption = 0;
        std::int64_t integrity = 0;
        std::int64_t group = 0;
        std::int64_t lifetime = 0;
        if (!dict(parent, key, node) ||
            !number(node, "EncryptionAlgorithm", NEVPNIKEv2EncryptionAlgorithmDES,
                    NEVPNIKEv2EncryptionAlgorithmChaCha20Poly1305, encryption) ||
            !number(node, "IntegrityAlgorithm", NEVPNIKEv2IntegrityAlgorithmSHA96,
                    NEVPNIKEv2IntegrityAlgorithmSHA512, integrity) ||
            !number(node, "DiffieHellmanGroup", NEVPNIKEv2DiffieHellmanGroupInvalid,
                    NEVPNIKEv2DiffieHellmanGroup32, group) ||
            !number(node, "LifetimeMinutes", 0, INT32_MAX, lifetime)) {
            return false;
        }
        out.encryptionAlgorithm = static_cast<NEVPNIKEv2EncryptionAlgorithm>(encryption);
        out.integrityAlgorithm = static_cast<NEVPNIKEv2IntegrityAlgorithm>(integrity);
        out.diffieHellmanGroup = static_cast<NEVPNIKEv2DiffieHellmanGroup>(group);
        out.lifetimeMinutes = static_cast<std::int32_t>(lifetime);
        return true;
    }

  private:
    bool check(plist_t node, plist_type type, const char* key) {
        if (node == nullptr) {
            return fail(fmt::format("missing {}", key));
        }
        if (plist_get_node_type(node) != type) {
            return fail(fmt::format("{} has the wrong type", key));
        }
        return true;
    }
    bool fail(std::string why) {
        failure_.emplace(std::move(why));
        return false;
    }
    std::optional<Error> failure_;
};

std::string folderOf(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

Error fileError(std::string text) {
    return Error{std::move(text), NEVPNErrorConfigurationReadWriteFailed};
}

Error ioError(const std::string& what, const std::string& path, int err) {
    return fileError(fmt::format("{} {}: {}", what, path, std::strerror(err)));
}

// Creates the missing folders of `folder`, each 0700.
Result<void> makeFolders(const std::string& folder) {
    struct stat st {};
    if (::lstat(folder.c_str(), &st) == 0) {
        if (S_ISLNK(st.st_mode)) {
            return fileError(fmt::format("refusing symbolic link {}", folder));
        }
        return {};
    }
    if (errno != ENOENT) {
        return ioError("cannot inspect", folder, errno);
    }
    std::string parent = folderOf(folder);
    if (parent != folder) {
        if (Result<void> made = makeFolders(parent); !made) {
            return made;
        }
    }
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return ioError("cannot create", folder, errno);
    }
    return {};
}

}  // namespace

ProfileStore::ProfileStore(std::string path) : path_(std::move(path)) {}

std::string ProfileStore::serialize(const StoredProfile& profile) {
    Plist root(plist_new_dict());
    plist_t top = root.get();
    plist_dict_set_item(top, "FormatVersion", plist_new_uint(kFormatVersion));
    setString(top, "LocalizedDescription", profile.localizedDescription);
    plist_dict_set_item(top, "Enabled", plist_new_bool(profile.enabled ? 1 : 0));
    const NEVPNProtocolIKEv2& p = profile.protocol;
    plist_t proto = plist_new_dict();
    setString(proto, "Username", p.username);
    setString(proto, "ServerAddress", p.serverAddress);
    setString(proto, "RemoteIdentifier", p.remoteIdentifier);
    setString(proto, "LocalIdentifier", p.localIdentifier);
    plist_dict_set_item(proto, "AuthenticationMethod",
                        plist_new_uint(static_cast<std::uint64_t>(p.authenticationMethod)));
    plist_dict_set_item(proto, "UseExtendedAuthentication",
                        plist_new_bool(p.useExtendedAuthentication ? 1 : 0));
    plist_dict_set_item(proto, "EnableRevocationCheck",
                        plist_new_bool(p.enableRevocationCheck ? 1 : 0));
    plist_dict_set_item(proto, "StrictRevocationCheck",
                        plist_new_bool(p.strictRevocationCheck ? 1 : 0));
    plist_dict_set_item(proto, "EnablePFS", plist_new_bool(p.enablePFS ? 1 : 0));
    plist_dict_set_item(proto, "DisconnectOnSleep", plist_new_bool(p.disconnectOnSleep ? 1 : 0));
    plist_dict_set_item(proto, "DeadPeerDetectionRate",
                        plist_new_uint(static_cast<std::uint64_t>(p.deadPeerDetectionRate)));
    plist_dict_set_item(proto, "IKESecurityAssociationParameters",
                        saDict(p.IKESecurityAssociationParameters));
    plist_dict_set_item(proto, "ChildSecurityAssociationParameters",
                        saDict(p.childSecurityAssociationParameters));
    plist_dict_set_item(top, "IKEv2", proto);
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(top, &xml, &length);
    std::string out = xml != nullptr ? std::string(xml, length) : std::string();
    plist_to_xml_free(xml);
    return out;
}

Result<StoredProfile> ProfileStore::deserialize(const std::string& bytes) {
    if (bytes.empty() || bytes.size() > kMaxFileSize) {
        return Error{bytes.empty() ? "empty file" : "file too large"};
    }
    plist_t parsed = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &parsed);
    Plist root(parsed);
    if (parsed == nullptr || plist_get_node_type(parsed) != PLIST_DICT) {
        return Error{"not a property list dictionary"};
    }
    Reader read;
    StoredProfile out;
    std::int64_t version = 0;
    plist_t proto = nullptr;
    std::int64_t auth = 0;
    std::int64_t dpd = 0;
    NEVPNProtocolIKEv2& p = out.protocol;
    if (!read.number(parsed, "FormatVersion", 1, 1, version) ||
        !read.optionalString(parsed, "LocalizedDescription", out.localizedDescription) ||
        !read.boolean(parsed, "Enabled", out.enabled) || !read.dict(parsed, "IKEv2", proto) ||
        !read.optionalString(proto, "Username", p.username) ||
        !read.optionalString(proto, "ServerAddress", p.serverAddress) ||
        !read.optionalString(proto, "RemoteIdentifier", p.remoteIdentifier) ||
        !read.optionalString(proto, "LocalIdentifier", p.localIdentifier) ||
        !read.number(proto, "AuthenticationMethod", NEVPNIKEAuthenticationMethodNone,
                     NEVPNIKEAuthenticationMethodSharedSecret, auth) ||
        !read.boolean(proto, "UseExtendedAuthentication", p.useExtendedAuthentication) ||
        !read.boolean(proto, "EnableRevocationCheck", p.enableRevocationCheck) ||
        !read.optionalBoolean(proto, "StrictRevocationCheck", p.strictRevocationCheck) ||
        !read.boolean(proto, "EnablePFS", p.enablePFS) ||
        !read.boolean(proto, "DisconnectOnSleep", p.disconnectOnSleep) ||
        !read.number(proto, "DeadPeerDetectionRate", NEVPNIKEv2DeadPeerDetectionRateNone,
                     NEVPNIKEv2DeadPeerDetectionRateHigh, dpd) ||
        !read.sa(proto, "IKESecurityAssociationParameters", p.IKESecurityAssociationParameters) ||
        !read.sa(proto, "ChildSecurityAssociationParameters",
                 p.childSecurityAssociationParameters)) {
        return read.error();
    }
    p.authenticationMethod = static_cast<NEVPNIKEAuthenticationMethod>(auth);
    p.deadPeerDetectionRate = static_cast<NEVPNIKEv2DeadPeerDetectionRate>(dpd);
    return out;
}

Result<std::optional<StoredProfile>> ProfileStore::load() const {
    const os::FileDescriptor fd = os::openForReading(path_, os::FinalLink::refuse);
    if (!fd.valid()) {
        if (errno == ENOENT) {
            return std::optional<StoredProfile>();
        }
        if (errno == ELOOP) {
            return fileError(fmt::format("refusing symbolic link {}", path_));
        }
        return ioError("cannot open", path_, errno);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return fileError(fmt::format("not a regular file: {}", path_));
    }
    std::string bytes;
    const int number = os::readBounded(fd.get(), kMaxFileSize, bytes);
    if (number != 0 && number != EFBIG) {
        return ioError("cannot read", path_, number);
    }
    Result<StoredProfile> loaded =
        number == EFBIG ? Result<StoredProfile>(Error{"file too large"}) : deserialize(bytes);
    if (!loaded) {
        return Error{fmt::format("corrupt preferences {}: {}", path_, loaded.error().text),
                     NEVPNErrorConfigurationInvalid};
    }
    return std::optional<StoredProfile>(std::move(*loaded));
}

Result<void> ProfileStore::save(const StoredProfile& profile) const {
    const std::string folder = folderOf(path_);
    if (Result<void> made = makeFolders(folder); !made) {
        return made;
    }
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        return fileError(S_ISLNK(st.st_mode) ? fmt::format("refusing symbolic link {}", path_)
                                             : fmt::format("not a regular file: {}", path_));
    }
    const os::WriteFailure failure =
        os::writeFileAtomically(path_, serialize(profile), {0600, true});
    switch (failure.step) {
        case os::WriteFailure::none:
            return {};
        case os::WriteFailure::openFolder:
            return ioError("cannot open folder", folder, failure.number);
        case os::WriteFailure::createTemporary:
            return ioError("cannot create a temporary file in", folder, failure.number);
        case os::WriteFailure::write:
            return ioError("cannot write", path_, failure.number);
    }
    return ioError("cannot write", path_, EIO);
}

Result<void> ProfileStore::setAside() const {
    const std::string aside = path_ + ".corrupt";
    if (::rename(path_.c_str(), aside.c_str()) != 0 && errno != ENOENT) {
        return ioError("cannot move aside", path_, errno);
    }
    return {};
}

Result<void> ProfileStore::remove() const {
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) {
        return ioError("cannot remove", path_, errno);
    }
    return {};
}

}  // namespace platform::strongswan
