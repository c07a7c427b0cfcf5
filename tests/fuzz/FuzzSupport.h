#pragma once

// What the fuzz targets share: a finding that is not a crash, a scratch directory and its
// files, and the choice of a reader by the input's first byte.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
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

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    require(out.good(), "cannot write a scratch file");
}

// The first byte chooses the reader (modulo their number), which gets the bytes after it.
using Reader = void (*)(std::string_view);
inline int readWithChosenReader(const std::uint8_t* data, std::size_t size, std::initializer_list<Reader> readers) {
    if (size < 1) return 0;
    readers.begin()[data[0] % readers.size()](asText(data + 1, size - 1));
    return 0;
}

}  // namespace rovalis::fuzz
