#include "_SysUtils.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>

namespace docadmin {

void Assert(bool condition, const char* text) {
    if (!condition) throw EAssertionFailed(text);
}

std::string LowerCase(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::string UpperCase(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

bool TryStrToInt64(const std::string& s, std::int64_t& out) {
    if (s.empty()) return false;
    const char* b = s.data();
    const char* e = b + s.size();
    if (*b == '+') ++b;
    const auto [p, ec] = std::from_chars(b, e, out);
    return ec == std::errc() && p == e && b != e;
}

bool StrToBoolDef(const std::string& s, bool Default) {
    const std::string t = LowerCase(s);
    if (t == "true" || t == "yes" || t == "on") return true;
    if (t == "false" || t == "no" || t == "off") return false;
    std::int64_t n = 0;
    if (TryStrToInt64(t, n)) return n != 0;
    return Default;
}

namespace {

constexpr double kSecondsPerDay = 86400.0;
// 1970-01-01 as a day count since 1899-12-30.
constexpr double kUnixEpochDays = 25569.0;

// Offset of local time from UTC in seconds at the given UTC instant.
long LocalOffsetAt(std::time_t utc) {
    std::tm local{};
    localtime_r(&utc, &local);
    return local.tm_gmtoff;
}

}  // namespace

TDateTime UnixToDateTime(double unixSeconds) {
    const auto whole = static_cast<std::time_t>(std::floor(unixSeconds));
    const double local = unixSeconds + static_cast<double>(LocalOffsetAt(whole));
    return local / kSecondsPerDay + kUnixEpochDays;
}

double DateTimeToUnix(TDateTime value) {
    const double local = (value - kUnixEpochDays) * kSecondsPerDay;
    // The offset depends on the instant; one correction step settles it except inside a DST
    // change, where any of the two readings is acceptable.
    const auto guess = static_cast<std::time_t>(std::floor(local));
    double utc = local - static_cast<double>(LocalOffsetAt(guess));
    utc = local - static_cast<double>(LocalOffsetAt(static_cast<std::time_t>(std::floor(utc))));
    return utc;
}

TDateTime Now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return UnixToDateTime(std::chrono::duration<double>(now).count());
}

TDateTime FileTimeToDateTime(std::filesystem::file_time_type t) {
    const auto sys = std::chrono::file_clock::to_sys(t);
    return UnixToDateTime(std::chrono::duration<double>(sys.time_since_epoch()).count());
}

std::filesystem::file_time_type DateTimeToFileTime(TDateTime value) {
    const auto secs = std::chrono::duration<double>(DateTimeToUnix(value));
    const auto sys = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(secs));
    return std::chrono::file_clock::from_sys(sys);
}

std::string DateTimeToISO8601(TDateTime value) {
    const double localSeconds = (value - kUnixEpochDays) * kSecondsPerDay;
    const double whole = std::floor(localSeconds);
    auto ms = static_cast<int>(std::lround((localSeconds - whole) * 1000.0));
    auto t = static_cast<std::time_t>(whole);
    if (ms == 1000) {
        ms = 0;
        ++t;
    }
    std::tm tm{};
    gmtime_r(&t, &tm);  // the value is already local: format it without another shift
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    return buf;
}

}  // namespace docadmin
