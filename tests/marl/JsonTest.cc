#include "marl/Json.h"

#include <gtest/gtest.h>

#include <bit>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>

namespace MarlLogger::json {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) out.push_back(static_cast<char>(v));
    return out;
}

// A value with every kind of node, nested, with keys in a non-sorted order.
JSON sampleValue() {
    JSON inner;
    inner.set("z", JSON(-1));
    inner.set("a", JSON(std::string("x\0y", 3)));
    inner.set("m", JSON(JSONArray{JSON(), JSON(true), JSON(false), JSON(2.5)}));
    JSON value;
    value.set("zeta", JSON(int64_t{-200}));
    value.set("alpha", JSON(uint64_t{18446744073709551615ull}));
    value.set("mid", inner);
    value.set("ints",
              JSON(JSONArray{
                  JSON(0), JSON(127), JSON(128), JSON(255), JSON(256), JSON(65535), JSON(65536),
                  JSON(int64_t{4294967295}), JSON(int64_t{4294967296}), JSON(-32), JSON(-33),
                  JSON(-128), JSON(-129), JSON(-32768), JSON(-32769), JSON(int64_t{-2147483648LL}),
                  JSON(int64_t{-2147483649LL}), JSON(std::numeric_limits<int64_t>::min()),
                  JSON(std::numeric_limits<int64_t>::max())}));
    value.set("strings",
              JSON(JSONArray{JSON(""), JSON(std::string(31, 's')), JSON(std::string(32, 's')),
                             JSON(std::string(255, 's')), JSON(std::string(256, 's')),
                             JSON(std::string(65536, 's'))}));
    value.set("empty", JSON(JSONObject()));
    value.set("none", JSON(JSONArray()));
    value.set("pi", JSON(3.141592653589793));
    value.set("negzero", JSON(-0.0));
    return value;
}

// ---- Lenient readers ----------------------------------------------------------------------

TEST(JsonTest, NumbersReadAsTheyAre) {
    EXPECT_EQ(JSON(42).int32Value(), 42);
    EXPECT_EQ(JSON(-42).int64Value(), -42);
    EXPECT_EQ(JSON(42).uint64Value(), 42u);
    EXPECT_DOUBLE_EQ(JSON(42).doubleValue(), 42.0);
    EXPECT_TRUE(JSON(42).boolValue());
    EXPECT_FALSE(JSON(0).boolValue());
    EXPECT_EQ(JSON(2.9).int32Value(), 2);
    EXPECT_EQ(JSON(-2.9).int64Value(), -2);
    EXPECT_TRUE(JSON(0.5).boolValue());
    EXPECT_DOUBLE_EQ(JSON(2.5).doubleValue(), 2.5);
}

TEST(JsonTest, OutOfRangeNumbersSaturate) {
    EXPECT_EQ(JSON(int64_t{1} << 40).int32Value(), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(JSON(-(int64_t{1} << 40)).int32Value(), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(JSON(-1).uint32Value(), 0u);
    EXPECT_EQ(JSON(-1).uint64Value(), 0u);
    EXPECT_EQ(JSON(int64_t{1} << 40).uint32Value(), std::numeric_limits<uint32_t>::max());
    EXPECT_EQ(JSON(uint64_t{1} << 63).int64Value(), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(JSON(uint64_t{1} << 63).uint64Value(), uint64_t{1} << 63);
    EXPECT_EQ(JSON(1e300).int64Value(), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(JSON(-1e300).int64Value(), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(JSON(1e300).uint64Value(), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(JSON(-1e300).uint64Value(), 0u);
    EXPECT_EQ(JSON(kInf).int32Value(), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(JSON(-kInf).uint32Value(), 0u);
    EXPECT_EQ(JSON(9223372036854775808.0).int64Value(), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(JSON(-9223372036854775808.0).int64Value(), std::numeric_limits<int64_t>::min());
}

TEST(JsonTest, NaNReadsZero) {
    EXPECT_EQ(JSON(kNaN).int32Value(), 0);
    EXPECT_EQ(JSON(kNaN).int64Value(), 0);
    EXPECT_EQ(JSON(kNaN).uint32Value(), 0u);
    EXPECT_EQ(JSON(kNaN).uint64Value(), 0u);
    EXPECT_FALSE(JSON(kNaN).boolValue());
}

TEST(JsonTest, BoolsReadOneAndZero) {
    EXPECT_EQ(JSON(true).int32Value(), 1);
    EXPECT_EQ(JSON(true).uint64Value(), 1u);
    EXPECT_DOUBLE_EQ(JSON(true).doubleValue(), 1.0);
    EXPECT_EQ(JSON(false).int64Value(), 0);
    EXPECT_DOUBLE_EQ(JSON(false).doubleValue(), 0.0);
    EXPECT_TRUE(JSON(true).boolValue());
    EXPECT_FALSE(JSON(false).boolValue());
}

TEST(JsonTest, LenientWordsInStrings) {
    for (const char* zero : {"", "0", "false"}) {
        SCOPED_TRACE(zero);
        EXPECT_FALSE(JSON(zero).boolValue());
        EXPECT_EQ(JSON(zero).int32Value(), 0);
        EXPECT_EQ(JSON(zero).uint64Value(), 0u);
        EXPECT_DOUBLE_EQ(JSON(zero).doubleValue(), 0.0);
    }
    for (const char* one : {"1", "true"}) {
        SCOPED_TRACE(one);
        EXPECT_TRUE(JSON(one).boolValue());
        EXPECT_EQ(JSON(one).int32Value(), 1);
        EXPECT_EQ(JSON(one).int64Value(), 1);
        EXPECT_EQ(JSON(one).uint32Value(), 1u);
        EXPECT_DOUBLE_EQ(JSON(one).doubleValue(), 1.0);
    }
}

TEST(JsonTest, NumericStringsParse) {
    EXPECT_EQ(JSON("12").int32Value(), 12);
    EXPECT_EQ(JSON("-3").int64Value(), -3);
    EXPECT_EQ(JSON("12").uint64Value(), 12u);
    EXPECT_DOUBLE_EQ(JSON("12").doubleValue(), 12.0);
    EXPECT_DOUBLE_EQ(JSON("1.5").doubleValue(), 1.5);
    EXPECT_EQ(JSON("1.5").int32Value(), 1);
    EXPECT_TRUE(JSON("12").boolValue());
    EXPECT_FALSE(JSON("0.0").boolValue());
}

TEST(JsonTest, UnparsableStringsReadZero) {
    EXPECT_EQ(JSON("abc").int32Value(), 0);
    EXPECT_EQ(JSON("abc").int64Value(), 0);
    EXPECT_EQ(JSON("abc").uint64Value(), 0u);
    EXPECT_DOUBLE_EQ(JSON("abc").doubleValue(), 0.0);
    EXPECT_FALSE(JSON("abc").boolValue());
    EXPECT_FALSE(JSON("True").boolValue());
}

TEST(JsonTest, NullArrayAndObjectReadZero) {
    for (const JSON& value : {JSON(), JSON(JSONArray{JSON(5)}), JSON(JSONObject{{"a", JSON(5)}})}) {
        EXPECT_FALSE(value.boolValue());
        EXPECT_EQ(value.int32Value(), 0);
        EXPECT_EQ(value.int64Value(), 0);
        EXPECT_EQ(value.uint32Value(), 0u);
        EXPECT_EQ(value.uint64Value(), 0u);
        EXPECT_DOUBLE_EQ(value.doubleValue(), 0.0);
        EXPECT_EQ(value.stringValue(), "");
        EXPECT_EQ(value.stringViewValue(), "");
    }
}

TEST(JsonTest, DoubleValueOrFallsBackOnlyForNonScalars) {
    EXPECT_DOUBLE_EQ(JSON().doubleValueOr(7.5), 7.5);
    EXPECT_DOUBLE_EQ(JSON(JSONArray()).doubleValueOr(7.5), 7.5);
    EXPECT_DOUBLE_EQ(JSON(JSONObject()).doubleValueOr(7.5), 7.5);
    EXPECT_DOUBLE_EQ(JSON(2).doubleValueOr(7.5), 2.0);
    EXPECT_DOUBLE_EQ(JSON(true).doubleValueOr(7.5), 1.0);
    EXPECT_DOUBLE_EQ(JSON("3.25").doubleValueOr(7.5), 3.25);
    EXPECT_DOUBLE_EQ(JSON("abc").doubleValueOr(7.5), 0.0);
}

TEST(JsonTest, StringValueOfScalars) {
    EXPECT_EQ(JSON("text").stringValue(), "text");
    EXPECT_EQ(JSON(-12).stringValue(), "-12");
    EXPECT_EQ(JSON(uint64_t{18446744073709551615ull}).stringValue(), "18446744073709551615");
    EXPECT_EQ(JSON(1.5).stringValue(), "1.5");
    EXPECT_EQ(JSON(3.0).stringValue(), "3");
    EXPECT_EQ(JSON(0.1).stringValue(), "0.1");
    EXPECT_EQ(JSON(true).stringValue(), "true");
    EXPECT_EQ(JSON(false).stringValue(), "false");
    EXPECT_EQ(JSON(12).stringViewValue(), "");
    EXPECT_EQ(JSON("view").stringViewValue(), "view");
}

TEST(JsonTest, CoerceReadsLeadingNumber) {
    EXPECT_EQ(coerceInt("12abc"), 12);
    EXPECT_EQ(coerceInt("+7"), 7);
    EXPECT_EQ(coerceInt("1e3"), 1);
    EXPECT_EQ(coerceInt(" 7"), 0);
    EXPECT_EQ(coerceInt("-"), 0);
    EXPECT_EQ(coerceInt("99999999999999999999"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(coerceInt("-9223372036854775808"), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(coerceInt("-99999999999999999999"), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(coerceUInt("18446744073709551615"), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(coerceUInt("18446744073709551616"), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(coerceUInt("-5"), 0u);
    EXPECT_EQ(coerceUInt("true"), 1u);
    EXPECT_DOUBLE_EQ(coerceDouble("1.5kg"), 1.5);
    EXPECT_DOUBLE_EQ(coerceDouble("-.5"), -0.5);
    EXPECT_DOUBLE_EQ(coerceDouble("+2e2"), 200.0);
    EXPECT_DOUBLE_EQ(coerceDouble("2e"), 2.0);
    EXPECT_DOUBLE_EQ(coerceDouble("."), 0.0);
    EXPECT_DOUBLE_EQ(coerceDouble("nan"), 0.0);
    EXPECT_DOUBLE_EQ(coerceDouble("inf"), 0.0);
    EXPECT_DOUBLE_EQ(coerceDouble("0x10"), 0.0);
    EXPECT_EQ(coerceDouble("1e400"), kInf);
    EXPECT_EQ(coerceDouble("-1e400"), -kInf);
    EXPECT_EQ(coerceDouble("1e-400"), 0.0);
    EXPECT_EQ(coerceDouble("1" + std::string(400, '0')), kInf);
    EXPECT_EQ(coerceDouble("0." + std::string(400, '0') + "1"), 0.0);
}

// ---- Values ---------------------------------------------------------------------------------

TEST(JsonTest, IntegersNormaliseToIntWhenTheyFit) {
    EXPECT_EQ(JSON(uint32_t{5}).type(), Type::Int);
    EXPECT_EQ(JSON(uint64_t{5}).type(), Type::Int);
    EXPECT_EQ(JSON(uint64_t{1} << 63).type(), Type::UInt);
    EXPECT_EQ(JSON(5), JSON(5.0));
    EXPECT_NE(JSON(5), JSON(5.5));
    EXPECT_EQ(JSON(uint64_t{1} << 63), JSON(9223372036854775808.0));
    EXPECT_NE(JSON(-1), JSON(uint64_t{18446744073709551615ull}));
    EXPECT_NE(JSON(5), JSON("5"));
}

TEST(JsonTest, AccessorsGiveNullForMissing) {
    JSON value = sampleValue();
    EXPECT_TRUE(value["nope"].isNull());
    EXPECT_TRUE(value["ints"][1000].isNull());
    EXPECT_EQ(value["ints"][1].int32Value(), 127);
    EXPECT_EQ(value["mid"]["z"].int32Value(), -1);
    EXPECT_TRUE(JSON(5)["a"].isNull());
    EXPECT_TRUE(JSON(5)[size_t{0}].isNull());
    EXPECT_TRUE(JSON(5).arrayValue().empty());
    EXPECT_TRUE(JSON(5).objectValue().empty());
    EXPECT_EQ(value.size(), 9u);
    EXPECT_EQ(JSON(5).size(), 0u);
}

TEST(JsonTest, SetReplacesInPlaceAndIgnoresNonObjects) {
    JSON value;
    value.set("a", JSON(1));
    value.set("b", JSON(2));
    value.set("a", JSON(3));
    ASSERT_EQ(value.size(), 2u);
    EXPECT_EQ(value.objectValue().members()[0].first, "a");
    EXPECT_EQ(value["a"].int32Value(), 3);
    JSON number(5);
    number.set("a", JSON(1));
    number.push(JSON(1));
    EXPECT_EQ(number, JSON(5));
    JSON list;
    list.push(JSON(1));
    list.push(JSON("two"));
    EXPECT_EQ(list.toString(), R"([1,"two"])");
}

TEST(JsonTest, ObjectEraseAndFind) {
    JSONObject object{{"a", JSON(1)}, {"b", JSON(2)}, {"c", JSON(3)}};
    EXPECT_TRUE(object.erase("b"));
    EXPECT_FALSE(object.erase("b"));
    EXPECT_EQ(object.find("b"), nullptr);
    ASSERT_NE(object.find("c"), nullptr);
    EXPECT_EQ(object.find("c")->int32Value(), 3);
    EXPECT_EQ(object.members()[1].first, "c");
}

TEST(JsonTest, ObjectEqualityIgnoresOrder) {
    JSONObject a{{"x", JSON(1)}, {"y", JSON(2)}, {"z", JSON(3)}};
    JSONObject b{{"z", JSON(3)}, {"x", JSON(1)}, {"y", JSON(2)}};
    JSONObject c{{"z", JSON(3)}, {"x", JSON(1)}, {"w", JSON(2)}};
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a == c);
}

TEST(JsonTest, ListConstructorKeepsLastDuplicateAtFirstPosition) {
    std::vector<std::pair<std::string, JSON>> pairs;
    for (int i = 0; i < 20; ++i) pairs.emplace_back("k" + std::to_string(i % 7), JSON(i));
    JSONObject object(pairs);
    ASSERT_EQ(object.size(), 7u);
    for (int k = 0; k < 7; ++k) {
        EXPECT_EQ(object.members()[k].first, "k" + std::to_string(k));
        EXPECT_EQ(object.members()[k].second.int32Value(), k + 14 < 20 ? k + 14 : k + 7);
    }
}

TEST(JsonTest, CopyMoveAndSelfAssignmentKeepValues) {
    JSON original = sampleValue();
    JSON copy = original;
    EXPECT_EQ(copy, original);
    JSON moved = std::move(copy);
    EXPECT_EQ(moved, original);
    EXPECT_TRUE(copy.isNull());  // NOLINT(bugprone-use-after-move): moved-from is null
    JSON& alias = moved;
    moved = alias;
    EXPECT_EQ(moved, original);
    // Assigning a value its own element must not read freed memory.
    JSON nested(JSONArray{JSON(JSONArray{JSON("deep")})});
    nested = nested[size_t{0}];
    EXPECT_EQ(nested.toString(), R"(["deep"])");
    JSON nested2(JSONArray{JSON(JSONArray{JSON("deep")})});
    nested2 = std::move(const_cast<JSON&>(nested2.arrayValue()[0]));
    EXPECT_EQ(nested2.toString(), R"(["deep"])");
}

TEST(JsonTest, ConstructsFromVectorsAndMaps) {
    EXPECT_EQ(JSON(std::vector<int>{1, 2, 3}).toString(), "[1,2,3]");
    EXPECT_EQ(JSON(std::vector<std::string>{"a"}).toString(), R"(["a"])");
    std::map<std::string, JSON> map{{"b", JSON(2)}, {"a", JSON(1)}};
    EXPECT_EQ(JSON(map).toString(), R"({"a":1,"b":2})");
    EXPECT_EQ(JSON(JSONObject(map)).size(), 2u);
    EXPECT_TRUE(JSON(static_cast<const char*>(nullptr)).isNull());
    EXPECT_TRUE(JSON(nullptr).isNull());
}

// ---- Text ---------------------------------------------------------------------------------

TEST(JsonTest, ParseReadsEveryKind) {
    std::string error;
    JSON value = JSON::parse(
        R"( {"n":null,"t":true,"f":false,"i":-5,"u":18446744073709551615,"big":9223372036854775807,
            "d":1.25,"s":"a\"b\u00e9\n","a":[1,[2]],"o":{"k":"v"}} )",
        &error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_TRUE(value["n"].isNull());
    EXPECT_TRUE(value["t"].boolValue());
    EXPECT_TRUE(value["f"].isBool());
    EXPECT_EQ(value["i"].type(), Type::Int);
    EXPECT_EQ(value["u"].type(), Type::UInt);
    EXPECT_EQ(value["u"].uint64Value(), 18446744073709551615ull);
    EXPECT_EQ(value["big"].type(), Type::Int);
    EXPECT_EQ(value["big"].int64Value(), 9223372036854775807LL);
    EXPECT_EQ(value["d"].type(), Type::Double);
    EXPECT_EQ(value["s"].stringValue(), "a\"b\xc3\xa9\n");
    EXPECT_EQ(value["a"][1][size_t{0}].int32Value(), 2);
    EXPECT_EQ(value["o"]["k"].stringValue(), "v");
    EXPECT_EQ(value.objectValue().members()[0].first, "n");
    EXPECT_EQ(value.objectValue().members()[9].first, "o");
}

TEST(JsonTest, ParseKeepsLastDuplicateKey) {
    JSON value = JSON::parse(R"({"a":1,"b":2,"a":3})");
    ASSERT_EQ(value.size(), 2u);
    EXPECT_EQ(value["a"].int32Value(), 3);
    EXPECT_EQ(value.toString(), R"({"a":3,"b":2})");
}

TEST(JsonTest, ParseBeyondIntegerRangeGivesDouble) {
    JSON value = JSON::parse("[18446744073709551616,-9223372036854775809]");
    EXPECT_EQ(value[size_t{0}].type(), Type::Double);
    EXPECT_EQ(value[1].type(), Type::Double);
    EXPECT_DOUBLE_EQ(value[1].doubleValue(), -9223372036854775808.0);
}

// Zero mantissas with exponents far from 0 once went through a conversion that miscounted the
// bits of zero.
TEST(JsonTest, ParseReadsZeroWithAnyExponent) {
    for (const char* text : {"0e52", "0e-300", "0.000e100", "-0e300", "0.0E+22", "0e-400"}) {
        SCOPED_TRACE(text);
        std::string error;
        JSON value = JSON::parse(text, &error);
        ASSERT_TRUE(error.empty()) << error;
        EXPECT_EQ(value.type(), Type::Double);
        EXPECT_EQ(value.doubleValue(), 0.0);
    }
    EXPECT_TRUE(std::signbit(JSON::parse("-0e300").doubleValue()));
    EXPECT_EQ(JSON::parse("1e-400").doubleValue(), 0.0);
    EXPECT_EQ(JSON::parse("4.9e-324").doubleValue(), 4.9e-324);
    EXPECT_EQ(JSON::parse("0.1").doubleValue(), 0.1);
    EXPECT_EQ(JSON::parse("-0").type(), Type::Int);
}

TEST(JsonTest, ParseRejectsNumbersBeyondDouble) {
    std::string error;
    EXPECT_TRUE(JSON::parse("[1,1.8e308]", &error).isNull());
    EXPECT_EQ(error, "Number too big to be stored in double. at offset 3");
}

TEST(JsonTest, ParseErrorsGiveNullAndWordsWithOffset) {
    struct Case {
        const char* text;
        const char* words;
    };
    for (const Case& c :
         {Case{"", "The document is empty. at offset 0"},
          Case{"   ", "The document is empty. at offset 3"}, Case{"[1,2", "at offset 4"},
          Case{"{\"a\" 1}", "Missing a colon after a name of object member."},
          Case{"[1] 2", "The document root must not be followed by other values."},
          Case{"tru", "Invalid value."}, Case{"1e999", "Number too big to be stored in double."},
          Case{"\"abc", "Missing a closing quotation mark in string."}}) {
        SCOPED_TRACE(c.text);
        std::string error;
        JSON value = JSON::parse(c.text, &error);
        EXPECT_TRUE(value.isNull());
        EXPECT_NE(error.find(c.words), std::string::npos) << error;
        EXPECT_TRUE(JSON::parse(c.text).isNull());  // no error pointer is fine too
    }
}

TEST(JsonTest, ParseRejectsTextAfterNulByte) {
    std::string error;
    EXPECT_TRUE(JSON::parse(std::string("[1]\0[2]", 7), &error).isNull());
    EXPECT_NE(error.find("at offset 3"), std::string::npos) << error;
}

TEST(JsonTest, ParseDeepNestingFailsCleanly) {
    std::string error;
    JSON value = JSON::parse(std::string(100000, '['), &error);
    EXPECT_TRUE(value.isNull());
    EXPECT_NE(error.find("deeper than 512"), std::string::npos) << error;
    error.clear();
    JSON closed = JSON::parse(std::string(100000, '[') + std::string(100000, ']'), &error);
    EXPECT_TRUE(closed.isNull());
    EXPECT_NE(error.find("deeper than 512"), std::string::npos) << error;
}

TEST(JsonTest, ParseAtMaxDepthSucceeds) {
    const int depth = JSON::kMaxDepth;
    std::string text = std::string(depth, '[') + std::string(depth, ']');
    std::string error;
    JSON value = JSON::parse(text, &error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_EQ(value.toString(), text);
    std::string deeper = "[" + text + "]";
    EXPECT_TRUE(JSON::parse(deeper, &error).isNull());
    EXPECT_FALSE(error.empty());
}

TEST(JsonTest, ParseTenMebibytesOfGarbageFailsCleanly) {
    std::mt19937 random(1234);
    std::string garbage(10 << 20, '\0');
    for (char& c : garbage) c = static_cast<char>(random());
    garbage[0] = '[';  // make the parser walk into the noise rather than stop at byte 0
    std::string error;
    EXPECT_TRUE(JSON::parse(garbage, &error).isNull());
    EXPECT_FALSE(error.empty());

    // A long valid prefix that breaks only at its very end.
    std::string almost = "[";
    while (almost.size() < (10u << 20)) almost += "0,";
    almost += "}";
    error.clear();
    EXPECT_TRUE(JSON::parse(almost, &error).isNull());
    EXPECT_NE(error.find("at offset " + std::to_string(almost.size() - 1)), std::string::npos)
        << error;
}

TEST(JsonTest, TextRoundTripKeepsValueAndOrder) {
    JSON value = sampleValue();
    std::string error;
    JSON back = JSON::parse(value.toString(), &error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_EQ(back, value);
    ASSERT_EQ(back.objectValue().size(), value.objectValue().size());
    for (size_t i = 0; i < back.objectValue().size(); ++i)
        EXPECT_EQ(back.objectValue().members()[i].first, value.objectValue().members()[i].first);
    EXPECT_EQ(back["mid"]["a"].stringValue(), std::string("x\0y", 3));
    EXPECT_TRUE(std::signbit(back["negzero"].doubleValue()));
}

TEST(JsonTest, TextRoundTripOfDoublesIsExact) {
    std::mt19937_64 random(99);
    for (int i = 0; i < 2000; ++i) {
        uint64_t bits = random();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (!std::isfinite(d)) continue;
        JSON back = JSON::parse(JSON(d).toString());
        ASSERT_EQ(back.doubleValue(), d) << JSON(d).toString();
    }
    EXPECT_EQ(JSON::parse(JSON(5e-324).toString()).doubleValue(), 5e-324);
    EXPECT_EQ(JSON::parse(JSON(1.7976931348623157e308).toString()).doubleValue(),
              1.7976931348623157e308);
}

TEST(JsonTest, ToStringWritesNullForNaNAndInfinity) {
    JSON value(JSONArray{JSON(kNaN), JSON(kInf), JSON(-kInf), JSON(1.0)});
    EXPECT_EQ(value.toString(), "[null,null,null,1.0]");
    EXPECT_EQ(JSON(kNaN).toString(), "null");
}

TEST(JsonTest, ToStringEscapes) {
    EXPECT_EQ(JSON(std::string("a\"\\\n\x01", 5)).toString(), R"("a\"\\\n\u0001")");
    EXPECT_EQ(JSON(std::string("\0", 1)).toString(), R"("\u0000")");
    EXPECT_EQ(JSON().toString(), "null");
    EXPECT_EQ(JSON(JSONObject()).toString(), "{}");
}

// ---- Binary -------------------------------------------------------------------------------

TEST(JsonTest, BinaryUsesCompactLayout) {
    EXPECT_EQ(JSON().toBinary(), bytes({0xc0}));
    EXPECT_EQ(JSON(true).toBinary(), bytes({0xc3}));
    EXPECT_EQ(JSON(false).toBinary(), bytes({0xc2}));
    EXPECT_EQ(JSON(5).toBinary(), bytes({0x05}));
    EXPECT_EQ(JSON(-1).toBinary(), bytes({0xff}));
    EXPECT_EQ(JSON(-33).toBinary(), bytes({0xd0, 0xdf}));
    EXPECT_EQ(JSON(200).toBinary(), bytes({0xcc, 0xc8}));
    EXPECT_EQ(JSON(1000).toBinary(), bytes({0xcd, 0x03, 0xe8}));
    EXPECT_EQ(JSON(1.0).toBinary(), bytes({0xcb, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(JSON("ab").toBinary(), bytes({0xa2, 'a', 'b'}));
    EXPECT_EQ(JSON(std::string(40, 'x')).toBinary().substr(0, 2), bytes({0xd9, 40}));
    EXPECT_EQ(JSON(JSONArray{JSON(1)}).toBinary(), bytes({0x91, 0x01}));
    EXPECT_EQ(JSON(JSONObject{{"a", JSON(1)}}).toBinary(), bytes({0x81, 0xa1, 'a', 0x01}));
}

TEST(JsonTest, BinaryRoundTripKeepsValueAndOrder) {
    JSON value = sampleValue();
    std::string error;
    JSON back = JSON::parseBinary(value.toBinary(), &error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_EQ(back, value);
    EXPECT_EQ(back.toBinary(), value.toBinary());
    for (size_t i = 0; i < back.objectValue().size(); ++i)
        EXPECT_EQ(back.objectValue().members()[i].first, value.objectValue().members()[i].first);
    EXPECT_EQ(back["alpha"].type(), Type::UInt);
    EXPECT_TRUE(std::signbit(back["negzero"].doubleValue()));
    EXPECT_EQ(back["ints"], value["ints"]);
}

TEST(JsonTest, BinaryRoundTripOfArbitraryBytesIsExact) {
    std::string body(3 << 20, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 + (i >> 8));
    JSON value;
    value.set("body", JSON(body));
    value.set("meta", JSON(JSONObject{{"z", JSON(1)}, {"a", JSON(body.substr(0, 256))}}));
    std::string encoded = value.toBinary();
    EXPECT_LT(encoded.size(), body.size() + 400);  // no escaping
    std::string error;
    JSON back = JSON::parseBinary(encoded, &error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_TRUE(back["body"].stringViewValue() == body);
    EXPECT_EQ(back, value);
}

TEST(JsonTest, BinaryNaNRoundTripsAndComparesEqual) {
    JSON value(JSONArray{JSON(kNaN), JSON(-kInf)});
    JSON back = JSON::parseBinary(value.toBinary());
    EXPECT_TRUE(std::isnan(back[size_t{0}].doubleValue()));
    EXPECT_EQ(back[1].doubleValue(), -kInf);
    EXPECT_EQ(back, value);
}

TEST(JsonTest, BinaryEveryTruncationFailsCleanly) {
    // The sample holds every header width, a 32-bit string length among them.
    const std::string encoded = sampleValue().toBinary();
    for (size_t length = 0; length < encoded.size(); ++length) {
        std::string error;
        JSON back = JSON::parseBinary(std::string_view(encoded).substr(0, length), &error);
        ASSERT_TRUE(back.isNull()) << length;
        ASSERT_FALSE(error.empty()) << length;
    }
}

TEST(JsonTest, BinaryTrailingBytesFail) {
    std::string error;
    EXPECT_TRUE(JSON::parseBinary(bytes({0x01, 0x02}), &error).isNull());
    EXPECT_EQ(error, "1 trailing bytes at offset 1");
}

TEST(JsonTest, BinaryHugeDeclaredLengthsFailFast) {
    struct Case {
        std::string input;
        const char* words;
    };
    const Case cases[] = {
        {bytes({0xdb, 0xff, 0xff, 0xff, 0xff, 'a', 'b', 'c', 'd', 'e'}),
         "truncated: length 4294967295"},
        {bytes({0xc6, 0xff, 0xff, 0xff, 0xff, 'a', 'b', 'c', 'd', 'e'}),
         "truncated: length 4294967295"},
        {bytes({0xdd, 0xff, 0xff, 0xff, 0xff, 1, 2, 3, 4, 5}), "truncated: length 4294967295"},
        {bytes({0xdf, 0xff, 0xff, 0xff, 0xff, 1, 2, 3, 4, 5}), "truncated: length 4294967295"},
        {bytes({0xdc, 0xff, 0xff}), "truncated: length 65535"},
        // A map of 3 members needs at least 6 bytes.
        {bytes({0x83, 0xa0, 0x01, 0xa0, 0x02}), "truncated: length 3"},
        {bytes({0xd9, 10, 'a'}), "truncated: length 10"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_TRUE(JSON::parseBinary(c.input, &error).isNull());
        EXPECT_NE(error.find(c.words), std::string::npos) << error;
    }
}

TEST(JsonTest, BinaryUnsupportedTypesFail) {
    for (int tag : {0xc1, 0xc7, 0xc8, 0xc9, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8}) {
        std::string error;
        EXPECT_TRUE(JSON::parseBinary(bytes({tag, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), &error).isNull());
        char expected[40];
        std::snprintf(expected, sizeof expected, "unsupported type 0x%02x at offset 0", tag);
        EXPECT_EQ(error, expected);
    }
    std::string error;
    EXPECT_TRUE(JSON::parseBinary("", &error).isNull());
    EXPECT_EQ(error, "empty input at offset 0");
}

TEST(JsonTest, BinaryReadsFloat32AndBinAsString) {
    JSON f = JSON::parseBinary(bytes({0xca, 0x3f, 0xc0, 0x00, 0x00}));
    EXPECT_EQ(f.type(), Type::Double);
    EXPECT_EQ(f.doubleValue(), 1.5);
    EXPECT_EQ(JSON::parseBinary(bytes({0xc4, 2, 0x00, 0xff})), JSON(bytes({0x00, 0xff})));
    EXPECT_EQ(JSON::parseBinary(bytes({0xc5, 0, 1, 'x'})), JSON("x"));
    EXPECT_EQ(JSON::parseBinary(bytes({0xc6, 0, 0, 0, 1, 'y'})), JSON("y"));
    // Bin keys are strings as well.
    EXPECT_EQ(JSON::parseBinary(bytes({0x81, 0xc4, 1, 'k', 0x07}))["k"].int32Value(), 7);
}

TEST(JsonTest, BinaryReadsEveryIntegerWidth) {
    EXPECT_EQ(JSON::parseBinary(bytes({0xd0, 0x80})).int64Value(), -128);
    EXPECT_EQ(JSON::parseBinary(bytes({0xd1, 0x80, 0x00})).int64Value(), -32768);
    EXPECT_EQ(JSON::parseBinary(bytes({0xd2, 0x80, 0, 0, 0})).int64Value(), -2147483648LL);
    EXPECT_EQ(JSON::parseBinary(bytes({0xd3, 0x80, 0, 0, 0, 0, 0, 0, 0})).int64Value(),
              std::numeric_limits<int64_t>::min());
    EXPECT_EQ(JSON::parseBinary(bytes({0xce, 0xff, 0xff, 0xff, 0xff})).int64Value(), 4294967295LL);
    // Non-minimal encodings are accepted.
    EXPECT_EQ(JSON::parseBinary(bytes({0xcf, 0, 0, 0, 0, 0, 0, 0, 5})).int64Value(), 5);
    EXPECT_EQ(JSON::parseBinary(bytes({0xde, 0, 0})), JSON(JSONObject()));
    EXPECT_EQ(JSON::parseBinary(bytes({0xdc, 0, 1, 0xc0})), JSON(JSONArray{JSON()}));
}

TEST(JsonTest, BinaryMapKeyMustBeAString) {
    std::string error;
    EXPECT_TRUE(JSON::parseBinary(bytes({0x81, 0x01, 0x02}), &error).isNull());
    EXPECT_EQ(error, "map key is not a string at offset 1");
}

TEST(JsonTest, BinaryDeepNestingFailsCleanly) {
    std::string error;
    EXPECT_TRUE(JSON::parseBinary(std::string(100000, '\x91'), &error).isNull());
    EXPECT_NE(error.find("deeper than 512"), std::string::npos) << error;

    std::string atLimit(JSON::kMaxDepth, '\x91');
    atLimit.push_back('\xc0');
    error.clear();
    JSON value = JSON::parseBinary(atLimit, &error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_EQ(value.toBinary(), atLimit);
}

TEST(JsonTest, BinaryGarbageNeverCrashes) {
    std::mt19937 random(4321);
    std::string garbage(10 << 20, '\0');
    for (char& c : garbage) c = static_cast<char>(random());
    std::string error;
    EXPECT_TRUE(JSON::parseBinary(garbage, &error).isNull());
    EXPECT_FALSE(error.empty());
    // Many short inputs: each either decodes to something that re-encodes, or fails with words.
    for (int i = 0; i < 20000; ++i) {
        std::string input(random() % 12, '\0');
        for (char& c : input) c = static_cast<char>(random());
        error.clear();
        JSON value = JSON::parseBinary(input, &error);
        if (error.empty()) {
            ASSERT_EQ(JSON::parseBinary(value.toBinary()), value);
        } else {
            ASSERT_TRUE(value.isNull());
        }
    }
}

TEST(JsonTest, BinaryDuplicateKeysKeepLast) {
    JSON value = JSON::parseBinary(bytes({0x82, 0xa1, 'a', 0x01, 0xa1, 'a', 0x02}));
    ASSERT_EQ(value.size(), 1u);
    EXPECT_EQ(value["a"].int32Value(), 2);
}

// ---- JSONStringer -------------------------------------------------------------------------

TEST(JsonTest, StringerWritesCompactText) {
    JSONStringer out;
    out.object()
        .key("s")
        .value("a\"b")
        .key("i")
        .value(-3)
        .key("u")
        .value(uint64_t{18446744073709551615ull})
        .key("d")
        .value(0.5)
        .key("nan")
        .value(kNaN)
        .key("b")
        .value(true)
        .key("n")
        .value(nullptr)
        .key("a")
        .array()
        .value(1)
        .value(std::string("x"))
        .endArray()
        .key("j")
        .value(JSON(JSONObject{{"k", JSON(JSONArray{JSON(1)})}}))
        .key("raw")
        .beforeValue(R"({"pre":[1,2]})")
        .key("empty")
        .beforeValue("")
        .endObject();
    const std::string expected =
        R"({"s":"a\"b","i":-3,"u":18446744073709551615,"d":0.5,"nan":null,"b":true,"n":null,)"
        R"("a":[1,"x"],"j":{"k":[1]},"raw":{"pre":[1,2]},"empty":null})";
    EXPECT_EQ(out.result(), expected);
    EXPECT_FALSE(JSON::parse(out.result()).isNull());
}

TEST(JsonTest, StringerRawValuesInArrays) {
    JSONStringer out;
    out.array().beforeValue("1").beforeValue(R"("two")").value(3).endArray();
    EXPECT_EQ(out.result(), R"([1,"two",3])");
}

TEST(JsonTest, StringerIgnoresMisplacedCalls) {
    JSONStringer out;
    out.key("outside");     // no object open
    out.object().value(1);  // a key is due
    out.key("a").key("b");  // a value is due
    out.endArray();         // nothing to close of that kind
    out.value(2).endObject();
    out.value(3);  // a second root
    out.endObject();
    EXPECT_EQ(out.result(), R"({"a":2})");
}

TEST(JsonTest, StringerResultSoFar) {
    JSONStringer out;
    EXPECT_EQ(out.result(), "");
    out.array().value(1);
    EXPECT_EQ(out.result(), "[1");
}

// Writes back every token it receives, so that a text read as events can be compared with the
// same text read as a value.
class EchoEvents : public JSONEvents {
  public:
    bool startObject() override { return write(&JSONStringer::object); }
    bool key(std::string_view key) override {
        out_.key(key);
        return true;
    }
    bool endObject() override { return write(&JSONStringer::endObject); }
    bool startArray() override { return write(&JSONStringer::array); }
    bool endArray() override { return write(&JSONStringer::endArray); }
    bool scalar(const JSON& value) override {
        out_.value(value);
        return ++scalars_ != stopAfter;
    }
    bool string(std::string_view value) override {
        out_.value(value);
        return true;
    }
    std::string text() const { return out_.result(); }
    int stopAfter = -1;

  private:
    bool write(JSONStringer& (JSONStringer::*token)()) {
        (out_.*token)();
        return true;
    }
    JSONStringer out_;
    int scalars_ = 0;
};

TEST(JsonTest, ParseEventsDeliversTheTokensOfWhatParseReads) {
    for (const char* text :
         {R"({"a":[1,-2,3.5,1e3,18446744073709551615,true,null,"x\u00e9"],"b":{"c":{}}})",
          R"([[],{},"",0])", "7", R"("only")",
          // Escapes shrink a string where it lies; what follows must still read whole.
          R"({"k\"ey\u0041":"a\\b\nc","n":[12,0.5e-3],"t":"\u20ac\ud83d\ude00"})"}) {
        EchoEvents events;
        std::string error;
        ASSERT_TRUE(JSON::parseEvents(text, events, &error)) << text << error;
        EXPECT_EQ(events.text(), JSON::parse(text).toString()) << text;
    }
}

TEST(JsonTest, ParseEventsFailsWhereParseFails) {
    std::string tooDeep(JSON::kMaxDepth + 1, '[');
    tooDeep.append(JSON::kMaxDepth + 1, ']');
    for (const std::string& text :
         {std::string(R"({"a":1)"), std::string(R"({"a":1e999})"), std::string("[1] 2"),
          std::string("[1,]"), tooDeep, std::string("[1]\0[2]", 7)}) {
        EchoEvents events;
        std::string eventsError;
        std::string parseError;
        EXPECT_FALSE(JSON::parseEvents(text, events, &eventsError)) << text;
        JSON::parse(text, &parseError);
        EXPECT_EQ(eventsError, parseError) << text;
    }
}

// A raw control character anywhere in a long string, in a key or a value, fails both readings
// alike: a reader that passes over strings many bytes at a time must not let one through.
TEST(JsonTest, ParseEventsRefusesRawControlCharactersAsParseDoes) {
    for (int c = 1; c < 0x20; ++c) {
        for (size_t at : {size_t{0}, size_t{17}, size_t{40}}) {
            std::string body(48, 'x');
            body[at] = static_cast<char>(c);
            for (const std::string& text : {"{\"k\":\"" + body + "\"}", "{\"" + body + "\":1}"}) {
                EchoEvents events;
                std::string eventsError;
                std::string parseError;
                EXPECT_FALSE(JSON::parseEvents(text, events, &eventsError)) << c << " at " << at;
                JSON::parse(text, &parseError);
                EXPECT_FALSE(parseError.empty()) << c << " at " << at;
                EXPECT_EQ(eventsError, parseError) << c << " at " << at;
            }
        }
    }
}

// Read in place, a text gives the same events and the same failures as read from a copy, with
// and without room past its end, and with a byte that the vector scan would pass over.
TEST(JsonTest, ParseEventsInPlaceAgreesWithParseEvents) {
    std::string tooDeep(JSON::kMaxDepth + 1, '[');
    tooDeep.append(JSON::kMaxDepth + 1, ']');
    const std::string longString(70, 'y');
    std::string escaped = "{\"";
    escaped.append(longString).append("\":\"").append(longString).append("\\u001b\"}");
    std::string raw = "{\"k\":\"";
    raw.append(longString).append("\x1b\"}");
    for (const std::string& text :
         {std::string(R"({"k\"ey\u0041":"a\\b\nc","n":[12,0.5e-3],"t":"\u20ac"})"), escaped, raw,
          std::string(R"({"a":1)"), std::string("[1] 2"), std::string("[1]\0[2]", 7), tooDeep}) {
        EchoEvents expected;
        std::string expectedError;
        const bool parsed = JSON::parseEvents(text, expected, &expectedError);
        for (const size_t spare : {size_t{0}, JSON::kInPlaceSpare}) {
            std::string buffer;
            buffer.reserve(text.size() + spare);
            buffer.assign(text);
            EchoEvents events;
            std::string error;
            EXPECT_EQ(JSON::parseEventsInPlace(buffer, events, &error), parsed) << text;
            EXPECT_EQ(events.text(), expected.text()) << text;
            EXPECT_EQ(error, expectedError) << text;
        }
    }
}

TEST(JsonTest, ParseEventsStopsWhenAHandlerSaysSo) {
    EchoEvents events;
    events.stopAfter = 2;
    std::string error;
    EXPECT_FALSE(JSON::parseEvents("[1,2,3]", events, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(events.text(), "[1,2");
}

// Numbers of every shape the quick readings take (integers up to and past 19 digits, decimals
// whose digits do and do not fit a double exactly, signs, many places) and some they leave to the
// full reader, each compared bit for bit with the C library's correctly rounded reading, and as
// an integer where one fits.
TEST(JsonTest, NumbersReadExactlyAsTheLibraryRoundsThem) {
    std::mt19937_64 random(20261125);
    auto digitsOf = [&](size_t count, bool leading) {
        std::string out;
        for (size_t i = 0; i < count; ++i) {
            const bool first = i == 0 && leading && count > 1;
            out += static_cast<char>('0' + (first ? 1 + random() % 9 : random() % 10));
        }
        return out;
    };
    for (int i = 0; i < 20000; ++i) {
        const bool negative = random() % 4 == 0;
        const size_t whole = 1 + random() % 22;
        std::string text = (negative ? "-" : "") + digitsOf(whole, true);
        const int shape = static_cast<int>(random() % 3);
        if (shape >= 1) text += "." + digitsOf(1 + random() % 20, false);
        if (shape == 2 && random() % 2 == 0) text += "e" + std::to_string(random() % 40);
        const JSON value = JSON::parse("[" + text + "]")[size_t{0}];
        ASSERT_TRUE(value.isNumber()) << text;
        const double expected = std::strtod(text.c_str(), nullptr);
        if (text.find_first_of(".e") == std::string::npos) {
            if (negative) {
                int64_t integer = 0;
                if (std::sscanf(text.c_str(), "%" SCNd64, &integer) == 1 && whole <= 18) {
                    ASSERT_EQ(value.type(), Type::Int) << text;
                    ASSERT_EQ(value.int64Value(), integer) << text;
                    continue;
                }
            } else if (whole <= 19) {
                ASSERT_TRUE(value.type() == Type::Int || value.type() == Type::UInt) << text;
                ASSERT_EQ(value.uint64Value(), std::stoull(text)) << text;
                continue;
            }
        }
        if (value.type() != Type::Double) continue;  // a 19- or 20-digit integer that still fits
        const double read = value.doubleValue();
        ASSERT_EQ(std::bit_cast<uint64_t>(read), std::bit_cast<uint64_t>(expected)) << text;
    }
}

}  // namespace
}  // namespace MarlLogger::json
