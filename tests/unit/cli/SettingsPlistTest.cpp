#include "cli/GBSettings.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace cli {
namespace {

class SettingsPlistTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/settings-plist-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory_ = pattern;
    }
    void TearDown() override {
        for (const std::string& name : entries()) std::remove((directory_ + "/" + name).c_str());
        ::rmdir(directory_.c_str());
    }

    std::string path(const std::string& name) const { return directory_ + "/" + name; }

    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

    static std::string contents(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        std::stringstream buffer;
        buffer << in.rdbuf();
        return buffer.str();
    }

    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        if (DIR* dir = ::opendir(directory_.c_str())) {
            while (dirent* entry = ::readdir(dir)) {
                const std::string name = entry->d_name;
                if (name != "." && name != "..") names.push_back(name);
            }
            ::closedir(dir);
        }
        return names;
    }

    // A level that already holds something, to show what a load changes.
    static GBSettingsRef levelHoldingOld() {
        GBSettingsRef level = GBSettings::settingsWithName("File", nullptr);
        level->setObject("old", "previous");
        return level;
    }

    static void expectUnchanged(const GBSettings& level) {
        EXPECT_EQ(level.storage().entries().size(), 1u);
        EXPECT_EQ(level.objectForLocalKey("previous").stringValue(), "old");
    }

    // A file holding `bytes` fails to load with the parser's error and
    // leaves the level as it was.
    void expectLoadRefused(const std::string& bytes) const {
        const std::string file = write("bad.plist", bytes);
        GBSettingsRef level = levelHoldingOld();
        std::optional<NSError> error;
        EXPECT_FALSE(level->loadSettingsFromPlist(file, &error)) << bytes.substr(0, 80);
        EXPECT_EQ(error ? error->domain : "", "NSCocoaErrorDomain") << bytes.substr(0, 80);
        EXPECT_EQ(error ? error->code : 0, 3840) << bytes.substr(0, 80);
        expectUnchanged(*level);
    }

    std::string directory_;
};

const char kXmlHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

TEST_F(SettingsPlistTest, MissingFileIsNoWithoutErrorAndChangesNothing) {
    GBSettingsRef level = levelHoldingOld();
    std::optional<NSError> error = NSError{"sentinel", 1, "untouched"};
    EXPECT_FALSE(level->loadSettingsFromPlist(path("absent.plist"), &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, "sentinel");
    EXPECT_FALSE(level->loadSettingsFromPlist(path("absent.plist"), nullptr));
    expectUnchanged(*level);
}

TEST_F(SettingsPlistTest, GroupDictionaryUnfoldsIntoTheLevelAndDashesAreStripped) {
    const std::string file = write("settings.plist",
                                   "<plist><dict><key>--verbose</key><true/>"
                                   "<key>Network</key><dict><key>server</key>"
                                   "<string>vpn.example.org</string></dict></dict></plist>");
    GBSettingsRef level = levelHoldingOld();
    std::optional<NSError> error;
    ASSERT_TRUE(level->loadSettingsFromPlist(file, &error));
    EXPECT_FALSE(error.has_value());
    EXPECT_TRUE(level->boolForKey("verbose"));
    EXPECT_EQ(level->objectForKey("server").stringValue(), "vpn.example.org");
    EXPECT_FALSE(level->isKeyPresentAtThisLevel("Network"));
    EXPECT_FALSE(level->isKeyPresentAtThisLevel("--verbose"));
}

TEST_F(SettingsPlistTest, LoadReplacesWhatTheLevelHeld) {
    const std::string file = write("s.plist", "{ fresh = yes; }");
    GBSettingsRef level = levelHoldingOld();
    level->addArgument("stale");
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_FALSE(level->isKeyPresentAtThisLevel("previous"));
    EXPECT_EQ(level->arguments().count(), 0u);
    EXPECT_EQ(level->objectForKey("fresh").stringValue(), "yes");
}

TEST_F(SettingsPlistTest, EveryLeadingDashIsStrippedFromEveryKey) {
    const std::string file =
        write("s.plist", "{ \"-a\" = 1; \"---b\" = 2; c-d = 3; G = { \"--inner\" = 4; }; }");
    GBSettingsRef level = GBSettings::settingsWithName("File", nullptr);
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_EQ(level->objectForKey("a").stringValue(), "1");
    EXPECT_EQ(level->objectForKey("b").stringValue(), "2");
    EXPECT_EQ(level->objectForKey("c-d").stringValue(), "3");
    EXPECT_EQ(level->objectForKey("inner").stringValue(), "4");
}

TEST_F(SettingsPlistTest, OnlyOneLevelOfGroupsUnfolds) {
    const std::string file = write("s.plist", "{ Outer = { Inner = { deep = x; }; }; }");
    GBSettingsRef level = GBSettings::settingsWithName("File", nullptr);
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    const Value inner = level->objectForKey("Inner");
    ASSERT_TRUE(inner.isDictionary());
    EXPECT_EQ(inner.objectForKey("deep").stringValue(), "x");
    EXPECT_FALSE(level->isKeyPresentAtThisLevel("deep"));
}

TEST_F(SettingsPlistTest, RepeatedKeyTakesTheEntryEnumeratedLast) {
    // Root entries are met in key order: group "a", then "b", then group "c".
    const std::string file =
        write("s.plist", "{ a = { b = group-a; x = from-a; }; b = root; c = { x = from-c; }; }");
    GBSettingsRef level = GBSettings::settingsWithName("File", nullptr);
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_EQ(level->objectForKey("b").stringValue(), "root");
    EXPECT_EQ(level->objectForKey("x").stringValue(), "from-c");
}

TEST_F(SettingsPlistTest, ArrayKeysAccumulateAcrossEntries) {
    const std::string file =
        write("s.plist", "{ include = (one, two); z = { include = three; }; }");
    GBSettingsRef level = GBSettings::settingsWithName("File", nullptr);
    level->registerArrayForKey("include");
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    const Value include = level->objectForKey("include");
    ASSERT_EQ(include.count(), 3u);
    EXPECT_EQ(include.objectAtIndex(0).stringValue(), "one");
    EXPECT_EQ(include.objectAtIndex(2).stringValue(), "three");
}

TEST_F(SettingsPlistTest, SavedArgumentsLoadBackAsArguments) {
    GBSettingsRef saved = GBSettings::settingsWithName("Saved", nullptr);
    saved->addArgument("a");
    saved->addArgument("b");
    saved->setObject("c.conf", "config");
    std::optional<NSError> error;
    ASSERT_TRUE(saved->saveSettingsToPlist(path("args.plist"), &error));
    EXPECT_FALSE(error.has_value());
    GBSettingsRef fresh = GBSettings::settingsWithName("Fresh", nullptr);
    ASSERT_TRUE(fresh->loadSettingsFromPlist(path("args.plist"), &error));
    const Value arguments = fresh->arguments();
    ASSERT_EQ(arguments.count(), 2u);
    EXPECT_EQ(arguments.objectAtIndex(0).stringValue(), "a");
    EXPECT_EQ(arguments.objectAtIndex(1).stringValue(), "b");
    EXPECT_EQ(fresh->objectForKey("config").stringValue(), "c.conf");
}

TEST_F(SettingsPlistTest, SavedFileIsTheLevelsStorageAsXml) {
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    level->setObject("a.conf", "config");
    level->setBool(true, "verbose");
    level->setInteger(3, "count");
    level->addArgument("x");
    ASSERT_TRUE(level->saveSettingsToPlist(path("out.plist"), nullptr));
    EXPECT_EQ(contents(path("out.plist")), std::string(kXmlHead) +
                                               "<dict>\n"
                                               "\t<key>B450A340-EC4F-40EC-B18D-B52DB881A16A</key>\n"
                                               "\t<array>\n"
                                               "\t\t<string>x</string>\n"
                                               "\t</array>\n"
                                               "\t<key>config</key>\n"
                                               "\t<string>a.conf</string>\n"
                                               "\t<key>count</key>\n"
                                               "\t<integer>3</integer>\n"
                                               "\t<key>verbose</key>\n"
                                               "\t<true/>\n"
                                               "</dict>\n"
                                               "</plist>\n");
    // Parents are not saved.
    GBSettingsRef child = GBSettings::settingsWithName("Child", level);
    ASSERT_TRUE(child->saveSettingsToPlist(path("child.plist"), nullptr));
    EXPECT_EQ(contents(path("child.plist")), std::string(kXmlHead) + "<dict/>\n</plist>\n");
}

TEST_F(SettingsPlistTest, SaveReplacesAnExistingFileAndLeavesNoTemporaryFile) {
    write("out.plist", "old contents");
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    level->setObject("v", "k");
    ASSERT_TRUE(level->saveSettingsToPlist(path("out.plist"), nullptr));
    EXPECT_NE(contents(path("out.plist")).find("<key>k</key>"), std::string::npos);
    EXPECT_EQ(entries(), std::vector<std::string>{"out.plist"});
}

TEST_F(SettingsPlistTest, SavedFileHasTheModeOfANewFileUnderTheUmask) {
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    level->setObject("v", "k");
    const mode_t saved = ::umask(027);
    const bool restricted = level->saveSettingsToPlist(path("restricted.plist"), nullptr);
    ::umask(0);
    const bool open = level->saveSettingsToPlist(path("open.plist"), nullptr);
    ::umask(saved);
    ASSERT_TRUE(restricted);
    ASSERT_TRUE(open);
    struct stat info {};
    ASSERT_EQ(::stat(path("restricted.plist").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    ASSERT_EQ(::stat(path("open.plist").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0666u);
}

TEST_F(SettingsPlistTest, ValueAPropertyListCannotHoldFailsTheSaveAndWritesNoFile) {
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    level->setObjectForLocalKey(Value::array({Value("ok"), Value()}), "broken");
    std::optional<NSError> error;
    EXPECT_FALSE(level->saveSettingsToPlist(path("never.plist"), &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, "NSCocoaErrorDomain");
    EXPECT_EQ(error->code, 3851);
    EXPECT_TRUE(entries().empty());
    EXPECT_TRUE(level->objectForKey("broken").isArray());
}

TEST_F(SettingsPlistTest, SavingIntoAMissingFolderFailsWithAFileError) {
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    std::optional<NSError> error;
    EXPECT_FALSE(level->saveSettingsToPlist(path("no/such/folder.plist"), &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, "NSCocoaErrorDomain");
    EXPECT_EQ(error->code, 4);
    EXPECT_NE(error->description.find("folder.plist"), std::string::npos);
}

TEST_F(SettingsPlistTest, SavingOverAFolderFailsAndLeavesNoTemporaryFile) {
    ASSERT_EQ(::mkdir(path("taken").c_str(), 0700), 0);
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    level->setObject("v", "k");
    std::optional<NSError> error;
    EXPECT_FALSE(level->saveSettingsToPlist(path("taken"), &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, "NSCocoaErrorDomain");
    EXPECT_EQ(error->code, 512);
    EXPECT_EQ(entries(), std::vector<std::string>{"taken"});
    ::rmdir(path("taken").c_str());
}

TEST_F(SettingsPlistTest, DictionaryValueComesBackAsSeparateKeys) {
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    level->setObject(
        Value::dictionary({{"host", "h"}, {"nested", Value::dictionary({{"deep", "d"}})}}),
        "server");
    ASSERT_TRUE(level->saveSettingsToPlist(path("d.plist"), nullptr));
    GBSettingsRef fresh = GBSettings::settingsWithName("Fresh", nullptr);
    ASSERT_TRUE(fresh->loadSettingsFromPlist(path("d.plist"), nullptr));
    EXPECT_FALSE(fresh->isKeyPresentAtThisLevel("server"));
    EXPECT_EQ(fresh->objectForKey("host").stringValue(), "h");
    EXPECT_TRUE(fresh->objectForKey("nested").isDictionary());
}

TEST_F(SettingsPlistTest, RootThatIsNotADictionaryIsRefusedWithAnError) {
    for (const char* text : {"(a, b)", "<plist><string>s</string></plist>", "\"text\""}) {
        expectLoadRefused(text);
    }
}

TEST_F(SettingsPlistTest, CorruptFilesFailWithAnErrorAndChangeNothing) {
    const std::string cases[] = {
        "",
        "{ a = b",
        "<plist><dict><key>a</key><string>b</string>",
        std::string("bplist00") + std::string(40, '\xFF'),
        std::string(100000, '(') + std::string(100000, ')'),
        "<plist>" +
            std::string(100000 * 7, ' ')
                .replace(0, 0,
                         [] {
                             std::string s;
                             for (int i = 0; i < 100000; ++i) s += "<array>";
                             return s;
                         }()) +
            "</plist>",
    };
    for (const std::string& bytes : cases) expectLoadRefused(bytes);
}

TEST_F(SettingsPlistTest, MalformedXmlValuesFailTheLoadAndChangeNothing) {
    const std::string values[] = {
        "<integer>12x</integer>",
        "<integer></integer>",
        "<real>1.5x</real>",
        "<real>1.5 </real>",
        "<date>garbage</date>",
        "<date>2024-02-01T20:43:14.5Z</date>",
        "<integer>-99999999999999999999</integer>",
        "<integer>18446744073709551616</integer>",
        "<data>AAEC\xC3\xA9</data>",
    };
    for (const std::string& value : values) {
        expectLoadRefused("<plist><dict><key>k</key>" + value + "</dict></plist>");
    }
}

TEST_F(SettingsPlistTest, MalformedXmlStructureFailsTheLoadAndChangesNothing) {
    const std::string documents[] = {
        "<plist><dict><key>a</key></dict></plist>",
        "<plist><dict><key>a</key><true/></dict><dict/></plist>",
        "<plist><dict><key>a</key><true/></dict>text</plist>",
        "<plist><dict><key>a</key><unknown/></dict></plist>",
    };
    for (const std::string& document : documents) expectLoadRefused(document);
}

TEST_F(SettingsPlistTest, DeclaredLatin1EncodingIsDecoded) {
    const std::string file = write("latin1.plist",
                                   "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
                                   "<plist><dict><key>caf\xE9</key><string>caf\xE9</string>"
                                   "</dict></plist>");
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    std::optional<NSError> error;
    ASSERT_TRUE(level->loadSettingsFromPlist(file, &error)) << error->description;
    EXPECT_EQ(level->objectForKey("caf\xC3\xA9").stringValue(), "caf\xC3\xA9");
}

TEST_F(SettingsPlistTest, UnknownOrWrongDeclaredEncodingFailsTheLoad) {
    for (const char* document :
         {"<?xml version=\"1.0\" encoding=\"no-such-encoding\"?><plist><dict/></plist>",
          "<?xml version=\"1.0\" encoding=\"US-ASCII\"?><plist><dict><key>\xE9</key>"
          "<true/></dict></plist>"}) {
        expectLoadRefused(document);
    }
}

TEST_F(SettingsPlistTest, UidIsAValueNotAGroup) {
    const std::string file = write("uid.plist",
                                   "<plist><dict><key>ref</key><dict><key>CF$UID</key>"
                                   "<integer>7</integer></dict></dict></plist>");
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_FALSE(level->isKeyPresentAtThisLevel("CF$UID"));
    ASSERT_TRUE(level->objectForKey("ref").isUID());
    EXPECT_EQ(level->objectForKey("ref").uidValue(), 7u);
}

TEST_F(SettingsPlistTest, BinaryUidIsAValueNotAGroupAndSavesAsItsXmlForm) {
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "ref", plist_new_uid(9));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    const std::string file = write("uid.plist", std::string(bytes, length));
    std::free(bytes);
    plist_free(root);

    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_FALSE(level->isKeyPresentAtThisLevel("CF$UID"));
    ASSERT_TRUE(level->objectForKey("ref").isUID());
    EXPECT_EQ(level->objectForKey("ref").uidValue(), 9u);
    ASSERT_TRUE(level->saveSettingsToPlist(path("saved.plist"), nullptr));
    EXPECT_EQ(contents(path("saved.plist")), std::string(kXmlHead) +
                                                 "<dict>\n"
                                                 "\t<key>ref</key>\n"
                                                 "\t<dict>\n"
                                                 "\t\t<key>CF$UID</key>\n"
                                                 "\t\t<integer>9</integer>\n"
                                                 "\t</dict>\n"
                                                 "</dict>\n"
                                                 "</plist>\n");
    GBSettingsRef again = GBSettings::settingsWithName("Again", nullptr);
    ASSERT_TRUE(again->loadSettingsFromPlist(path("saved.plist"), nullptr));
    EXPECT_TRUE(again->storage().isEqual(level->storage()));
}

TEST_F(SettingsPlistTest, DirectoryInPlaceOfTheFileIsAReadError) {
    ASSERT_EQ(::mkdir(path("folder").c_str(), 0700), 0);
    GBSettingsRef level = levelHoldingOld();
    std::optional<NSError> error;
    EXPECT_FALSE(level->loadSettingsFromPlist(path("folder"), &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, "NSCocoaErrorDomain");
    EXPECT_EQ(error->code, 256);
    expectUnchanged(*level);
    ::rmdir(path("folder").c_str());
}

TEST_F(SettingsPlistTest, UnreadableFileIsAPermissionError) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind the superuser";
    const std::string file = write("locked.plist", "{ a = b; }");
    ASSERT_EQ(::chmod(file.c_str(), 0), 0);
    GBSettingsRef level = levelHoldingOld();
    std::optional<NSError> error;
    EXPECT_FALSE(level->loadSettingsFromPlist(file, &error));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, 257);
    expectUnchanged(*level);
}

TEST_F(SettingsPlistTest, OpenStepValuesLoadAsStringsThatReadAsFlagsAndNumbers) {
    const std::string file = write("s.plist", "{ verbose = YES; count = 42; name = \"a b\"; }");
    GBSettingsRef level = GBSettings::settingsWithName("L", nullptr);
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_TRUE(level->objectForKey("verbose").isString());
    EXPECT_TRUE(level->boolForKey("verbose"));
    EXPECT_EQ(level->integerForKey("count"), 42);
    EXPECT_EQ(level->objectForKey("name").stringValue(), "a b");
}

TEST_F(SettingsPlistTest, EmptyDictionaryFileEmptiesTheLevel) {
    const std::string file = write("s.plist", "<plist><dict/></plist>");
    GBSettingsRef level = levelHoldingOld();
    ASSERT_TRUE(level->loadSettingsFromPlist(file, nullptr));
    EXPECT_TRUE(level->storage().entries().empty());
}

}  // namespace
}  // namespace cli
