#include "upload/Gzip.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

namespace rovalis {

namespace {

constexpr std::size_t deflateGrowth = 1024;
constexpr std::size_t fileChunk = 4096;

void setError(Error* error, int code, std::string description) {
    if (error) *error = Error{gzipErrorDomain, code, std::move(description)};
}

// Hands zlib the next piece of the input when it has used up the previous one (a piece is
// at most what zlib's 32-bit counters can hold). Returns true while input remains after it.
bool feed(z_stream& stream, std::string_view data, std::size_t& offset) {
    if (stream.avail_in == 0 && offset < data.size()) {
        const std::size_t piece = std::min<std::size_t>(data.size() - offset, UINT_MAX);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data() + offset));
        stream.avail_in = static_cast<uInt>(piece);
        offset += piece;
    }
    return offset < data.size();
}

// Points zlib's output at the unwritten tail of the buffer.
void aimOutput(z_stream& stream, std::string& out) {
    const std::size_t written = static_cast<std::size_t>(stream.total_out);
    stream.next_out = reinterpret_cast<Bytef*>(out.data() + written);
    stream.avail_out = static_cast<uInt>(std::min<std::size_t>(out.size() - written, UINT_MAX));
}

std::string systemMessage(int code) { return std::generic_category().message(code); }

// Writes all of the bytes to a file descriptor.
bool writeAll(int fd, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t n = ::write(fd, bytes, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes += n;
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

int openPrivateTarget(const std::filesystem::path& target) {
    return ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

void removeQuietly(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

}  // namespace

std::optional<std::string> dataByGZipCompressingWithError(std::string_view data, Error* error) {
    return dataByGZipCompressingAtLevel(data, Z_DEFAULT_COMPRESSION, 31, 8, Z_DEFAULT_STRATEGY, error);
}

std::optional<std::string> dataByGZipCompressingAtLevel(std::string_view data, int level, int windowSize,
                                                        int memoryLevel, int strategy, Error* error) {
    if (data.empty()) return std::string();

    z_stream stream{};
    int status = deflateInit2(&stream, level, Z_DEFLATED, windowSize, memoryLevel, strategy);
    if (status != Z_OK) {
        setError(error, status, "Failed deflateInit");
        return std::nullopt;
    }

    // The output grows by 1024 bytes whenever it is full or zlib could make no progress;
    // zlib carries on where it stopped, so the whole run stays linear in the input.
    std::string out;
    std::size_t offset = 0;
    bool moreInput = feed(stream, data, offset);
    status = Z_OK;
    do {
        if (status == Z_BUF_ERROR || stream.total_out >= out.size()) out.resize(out.size() + deflateGrowth);
        moreInput = feed(stream, data, offset);
        aimOutput(stream, out);
        status = deflate(&stream, moreInput ? Z_NO_FLUSH : Z_FINISH);
    } while (status == Z_OK || status == Z_BUF_ERROR);

    const std::size_t written = static_cast<std::size_t>(stream.total_out);
    deflateEnd(&stream);
    if (status != Z_STREAM_END) {
        setError(error, status, "Error deflating payload");
        return std::nullopt;
    }
    out.resize(written);
    return out;
}

std::optional<std::string> dataByGZipDecompressingDataWithError(std::string_view data, Error* error) {
    return dataByGZipDecompressingDataWithWindowSize(data, 31, error);
}

std::optional<std::string> dataByGZipDecompressingDataWithWindowSize(std::string_view data, int windowSize,
                                                                     Error* error) {
    if (data.empty()) return std::string();

    z_stream stream{};
    std::size_t offset = 0;
    feed(stream, data, offset);
    int status = inflateInit2(&stream, windowSize);
    if (status != Z_OK) {
        setError(error, status, "Failed inflateInit");
        return std::nullopt;
    }

    // Starts at one and a half times the input and grows by half of that first size.
    const std::size_t firstSize = data.size() + data.size() / 2;
    const std::size_t growth = std::max<std::size_t>(firstSize / 2, 1);
    std::string out(firstSize, '\0');
    status = Z_OK;
    do {
        if (stream.total_out >= out.size()) out.resize(out.size() + growth);
        feed(stream, data, offset);
        aimOutput(stream, out);
        status = inflate(&stream, Z_NO_FLUSH);
        // No progress although there was room for output: the input ended before the
        // stream did. Waiting for more would never end.
        if (status == Z_BUF_ERROR && stream.avail_out > 0 && stream.avail_in == 0 && offset == data.size()) break;
    } while (status == Z_OK || status == Z_BUF_ERROR);

    const std::size_t written = static_cast<std::size_t>(stream.total_out);
    inflateEnd(&stream);
    if (status != Z_STREAM_END) {
        setError(error, status, "Error inflating payload");
        return std::nullopt;
    }
    out.resize(written);
    return out;
}

bool GZipCompressFile(const std::filesystem::path& source, const std::filesystem::path& target, Error* error) {
    return GZipCompressFile(source, target, Z_DEFAULT_COMPRESSION, error);
}

bool GZipCompressFile(const std::filesystem::path& source, const std::filesystem::path& target, int level,
                      Error* error) {
    const int in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        setError(error, Z_ERRNO, "Could not open " + source.string() + " for reading: " + systemMessage(errno));
        return false;
    }
    const int out = openPrivateTarget(target);
    if (out < 0) {
        setError(error, Z_ERRNO, "Could not open " + target.string() + " for writing: " + systemMessage(errno));
        ::close(in);
        return false;
    }
    // "w6" and so on; zlib's default level has no digit of its own.
    char mode[8] = "w";
    if (level >= 0 && level <= 9) std::snprintf(mode, sizeof mode, "w%d", level);
    gzFile gz = gzdopen(out, mode);
    if (!gz) {
        setError(error, Z_MEM_ERROR, "Could not start compressing into " + target.string());
        ::close(out);
        ::close(in);
        removeQuietly(target);
        return false;
    }

    bool ok = true;
    std::string failure;
    int code = Z_ERRNO;
    char chunk[fileChunk];
    for (;;) {
        const ssize_t n = ::read(in, chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            failure = "Could not read " + source.string() + ": " + systemMessage(errno);
            break;
        }
        if (n == 0) break;
        if (gzwrite(gz, chunk, static_cast<unsigned>(n)) != static_cast<int>(n)) {
            int errnum = Z_OK;
            const char* message = gzerror(gz, &errnum);
            ok = false;
            code = errnum;
            failure = "Could not write " + target.string() + ": " + (message ? message : "");
            break;
        }
    }
    const int closed = gzclose(gz);
    ::close(in);
    if (ok && closed != Z_OK) {
        ok = false;
        code = closed;
        failure = "Could not finish writing " + target.string();
    }
    if (!ok) {
        setError(error, code, failure);
        removeQuietly(target);
    }
    return ok;
}

bool GZipDecompressFile(const std::filesystem::path& source, const std::filesystem::path& target, Error* error) {
    const int in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        setError(error, Z_ERRNO, "Could not open " + source.string() + " for reading: " + systemMessage(errno));
        return false;
    }
    gzFile gz = gzdopen(in, "r");
    if (!gz) {
        setError(error, Z_MEM_ERROR, "Could not start decompressing " + source.string());
        ::close(in);
        return false;
    }
    const int out = openPrivateTarget(target);
    if (out < 0) {
        setError(error, Z_ERRNO, "Could not open " + target.string() + " for writing: " + systemMessage(errno));
        gzclose(gz);
        return false;
    }

    bool ok = true;
    std::string failure;
    int code = Z_ERRNO;
    bool first = true;
    char chunk[fileChunk];
    for (;;) {
        const int n = gzread(gz, chunk, sizeof chunk);
        // zlib would copy a file that is not gzip through unchanged; that is not a
        // decompression, so it is refused.
        if (first && n > 0 && gzdirect(gz)) {
            ok = false;
            code = Z_DATA_ERROR;
            failure = "Error inflating payload";
            break;
        }
        first = false;
        if (n <= 0) {
            int errnum = Z_OK;
            const char* message = gzerror(gz, &errnum);
            // A stream cut short reads like an end of file but leaves an error behind.
            if (n < 0 || errnum != Z_OK) {
                ok = false;
                code = errnum == Z_OK ? Z_ERRNO : errnum;
                failure = std::string("Error inflating payload: ") + (message ? message : "");
            }
            break;
        }
        if (!writeAll(out, chunk, static_cast<std::size_t>(n))) {
            ok = false;
            failure = "Could not write " + target.string() + ": " + systemMessage(errno);
            break;
        }
    }
    gzclose(gz);
    if (::close(out) != 0 && ok) {
        ok = false;
        failure = "Could not finish writing " + target.string() + ": " + systemMessage(errno);
    }
    if (!ok) {
        setError(error, code, failure);
        removeQuietly(target);
    }
    return ok;
}

// ---- GzipFileWriter

struct GzipFileWriter::Stream {
    z_stream zlib{};
    bool started = false;
    char out[64 * 1024];
};

GzipFileWriter::GzipFileWriter(std::filesystem::path target)
    : target_(std::move(target)), stream_(std::make_unique<Stream>()) {
    fd_ = openPrivateTarget(target_);
    if (fd_ < 0) {
        fail(Z_ERRNO, "Could not open " + target_.string() + " for writing: " + systemMessage(errno));
        return;
    }
    const int status = deflateInit2(&stream_->zlib, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    if (status != Z_OK) {
        fail(status, "Failed deflateInit");
        return;
    }
    stream_->started = true;
}

GzipFileWriter::~GzipFileWriter() {
    if (stream_->started) deflateEnd(&stream_->zlib);
    if (fd_ >= 0) ::close(fd_);
    if (!finished_) removeQuietly(target_);
}

void GzipFileWriter::fail(int code, std::string description) {
    if (!failure_) failure_ = Error{gzipErrorDomain, code, std::move(description)};
}

// Runs deflate over the input it was given and writes out whatever it makes.
bool GzipFileWriter::deflateInto(int flush) {
    auto& zlib = stream_->zlib;
    int status = Z_OK;
    do {
        zlib.next_out = reinterpret_cast<Bytef*>(stream_->out);
        zlib.avail_out = sizeof stream_->out;
        status = deflate(&zlib, flush);
        if (status == Z_STREAM_ERROR) {
            fail(status, "Error deflating payload");
            return false;
        }
        const std::size_t made = sizeof stream_->out - zlib.avail_out;
        if (!writeAll(fd_, stream_->out, made)) {
            fail(Z_ERRNO, "Could not write " + target_.string() + ": " + systemMessage(errno));
            return false;
        }
    } while (zlib.avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
    return true;
}

bool GzipFileWriter::write(std::string_view data) {
    if (failure_ || finished_) return false;
    auto& zlib = stream_->zlib;
    while (!data.empty()) {
        const std::size_t piece = std::min<std::size_t>(data.size(), UINT_MAX);
        zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
        zlib.avail_in = static_cast<uInt>(piece);
        if (!deflateInto(Z_NO_FLUSH)) return false;
        data.remove_prefix(piece);
    }
    return true;
}

bool GzipFileWriter::finish(Error* error) {
    if (!failure_ && !finished_) {
        stream_->zlib.avail_in = 0;
        // Synced, so that a file handed on survives a power cut whole.
        if (deflateInto(Z_FINISH) && (::fdatasync(fd_) != 0 || ::close(std::exchange(fd_, -1)) != 0)) {
            fail(Z_ERRNO, "Could not write " + target_.string() + ": " + systemMessage(errno));
        }
        finished_ = !failure_;
    }
    if (failure_ && error) *error = *failure_;
    return finished_;
}

}  // namespace rovalis
