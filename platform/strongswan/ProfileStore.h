#pragma once

// The saved profile on Linux: one XML property list, by default
// /var/lib/orvane-ikev2/preferences.plist. Written atomically (temporary
// file in the same folder, fsync, rename), mode 0600, never through a
// symbolic link; the folder is created 0700 when missing. The password is
// not part of the profile and never reaches the file.

#include "platform/NEVPN.h"

#include <optional>
#include <string>

namespace platform::strongswan {

inline constexpr const char* kDefaultPreferencesPath = "/var/lib/orvane-ikev2/preferences.plist";

// NEVPNErrorDomain codes used for the errors handed to completions.
enum NEVPNErrorCode : std::int64_t {
    NEVPNErrorConfigurationInvalid = 1,
    NEVPNErrorConfigurationDisabled = 2,
    NEVPNErrorConnectionFailed = 3,
    NEVPNErrorConfigurationStale = 4,
    NEVPNErrorConfigurationReadWriteFailed = 5,
    NEVPNErrorConfigurationUnknown = 6,
};

// An NSError of NEVPNErrorDomain with `text` as its reason.
NSError makeVPNError(NEVPNErrorCode code, const std::string& text);

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

    // No file: true with `profile` empty. An unreadable or corrupt file, or
    // a symbolic link in its place: false with `error`; `corrupt` (when
    // given) tells a file that was read but holds no profile.
    bool load(std::optional<StoredProfile>& profile, NSError& error,
              bool* corrupt = nullptr) const;
    // Keeps a corrupt file aside, under the path with ".corrupt" appended
    // (replacing an earlier one), rather than deleting it.
    bool setAside(NSError& error) const;
    bool save(const StoredProfile& profile, NSError& error) const;
    // Deletes the file; a missing file is not an error.
    bool remove(NSError& error) const;

    // The property list text for a profile, and back (exposed for tests).
    static std::string serialize(const StoredProfile& profile);
    static bool deserialize(const std::string& bytes, StoredProfile& profile, std::string& error);

private:
    std::string path_;
};

}  // namespace platform::strongswan
