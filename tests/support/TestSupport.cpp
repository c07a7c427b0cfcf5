#include "support/TestSupport.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "events/SqliteDatabase.h"

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

std::string base64Url(const std::string& data) {
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : data) {
        bits = bits << 8 | static_cast<unsigned char>(c);
        count += 8;
        while (count >= 6) {
            count -= 6;
            text.push_back(alphabet[(bits >> count) & 0x3F]);
        }
    }
    if (count > 0) text.push_back(alphabet[(bits << (6 - count)) & 0x3F]);
    return text;
}

std::string tokenWithPayload(const std::string& json) { return "eyJhbGciOiJIUzI1NiJ9." + base64Url(json) + ".c2ln"; }

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

std::size_t damageMiddleLeafPage(const std::filesystem::path& database, const std::string& table) {
    std::vector<std::int64_t> pages;
    std::size_t pageSize = 0;
    {
        sqlite::Database db(database.string(), false);
        sqlite::Statement size(db, "PRAGMA page_size");
        if (size.step()) pageSize = static_cast<std::size_t>(size.columnInt64(0));
        sqlite::Statement leaves(db, "SELECT pageno FROM dbstat WHERE name = ?1 AND pagetype = 'leaf' ORDER BY pageno");
        leaves.bindText(1, table);
        while (leaves.step()) pages.push_back(leaves.columnInt64(0));
    }
    if (pages.size() < 3 || pageSize == 0) throw std::runtime_error("too few pages to damage one in the middle");
    std::string file = readFile(database);
    const auto offset = static_cast<std::size_t>(pages[pages.size() / 2] - 1) * pageSize;
    // A table leaf's header: its cell count is the big-endian number at bytes 3 and 4.
    const auto cells = static_cast<std::size_t>((static_cast<unsigned char>(file[offset + 3]) << 8) |
                                                static_cast<unsigned char>(file[offset + 4]));
    file.replace(offset, pageSize, std::string(pageSize, '\x5a'));
    writeFile(database, file);
    return cells;
}

}  // namespace rovalis::test
