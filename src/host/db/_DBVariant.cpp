#include "_DBVariant.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace docadmin {

bool TryStrToFloat(const std::string& s, double& out) {
    if (s.empty() || std::isspace(static_cast<unsigned char>(s.front()))) return false;
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size() || errno == ERANGE) return false;
    out = v;
    return true;
}

std::string FloatToStrExact(double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

std::int64_t TVariant::AsInt64() const {
    switch (FType) {
        case TVarType::vtNull:
            return 0;
        case TVarType::vtInteger:
        case TVarType::vtInt64:
            return FNum.Int;
        case TVarType::vtFloat:
        case TVarType::vtDate:
            return static_cast<std::int64_t>(std::llround(FNum.Float));
        case TVarType::vtString: {
            std::int64_t i = 0;
            if (TryStrToInt64(FStr, i)) return i;
            double d = 0;
            if (TryStrToFloat(FStr, d)) return static_cast<std::int64_t>(std::llround(d));
            throw EConvertError("'" + FStr + "' is not a valid integer value");
        }
    }
    return 0;
}

double TVariant::AsFloat() const {
    switch (FType) {
        case TVarType::vtNull:
            return 0.0;
        case TVarType::vtInteger:
        case TVarType::vtInt64:
            return static_cast<double>(FNum.Int);
        case TVarType::vtFloat:
        case TVarType::vtDate:
            return FNum.Float;
        case TVarType::vtString: {
            double d = 0;
            if (TryStrToFloat(FStr, d)) return d;
            throw EConvertError("'" + FStr + "' is not a valid floating point value");
        }
    }
    return 0.0;
}

std::string TVariant::AsString() const {
    switch (FType) {
        case TVarType::vtNull:
            return {};
        case TVarType::vtInteger:
        case TVarType::vtInt64:
            return std::to_string(FNum.Int);
        case TVarType::vtFloat:
        case TVarType::vtDate:
            return FloatToStrExact(FNum.Float);
        case TVarType::vtString:
            return FStr;
    }
    return {};
}

bool operator==(const TVariant& a, const TVariant& b) {
    if (a.IsNull() || b.IsNull()) return a.IsNull() && b.IsNull();
    if (a.IsString() || b.IsString()) return a.IsString() && b.IsString() && a.FStr == b.FStr;
    if (a.IsIntegral() && b.IsIntegral()) return a.FNum.Int == b.FNum.Int;
    return a.AsFloat() == b.AsFloat();
}

}  // namespace docadmin
