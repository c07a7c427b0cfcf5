#include "upload/UrlSession.h"

#include <algorithm>

namespace rovalis {

namespace {

bool sameHeaderName(std::string_view a, std::string_view b) {
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace

std::optional<std::string> UrlRequest::valueForHTTPHeaderField(std::string_view name) const {
    for (const auto& [field, value] : headers) {
        if (sameHeaderName(field, name)) return value;
    }
    return std::nullopt;
}

void UrlRequest::setValueForHTTPHeaderField(std::string value, std::string_view name) {
    bool replaced = false;
    for (auto it = headers.begin(); it != headers.end();) {
        if (!sameHeaderName(it->first, name)) {
            ++it;
        } else if (!replaced) {
            it->second = value;
            replaced = true;
            ++it;
        } else {
            it = headers.erase(it);
        }
    }
    if (!replaced) headers.emplace_back(std::string(name), std::move(value));
}

}  // namespace rovalis
