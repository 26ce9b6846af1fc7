#include "platform/ServiceChoice.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using platform::chooseServiceInterface;
using platform::NetworkService;
using Services = std::vector<NetworkService>;
using Names = std::vector<std::optional<std::string>>;

namespace {

struct Choice {
    std::optional<std::string> interface;
    Names walked;
};

Choice choose(const std::optional<Services>& services, const std::string& name = "Orvane IKEv2") {
    Choice choice;
    choice.interface = chooseServiceInterface(
        services, name,
        [&choice](const std::optional<std::string>& seen) { choice.walked.push_back(seen); });
    return choice;
}

}  // namespace

TEST(ServiceChoice, NoServiceWithTheNameGivesIpsec0AfterWalkingEveryService) {
    const Choice choice = choose(Services{{"Wi-Fi", "en0"}, {"Ethernet", "en1"}});
    EXPECT_EQ(choice.interface, "ipsec0");
    EXPECT_EQ(choice.walked, (Names{"Wi-Fi", "Ethernet"}));
}

TEST(ServiceChoice, FirstOfTwoServicesWithTheNameWinsAndEndsTheWalk) {
    const Choice choice =
        choose(Services{{"Wi-Fi", "en0"}, {"Orvane IKEv2", "ipsec2"}, {"Orvane IKEv2", "ipsec7"}});
    EXPECT_EQ(choice.interface, "ipsec2");
    EXPECT_EQ(choice.walked, (Names{"Wi-Fi", "Orvane IKEv2"}));
}

TEST(ServiceChoice, ServiceOnIpsec1GivesIpsec1) {
    EXPECT_EQ(choose(Services{{"Orvane IKEv2", "ipsec1"}}).interface, "ipsec1");
}

TEST(ServiceChoice, MatchingServiceWithoutInterfaceNameGivesNone) {
    EXPECT_EQ(choose(Services{{"Orvane IKEv2", std::nullopt}}).interface, std::nullopt);
}

TEST(ServiceChoice, ServiceWithoutANameIsWalkedButNeverMatches) {
    const Choice choice = choose(Services{{std::nullopt, "en0"}, {"Orvane IKEv2", "ipsec3"}});
    EXPECT_EQ(choice.interface, "ipsec3");
    EXPECT_EQ(choice.walked, (Names{std::nullopt, "Orvane IKEv2"}));
}

TEST(ServiceChoice, NameMustMatchExactly) {
    EXPECT_EQ(choose(Services{{"orvane ikev2", "ipsec4"},
                              {"Orvane IKEv2 ", "ipsec5"},
                              {"Orvane IKEv2 (old)", "ipsec6"},
                              {"", "ipsec8"}})
                  .interface,
              "ipsec0");
}

TEST(ServiceChoice, UnreadableServicesGiveIpsec0WithoutWalking) {
    const Choice choice = choose(std::nullopt);
    EXPECT_EQ(choice.interface, "ipsec0");
    EXPECT_TRUE(choice.walked.empty());
}

TEST(ServiceChoice, NoServicesAtAllGiveIpsec0) {
    EXPECT_EQ(choose(Services{}).interface, "ipsec0");
}

TEST(ServiceChoice, ProfileNameIsTheOneConstant) {
    EXPECT_STREQ(platform::kVPNProfileName, "Orvane IKEv2");
    EXPECT_EQ(choose(Services{{"Orvane IKEv2", "utun4"}}, platform::kVPNProfileName).interface,
              "utun4");
}
