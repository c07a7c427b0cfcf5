#pragma once

// What the fuzz targets share: a finding that is not a crash, and a scratch directory.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

namespace rovalis::fuzz {

// A broken promise of the reader under test: libFuzzer keeps the input as a crash.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

inline void require(bool condition, const char* what) {
    if (!condition) fail(what);
}

// A private directory of this process for the files a reader is given; removed at exit.
inline const std::filesystem::path& scratchDirectory() {
    static const std::filesystem::path directory = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "rovalis-fuzz-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) fail("cannot make a scratch directory");
        std::atexit([] { std::filesystem::remove_all(scratchDirectory()); });
        return std::filesystem::path(pattern);
    }();
    return directory;
}

inline std::string_view asText(const unsigned char* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace rovalis::fuzz
