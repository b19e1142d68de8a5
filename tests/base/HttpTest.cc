#include "base/Http.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "marl/Clock.h"

namespace FerritCore {
namespace {

using Http::AcceptType;

// A wall time with whole milliseconds, so that sums in tests are exact.
constexpr double kNow = 1.7e12;

// --- Header names and lookups ---------------------------------------------------------------

TEST(HttpTest, HeaderNamesAreInTheirFixedOrder) {
    const std::vector<std::string> expected = {
        "Accept",
        "Access-Control-Allow-Origin",
        "Access-Control-Expose-Headers",
        "Cache-Control",
        "Content-MD5",
        "Content-Type",
        "Date",
        "ETag",
        "Expires",
        "If-Modified-Since",
        "If-None-Match",
        "Last-Modified",
        "Referer",
        "Via",
        "Vary",
    };
    const auto& names = Http::headerNames();
    ASSERT_EQ(names.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(names[i], expected[i]) << i;
    EXPECT_EQ(Http::headerName(Http::kCacheControl), "Cache-Control");
    EXPECT_EQ(&Http::headerNames(), &Http::headerNames());
}

TEST(HttpTest, HeaderValueMatchesNameInAnyCase) {
    const HeaderMap header = {{"content-TYPE", "text/css"}, {"Via", "x"}};
    EXPECT_EQ(Http::headerValue(header, "Content-Type"), "text/css");
    EXPECT_EQ(Http::headerValue(header, "CONTENT-TYPE"), "text/css");
    EXPECT_EQ(Http::headerValue(header, "via"), "x");
}

TEST(HttpTest, HeaderValueIsEmptyWhenAbsent) {
    const HeaderMap header = {{"Content-Type", "text/css"}};
    EXPECT_TRUE(Http::headerValue(header, "Content-Typ").empty());
    EXPECT_TRUE(Http::headerValue(header, "Content-Types").empty());
    EXPECT_TRUE(Http::headerValue(HeaderMap(), "Via").empty());
}

TEST(HttpTest, RemoveHeaderRemovesEveryCaseOfTheName) {
    HeaderMap header = {{"ETag", "1"}, {"etag", "2"}, {"ETAG", "3"}, {"Via", "x"}};
    Http::removeHeader(header, "Etag");
    EXPECT_EQ(header.size(), 1u);
    EXPECT_EQ(header.count("Via"), 1u);
    Http::removeHeader(header, "Absent");
    EXPECT_EQ(header.size(), 1u);
}

TEST(HttpTest, SetHeaderIgnoresAnEmptyValue) {
    HeaderMap header = {{"Via", "x"}};
    Http::setHeader(header, "Via", "");
    Http::setHeader(header, "Date", "");
    EXPECT_EQ(header, (HeaderMap{{"Via", "x"}}));
}

TEST(HttpTest, SetHeaderStoresUnderTheNameAsWritten) {
    HeaderMap header;
    Http::setHeader(header, "Content-Type", "text/css");
    EXPECT_EQ(header, (HeaderMap{{"Content-Type", "text/css"}}));
    Http::setHeader(header, "Content-Type", "text/html");
    EXPECT_EQ(header.at("Content-Type"), "text/html");
    // Another spelling is another key: replacing in any case is removeHeader's job.
    Http::setHeader(header, "content-type", "image/png");
    EXPECT_EQ(header.size(), 2u);
}

TEST(HttpTest, FerritControlDisabledMatchesNameInAnyCase) {
    EXPECT_TRUE(Http::isDisabled({{"X-Ferrit-Control", "disabled"}}));
    EXPECT_TRUE(Http::isDisabled({{"x-ferrit-control", "disabled"}}));
    EXPECT_FALSE(Http::isDisabled({}));
}

TEST(HttpTest, FerritControlValueIsCaseSensitive) {
    EXPECT_FALSE(Http::isDisabled({{"X-Ferrit-Control", "Disabled"}}));
    EXPECT_FALSE(Http::isDisabled({{"X-Ferrit-Control", "disabled "}}));
    EXPECT_FALSE(Http::isDisabled({{"X-Ferrit-Control", "enabled"}}));
}

// --- parseExpires ---------------------------------------------------------------------------

TEST(HttpTest, CacheControlMaxAgeGivesNowPlusSeconds) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=60"}}),
              static_cast<unsigned long long>(kNow) + 60000);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "public, max-age=1"}}),
              static_cast<unsigned long long>(kNow) + 1000);
}

TEST(HttpTest, CacheControlNoCacheWithMaxAgeGivesZero) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "no-cache, max-age=60"}}), 0u);
}

TEST(HttpTest, CacheControlMaxAgeThenNoStoreGivesZero) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=60, no-store"}}), 0u);
}

TEST(HttpTest, CacheControlNameAndTokenAreCaseFolded) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"CACHE-CONTROL", "MAX-AGE=60"}}),
              static_cast<unsigned long long>(kNow) + 60000);
    EXPECT_EQ(Http::parseExpires({{"cache-control", " No-Store "}}), 0u);
}

TEST(HttpTest, CacheControlMaxAgeZeroIgnoresExpires) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires(
                  {{"Cache-Control", "max-age=0"}, {"Expires", "Sun, 06 Nov 2094 08:49:37 GMT"}}),
              0u);
}

TEST(HttpTest, CacheControlWithoutMaxAgeIgnoresExpires) {
    MarlLogger::ScopedManualClock clock(kNow);
    const char* expires = "Sun, 06 Nov 1994 08:49:37 GMT";
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "public"}, {"Expires", expires}}), 0u);
    // Present but empty still counts as present.
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", ""}, {"Expires", expires}}), 0u);
}

TEST(HttpTest, CacheControlLastMaxAgeWins) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=10, max-age=20"}}),
              static_cast<unsigned long long>(kNow) + 20000);
    // A later unparsable max-age resets it to 0, and the scan goes on.
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=10, max-age=x"}}), 0u);
}

TEST(HttpTest, CacheControlUnparsableMaxAgeGivesZero) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age="}}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=abc"}}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age"}}), 0u);
}

TEST(HttpTest, CacheControlNegativeMaxAgeGivesZero) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=-5"}}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=-99999999999999999999999999999"}}),
              0u);
}

TEST(HttpTest, CacheControlHugeMaxAgeSaturates) {
    MarlLogger::ScopedManualClock clock(kNow);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=1000000000000000000000000000000"}}),
              ULLONG_MAX);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=9223372036854775807"}}), ULLONG_MAX);
    // Still representable: now + 10^12 seconds.
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=1000000000000"}}),
              static_cast<unsigned long long>(kNow) + 1000000000000000ull);
}

TEST(HttpTest, CacheControlMaxAgeTruncatesFractionalNow) {
    MarlLogger::ScopedManualClock clock(1000.75);
    EXPECT_EQ(Http::parseExpires({{"Cache-Control", "max-age=2"}}), 3000u);
}

TEST(HttpTest, CacheControlMaxAgeFollowsTheClock) {
    MarlLogger::ScopedManualClock clock(kNow);
    const HeaderMap header = {{"Cache-Control", "max-age=60"}};
    const unsigned long long first = Http::parseExpires(header);
    clock->advance(3600.0 * 1000);
    EXPECT_EQ(Http::parseExpires(header), first + 3600000);
}

TEST(HttpTest, ExpiresAloneGivesItsDateInMilliseconds) {
    EXPECT_EQ(Http::parseExpires({{"expires", "Sun, 06 Nov 1994 08:49:37 GMT"}}), 784111777000ull);
}

TEST(HttpTest, ExpiresUnparsableOrBeforeTheEpochGivesZero) {
    EXPECT_EQ(Http::parseExpires({{"Expires", "0"}}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Expires", "-1"}}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Expires", ""}}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Expires", "Wed, 31 Dec 1969 23:59:59 GMT"}}), 0u);
}

TEST(HttpTest, NeitherHeaderGivesZero) {
    EXPECT_EQ(Http::parseExpires({}), 0u);
    EXPECT_EQ(Http::parseExpires({{"Via", "x"}}), 0u);
}

// --- parseAccept and accepts ----------------------------------------------------------------

std::vector<std::string_view> typesOf(const std::vector<AcceptType>& list) {
    std::vector<std::string_view> types;
    for (const AcceptType& entry : list) types.push_back(entry.type);
    return types;
}

TEST(HttpTest, AcceptWildcardSortsBeforeLowerQuality) {
    const auto list = Http::parseAccept("text/html;q=0.5, image/*");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].type, "image/*");
    EXPECT_EQ(list[0].quality, 1.0);
    EXPECT_EQ(list[1].type, "text/html");
    EXPECT_EQ(list[1].quality, 0.5);
}

TEST(HttpTest, AcceptTrimsTypes) {
    const auto list = Http::parseAccept("  text/html ,\timage/png\t; q=0.25 ");
    EXPECT_EQ(typesOf(list), (std::vector<std::string_view>{"text/html", "image/png"}));
    EXPECT_EQ(list[1].quality, 0.25);
}

TEST(HttpTest, AcceptQualityOnlyWhenFirstParameter) {
    EXPECT_EQ(Http::parseAccept("a/b; \tq=0.3")[0].quality, 0.3);
    EXPECT_EQ(Http::parseAccept("a/b;level=1;q=0.3")[0].quality, 1.0);
    EXPECT_EQ(Http::parseAccept("a/b;level=1, c/d;q=0")[1].quality, 0.0);
}

TEST(HttpTest, AcceptUnparsableQualityIsOne) {
    EXPECT_EQ(Http::parseAccept("a/b;q=")[0].quality, 1.0);
    EXPECT_EQ(Http::parseAccept("a/b;q=high")[0].quality, 1.0);
    EXPECT_EQ(Http::parseAccept("a/b;q=nan")[0].quality, 1.0);
    EXPECT_EQ(Http::parseAccept("a/b;q=0.7;level=2")[0].quality, 0.7);
}

TEST(HttpTest, AcceptEqualQualitiesKeepTheirOrder) {
    const auto list = Http::parseAccept("a/1;q=0.5, b/2, c/3;q=0.5, d/4, e/5;q=0.9");
    EXPECT_EQ(typesOf(list), (std::vector<std::string_view>{"b/2", "d/4", "e/5", "a/1", "c/3"}));
}

TEST(HttpTest, AcceptEmptyInputGivesEmptyList) {
    EXPECT_TRUE(Http::parseAccept("").empty());
    EXPECT_TRUE(Http::parseAccept(std::string_view()).empty());
}

TEST(HttpTest, AcceptBlankInputGivesEmptyList) {
    EXPECT_TRUE(Http::parseAccept(" \t ").empty());
    EXPECT_TRUE(Http::parseAccept(" , ,,").empty());
    EXPECT_TRUE(Http::parseAccept(";q=0.5").empty());
    EXPECT_EQ(typesOf(Http::parseAccept("a/b,,c/d")),
              (std::vector<std::string_view>{"a/b", "c/d"}));
}

TEST(HttpTest, AcceptOfOneMebibyte) {
    std::string text;
    const std::string piece = "text/html;q=0.5,image/png,";
    while (text.size() < (1u << 20)) text += piece;
    const size_t pieces = text.size() / piece.size();
    const auto list = Http::parseAccept(text);
    ASSERT_EQ(list.size(), pieces * 2);
    // The higher quality half comes first, each half in input order.
    EXPECT_EQ(list.front().type, "image/png");
    EXPECT_EQ(list[pieces - 1].type, "image/png");
    EXPECT_EQ(list[pieces].type, "text/html");
    EXPECT_EQ(list.back().quality, 0.5);
}

TEST(HttpTest, AcceptOfBinaryInputPointsIntoIt) {
    static const char kBytes[] = "\x00\xff/\x01;q=\x80,\xfe\x00\x00;q=0.1";
    const std::string text(kBytes, sizeof(kBytes) - 1);
    const auto list = Http::parseAccept(text);
    ASSERT_EQ(list.size(), 2u);
    for (const AcceptType& entry : list) {
        EXPECT_GE(entry.type.data(), text.data());
        EXPECT_LE(entry.type.data() + entry.type.size(), text.data() + text.size());
    }
    EXPECT_EQ(list[0].type, std::string_view("\x00\xff/\x01", 4));
    EXPECT_EQ(list[0].quality, 1.0);
    EXPECT_EQ(list[1].type, std::string_view("\xfe\x00\x00", 3));
    EXPECT_EQ(list[1].quality, 0.1);
}

TEST(HttpTest, AcceptsEverythingWithEmptyListOrEmptyType) {
    EXPECT_TRUE(Http::accepts({}, "text/html"));
    EXPECT_TRUE(Http::accepts(Http::parseAccept("image/png"), ""));
}

TEST(HttpTest, AcceptsCatchAllOnlyWhenAlone) {
    EXPECT_TRUE(Http::accepts(Http::parseAccept("*/*"), "font/woff2"));
    EXPECT_FALSE(Http::accepts(Http::parseAccept("text/html, */*"), "font/woff2"));
    EXPECT_TRUE(Http::accepts(Http::parseAccept("text/html, */*;q=0.8"), "text/html"));
}

TEST(HttpTest, AcceptsTypeWildcardByPrefix) {
    const auto list = Http::parseAccept("image/*");
    EXPECT_TRUE(Http::accepts(list, "image/png"));
    EXPECT_TRUE(Http::accepts(list, "image/svg+xml"));
    EXPECT_FALSE(Http::accepts(list, "text/css"));
    EXPECT_FALSE(Http::accepts(list, "imag"));
}

TEST(HttpTest, AcceptsExactTypeWithoutParameters) {
    const auto list = Http::parseAccept("text/css,application/json");
    EXPECT_TRUE(Http::accepts(list, "text/css;charset=UTF-8"));
    EXPECT_TRUE(Http::accepts(list, " application/json ; charset=utf-8"));
    EXPECT_FALSE(Http::accepts(list, "text/html"));
    EXPECT_FALSE(Http::accepts(list, "text/cs"));
    EXPECT_FALSE(Http::accepts(list, "text/CSS"));
}

// --- mimeFor --------------------------------------------------------------------------------

TEST(HttpTest, MimeForEveryTableRow) {
    const std::pair<const char*, const char*> rows[] = {
        {"apng", "image/apng"},
        {"css", "text/css"},
        {"gif", "image/gif"},
        {"htm", "text/html"},
        {"html", "text/html"},
        {"ico", "image/x-icon"},
        {"icon", "image/x-icon"},
        {"jpeg", "image/jpeg"},
        {"jpg", "image/jpeg"},
        {"m4a", "audio/mp4a-latm"},
        {"pdf", "application/pdf"},
        {"svg", "image/svg+xml"},
        {"tif", "image/tiff"},
        {"tiff", "image/tiff"},
        {"wav", "audio/x-wav"},
        {"xml", "application/xml"},
        {"mp3", "audio/mpeg"},
        {"png", "image/png"},
        {"webp", "image/webp"},
        {"heic", "image/heic"},
        {"js", "application/x-javascript"},
        {"txt", "text/plain"},
        {"mp4", "video/mp4"},
        {"woff", "font/woff"},
        {"heif", "image/heif"},
        {"json", "application/json"},
        {"ttf", "font/ttf"},
        {"mov", "video/quicktime"},
        {"woff2", "font/woff2"},
        {"mpeg", "video/mpeg"},
    };
    for (const auto& [extension, type] : rows) {
        SCOPED_TRACE(extension);
        EXPECT_EQ(Http::mimeFor(std::string("https://x/a/file.") + extension), type);
        EXPECT_EQ(Http::mimeView(std::string("dir/") + extension), type);
    }
}

TEST(HttpTest, MimeForPathWithoutDotUsesLastSegment) {
    EXPECT_EQ(Http::mimeFor("a/css"), "text/css");
    EXPECT_EQ(Http::mimeFor("a.b/json"), "application/json");
}

TEST(HttpTest, MimeForUpperCaseExtension) {
    EXPECT_EQ(Http::mimeFor("a/b.CSS"), "text/css");
    EXPECT_EQ(Http::mimeFor("a/b.WoFf2"), "font/woff2");
}

TEST(HttpTest, MimeForUnknownOrMissingExtensionIsEmpty) {
    EXPECT_EQ(Http::mimeFor("css"), "");
    EXPECT_EQ(Http::mimeFor(""), "");
    EXPECT_EQ(Http::mimeFor("a/b."), "");
    EXPECT_EQ(Http::mimeFor("a/"), "");
    EXPECT_EQ(Http::mimeFor("a/b.exe"), "");
    EXPECT_EQ(Http::mimeFor("a/b.woff22"), "");
    EXPECT_EQ(Http::mimeFor("a/b.cs"), "");
    // The text after the last separator, not the first extension.
    EXPECT_EQ(Http::mimeFor("a/b.css.map"), "");
    EXPECT_EQ(Http::mimeFor("a/b.css?v=1"), "");
}

// --- Dates ----------------------------------------------------------------------------------

TEST(HttpTest, HttpDateIsImfFixdate) {
    EXPECT_EQ(Http::httpDate(784111777000.0), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(Http::httpDate(784111777999.9), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(Http::httpDate(0.0), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(Http::httpDate(-1.0), "Wed, 31 Dec 1969 23:59:59 GMT");
    EXPECT_EQ(Http::httpDate(951782400000.0), "Tue, 29 Feb 2000 00:00:00 GMT");
}

TEST(HttpTest, HttpDateOfNoRepresentableTimeIsEmpty) {
    EXPECT_EQ(Http::httpDate(NAN), "");
    EXPECT_EQ(Http::httpDate(INFINITY), "");
    EXPECT_EQ(Http::httpDate(-INFINITY), "");
    EXPECT_EQ(Http::httpDate(1e300), "");
    EXPECT_EQ(Http::httpDate(253402300800000.0), "");  // year 10000
    EXPECT_EQ(Http::httpDate(253402300799000.0), "Fri, 31 Dec 9999 23:59:59 GMT");
}

TEST(HttpTest, HttpDateRoundTrips) {
    const double times[] = {0.0,
                            1.0,
                            999.0,
                            784111777123.0,
                            1.7e12,
                            4102444800000.0,
                            -86400000.0,
                            253402300799000.0,
                            -62167219200000.0};
    for (double ms : times) {
        SCOPED_TRACE(ms);
        const std::string text = Http::httpDate(ms);
        ASSERT_FALSE(text.empty());
        long long seconds = 0;
        ASSERT_TRUE(Http::parseHttpDate(text, &seconds)) << text;
        EXPECT_EQ(seconds, static_cast<long long>(std::floor(ms / 1000.0)));
    }
}

TEST(HttpTest, ParseHttpDateOfTheThreeForms) {
    MarlLogger::ScopedManualClock clock(kNow);  // in 2023
    long long seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT", &seconds));
    EXPECT_EQ(seconds, 784111777);
    seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT", &seconds));
    EXPECT_EQ(seconds, 784111777);
    seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Sun Nov  6 08:49:37 1994", &seconds));
    EXPECT_EQ(seconds, 784111777);
    seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Wed Nov 16 08:49:37 1994", &seconds));
    EXPECT_EQ(seconds, 784111777 + 10 * 86400);
    ASSERT_TRUE(Http::parseHttpDate("  Sun, 06 Nov 1994 08:49:37 GMT\r\n", &seconds));
    EXPECT_EQ(seconds, 784111777);
}

// A two-digit year more than 50 years ahead of now is the most recent past year with it.
TEST(HttpTest, ParseHttpDateTwoDigitYearFollowsTheClock) {
    MarlLogger::ScopedManualClock clock(kNow);  // in 2023
    long long seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Friday, 01-Jan-70 00:00:00 GMT", &seconds));
    EXPECT_EQ(seconds, 3155760000);  // 2070
    ASSERT_TRUE(Http::parseHttpDate("Thursday, 01-Jan-74 00:00:00 GMT", &seconds));
    EXPECT_EQ(seconds, 126230400);  // 1974
    clock->setWall(0.0);            // in 1970
    ASSERT_TRUE(Http::parseHttpDate("Friday, 01-Jan-70 00:00:00 GMT", &seconds));
    EXPECT_EQ(seconds, 0);
}

TEST(HttpTest, ParseHttpDateRejectsGarbage) {
    const char* garbage[] = {
        "",
        "garbage",
        "0",
        "1700000000",
        "Sun, 06 Nov 1994",
        "Sun, 06 Nov 1994 08:49:37",
        "Sun, 06 Nov 1994 08:49:37 UTC",
        "Sun, 06 Nov 1994 08:49:37 GMTX",
        "Sun 06 Nov 1994 08:49:37 GMT",
        "Xyz, 06 Nov 1994 08:49:37 GMT",
        "Sun, 6 Nov 1994 08:49:37 GMT",
        "Sun, 06 Foo 1994 08:49:37 GMT",
        "Sun, 06 nov 1994 08:49:37 GMT",
        "Sun, 06 Nov 94 08:49:37 GMT",
        "Sun, 00 Nov 1994 08:49:37 GMT",
        "Sun, 31 Nov 1994 08:49:37 GMT",
        "Sun, 29 Feb 1900 08:49:37 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT",
        "Sun, 06 Nov 1994 08:60:00 GMT",
        "Sun, 06 Nov 1994 08:49:61 GMT",
        "Sun, 06 Nov 1994 8:49:37 GMT",
        "Sun, 06 Nov 1994 08-49-37 GMT",
        "Sunday, 06-Nov-1994 08:49:37 GMT",
        "Sunday, 06 Nov 94 08:49:37 GMT",
        "Sun Nov 6 08:49:37 1994",
        "Sun Nov  6 08:49:37 94",
        "Sun Nov  6 08:49:37 1994 GMT",
        "Sun, 06 Nov 1994 08:49:37 GMT, Mon, 07 Nov 1994 08:49:37 GMT",
    };
    for (const char* text : garbage) {
        long long seconds = 12345;
        EXPECT_FALSE(Http::parseHttpDate(text, &seconds)) << text;
    }
    EXPECT_FALSE(Http::parseHttpDate(std::string("Sun, 06 Nov 1994\0 08:49:37 GMT", 30), nullptr));
}

TEST(HttpTest, ParseHttpDateAcceptsLeapDayAndLeapSecond) {
    long long seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Tue, 29 Feb 2000 00:00:00 GMT", &seconds));
    EXPECT_EQ(seconds, 951782400);
    ASSERT_TRUE(Http::parseHttpDate("Sat, 31 Dec 2016 23:59:60 GMT", &seconds));
    EXPECT_EQ(seconds, 1483228800);
}

TEST(HttpTest, ParseHttpDateKeepsToPrintableYears) {
    long long seconds = 0;
    ASSERT_TRUE(Http::parseHttpDate("Fri, 31 Dec 9999 23:59:59 GMT", &seconds));
    EXPECT_EQ(seconds, 253402300799);
    ASSERT_TRUE(Http::parseHttpDate("Sat, 01 Jan 0000 00:00:00 GMT", &seconds));
    EXPECT_EQ(seconds, -62167219200);
    // The leap second would carry into year 10000.
    EXPECT_FALSE(Http::parseHttpDate("Fri, 31 Dec 9999 23:59:60 GMT", &seconds));
}

}  // namespace
}  // namespace FerritCore
