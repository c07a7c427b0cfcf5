#include "events/EventBatchGenerator.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "events/EventEncoder.h"

namespace rovalis {
namespace {

EventPayload payload(std::string json) { return EventPayload{"Debug", Date{1.0}, std::move(json), "uri"}; }

TEST(EventBatchGenerator, EmptyListGivesAnEmptyArray) {
    EventBatchGenerator generator;
    EXPECT_EQ(generator.generateEventBatchFrom({}, "ab12", 7), R"({"id":"ab12","sequential_id":7,"events":[]})");
}

TEST(EventBatchGenerator, PayloadsAreSplicedInOrderByteForByte) {
    EventBatchGenerator generator;
    EXPECT_EQ(generator.generateEventBatchFrom({payload(R"({"b":1,"a":[1,2]})")}, "x", 0),
              R"({"id":"x","sequential_id":0,"events":[{"b":1,"a":[1,2]}]})");
    EXPECT_EQ(generator.generateEventBatchFrom({payload("{\"z\":\"\xC3\xBC\"}"), payload("{}"), payload("[]")}, "ab12",
                                               -5),
              "{\"id\":\"ab12\",\"sequential_id\":-5,\"events\":[{\"z\":\"\xC3\xBC\"},{},[]]}");
    EXPECT_EQ(generator.generateEventBatchFrom({}, "", std::numeric_limits<std::int64_t>::min()),
              R"({"id":"","sequential_id":-9223372036854775808,"events":[]})");
}

TEST(EventBatchGenerator, DocumentOfEncodedEventsIsValidJson) {
    const EventEncoder encoder;
    std::vector<EventPayload> events;
    for (int i = 0; i < 500; ++i) {
        events.push_back(payload(encoder.encode(Debug(Date{1700000000.0 + i}, Debug::Topic::log,
                                                      "note \"" + std::to_string(i) + "\" \xE2\x9C\x93"))));
    }
    const auto document = nlohmann::json::parse(EventBatchGenerator().generateEventBatchFrom(events, "b-1", 42));
    EXPECT_EQ(document["id"], "b-1");
    EXPECT_EQ(document["sequential_id"], 42);
    ASSERT_EQ(document["events"].size(), 500u);
    EXPECT_EQ(document["events"][499]["comment"], "note \"499\" \xE2\x9C\x93");
    EXPECT_EQ(document["events"][0]["tracked_at_ms"], 1700000000000);
}

TEST(EventBatchGeneratorDeathTest, PayloadThatIsNotUtf8IsFatal) {
    EventBatchGenerator generator;
    EXPECT_DEATH(generator.generateEventBatchFrom({payload("{}"), payload("{\"a\":\"\xFF\"}")}, "x", 1),
                 "Fatal error: Could not encode 9 bytes to String\\.\n");
    EXPECT_DEATH(generator.generateEventBatchFrom({payload("\xED\xA0\x80")}, "x", 1),
                 "Fatal error: Could not encode 3 bytes to String\\.\n");
    EXPECT_DEATH(generator.generateEventBatchFrom({payload("0123456789abcdef\xE2\x9C")}, "x", 1),
                 "Fatal error: Could not encode 18 bytes to String\\.\n");
}

}  // namespace
}  // namespace rovalis
