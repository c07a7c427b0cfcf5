#include "upload/Gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

#include "support/TestSupport.h"

namespace rovalis {
namespace {

using test::readFile;
using test::writeFile;

std::string randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
}

std::string compress(const std::string& data) {
    Error error;
    const auto compressed = dataByGZipCompressingWithError(data, &error);
    EXPECT_TRUE(compressed.has_value()) << error.localizedDescription;
    return compressed.value_or("");
}

// ---- In memory ----

TEST(Gzip, RoundTripsWithTheGzipWrapperAndReturnsEmptyInputUnchanged) {
    EXPECT_EQ(dataByGZipCompressingWithError("", nullptr), std::string());
    EXPECT_EQ(dataByGZipDecompressingDataWithError("", nullptr), std::string());
    const std::string text = "{\"id\":\"ab12\",\"sequential_id\":7,\"events\":[]}";
    const std::string compressed = compress(text);
    ASSERT_GE(compressed.size(), 18u);
    EXPECT_EQ(static_cast<unsigned char>(compressed[0]), 0x1F);
    EXPECT_EQ(static_cast<unsigned char>(compressed[1]), 0x8B);
    EXPECT_EQ(dataByGZipDecompressingDataWithError(compressed, nullptr), text);
    // zlib's own reader of the raw format agrees.
    const auto raw = dataByGZipCompressingAtLevel(text, 9, -15, 9, Z_DEFAULT_STRATEGY, nullptr);
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(dataByGZipDecompressingDataWithWindowSize(*raw, -15, nullptr), text);
}

TEST(Gzip, OutputsLargerThanOneBufferStepAreWhole) {
    // Random bytes do not compress: 1 MB in gives about 1 MB out, a thousand buffer steps.
    const std::string random = randomBytes(1 << 20, 7);
    const std::string compressed = compress(random);
    EXPECT_GT(compressed.size(), random.size());
    EXPECT_EQ(dataByGZipDecompressingDataWithError(compressed, nullptr), random);

    // Highly compressible input inflates to many times the first output buffer.
    const std::string zeros(5 << 20, '\0');
    const std::string small = compress(zeros);
    EXPECT_LT(small.size(), 10000u);
    EXPECT_EQ(dataByGZipDecompressingDataWithError(small, nullptr), zeros);
}

TEST(Gzip, BadParametersAndBadInputGiveErrors) {
    Error error;
    EXPECT_FALSE(dataByGZipCompressingAtLevel("x", 12, 31, 8, 0, &error));
    EXPECT_EQ(error, (Error{"com.godzippa.zlib.error", Z_STREAM_ERROR, "Failed deflateInit"}));
    EXPECT_FALSE(dataByGZipDecompressingDataWithWindowSize("x", 99, &error));
    EXPECT_EQ(error, (Error{"com.godzippa.zlib.error", Z_STREAM_ERROR, "Failed inflateInit"}));

    for (const std::string& garbage : {std::string("not gzip at all"), std::string("xy"), randomBytes(5000, 3)}) {
        EXPECT_FALSE(dataByGZipDecompressingDataWithError(garbage, &error));
        EXPECT_EQ(error, (Error{"com.godzippa.zlib.error", Z_DATA_ERROR, "Error inflating payload"}));
    }
    EXPECT_FALSE(dataByGZipDecompressingDataWithError("garbage", nullptr));
}

TEST(Gzip, TruncatedOrCorruptStreamsFailInsteadOfWaitingForMore) {
    const std::string data = randomBytes(3000, 11) + std::string(20000, 'a');
    const std::string compressed = compress(data);
    Error error;
    for (const std::size_t keep : {std::size_t{1}, std::size_t{10}, compressed.size() / 2, compressed.size() - 1}) {
        EXPECT_FALSE(dataByGZipDecompressingDataWithError(compressed.substr(0, keep), &error)) << keep;
        EXPECT_EQ(error.localizedDescription, "Error inflating payload");
    }
    EXPECT_EQ(error.code, Z_BUF_ERROR);

    std::string corrupt = compressed;
    corrupt[corrupt.size() - 6] ^= 0x55;  // inside the CRC-32 trailer
    EXPECT_FALSE(dataByGZipDecompressingDataWithError(corrupt, &error));
    EXPECT_EQ(error.code, Z_DATA_ERROR);
}

// ---- Files ----

TEST(Gzip, FilesRoundTripAndTargetsArePrivate) {
    test::TempDir dir;
    const std::string data = randomBytes(10000, 5) + std::string(100000, 'z');
    writeFile(dir / "plain", data);
    Error error;
    ASSERT_TRUE(GZipCompressFile(dir / "plain", dir / "packed.gz", &error)) << error.localizedDescription;
    EXPECT_EQ(dataByGZipDecompressingDataWithError(readFile(dir / "packed.gz"), nullptr), data);
    EXPECT_EQ(test::fileMode(dir / "packed.gz"), 0600u);

    ASSERT_TRUE(GZipCompressFile(dir / "plain", dir / "fast.gz", 1, &error));
    ASSERT_TRUE(GZipDecompressFile(dir / "fast.gz", dir / "unpacked", &error)) << error.localizedDescription;
    EXPECT_EQ(readFile(dir / "unpacked"), data);

    writeFile(dir / "empty", "");
    ASSERT_TRUE(GZipCompressFile(dir / "empty", dir / "empty.gz", &error));
    ASSERT_TRUE(GZipDecompressFile(dir / "empty.gz", dir / "empty.out", &error));
    EXPECT_EQ(readFile(dir / "empty.out"), "");
}

TEST(Gzip, FileFailuresReturnFalseWithAnErrorAndLeaveNoTarget) {
    test::TempDir dir;
    Error error;
    EXPECT_FALSE(GZipCompressFile(dir / "missing", dir / "out.gz", &error));
    EXPECT_EQ(error.domain, "com.godzippa.zlib.error");
    EXPECT_EQ(error.code, Z_ERRNO);
    EXPECT_NE(error.localizedDescription.find("missing"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir / "out.gz"));

    writeFile(dir / "plain", "data");
    EXPECT_FALSE(GZipCompressFile(dir / "plain", dir / "no-such-dir" / "out.gz", &error));
    EXPECT_FALSE(GZipDecompressFile(dir / "missing", dir / "out", nullptr));

    // A file that is not gzip is refused rather than copied.
    EXPECT_FALSE(GZipDecompressFile(dir / "plain", dir / "out", &error));
    EXPECT_EQ(error.code, Z_DATA_ERROR);
    EXPECT_FALSE(std::filesystem::exists(dir / "out"));

    const std::string packed = compress(randomBytes(20000, 9));
    writeFile(dir / "cut.gz", packed.substr(0, packed.size() / 2));
    error = Error{};
    EXPECT_FALSE(GZipDecompressFile(dir / "cut.gz", dir / "out", &error));
    EXPECT_EQ(error.domain, "com.godzippa.zlib.error");
    EXPECT_FALSE(std::filesystem::exists(dir / "out"));
}

}  // namespace
}  // namespace rovalis
