// Gzip inflation of buffers and files: a batch file on a damaged disk, or a body from anyone.
// What inflates, deflated again, inflates back to the same bytes; what is deflated at any
// setting inflates back to what it was.
//
// The first byte chooses: 0 inflate a buffer, 1 deflate and inflate a buffer (the next three
// bytes are the level, memory level and strategy), 2 inflate a file.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <zlib.h>

#include "FuzzSupport.h"
#include "upload/Gzip.h"

namespace {

using rovalis::fuzz::readFile;
using rovalis::fuzz::require;
using rovalis::fuzz::writeFile;

void inflateBuffer(std::string_view bytes) {
    rovalis::Error error;
    const auto inflated = rovalis::dataByGZipDecompressingDataWithError(bytes, &error);
    if (!inflated) {
        require(error.domain == rovalis::gzipErrorDomain, "a failed inflation gave no zlib error");
        return;
    }
    const auto deflated = rovalis::dataByGZipCompressingWithError(*inflated, nullptr);
    require(deflated.has_value(), "inflated bytes could not be deflated");
    require(rovalis::dataByGZipDecompressingDataWithError(*deflated, nullptr) == inflated,
            "inflated bytes changed through deflating and inflating");
}

void deflateAndInflate(std::string_view settings, std::string_view bytes) {
    const int level = static_cast<unsigned char>(settings[0]) % 11 - 1;  // -1 (default) to 9
    const int memoryLevel = static_cast<unsigned char>(settings[1]) % 9 + 1;
    const int strategy = static_cast<unsigned char>(settings[2]) % (Z_FIXED + 1);
    const auto deflated = rovalis::dataByGZipCompressingAtLevel(bytes, level, 31, memoryLevel, strategy, nullptr);
    require(deflated.has_value(), "deflating failed");
    require(rovalis::dataByGZipDecompressingDataWithError(*deflated, nullptr) == bytes,
            "bytes changed through deflating and inflating");
}

void inflateFile(std::string_view bytes) {
    const auto& directory = rovalis::fuzz::scratchDirectory();
    const auto source = directory / "batch.gz", target = directory / "batch", again = directory / "again.gz";
    writeFile(source, bytes);
    rovalis::Error error;
    if (!rovalis::GZipDecompressFile(source, target, &error)) {
        require(!std::filesystem::exists(target), "a failed inflation left its target behind");
        require(error.domain == rovalis::gzipErrorDomain, "a failed inflation gave no zlib error");
        return;
    }
    const std::string inflated = readFile(target);
    require(rovalis::GZipCompressFile(target, again, nullptr), "an inflated file could not be deflated");
    require(rovalis::GZipDecompressFile(again, target, nullptr) && readFile(target) == inflated,
            "an inflated file changed through deflating and inflating");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto deflateWithSettings = [](std::string_view input) {
        if (input.size() >= 3) deflateAndInflate(input.substr(0, 3), input.substr(3));
    };
    return rovalis::fuzz::readWithChosenReader(data, size, {inflateBuffer, deflateWithSettings, inflateFile});
}
