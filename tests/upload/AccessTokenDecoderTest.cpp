#include "upload/AccessTokenDecoder.h"

#include <gtest/gtest.h>

#include <cctype>

#include "rovalis/Uuid.h"
#include "support/TestSupport.h"

namespace rovalis {
namespace {

using Bytes = std::vector<std::uint8_t>;

using test::base64Url;
using test::tokenWithPayload;

TEST(AccessTokenDecoder, SubThatIsAUuidGivesItInUpperCase) {
    const std::string uuid = Uuid::random().uuidString();
    std::string lower = uuid;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string payload = R"({"sub":")" + lower + R"(","exp":1700000000})";
    EXPECT_EQ(AccessTokenDecoder(tokenWithPayload(payload)).userId(), uuid);
    // Two parts are enough; header and signature are not looked at.
    EXPECT_EQ(AccessTokenDecoder("x." + base64Url(payload)).userId(), uuid);
    EXPECT_EQ(AccessTokenDecoder("." + base64Url(payload) + ".!!.extra").userId(), uuid);
}

TEST(AccessTokenDecoder, AnythingElseGivesNoUserId) {
    const std::string uuid = Uuid::random().uuidString();
    const std::string good = R"({"sub":")" + uuid + R"("})";
    for (const std::string& token : {
             base64Url(good),                                           // no "."
             "h." + base64Url(good).insert(4, "*") + ".s",              // not base64
             "h." + base64Url(good).insert(4, " ") + ".s",              // whitespace
             "h." + base64Url(good).insert(8, "==") + ".s",             // "=" inside
             tokenWithPayload("[" + good + "]"),                        // an array
             tokenWithPayload(good + "x"),                              // not JSON
             tokenWithPayload(R"({"sub":"not-a-uuid"})"), tokenWithPayload(R"({"sub":"{)" + uuid + R"(}"})"),
             tokenWithPayload(R"({"sub":42})"), tokenWithPayload(R"({"user":")" + uuid + R"("})"),
             tokenWithPayload(""), std::string("")}) {
        EXPECT_EQ(AccessTokenDecoder(token).userId(), std::nullopt) << token;
    }
}

TEST(AccessTokenDecoder, PartsArePaddedToFourAndDecodedStrictly) {
    // Four bytes give six characters (two "=" added), six give eight (none added), five give
    // seven (one added).
    for (const std::string data : {"[12]", "{\"\":1}", "[123]", "", "\xFB\xFF\xBF"}) {
        const std::string part = base64Url(data);
        EXPECT_EQ(AccessTokenDecoder::decodePart(part), Bytes(data.begin(), data.end())) << part;
    }
    EXPECT_EQ(AccessTokenDecoder::decodePart("Wz=="), (Bytes{'['}));
    EXPECT_EQ(AccessTokenDecoder::decodePart("Wz="), (Bytes{'['}));
    EXPECT_EQ(AccessTokenDecoder::decodePart("+/+/"), (Bytes{0xFB, 0xFF, 0xBF}));
    for (const char* bad : {"W", "W3siY", "Wz=a", "W===", "Wz===", "W3siYSI6MX1d====", "W z=", "Wz\n", "W3s%"}) {
        EXPECT_EQ(AccessTokenDecoder::decodePart(bad), std::nullopt) << bad;
    }
}

}  // namespace
}  // namespace rovalis
