#include "platform/strongswan/InterfaceLookup.h"

#include <gtest/gtest.h>

#include <ifaddrs.h>
#include <net/if.h>

namespace ss = platform::strongswan;

namespace {

TEST(InterfaceLookupTest, FindsTheLoopbackByItsAddress) {
    auto name = ss::interfaceForAddress("127.0.0.1");
    ASSERT_TRUE(name.has_value());
    // Whatever it is called here, it must be a loopback interface.
    ifaddrs* list = nullptr;
    ASSERT_EQ(::getifaddrs(&list), 0);
    bool loopback = false;
    for (ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
        if (*name == it->ifa_name && (it->ifa_flags & IFF_LOOPBACK) != 0) {
            loopback = true;
        }
    }
    ::freeifaddrs(list);
    EXPECT_TRUE(loopback) << *name;
}

TEST(InterfaceLookupTest, AnswersNoneForAbsentOrInvalidAddresses) {
    EXPECT_FALSE(ss::interfaceForAddress("192.0.2.201").has_value());  // TEST-NET-1
    EXPECT_FALSE(ss::interfaceForAddress("2001:db8::1").has_value());
    EXPECT_FALSE(ss::interfaceForAddress("not an address").has_value());
    EXPECT_FALSE(ss::interfaceForAddress("").has_value());
}

TEST(InterfaceLookupTest, TakesTheFirstAddressThatIsHeld) {
    EXPECT_EQ(ss::interfaceForAnyAddress({"192.0.2.201", "127.0.0.1"}),
              ss::interfaceForAddress("127.0.0.1"));
    EXPECT_FALSE(ss::interfaceForAnyAddress({}).has_value());
}

}  // namespace
