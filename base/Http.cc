#include "base/Http.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "marl/Clock.h"
#include "support/Ascii.h"

namespace FerritCore::Http {
namespace {

// Header names are ASCII tokens, compared without case.
using Ascii::equalsIgnoreCase;
using Ascii::startsWithIgnoreCase;

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

// The value of the first header named `name` in any case, or null: unlike headerValue this tells
// a header that is present but empty from one that is absent.
const std::string* findHeader(const HeaderMap& header, std::string_view name) {
    for (const auto& [key, value] : header) {
        if (equalsIgnoreCase(key, name)) return &value;
    }
    return nullptr;
}

// Calls `visit` with each piece of `text` between commas, untrimmed; stops early when `visit`
// returns false.
template <typename Visit>
void forEachPiece(std::string_view text, Visit visit) {
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(',', start);
        const size_t end = comma == std::string_view::npos ? text.size() : comma;
        if (!visit(text.substr(start, end - start))) return;
        if (comma == std::string_view::npos) return;
        start = comma + 1;
    }
}

// The integer at the start of `text` (after blanks, with an optional sign), saturated to the
// range of long long; 0 when no digit follows. Header values come from the network, so an
// absurd max-age must saturate rather than overflow.
long long leadingInteger(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    unsigned long long magnitude = 0;
    const unsigned long long limit =
        negative ? static_cast<unsigned long long>(LLONG_MAX) + 1 : LLONG_MAX;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const unsigned digit = static_cast<unsigned>(text[i] - '0');
        magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
    }
    if (!negative) return static_cast<long long>(magnitude);
    return magnitude == limit ? LLONG_MIN : -static_cast<long long>(magnitude);
}

// Milliseconds as an unsigned count; negative or not-a-number gives 0 and beyond the range
// gives the largest value, since converting such a double to an integer is undefined.
unsigned long long toUnsignedMs(double ms) {
    if (!(ms >= 0.0)) return 0;
    if (ms >= 18446744073709551616.0) return ULLONG_MAX;
    return static_cast<unsigned long long>(ms);
}

// The number at the start of `text`, or 1.0. Not-a-number is refused too: a quality that
// compares false with everything would break the ordering that the sort relies on.
double qualityValue(std::string_view text) {
    double value = 1.0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    (void)end;
    if (ec != std::errc() || std::isnan(value)) return 1.0;
    return value;
}

struct MimeEntry {
    std::string_view extension;
    std::string_view type;
};

constexpr MimeEntry kMimeTable[] = {
    {"apng", "image/apng"},     {"css", "text/css"},          {"gif", "image/gif"},
    {"htm", "text/html"},       {"html", "text/html"},        {"ico", "image/x-icon"},
    {"icon", "image/x-icon"},   {"jpeg", "image/jpeg"},       {"jpg", "image/jpeg"},
    {"m4a", "audio/mp4a-latm"}, {"pdf", "application/pdf"},   {"svg", "image/svg+xml"},
    {"tif", "image/tiff"},      {"tiff", "image/tiff"},       {"wav", "audio/x-wav"},
    {"xml", "application/xml"}, {"mp3", "audio/mpeg"},        {"png", "image/png"},
    {"webp", "image/webp"},     {"heic", "image/heic"},       {"js", "application/x-javascript"},
    {"txt", "text/plain"},      {"mp4", "video/mp4"},         {"woff", "font/woff"},
    {"heif", "image/heif"},     {"json", "application/json"}, {"ttf", "font/ttf"},
    {"mov", "video/quicktime"}, {"woff2", "font/woff2"},      {"mpeg", "video/mpeg"},
};

// The longest extension in the table; a longer one cannot match and is refused early.
constexpr size_t kMaxExtension = 5;

constexpr const char* kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kLongWeekdays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                         "Thursday", "Friday", "Saturday"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Earliest and latest second that a four-digit year can name: 0000-01-01 and 9999-12-31.
constexpr double kFirstSecond = -62167219200.0;
constexpr double kLastSecond = 253402300799.0;

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 1 && isLeapYear(year) ? 29 : kDays[month];
}

// A strict left-to-right reader of one date form; every step checks its bounds.
class DateReader {
  public:
    explicit DateReader(std::string_view text) : text_(text) {}

    bool literal(std::string_view expected) {
        if (text_.substr(position_, expected.size()) != expected) return false;
        position_ += expected.size();
        return true;
    }

    // Exactly `count` decimal digits.
    bool digits(int count, int* out) {
        int value = 0;
        for (int i = 0; i < count; ++i) {
            if (position_ >= text_.size()) return false;
            const char c = text_[position_];
            if (c < '0' || c > '9') return false;
            value = value * 10 + (c - '0');
            ++position_;
        }
        *out = value;
        return true;
    }

    // One of `names`, whole.
    template <size_t N>
    bool oneOf(const char* const (&names)[N], int* index) {
        for (size_t i = 0; i < N; ++i) {
            if (literal(names[i])) {
                *index = static_cast<int>(i);
                return true;
            }
        }
        return false;
    }

    bool time(int* hour, int* minute, int* second) {
        return digits(2, hour) && literal(":") && digits(2, minute) && literal(":") &&
               digits(2, second);
    }

    bool atEnd() const { return position_ == text_.size(); }

  private:
    std::string_view text_;
    size_t position_ = 0;
};

struct DateFields {
    int year = 0;
    int month = 0;  // 0-based
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

// "Sun, 06 Nov 1994 08:49:37 GMT"
bool readImfFixdate(std::string_view text, DateFields* f) {
    DateReader r(text);
    int weekday = 0;
    return r.oneOf(kWeekdays, &weekday) && r.literal(", ") && r.digits(2, &f->day) &&
           r.literal(" ") && r.oneOf(kMonths, &f->month) && r.literal(" ") &&
           r.digits(4, &f->year) && r.literal(" ") && r.time(&f->hour, &f->minute, &f->second) &&
           r.literal(" GMT") && r.atEnd();
}

// "Sunday, 06-Nov-94 08:49:37 GMT"
bool readRfc850(std::string_view text, DateFields* f) {
    DateReader r(text);
    int weekday = 0;
    int shortYear = 0;
    if (!(r.oneOf(kLongWeekdays, &weekday) && r.literal(", ") && r.digits(2, &f->day) &&
          r.literal("-") && r.oneOf(kMonths, &f->month) && r.literal("-") &&
          r.digits(2, &shortYear) && r.literal(" ") && r.time(&f->hour, &f->minute, &f->second) &&
          r.literal(" GMT") && r.atEnd())) {
        return false;
    }
    // A two-digit year that would lie more than 50 years ahead means the most recent past year
    // with those digits.
    int currentYear = 1970;
    const double now = MRLCurrentTime() / 1000.0;
    if (std::isfinite(now) && now >= kFirstSecond && now <= kLastSecond) {
        const time_t seconds = static_cast<time_t>(now);
        struct tm parts {};
        if (gmtime_r(&seconds, &parts) != nullptr) currentYear = parts.tm_year + 1900;
    }
    f->year = currentYear / 100 * 100 + shortYear;
    if (f->year > currentYear + 50) f->year -= 100;
    return true;
}

// "Sun Nov  6 08:49:37 1994"
bool readAsctime(std::string_view text, DateFields* f) {
    DateReader r(text);
    int weekday = 0;
    if (!(r.oneOf(kWeekdays, &weekday) && r.literal(" ") && r.oneOf(kMonths, &f->month) &&
          r.literal(" "))) {
        return false;
    }
    // The day is two digits, or a space and one digit.
    if (!(r.literal(" ") ? r.digits(1, &f->day) : r.digits(2, &f->day))) return false;
    return r.literal(" ") && r.time(&f->hour, &f->minute, &f->second) && r.literal(" ") &&
           r.digits(4, &f->year) && r.atEnd();
}

}  // namespace

const std::array<std::string, kHeaderCount>& headerNames() {
    // Never destroyed, so that a late static destructor can still name a header.
    static const auto* names = new std::array<std::string, kHeaderCount>{
        "Accept",
        "Access-Control-Allow-Origin",
        "Access-Control-Expose-Headers",
        "Cache-Control",
        "Content-MD5",
        "Content-Type",
        "Date",
        "ETag",
        "Expires",
        "If-Modified-Since",
        "If-None-Match",
        "Last-Modified",
        "Referer",
        "Via",
        "Vary",
    };
    return *names;
}

std::string_view headerValue(const HeaderMap& header, std::string_view name) {
    const std::string* value = findHeader(header, name);
    return value != nullptr ? std::string_view(*value) : std::string_view();
}

void removeHeader(HeaderMap& header, std::string_view name) {
    for (auto it = header.begin(); it != header.end();) {
        if (equalsIgnoreCase(it->first, name)) {
            it = header.erase(it);
        } else {
            ++it;
        }
    }
}

void setHeader(HeaderMap& header, std::string_view name, std::string_view value) {
    if (value.empty()) return;
    header[std::string(name)] = std::string(value);
}

bool isDisabled(const HeaderMap& header) {
    return headerValue(header, kFerritControl) == "disabled";
}

unsigned long long parseExpires(const HeaderMap& header) {
    if (const std::string* control = findHeader(header, headerName(kCacheControl))) {
        long long maxAge = 0;
        bool uncacheable = false;
        forEachPiece(*control, [&](std::string_view piece) {
            piece = trim(piece);
            if (equalsIgnoreCase(piece, "no-store") || equalsIgnoreCase(piece, "no-cache")) {
                uncacheable = true;
                return false;
            }
            constexpr std::string_view kMaxAge = "max-age=";
            if (startsWithIgnoreCase(piece, kMaxAge)) {
                maxAge = leadingInteger(piece.substr(kMaxAge.size()));
            }
            return true;
        });
        if (uncacheable || maxAge < 1) return 0;
        // In doubles: a max-age near the top of long long times 1000 is still finite there, and
        // toUnsignedMs clamps what no unsigned integer can hold.
        return toUnsignedMs(MRLCurrentTime() + static_cast<double>(maxAge) * 1000.0);
    }
    // "Expires" counts only when "Cache-Control" is absent: a present Cache-Control without a
    // usable max-age has already decided.
    if (const std::string* expires = findHeader(header, headerName(kExpires))) {
        long long seconds = 0;
        if (!parseHttpDate(*expires, &seconds) || seconds < 0) return 0;
        if (static_cast<unsigned long long>(seconds) > ULLONG_MAX / 1000) return ULLONG_MAX;
        return static_cast<unsigned long long>(seconds) * 1000;
    }
    return 0;
}

std::vector<AcceptType> parseAccept(std::string_view text) {
    std::vector<AcceptType> result;
    forEachPiece(text, [&](std::string_view piece) {
        AcceptType entry;
        const size_t semicolon = piece.find(';');
        if (semicolon == std::string_view::npos) {
            entry.type = trim(piece);
        } else {
            entry.type = trim(piece.substr(0, semicolon));
            std::string_view parameters = piece.substr(semicolon + 1);
            while (!parameters.empty() && isBlank(parameters.front())) parameters.remove_prefix(1);
            if (parameters.substr(0, 2) == "q=") entry.quality = qualityValue(parameters.substr(2));
        }
        // An empty piece ("a,,b", a blank header) names no type; keeping it would turn an empty
        // Accept into one that refuses everything.
        if (!entry.type.empty()) result.push_back(entry);
        return true;
    });
    std::stable_sort(result.begin(), result.end(), [](const AcceptType& a, const AcceptType& b) {
        return a.quality > b.quality;
    });
    return result;
}

bool accepts(const std::vector<AcceptType>& acceptTypes, std::string_view contentType) {
    if (acceptTypes.empty() || contentType.empty()) return true;
    const std::string_view type = trim(contentType.substr(0, contentType.find(';')));
    for (const AcceptType& entry : acceptTypes) {
        const std::string_view accepted = entry.type;
        if (accepted == "*/*") {
            // A catch-all counts only alone: next to specific types it is a browser's habit,
            // not a statement that anything will do.
            if (acceptTypes.size() == 1) return true;
            continue;
        }
        if (accepted.size() >= 2 && accepted.substr(accepted.size() - 2) == "/*") {
            if (type.substr(0, accepted.size() - 2) == accepted.substr(0, accepted.size() - 2)) {
                return true;
            }
            continue;
        }
        if (accepted == type) return true;
    }
    return false;
}

std::string_view mimeView(std::string_view path) {
    const size_t last = path.find_last_of("/.");
    if (last == std::string_view::npos) return {};
    const std::string_view extension = path.substr(last + 1);
    if (extension.empty() || extension.size() > kMaxExtension) return {};
    // Lower-cased on the stack: this runs for every resource served.
    char lowered[kMaxExtension];
    for (size_t i = 0; i < extension.size(); ++i) lowered[i] = Ascii::toLower(extension[i]);
    const std::string_view key(lowered, extension.size());
    for (const MimeEntry& entry : kMimeTable) {
        if (entry.extension == key) return entry.type;
    }
    return {};
}

std::string httpDate(double epochMs) {
    const double seconds = std::floor(epochMs / 1000.0);
    // The form has a four-digit year; outside it (or for no number at all) there is no date to
    // give, and converting such a double to time_t would be undefined.
    if (!(seconds >= kFirstSecond && seconds <= kLastSecond)) return {};
    const time_t time = static_cast<time_t>(seconds);
    struct tm parts {};
    if (gmtime_r(&time, &parts) == nullptr) return {};
    // Names by hand rather than strftime, whose day and month names follow the locale.
    char buffer[128];
    const int length =
        std::snprintf(buffer, sizeof(buffer), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                      kWeekdays[parts.tm_wday % 7], parts.tm_mday, kMonths[parts.tm_mon % 12],
                      parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof(buffer)) return {};
    return std::string(buffer, static_cast<size_t>(length));
}

bool parseHttpDate(std::string_view text, long long* epochSeconds) {
    text = trim(text);
    DateFields f;
    if (!readImfFixdate(text, &f) && !readRfc850(text, &f) && !readAsctime(text, &f)) {
        return false;
    }
    // Refuse what timegm would quietly carry into the next field: "31 Feb" is no date. A second
    // of 60 is a leap second and stays allowed.
    if (f.day < 1 || f.day > daysInMonth(f.year, f.month) || f.hour > 23 || f.minute > 59 ||
        f.second > 60) {
        return false;
    }
    struct tm parts {};
    parts.tm_year = f.year - 1900;
    parts.tm_mon = f.month;
    parts.tm_mday = f.day;
    parts.tm_hour = f.hour;
    parts.tm_min = f.minute;
    parts.tm_sec = f.second;
    const time_t seconds = timegm(&parts);
    // A leap second on the last day of 9999 carries into a year that no date form can print;
    // refusing it keeps every parsed date printable again.
    if (static_cast<double>(seconds) > kLastSecond) return false;
    if (epochSeconds != nullptr) *epochSeconds = static_cast<long long>(seconds);
    return true;
}

}  // namespace FerritCore::Http
