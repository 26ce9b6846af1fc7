#include "cli/PropertyList.h"
#include "cli/XmlPlist.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace cli {
namespace {

// The value of `element` read as the root of an XML property list; nil
// when the reader refuses it.
Value valueOf(const std::string& element) {
    std::string problem;
    const Value value = parseXmlPropertyList("<plist>" + element + "</plist>", &problem);
    EXPECT_EQ(value.isNil(), !problem.empty()) << element;
    return value;
}

bool refused(const std::string& element) {
    return valueOf(element).isNil();
}

TEST(XmlPlistTest, IntegerTakesBlanksSignAndDecimalOrHexDigits) {
    EXPECT_EQ(valueOf("<integer>42</integer>").integerValue(), 42);
    EXPECT_EQ(valueOf("<integer> \t\n- 7</integer>").integerValue(), -7);
    EXPECT_EQ(valueOf("<integer>+0x1F</integer>").integerValue(), 31);
    EXPECT_EQ(valueOf("<integer>-0X10</integer>").integerValue(), -16);
    EXPECT_EQ(valueOf("<integer>000</integer>").integerValue(), 0);
    EXPECT_EQ(valueOf("<integer>-0</integer>").integerValue(), 0);
    EXPECT_EQ(valueOf("<integer>-9223372036854775808</integer>").integerValue(), INT64_MIN);
    const Value largest = valueOf("<integer>18446744073709551615</integer>");
    EXPECT_EQ(largest.numberType(), Value::NumberType::UnsignedInteger);
    EXPECT_EQ(static_cast<std::uint64_t>(largest.integerValue()), UINT64_MAX);
    EXPECT_EQ(valueOf("<integer>9223372036854775807</integer>").numberType(),
              Value::NumberType::Integer);
}

TEST(XmlPlistTest, IntegerWithAnythingElseIsRefused) {
    for (const char* text : {"12x", "", " ", "1 ", "-", "+", "0x", "0x1G", "1A", "1.0", "--1",
                             "&#49;", "<![CDATA[1]]>", "1<!-- c -->", "18446744073709551616",
                             "-9223372036854775809", "-99999999999999999999"}) {
        EXPECT_TRUE(refused(std::string("<integer>") + text + "</integer>")) << text;
    }
    EXPECT_TRUE(refused("<integer/>"));
}

TEST(XmlPlistTest, RealIsANamedValueOrADecimalNumberThatIsTheWholeText) {
    EXPECT_EQ(valueOf("<real>1.5</real>").doubleValue(), 1.5);
    EXPECT_EQ(valueOf("<real> -.5e1</real>").doubleValue(), -5.0);
    EXPECT_EQ(valueOf("<real>5.</real>").doubleValue(), 5.0);
    EXPECT_EQ(valueOf("<real>&#49;</real>").doubleValue(), 1.0);
    EXPECT_EQ(valueOf("<real>0.10000000000000001</real>").doubleValue(), 0.1);
    EXPECT_EQ(valueOf("<real>1.5</real>").numberType(), Value::NumberType::Double);
    EXPECT_TRUE(std::isnan(valueOf("<real>NaN</real>").doubleValue()));
    EXPECT_EQ(valueOf("<real>+Infinity</real>").doubleValue(), INFINITY);
    EXPECT_EQ(valueOf("<real>-INF</real>").doubleValue(), -INFINITY);
    EXPECT_EQ(valueOf("<real>inf</real>").doubleValue(), INFINITY);
    for (const char* text : {"1.5x", "1.5 ", "", " ", "1.5e", ".", "e5", "0x10", "1,5", "+nan",
                             "- 1", "1.5\n", "1<!-- c -->"}) {
        EXPECT_TRUE(refused(std::string("<real>") + text + "</real>")) << text;
    }
    EXPECT_TRUE(refused("<real/>"));
}

TEST(XmlPlistTest, DateIsExactlyTheUtcFormWithoutFractions) {
    EXPECT_EQ(valueOf("<date>2024-02-01T20:43:14Z</date>").secondsSince1970(), 1706820194.0);
    EXPECT_EQ(valueOf("<date>1970-01-01T00:00:00Z</date>").secondsSince1970(), 0.0);
    EXPECT_EQ(valueOf("<date>1969-12-31T23:59:59Z</date>").secondsSince1970(), -1.0);
    // Fields count on linearly, as Foundation's calendar arithmetic does.
    EXPECT_EQ(valueOf("<date>2024-02-30T00:00:00Z</date>").secondsSince1970(),
              valueOf("<date>2024-03-01T00:00:00Z</date>").secondsSince1970());
    EXPECT_EQ(valueOf("<date>-0001-01-01T00:00:00Z</date>").secondsSince1970(), -62198755200.0);
    for (const char* text :
         {"garbage", "", "2024-02-01T20:43:14.5Z", "2024-02-01T20:43:14", "2024-02-01 20:43:14Z",
          " 2024-02-01T20:43:14Z", "2024-02-01T20:43:14Z ", "2024-2-01T20:43:14Z",
          "2024-13-01T00:00:00Z", "2024-00-01T00:00:00Z", "2024-02-01T20:43:14+00:00",
          "9999999999-01-01T00:00:00Z", "5000000-01-01T00:00:00Z"}) {
        EXPECT_TRUE(refused(std::string("<date>") + text + "</date>")) << text;
    }
}

TEST(XmlPlistTest, DataSkipsBlanksAndOtherAsciiButRefusesOtherBytes) {
    EXPECT_EQ(valueOf("<data>AAEC\n\t/w==</data>").bytes(),
              (std::vector<std::uint8_t>{0, 1, 2, 255}));
    EXPECT_EQ(valueOf("<data>AA!E*C</data>").bytes(), (std::vector<std::uint8_t>{0, 1, 2}));
    EXPECT_EQ(valueOf("<data></data>").bytes(), std::vector<std::uint8_t>{});
    EXPECT_EQ(valueOf("<data>AAE</data>").bytes(), std::vector<std::uint8_t>{});  // partial group
    EXPECT_TRUE(refused("<data>AAEC\xC3\xA9</data>"));
    EXPECT_TRUE(refused("<data>AAEC<!-- c --></data>"));
    EXPECT_TRUE(refused("<data/>"));
}

TEST(XmlPlistTest, StringsKeepTheirTextRawWithEntitiesAndCdataDecoded) {
    EXPECT_EQ(
        valueOf("<string> a &amp; &lt;b&gt; &apos;&quot; &#233;&#x1F389; </string>").stringValue(),
        " a & <b> '\" \xC3\xA9\xF0\x9F\x8E\x89 ");
    EXPECT_EQ(valueOf("<string>x<![CDATA[<&>]]>y</string>").stringValue(), "x<&>y");
    EXPECT_EQ(valueOf("<string/>").stringValue(), "");
    EXPECT_EQ(valueOf("<key>k</key>").stringValue(), "k");
    EXPECT_TRUE(refused("<string>&nbsp;</string>"));
    EXPECT_TRUE(refused("<string>a<!-- c --></string>"));
    EXPECT_TRUE(refused("<string><?pi x?></string>"));
    EXPECT_TRUE(refused("<string><string>a</string></string>"));
}

TEST(XmlPlistTest, CharactersXmlRefusesAreKeptInStrings) {
    const char raw[] = "\x01\x1F\0 \r\n \r \xEF\xBF\xBE\xEF\xBF\xBF \xF4\x8F\xBF\xBF end";
    const std::string text(raw, sizeof raw - 1);
    const Value value = valueOf("<string>" + text + "</string>");
    EXPECT_EQ(value.stringValue(), text);
    std::optional<NSError> error;
    const std::optional<std::string> xml = xmlDataFromPropertyList(Value::array({value}), &error);
    ASSERT_TRUE(xml);
    EXPECT_TRUE(propertyListFromData(*xml, &error).isEqual(Value::array({value})));
}

TEST(XmlPlistTest, LineEndsBetweenElementsAreBlanks) {
    const Value root =
        valueOf("\r\n<dict>\r\n\t<key>a</key>\r\n\t<array>\r\t<true/></array></dict>\r\n");
    EXPECT_TRUE(root.objectForKey("a").objectAtIndex(0).boolValue());
}

TEST(XmlPlistTest, DictionaryAlternatesKeysAndValuesAndTheLastRepeatWins) {
    const Value root = valueOf(
        "<dict><key>a</key><integer>1</integer><key>b</key><key>as value</key>"
        "<key>a</key><integer>2</integer></dict>");
    EXPECT_EQ(root.objectForKey("a").integerValue(), 2);
    EXPECT_EQ(root.objectForKey("b").stringValue(), "as value");
    EXPECT_FALSE(root.isMutableDictionary());
    EXPECT_TRUE(refused("<dict><key>a</key></dict>"));
    EXPECT_TRUE(refused("<dict><string>a</string><string>b</string></dict>"));
    EXPECT_TRUE(refused("<dict>text<key>a</key><true/></dict>"));
    EXPECT_TRUE(refused("<dict><![CDATA[ ]]></dict>"));
    EXPECT_TRUE(refused("<dict>&#32;</dict>"));
}

TEST(XmlPlistTest, DictionaryOfOneCfUidNumberIsAUid) {
    EXPECT_EQ(valueOf("<dict><key>CF$UID</key><integer>7</integer></dict>").uidValue(), 7u);
    EXPECT_TRUE(valueOf("<dict><key>CF$UID</key><integer>7</integer></dict>").isUID());
    EXPECT_TRUE(valueOf("<dict><key>CF$UID</key><true/></dict>").isDictionary());
    EXPECT_TRUE(valueOf("<dict><key>CF$UID</key><string>7</string></dict>").isDictionary());
    EXPECT_TRUE(valueOf("<dict><key>CF$UID</key><integer>7</integer><key>b</key><true/></dict>")
                    .isDictionary());
}

TEST(XmlPlistTest, PlistWrapsExactlyOneValueAnywhere) {
    EXPECT_EQ(valueOf("<array><plist><string>a</string></plist></array>").count(), 1u);
    EXPECT_TRUE(refused("<string>a</string><string>b</string>"));
    EXPECT_TRUE(refused(""));
    EXPECT_TRUE(refused("<plist/>"));
    std::string problem;
    EXPECT_TRUE(parseXmlPropertyList("<plist/>", &problem).isNil());
    EXPECT_FALSE(problem.empty());
}

TEST(XmlPlistTest, TrueAndFalseAreEmpty) {
    EXPECT_TRUE(valueOf("<true></true>").boolValue());
    EXPECT_EQ(valueOf("<false/>").numberType(), Value::NumberType::Bool);
    EXPECT_TRUE(refused("<true> </true>"));
    EXPECT_TRUE(refused("<false>no</false>"));
}

TEST(XmlPlistTest, PrologMayHoldBlanksCommentsAndAnExternalDoctype) {
    std::string problem;
    const Value value = parseXmlPropertyList(
        "\n  <?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- c -->\n<?pi x?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\"><array><!-- c --><?pi?><string>a</string></array></plist>\n",
        &problem);
    EXPECT_EQ(value.count(), 1u) << problem;
}

TEST(XmlPlistTest, TextAfterTheRootIsNotRead) {
    std::string problem;
    EXPECT_EQ(parseXmlPropertyList("<string>a</string> junk <unclosed>", &problem).stringValue(),
              "a");
}

TEST(XmlPlistTest, EntitiesBeyondXmlsOwnAreRefused) {
    std::string problem;
    EXPECT_TRUE(
        parseXmlPropertyList("<!DOCTYPE plist [<!ENTITY e \"x\">]><string>&e;</string>", &problem)
            .isNil());
    EXPECT_TRUE(
        parseXmlPropertyList("<!DOCTYPE plist SYSTEM \"x.dtd\"><string>&e;</string>", &problem)
            .isNil());
    EXPECT_TRUE(parseXmlPropertyList("<string>&e;</string>", &problem).isNil());
}

TEST(XmlPlistTest, UnknownTagsAndMismatchedTagsAreRefused) {
    EXPECT_TRUE(refused("<strin>a</strin>"));
    EXPECT_TRUE(refused("<String>a</String>"));
    EXPECT_TRUE(refused("<array><string>a</array>"));
}

TEST(XmlPlistTest, ContainersNestUpToTheLimit) {
    // Arrays and dictionaries alternate; the innermost is an empty array.
    const auto nested = [](std::size_t depth) {
        std::string text;
        for (std::size_t i = 1; i < depth; ++i) text += i % 2 ? "<array>" : "<dict><key>k</key>";
        text += "<array></array>";
        for (std::size_t i = depth - 1; i >= 1; --i) text += i % 2 ? "</array>" : "</dict>";
        return text;
    };
    EXPECT_FALSE(refused(nested(kPropertyListMaxNesting)));
    EXPECT_TRUE(refused(nested(kPropertyListMaxNesting + 1)));
}

TEST(XmlPlistTest, PlistWrappersNestedWithoutEndAreRefused) {
    const auto wrapped = [](std::size_t depth) {
        std::string text;
        for (std::size_t i = 0; i < depth; ++i) text += "<plist>";
        text += "<true/>";
        for (std::size_t i = 0; i < depth; ++i) text += "</plist>";
        return text;
    };
    EXPECT_TRUE(valueOf(wrapped(100)).boolValue());
    EXPECT_TRUE(refused(wrapped(1000000)));
}

}  // namespace
}  // namespace cli
