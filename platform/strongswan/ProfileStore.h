#pragma once

// The saved profile on Linux: one XML property list, by default
// /var/lib/orvane-ikev2/preferences.plist. Written atomically (temporary
// file in the same folder, fsync, rename), mode 0600, never through a
// symbolic link; the folder is created 0700 when missing. The password is
// not part of the profile and never reaches the file.

#include "platform/NEVPN.h"
#include "platform/strongswan/Result.h"

#include <optional>
#include <string>

namespace platform::strongswan {

inline constexpr const char* kDefaultPreferencesPath = "/var/lib/orvane-ikev2/preferences.plist";

struct StoredProfile {
    NEVPNProtocolIKEv2 protocol;
    bool enabled = false;
    std::optional<std::string> localizedDescription;

    bool operator==(const StoredProfile&) const = default;
};

class ProfileStore {
  public:
    explicit ProfileStore(std::string path = kDefaultPreferencesPath);

    const std::string& path() const { return path_; }

    // No file: no profile. An unreadable file, or a symbolic link in its
    // place: an error with NEVPNErrorConfigurationReadWriteFailed; a file
    // that was read but holds no profile (corrupt): one with
    // NEVPNErrorConfigurationInvalid.
    Result<std::optional<StoredProfile>> load() const;
    // Keeps a corrupt file aside, under the path with ".corrupt" appended
    // (replacing an earlier one), rather than deleting it.
    Result<void> setAside() const;
    Result<void> save(const StoredProfile& profile) const;
    // Deletes the file; a missing file is not an error.
    Result<void> remove() const;

    // The property list text for a profile, and back (exposed for tests).
    static std::string serialize(const StoredProfile& profile);
    static Result<StoredProfile> deserialize(const std::string& bytes);

  private:
    std::string path_;
};

}  // namespace platform::strongswan
