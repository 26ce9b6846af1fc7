#include "tests/unit/double/PlatformDouble.h"

#include <gtest/gtest.h>

using platform_double::parseScript;
using namespace platform;

TEST(PlatformDoubleScriptTest, EveryDirectiveIsRead) {
    const auto script = parseScript(
        "# comment\n"
        "profile\n"
        "load-error 1 could not load\n"
        "save-error 5 disk full\n"
        "remove-error 2 denied\n"
        "start-error 3 refused\n"
        "no-connection\n"
        "on-start 10 2\n"
        "on-start 50 3\n"
        "on-stop 5 1\n"
        "last-disconnect-error authentication failed\n"
        "service Wi-Fi|en0\n"
        "service Orvane IKEv2|-\n"
        "raise-on-load 15\n");
    ASSERT_TRUE(script.has_value());
    EXPECT_TRUE(script->autoAnswer);
    EXPECT_TRUE(script->storedProfile.has_value());
    EXPECT_EQ(script->loadError->code, 1);
    EXPECT_EQ(script->loadError->description, "could not load");
    EXPECT_EQ(script->saveError->code, 5);
    EXPECT_EQ(script->removeError->description, "denied");
    EXPECT_EQ(script->startError->code, 3);
    EXPECT_FALSE(script->hasConnection);
    EXPECT_EQ(script->onStart, (std::vector<std::pair<int, NEVPNStatus>>{
                                   {10, NEVPNStatusConnecting}, {50, NEVPNStatusConnected}}));
    EXPECT_EQ(script->onStop,
              (std::vector<std::pair<int, NEVPNStatus>>{{5, NEVPNStatusDisconnected}}));
    EXPECT_EQ(script->lastDisconnectError, "authentication failed");
    ASSERT_TRUE(script->services.has_value());
    ASSERT_EQ(script->services->size(), 2u);
    EXPECT_EQ((*script->services)[0].name, "Wi-Fi");
    EXPECT_EQ((*script->services)[0].interfaceName, "en0");
    EXPECT_EQ((*script->services)[1].name, "Orvane IKEv2");
    EXPECT_EQ((*script->services)[1].interfaceName, std::nullopt);
    EXPECT_EQ(script->raiseOnLoad, 15);
}

TEST(PlatformDoubleScriptTest, EmptyScriptAnswersEverythingWithSuccess) {
    const auto script = parseScript("");
    ASSERT_TRUE(script.has_value());
    EXPECT_FALSE(script->storedProfile.has_value());
    EXPECT_FALSE(script->loadError.has_value());
    EXPECT_TRUE(script->hasConnection);
    ASSERT_TRUE(script->services.has_value());
    EXPECT_TRUE(script->services->empty());
}

TEST(PlatformDoubleScriptTest, NoServicesMeansAnUnreadableNetworkConfiguration) {
    const auto script = parseScript("no-services\n");
    ASSERT_TRUE(script.has_value());
    EXPECT_FALSE(script->services.has_value());
}

TEST(PlatformDoubleScriptTest, UnknownOrMalformedLinesAreRefused) {
    EXPECT_FALSE(parseScript("connect-please\n").has_value());
    EXPECT_FALSE(parseScript("on-start soon 3\n").has_value());
    EXPECT_FALSE(parseScript("save-error\n").has_value());
    EXPECT_FALSE(parseScript("service no-bar\n").has_value());
}
