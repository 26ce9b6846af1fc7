#include "platform/strongswan/ProfileStore.h"
#include "tests/unit/platform/strongswan/ToolProfile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace ss = platform::strongswan;
namespace fs = std::filesystem;
using platform::NSError;

using testprofile::readFile;

namespace {

ss::StoredProfile sampleProfile() {
    ss::StoredProfile profile;
    profile.protocol = testprofile::toolProfile();
    profile.enabled = true;
    profile.localizedDescription = "Orvane IKEv2";
    return profile;
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

class ProfileStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/profilestore.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        file = root / "orvane-ikev2" / "preferences.plist";
    }
    void TearDown() override { fs::remove_all(root); }

    fs::path root;
    fs::path file;
};

TEST_F(ProfileStoreTest, NoFileMeansNoProfile) {
    ss::ProfileStore store(file);
    auto loaded = store.load();
    ASSERT_TRUE(loaded);
    EXPECT_FALSE(loaded->has_value());
}

TEST_F(ProfileStoreTest, SavesAndLoadsEveryField) {
    ss::ProfileStore store(file);
    ss::StoredProfile profile = sampleProfile();
    profile.protocol.localIdentifier = "client@example.net";
    profile.protocol.childSecurityAssociationParameters = {
        platform::NEVPNIKEv2EncryptionAlgorithmAES128GCM,
        platform::NEVPNIKEv2IntegrityAlgorithmSHA384, platform::NEVPNIKEv2DiffieHellmanGroup19, 60};
    profile.protocol.deadPeerDetectionRate = platform::NEVPNIKEv2DeadPeerDetectionRateLow;
    ASSERT_TRUE(store.save(profile)) << store.save(profile).error().text;
    auto loaded = store.load();
    ASSERT_TRUE(loaded) << loaded.error().text;
    ASSERT_TRUE(loaded->has_value());
    EXPECT_EQ(**loaded, profile);

    // Absent optional fields stay absent.
    profile.protocol.localIdentifier.reset();
    profile.protocol.remoteIdentifier.reset();
    profile.localizedDescription.reset();
    ASSERT_TRUE(store.save(profile));
    loaded = store.load();
    ASSERT_TRUE(loaded && loaded->has_value());
    EXPECT_EQ(**loaded, profile);
}

TEST_F(ProfileStoreTest, StrictRevocationCheckIsSavedAndDefaultsToNo) {
    ss::ProfileStore store(file);
    ss::StoredProfile profile = sampleProfile();
    for (bool strict : {true, false}) {
        profile.protocol.strictRevocationCheck = strict;
        ASSERT_TRUE(store.save(profile));
        auto loaded = store.load();
        ASSERT_TRUE(loaded) << loaded.error().text;
        ASSERT_TRUE(loaded->has_value());
        EXPECT_EQ((*loaded)->protocol.strictRevocationCheck, strict);
    }

    // A file written before the key existed reads as NO; a wrong type is
    // still a corrupt file.
    std::string text = ss::ProfileStore::serialize(sampleProfile());
    const std::string key = "<key>StrictRevocationCheck</key>\n\t\t<false/>\n\t\t";
    auto at = text.find(key);
    ASSERT_NE(at, std::string::npos) << text;
    writeFile(file, std::string(text).erase(at, key.size()));
    auto loaded = store.load();
    ASSERT_TRUE(loaded && loaded->has_value());
    EXPECT_FALSE((*loaded)->protocol.strictRevocationCheck);
    EXPECT_EQ(**loaded, sampleProfile());
    writeFile(file, std::string(text).replace(
                        at, key.size(), "<key>StrictRevocationCheck</key><string>no</string>"));
    EXPECT_FALSE(store.load());
}

TEST_F(ProfileStoreTest, FileIsPrivateAndFolderCreatedPrivate) {
    ss::ProfileStore store(file);
    ::umask(022);
    ASSERT_TRUE(store.save(sampleProfile()));
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_EQ(::stat(file.parent_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    std::string text = readFile(file);
    EXPECT_NE(text.find("<plist"), std::string::npos);
    EXPECT_NE(text.find("alice"), std::string::npos);
    EXPECT_EQ(text.find("assword"), std::string::npos);
}

TEST_F(ProfileStoreTest, ReplacesTheFileAtomicallyAndLeavesNoTemporaryFiles) {
    ss::ProfileStore store(file);
    ASSERT_TRUE(store.save(sampleProfile()));
    std::string before = readFile(file);
    // A hard link keeps the old inode: an in-place rewrite would change it.
    fs::path keep = root / "old-copy";
    fs::create_hard_link(file, keep);
    ss::StoredProfile changed = sampleProfile();
    changed.protocol.username = "bob";
    ASSERT_TRUE(store.save(changed));
    EXPECT_EQ(readFile(keep), before);
    EXPECT_NE(readFile(file).find("bob"), std::string::npos);
    int entries = 0;
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        ++entries;
        EXPECT_EQ(entry.path().filename(), "preferences.plist");
    }
    EXPECT_EQ(entries, 1);
}

TEST_F(ProfileStoreTest, RefusesSymbolicLinks) {
    fs::create_directories(file.parent_path());
    fs::path target = root / "elsewhere";
    writeFile(target, "untouched");
    fs::create_symlink(target, file);
    ss::ProfileStore store(file);
    auto saved = store.save(sampleProfile());
    ASSERT_FALSE(saved);
    EXPECT_NE(saved.error().text.find("symbolic link"), std::string::npos);
    EXPECT_EQ(saved.error().code, ss::NEVPNErrorConfigurationReadWriteFailed);
    EXPECT_EQ(readFile(target), "untouched");
    auto loaded = store.load();
    ASSERT_FALSE(loaded);
    EXPECT_NE(loaded.error().text.find("symbolic link"), std::string::npos);

    // A linked folder is refused as well.
    fs::path realFolder = root / "real";
    fs::create_directories(realFolder);
    fs::path linkedFolder = root / "linked";
    fs::create_directory_symlink(realFolder, linkedFolder);
    ss::ProfileStore throughLink(linkedFolder / "preferences.plist");
    EXPECT_FALSE(throughLink.save(sampleProfile()));
    EXPECT_FALSE(fs::exists(realFolder / "preferences.plist"));
}

TEST_F(ProfileStoreTest, CorruptFilesAreLoadErrors) {
    std::string good = ss::ProfileStore::serialize(sampleProfile());
    auto replace = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        auto at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return text.replace(at, from.size(), to);
    };
    struct Case {
        const char* what;
        std::string text;
    };
    std::vector<Case> cases = {
        {"empty file", ""},
        {"not a property list", "hello world\n"},
        {"truncated", good.substr(0, good.size() / 2)},
        {"array at the top", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"},
        {"wrong type",
         replace("<key>Enabled</key>\n\t<true/>", "<key>Enabled</key>\n\t<string>yes</string>")},
        {"missing protocol", replace("<key>IKEv2</key>", "<key>Other</key>")},
        {"enum out of range",
         replace("<key>DeadPeerDetectionRate</key>\n\t\t<integer>3</integer>",
                 "<key>DeadPeerDetectionRate</key>\n\t\t<integer>9</integer>")},
        {"larger than a mebibyte", good + std::string(1024 * 1024, ' ')},
    };
    fs::create_directories(file.parent_path());
    ss::ProfileStore store(file);
    for (const auto& c : cases) {
        writeFile(file, c.text);
        auto loaded = store.load();
        ASSERT_FALSE(loaded) << c.what;
        // Corrupt, which is not the code of a file that cannot be read.
        EXPECT_EQ(loaded.error().code, ss::NEVPNErrorConfigurationInvalid) << c.what;
        EXPECT_NE(loaded.error().text.find("preferences"), std::string::npos) << c.what;
    }
}

TEST_F(ProfileStoreTest, UnreadableFileIsALoadError) {
    fs::create_directories(file);  // a folder where the file should be
    ss::ProfileStore store(file);
    auto loaded = store.load();
    ASSERT_FALSE(loaded);
    // Unreadable, which is not corrupt.
    EXPECT_EQ(loaded.error().code, ss::NEVPNErrorConfigurationReadWriteFailed);
}

TEST_F(ProfileStoreTest, CorruptFileIsKeptAsideReplacingAnEarlierOne) {
    fs::create_directories(file.parent_path());
    ss::ProfileStore store(file);
    const fs::path aside = file.string() + ".corrupt";
    writeFile(aside, "older");
    writeFile(file, "not a property list");
    ASSERT_TRUE(store.setAside());
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(readFile(aside), "not a property list");
    EXPECT_TRUE(store.setAside()) << "nothing to keep aside is no error";
}

TEST_F(ProfileStoreTest, RemoveDeletesAndToleratesAMissingFile) {
    ss::ProfileStore store(file);
    EXPECT_TRUE(store.remove());
    ASSERT_TRUE(store.save(sampleProfile()));
    EXPECT_TRUE(store.remove());
    EXPECT_FALSE(fs::exists(file));
}

}  // namespace
