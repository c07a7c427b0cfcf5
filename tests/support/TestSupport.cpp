#include "support/TestSupport.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace rovalis::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "rovalis-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

ConsoleCapture::ConsoleCapture() {
    previous_ = Console::setSink([this](std::string_view line) {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    });
}

ConsoleCapture::~ConsoleCapture() { Console::setSink(std::move(previous_)); }

std::vector<std::string> ConsoleCapture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool ConsoleCapture::contains(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

}  // namespace rovalis::test
