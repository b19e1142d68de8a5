// The binary form read as events: the same items as the text of the same value, views into the
// input, and exactly parseBinary's verdict and words on any bytes.
#include "marl/JsonBinaryEvents.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "marl/Json.h"

namespace MarlLogger::json {
namespace {

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) out.push_back(static_cast<char>(v));
    return out;
}

// Writes each event as a line; stops at the event numbered `stopAt` when one is given.
class Trace : public JSONEvents {
  public:
    explicit Trace(std::string_view input = {}, int stopAt = -1) : input_(input), stopAt_(stopAt) {}
    bool startObject() override { return note("{"); }
    bool key(std::string_view key) override { return note("k:" + inside(key)); }
    bool endObject() override { return note("}"); }
    bool startArray() override { return note("["); }
    bool endArray() override { return note("]"); }
    bool scalar(const JSON& value) override { return note("v:" + value.toString()); }
    bool string(std::string_view value) override { return note("s:" + inside(value)); }

    std::string text;
    bool viewsInside = true;

  private:
    std::string inside(std::string_view view) {
        // A view of the input, not of a copy.
        if (!input_.empty() && !view.empty() &&
            (view.data() < input_.data() ||
             view.data() + view.size() > input_.data() + input_.size()))
            viewsInside = false;
        return std::string(view);
    }
    bool note(const std::string& line) {
        text += line + "\n";
        return count_++ != stopAt_;
    }
    std::string_view input_;
    int stopAt_;
    int count_ = 0;
};

JSON sample() {
    return JSON::parse(
        R"({"c":"body text","r":4294967295,"m":"abc","h":{"Content-Type":"text/css","E":""},)"
        R"("n":[1,-2,3.5,true,false,null,[],{},[[[[[[[[[[1]]]]]]]]]]],"big":-9007199254740993})");
}

// parseBinary and parseBinaryEvents give the same verdict, in the same words.
void expectSameVerdict(const std::string& input) {
    std::string valueError;
    const JSON value = JSON::parseBinary(input, &valueError);
    std::string eventError;
    Trace trace(input);
    const bool ok = parseBinaryEvents(input, trace, &eventError);
    EXPECT_EQ(ok, valueError.empty()) << valueError;
    EXPECT_EQ(eventError, valueError);
    // And the same items as the text of the value built, where building loses nothing (a
    // repeated key delivers each of its values as an event but keeps only the last).
    if (ok && value.toBinary() == input) {
        Trace fromText;
        ASSERT_TRUE(JSON::parseEvents(value.toString(), fromText));
        EXPECT_EQ(trace.text, fromText.text);
    }
}

TEST(JsonBinaryEventsTest, DeliversTheItemsOfTheTextAsViewsIntoTheInput) {
    const std::string input = sample().toBinary();
    Trace events(input);
    std::string error;
    ASSERT_TRUE(parseBinaryEvents(input, events, &error)) << error;
    Trace fromText;
    ASSERT_TRUE(JSON::parseEvents(sample().toString(), fromText));
    EXPECT_EQ(events.text, fromText.text);
    EXPECT_TRUE(events.viewsInside);
    EXPECT_NE(events.text.find("s:body text\n"), std::string::npos);
}

TEST(JsonBinaryEventsTest, StringsHoldAnyBytes) {
    const std::string text("a\0b\xff", 4);
    const std::string input = JSON(text).toBinary();
    Trace events(input);
    ASSERT_TRUE(parseBinaryEvents(input, events));
    EXPECT_EQ(events.text, "s:" + text + "\n");
}

TEST(JsonBinaryEventsTest, RefusesWhatParseBinaryRefusesInTheSameWords) {
    const std::string cases[] = {
        "",
        bytes({0x01, 0x02}),
        bytes({0xc1}),
        bytes({0xdb, 0xff, 0xff, 0xff, 0xff, 'a'}),
        bytes({0x83, 0xa0, 0x01, 0xa0, 0x02}),
        // Keys that are not strings: a number, an empty and a full container, one nested in
        // another, and one whose own keys are wrong.
        bytes({0x81, 0x01, 0x02}),
        bytes({0x81, 0x90, 0x01}),
        bytes({0x81, 0x80, 0x01}),
        bytes({0x81, 0x91, 0x01, 0x02}),
        bytes({0x81, 0x91, 0x91, 0x01, 0x02}),
        bytes({0x81, 0x81, 0x01, 0x02, 0x03}),
        bytes({0x82, 0xa1, 'k', 0x01, 0x91, 0xa1, 'x', 0x02}),
        bytes({0x92, 0x81, 0xa1, 'k', 0x81, 0x91, 0x01, 0x02, 0x03}),
        // Accepted: a bin key, repeated keys.
        bytes({0x81, 0xc4, 1, 'k', 0x07}),
        bytes({0x82, 0xa1, 'k', 0x01, 0xa1, 'k', 0x02}),
    };
    for (const std::string& input : cases) {
        SCOPED_TRACE(testing::PrintToString(input));
        expectSameVerdict(input);
    }
}

TEST(JsonBinaryEventsTest, NestingAtAndBeyondTheLimit) {
    for (int depth : {7, 8, 9, 40, JSON::kMaxDepth, JSON::kMaxDepth + 1}) {
        std::string input(static_cast<size_t>(depth), static_cast<char>(0x91));
        input.push_back(0x01);
        SCOPED_TRACE(depth);
        expectSameVerdict(input);
    }
}

TEST(JsonBinaryEventsTest, EveryTruncationAndManyDamagesGiveTheSameVerdict) {
    const std::string encoded = sample().toBinary();
    for (size_t length = 0; length < encoded.size(); ++length) {
        SCOPED_TRACE(length);
        expectSameVerdict(encoded.substr(0, length));
    }
    std::mt19937 random(20261125);
    for (int round = 0; round < 3000; ++round) {
        std::string damaged = encoded;
        for (int flips = 1 + static_cast<int>(random() % 3); flips > 0; --flips)
            damaged[random() % damaged.size()] = static_cast<char>(random() % 256);
        SCOPED_TRACE(round);
        expectSameVerdict(damaged);
    }
}

TEST(JsonBinaryEventsTest, AHandlerThatSaysNoStopsTheWalk) {
    const std::string input = bytes({0x92, 0x01, 0x02});
    Trace events(input, /*stopAt=*/1);
    std::string error;
    EXPECT_FALSE(parseBinaryEvents(input, events, &error));
    EXPECT_EQ(events.text, "[\nv:1\n");
    EXPECT_EQ(error, "stopped by the handler at offset 1");
}

}  // namespace
}  // namespace MarlLogger::json
