#include "events/EventBatchGenerator.h"

#include <gtest/gtest.h>

#include <limits>

namespace rovalis {
namespace {

EventPayload payload(std::string json) { return EventPayload{"Debug", Date{1.0}, std::move(json), "uri"}; }

TEST(EventBatchGenerator, PayloadsAreSplicedInOrderByteForByteAndNoneGiveAnEmptyArray) {
    EventBatchGenerator generator;
    EXPECT_EQ(generator.generateEventBatchFrom({payload(R"({"b":1,"a":[1,2]})")}, "x", 0),
              R"({"id":"x","sequential_id":0,"events":[{"b":1,"a":[1,2]}]})");
    const std::string text = "{\"z\":\"\xC3\xBC \xE2\x9C\x93\"}";  // two- and three-byte characters
    EXPECT_EQ(generator.generateEventBatchFrom({payload(text), payload("{}"), payload("[]")}, "ab12", -5),
              "{\"id\":\"ab12\",\"sequential_id\":-5,\"events\":[" + text + ",{},[]]}");
    EXPECT_EQ(generator.generateEventBatchFrom({}, "", std::numeric_limits<std::int64_t>::min()),
              R"({"id":"","sequential_id":-9223372036854775808,"events":[]})");
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
