#include "platform/sim/TraceReader.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "platform/sim/TraceTime.h"

namespace rovalis::sim {

namespace {

// Horizontal accuracy from HDOP: a user equivalent range error of about 5 m is the usual
// rule of thumb for consumer receivers. It is a rough estimate, used only when the
// recording does not say the accuracy itself.
constexpr double metresPerHdop = 5.0;

[[noreturn]] void fail(long line, const std::string& what) {
    throw TraceError(line > 0 ? "line " + std::to_string(line) + ": " + what : what);
}

std::string_view trimmed(std::string_view text) {
    const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && space(text.front())) text.remove_prefix(1);
    while (!text.empty() && space(text.back())) text.remove_suffix(1);
    return text;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// A whole field as a finite number; a leading '+' is allowed.
std::optional<double> number(std::string_view text) {
    text = trimmed(text);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

void validate(const TracePoint& point, long line) {
    const auto [latitude, longitude] = point.coordinate;
    if (!(latitude >= -90.0 && latitude <= 90.0)) {
        fail(line, "latitude " + std::to_string(latitude) + " is outside -90..90");
    }
    if (!(longitude >= -180.0 && longitude <= 180.0)) {
        fail(line, "longitude " + std::to_string(longitude) + " is outside -180..180");
    }
    if (point.accuracy && !(*point.accuracy >= 0.0 && std::isfinite(*point.accuracy))) {
        fail(line, "accuracy " + std::to_string(*point.accuracy) + " is negative");
    }
}

std::vector<TracePoint> finished(std::vector<TracePoint> points) {
    if (points.empty()) fail(0, "the trace has no points");
    std::stable_sort(points.begin(), points.end(),
                     [](const TracePoint& a, const TracePoint& b) { return a.time < b.time; });
    return points;
}

// --- GPX -----------------------------------------------------------------------------------

// A point as the file has it, checked once it is known whether it is used.
struct GpxPoint {
    long line = 0;
    std::string latitude, longitude;
    bool hasLatitude = false, hasLongitude = false;
    std::optional<std::string> time, hdop, accuracy;
};

// Collects points from expat's callbacks. Nothing is thrown through the C parser: the first
// problem is kept and the parser stopped.
class GpxCollector {
public:
    explicit GpxCollector(XML_Parser parser) : parser_(parser) {}

    void start(const XML_Char* name, const XML_Char** attributes) {
        if (error_) return;
        const std::string local = localName(name);
        if (stack_.empty() && local != "gpx") {
            stop("not a GPX file: the document element is <" + std::string(name) + ">");
            return;
        }
        const std::string parent = stack_.empty() ? std::string() : stack_.back();
        stack_.push_back(local);
        if (!point_) {
            const bool trackPoint = local == "trkpt" && parent == "trkseg";
            const bool routePoint = local == "rtept" && parent == "rte";
            if (!trackPoint && !routePoint) return;
            point_ = GpxPoint{};
            point_->line = static_cast<long>(XML_GetCurrentLineNumber(parser_));
            for (const XML_Char** attribute = attributes; *attribute; attribute += 2) {
                const std::string key = localName(attribute[0]);
                if (key == "lat") {
                    point_->latitude = attribute[1];
                    point_->hasLatitude = true;
                } else if (key == "lon") {
                    point_->longitude = attribute[1];
                    point_->hasLongitude = true;
                }
            }
            pointIsRoute_ = routePoint;
            pointDepth_ = stack_.size();
            return;
        }
        if (field_) return;
        const bool child = stack_.size() == pointDepth_ + 1;
        const std::string key = lowered(local);
        if (child && local == "time") {
            field_ = &point_->time;
        } else if (child && local == "hdop") {
            field_ = &point_->hdop;
        } else if (key == "accuracy" || key == "hacc") {
            field_ = &point_->accuracy;
        } else {
            return;
        }
        fieldDepth_ = stack_.size();
        text_.clear();
    }

    void end() {
        if (error_) return;
        if (field_ && stack_.size() == fieldDepth_) {
            *field_ = std::string(trimmed(text_));
            field_ = nullptr;
        }
        if (point_ && stack_.size() == pointDepth_) {
            (pointIsRoute_ ? route_ : track_).push_back(std::move(*point_));
            point_.reset();
        }
        stack_.pop_back();
    }

    void characters(const XML_Char* text, int length) {
        if (field_) text_.append(text, static_cast<std::size_t>(length));
    }

    const std::optional<std::string>& error() const { return error_; }
    const std::vector<GpxPoint>& chosen() const { return track_.empty() ? route_ : track_; }
    bool routeChosen() const { return track_.empty(); }

private:
    // Prefixes are dropped: recorders bind the GPX and extension namespaces to all sorts of
    // prefixes, and some leave a prefix undeclared.
    static std::string localName(const XML_Char* name) {
        const char* colon = std::strrchr(name, ':');
        return colon ? std::string(colon + 1) : std::string(name);
    }

    void stop(std::string message) {
        error_ = "line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " + message;
        XML_StopParser(parser_, XML_FALSE);
    }

    XML_Parser parser_;
    std::vector<std::string> stack_;
    std::optional<GpxPoint> point_;
    bool pointIsRoute_ = false;
    std::size_t pointDepth_ = 0;
    std::optional<std::string>* field_ = nullptr;
    std::size_t fieldDepth_ = 0;
    std::string text_;
    std::vector<GpxPoint> track_, route_;
    std::optional<std::string> error_;
};

TracePoint gpxPoint(const GpxPoint& raw, bool route) {
    const std::string kind = route ? "route point" : "track point";
    if (!raw.hasLatitude || !raw.hasLongitude) fail(raw.line, kind + " without lat and lon attributes");
    const auto latitude = number(raw.latitude);
    if (!latitude) fail(raw.line, "bad latitude '" + raw.latitude + "'");
    const auto longitude = number(raw.longitude);
    if (!longitude) fail(raw.line, "bad longitude '" + raw.longitude + "'");
    if (!raw.time || raw.time->empty()) fail(raw.line, kind + " has no time (a trace needs times)");
    const auto time = parseIsoTime(*raw.time);
    if (!time) fail(raw.line, "bad time '" + *raw.time + "'");
    TracePoint point{*time, {*latitude, *longitude}, std::nullopt};
    if (raw.accuracy) {
        point.accuracy = number(*raw.accuracy);
        if (!point.accuracy) fail(raw.line, "bad accuracy '" + *raw.accuracy + "'");
    } else if (raw.hdop) {
        const auto hdop = number(*raw.hdop);
        if (!hdop) fail(raw.line, "bad hdop '" + *raw.hdop + "'");
        point.accuracy = *hdop * metresPerHdop;
    }
    validate(point, raw.line);
    return point;
}

// --- CSV -----------------------------------------------------------------------------------

struct Record {
    long line = 0;
    std::vector<std::string> fields;
};

// Splits delimited text into records: quoted fields (a doubled quote inside is one quote)
// may hold separators and line breaks; blank lines and lines starting with '#' are skipped.
class RecordReader {
public:
    RecordReader(std::string_view text, char separator) : text_(text), separator_(separator) {}

    std::optional<Record> next() {
        while (position_ < text_.size()) {
            const std::size_t lineEnd = endOfLine(position_);
            const std::string_view line = trimmed(text_.substr(position_, lineEnd - position_));
            if (line.empty() || line.front() == '#') {
                skipLine(lineEnd);
                continue;
            }
            return record();
        }
        return std::nullopt;
    }

private:
    std::size_t endOfLine(std::size_t from) const {
        const std::size_t end = text_.find_first_of("\r\n", from);
        return end == std::string_view::npos ? text_.size() : end;
    }

    // Moves past the line break at `at` (CR, LF or CR LF).
    void skipLine(std::size_t at) {
        position_ = at;
        if (position_ < text_.size() && text_[position_] == '\r') ++position_;
        if (position_ < text_.size() && text_[position_] == '\n') ++position_;
        ++line_;
    }

    Record record() {
        Record result{line_, {}};
        while (true) {
            std::string field;
            while (position_ < text_.size() && (text_[position_] == ' ' || text_[position_] == '\t') &&
                   text_[position_] != separator_) {
                ++position_;
            }
            if (position_ < text_.size() && text_[position_] == '"') {
                ++position_;
                while (true) {
                    if (position_ >= text_.size()) fail(result.line, "a quoted field is not closed");
                    const char c = text_[position_++];
                    if (c == '"') {
                        if (position_ < text_.size() && text_[position_] == '"') {
                            field += '"';
                            ++position_;
                            continue;
                        }
                        break;
                    }
                    if (c == '\n') ++line_;
                    field += c;
                }
                while (position_ < text_.size() && text_[position_] != separator_ && text_[position_] != '\r' &&
                       text_[position_] != '\n') {
                    if (text_[position_] != ' ' && text_[position_] != '\t') {
                        fail(line_, "text after a quoted field");
                    }
                    ++position_;
                }
            } else {
                const std::size_t start = position_;
                while (position_ < text_.size() && text_[position_] != separator_ && text_[position_] != '\r' &&
                       text_[position_] != '\n') {
                    ++position_;
                }
                field = std::string(trimmed(text_.substr(start, position_ - start)));
            }
            result.fields.push_back(std::move(field));
            if (position_ < text_.size() && text_[position_] == separator_) {
                ++position_;
                continue;
            }
            skipLine(position_);
            return result;
        }
    }

    std::string_view text_;
    char separator_;
    std::size_t position_ = 0;
    long line_ = 1;
};

// The separator is the one of tab, semicolon and comma that the first row holds most of,
// outside quotes. Ties go in that order, so "t;51,5;-0,1" (decimal commas) reads as
// semicolon-separated.
char separatorOf(std::string_view text) {
    std::size_t position = 0;
    while (position < text.size()) {
        std::size_t end = text.find_first_of("\r\n", position);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = trimmed(text.substr(position, end - position));
        position = end + 1;
        if (line.empty() || line.front() == '#') continue;
        std::array<std::size_t, 3> counts{};
        const std::array<char, 3> candidates{'\t', ';', ','};
        bool quoted = false;
        for (char c : line) {
            if (c == '"') quoted = !quoted;
            for (std::size_t i = 0; i < candidates.size(); ++i) {
                if (!quoted && c == candidates[i]) ++counts[i];
            }
        }
        const auto most = std::max_element(counts.begin(), counts.end());
        return *most == 0 ? ',' : candidates[static_cast<std::size_t>(most - counts.begin())];
    }
    return ',';
}

enum class Column { time, latitude, longitude, accuracy };

// Header names compare lower-cased with everything but letters and digits dropped, so
// "Horizontal Accuracy", "horizontal_accuracy" and "horizontal-accuracy" are one name.
std::optional<Column> columnNamed(std::string_view header) {
    std::string key;
    for (char c : header) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    for (const char* name : {"time", "timestamp", "date", "datetime", "utc", "timeutc"}) {
        if (key == name) return Column::time;
    }
    for (const char* name : {"lat", "latitude"}) {
        if (key == name) return Column::latitude;
    }
    for (const char* name : {"lon", "lng", "long", "longitude"}) {
        if (key == name) return Column::longitude;
    }
    for (const char* name : {"accuracy", "acc", "horizontalaccuracy", "hacc", "haccuracy"}) {
        if (key == name) return Column::accuracy;
    }
    return std::nullopt;
}

struct Layout {
    std::size_t time = 0, latitude = 1, longitude = 2;
    std::optional<std::size_t> accuracy = 3;
};

// An epoch time in seconds, or in milliseconds when it is too large to be seconds: 1e11
// seconds is in the year 5138, 1e11 milliseconds in 1973.
std::optional<Date> csvTime(std::string_view text) {
    if (const auto value = number(text)) {
        return Date{std::fabs(*value) >= 1e11 ? *value / 1000.0 : *value};
    }
    return parseIsoTime(text);
}

std::optional<double> csvNumber(std::string field, bool decimalComma) {
    if (decimalComma && field.find('.') == std::string::npos) std::replace(field.begin(), field.end(), ',', '.');
    return number(field);
}

}  // namespace

std::vector<TracePoint> parseGpx(std::string_view text) {
    const XML_Parser parser = XML_ParserCreate(nullptr);
    if (!parser) throw TraceError("cannot create an XML parser");
    GpxCollector collector(parser);
    XML_SetUserData(parser, &collector);
    XML_SetElementHandler(
        parser,
        [](void* data, const XML_Char* name, const XML_Char** attributes) {
            static_cast<GpxCollector*>(data)->start(name, attributes);
        },
        [](void* data, const XML_Char*) { static_cast<GpxCollector*>(data)->end(); });
    XML_SetCharacterDataHandler(parser, [](void* data, const XML_Char* text, int length) {
        static_cast<GpxCollector*>(data)->characters(text, length);
    });

    // Fed in pieces: expat takes an int length.
    constexpr std::size_t piece = 1 << 20;
    std::optional<std::string> error;
    std::size_t offset = 0;
    do {
        const std::size_t length = std::min(piece, text.size() - offset);
        const bool last = offset + length == text.size();
        if (XML_Parse(parser, text.data() + offset, static_cast<int>(length), last) != XML_STATUS_OK) {
            error = collector.error().value_or("line " + std::to_string(XML_GetCurrentLineNumber(parser)) +
                                               ": not well-formed XML: " + XML_ErrorString(XML_GetErrorCode(parser)));
            break;
        }
        offset += length;
    } while (offset < text.size());
    XML_ParserFree(parser);
    if (error) throw TraceError(*error);

    std::vector<TracePoint> points;
    points.reserve(collector.chosen().size());
    for (const GpxPoint& raw : collector.chosen()) points.push_back(gpxPoint(raw, collector.routeChosen()));
    if (points.empty()) fail(0, "the GPX file has no track or route points");
    return finished(std::move(points));
}

std::vector<TracePoint> parseCsv(std::string_view text) {
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    const char separator = separatorOf(text);
    const bool decimalComma = separator != ',';
    RecordReader reader(text, separator);

    Layout layout;
    std::optional<Record> first = reader.next();
    if (!first) fail(0, "the trace has no points");
    std::optional<std::size_t> columns[4];
    for (std::size_t i = 0; i < first->fields.size(); ++i) {
        if (const auto column = columnNamed(first->fields[i]); column && !columns[static_cast<int>(*column)]) {
            columns[static_cast<int>(*column)] = i;
        }
    }
    std::optional<Record> pending;
    const bool header = columns[0] || columns[1] || columns[2] || columns[3];
    if (header) {
        if (!columns[1] || !columns[2]) fail(first->line, "the header names no latitude and longitude columns");
        if (!columns[0]) fail(first->line, "the header names no time column");
        layout = Layout{*columns[0], *columns[1], *columns[2], columns[3]};
    } else {
        if (!csvTime(first->fields.front())) {
            fail(first->line, "the first row is neither a header naming the columns nor time, latitude, longitude");
        }
        pending = std::move(first);
    }

    std::vector<TracePoint> points;
    const std::size_t needed = std::max({layout.time, layout.latitude, layout.longitude}) + 1;
    while (auto record = pending ? std::move(pending) : reader.next()) {
        pending.reset();
        const auto& fields = record->fields;
        const long line = record->line;
        if (fields.size() < needed) {
            fail(line,
                 "expected at least " + std::to_string(needed) + " fields, found " + std::to_string(fields.size()));
        }
        const auto time = csvTime(fields[layout.time]);
        if (!time) fail(line, "bad time '" + fields[layout.time] + "'");
        const auto latitude = csvNumber(fields[layout.latitude], decimalComma);
        if (!latitude) fail(line, "bad latitude '" + fields[layout.latitude] + "'");
        const auto longitude = csvNumber(fields[layout.longitude], decimalComma);
        if (!longitude) fail(line, "bad longitude '" + fields[layout.longitude] + "'");
        TracePoint point{*time, {*latitude, *longitude}, std::nullopt};
        if (layout.accuracy && *layout.accuracy < fields.size() && !fields[*layout.accuracy].empty()) {
            point.accuracy = csvNumber(fields[*layout.accuracy], decimalComma);
            if (!point.accuracy) fail(line, "bad accuracy '" + fields[*layout.accuracy] + "'");
        }
        validate(point, line);
        points.push_back(point);
    }
    return finished(std::move(points));
}

std::vector<TracePoint> readTrace(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw TraceError(path.string() + ": cannot open: " + std::strerror(errno));
    const std::string text(std::istreambuf_iterator<char>(in), {});
    if (in.bad()) throw TraceError(path.string() + ": cannot read");
    try {
        std::string_view content = text;
        // UTF-16 can only be XML here; expat reads it by its byte order mark.
        const bool utf16 = content.starts_with("\xFF\xFE") || content.starts_with("\xFE\xFF");
        if (content.starts_with("\xEF\xBB\xBF")) content.remove_prefix(3);
        content = trimmed(content);
        if (utf16 || content.starts_with('<')) return parseGpx(text);
        return parseCsv(text);
    } catch (const TraceError& error) {
        throw TraceError(path.string() + ": " + error.what());
    }
}

}  // namespace rovalis::sim
