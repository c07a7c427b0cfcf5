#pragma once

// Gzip compression of whole buffers and files over zlib. Buffers are bytes held in
// std::string. Failures are reported through the optional error out-argument (domain
// "com.godzippa.zlib.error", zlib's result code); a caller that passes none just gets the
// empty result.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "rovalis/Error.h"

namespace rovalis {

inline constexpr const char* gzipErrorDomain = "com.godzippa.zlib.error";

// Default level, gzip wrapper (window bits 31), memory level 8, default strategy. An empty
// input is returned unchanged.
std::optional<std::string> dataByGZipCompressingWithError(std::string_view data, Error* error);

std::optional<std::string> dataByGZipCompressingAtLevel(std::string_view data, int level, int windowSize,
                                                        int memoryLevel, int strategy, Error* error);

// Window bits 31: expects the gzip wrapper. An empty input is returned unchanged.
std::optional<std::string> dataByGZipDecompressingDataWithError(std::string_view data, Error* error);

std::optional<std::string> dataByGZipDecompressingDataWithWindowSize(std::string_view data, int windowSize,
                                                                     Error* error);

// File to file, in chunks of 4096 bytes. The target is created private to the user and is
// removed again when the operation fails.
bool GZipCompressFile(const std::filesystem::path& source, const std::filesystem::path& target, Error* error);
bool GZipCompressFile(const std::filesystem::path& source, const std::filesystem::path& target, int level,
                      Error* error);
bool GZipDecompressFile(const std::filesystem::path& source, const std::filesystem::path& target, Error* error);

// Compresses what is written to it, piece by piece, straight into a file, with the settings
// of dataByGZipCompressingWithError: for data too large to hold. The file is created private
// to the user and removed again unless finish() succeeds.
class GzipFileWriter {
public:
    explicit GzipFileWriter(std::filesystem::path target);
    ~GzipFileWriter();
    GzipFileWriter(const GzipFileWriter&) = delete;
    GzipFileWriter& operator=(const GzipFileWriter&) = delete;

    // False once anything has failed; later writes do nothing.
    bool write(std::string_view data);
    // Ends the stream, syncs and closes the file; false, with the reason, when anything failed.
    bool finish(Error* error);

private:
    bool deflateInto(int flush);
    void fail(int code, std::string description);

    struct Stream;
    const std::filesystem::path target_;
    std::unique_ptr<Stream> stream_;
    std::optional<Error> failure_;
    int fd_ = -1;
    bool finished_ = false;
};

}  // namespace rovalis
