// Content-Type values are read as HTTP defines media types (type "/"
// subtype, then parameters after ';' with optional spaces and tabs around
// it), never compared as text: "text/plain\t;charset=utf-8" is text/plain,
// which is what a browser sends for it without asking first.
#include <gtest/gtest.h>

#include "studio/media_type.h"

using namespace ostrel_tool::studio;

TEST(StudioMediaType, TypeAndSubtypeAreCaseInsensitiveTokens) {
    const auto m = parse_media_type("Application/JSON");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, "application");
    EXPECT_EQ(m->subtype, "json");
    EXPECT_EQ(m->essence(), "application/json");
    EXPECT_TRUE(m->parameters.empty());
    EXPECT_EQ(parse_media_type("image/svg+xml")->essence(), "image/svg+xml");
    EXPECT_EQ(parse_media_type("application/vnd.ms-excel")->essence(), "application/vnd.ms-excel");
}

TEST(StudioMediaType, SpacesAndTabsAroundSemicolonsAndAtTheEnds) {
    for (const char *text : {"text/plain\t;charset=utf-8", "text/plain ;charset=utf-8", "text/plain; charset=utf-8",
                             "text/plain\t;\tcharset=utf-8", " text/plain;charset=utf-8 ",
                             "\ttext/plain \t; \t"
                             "charset=utf-8\t"}) {
        const auto m = parse_media_type(text);
        ASSERT_TRUE(m) << text;
        EXPECT_EQ(m->essence(), "text/plain") << text;
        ASSERT_EQ(m->parameters.size(), 1u) << text;
        EXPECT_EQ(m->parameters[0].first, "charset");
        EXPECT_EQ(m->parameters[0].second, "utf-8");
    }
    EXPECT_EQ(parse_media_type("text/plain\t")->essence(), "text/plain");
}

TEST(StudioMediaType, ParametersNamesLowerCaseQuotedValuesUnquotedEmptyOnesSkipped) {
    const auto m = parse_media_type("multipart/form-data; Boundary=\"a b\\\"c\";;  ; X-Y=z;");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->essence(), "multipart/form-data");
    ASSERT_EQ(m->parameters.size(), 2u);
    EXPECT_EQ(m->parameters[0].first, "boundary");
    EXPECT_EQ(m->parameters[0].second, "a b\"c");
    EXPECT_EQ(m->parameters[1].first, "x-y");
    EXPECT_EQ(m->parameters[1].second, "z");
    EXPECT_EQ(m->parameter("BOUNDARY"), "a b\"c");
    EXPECT_EQ(m->parameter("charset"), "");
}

TEST(StudioMediaType, AnythingElseIsNotAMediaType) {
    for (const char *text : {"",
                             " ",
                             "json",
                             "/json",
                             "application/",
                             "application /json",
                             "application/ json",
                             "application/json x",
                             "application/json, text/plain",
                             "application/json; charset",
                             "application/json; =utf-8",
                             "application/json; charset=",
                             "application/json; a=\"b",
                             "application/json; a=b c",
                             "application/json/x",
                             "appli(cation/json",
                             "application/js\"on",
                             "text/plain\x01",
                             "text/pl\xc3\xa4in",
                             "text\t/plain",
                             "text/plain; a=\"\x01\"",
                             "text/plain,"}) {
        EXPECT_FALSE(parse_media_type(text)) << '"' << text << '"';
    }
}

TEST(StudioMediaType, TheTypesOtherSitesMaySendWithoutAsking) {
    // Browsers let any page send these three (whatever the case, spacing and
    // parameters) without a preflight; the studio never accepts them.
    for (const char *text : {"text/plain\t;charset=utf-8", "TEXT/PLAIN", "Application/X-WWW-Form-Urlencoded",
                             "multipart/form-data; boundary=x"}) {
        const auto m = parse_media_type(text);
        ASSERT_TRUE(m) << text;
        EXPECT_TRUE(is_sent_without_preflight(*m)) << text;
    }
    EXPECT_FALSE(is_sent_without_preflight(*parse_media_type("application/json")));
    EXPECT_FALSE(is_sent_without_preflight(*parse_media_type("application/octet-stream")));
}
