#include "upload/UrlSession.h"

#include <algorithm>
#include <cctype>

namespace rovalis {

namespace {

bool sameHeaderName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

std::optional<std::string> UrlRequest::valueForHTTPHeaderField(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (sameHeaderName(key, name)) return value;
    }
    return std::nullopt;
}

void UrlRequest::setValueForHTTPHeaderField(std::string value, std::string_view name) {
    // The first header of that name keeps its place; later duplicates go.
    auto first = std::find_if(headers.begin(), headers.end(),
                              [&](const auto& header) { return sameHeaderName(header.first, name); });
    if (first == headers.end()) {
        headers.emplace_back(std::string(name), std::move(value));
        return;
    }
    first->second = std::move(value);
    headers.erase(std::remove_if(std::next(first), headers.end(),
                                 [&](const auto& header) { return sameHeaderName(header.first, name); }),
                  headers.end());
}

}  // namespace rovalis
