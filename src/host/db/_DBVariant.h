// TVariant: the value of one field as it travels between the data layer and its callers.
//
// A variant is null, an integer (32 or 64 bit, both held as 64 bit), a floating point number, a
// date (a floating day count, kept apart from plain numbers so that it is written as a date) or a
// string. Null is distinct from the empty string. Conversions follow what a caller expects of a
// cell: null reads as 0, 0.0 or ""; a string that is no number raises EConvertError when read as
// a number.
#pragma once

#include <cstdint>
#include <string>

#include "_SysUtils.h"

namespace docadmin {

enum class TVarType : std::uint8_t { vtNull, vtInteger, vtInt64, vtFloat, vtDate, vtString };

class TVariant {
  public:
    TVariant() = default;
    TVariant(std::nullptr_t) {}
    TVariant(int v) : FType(TVarType::vtInteger) { FNum.Int = v; }
    TVariant(long v) : FType(TVarType::vtInt64) { FNum.Int = v; }
    TVariant(long long v) : FType(TVarType::vtInt64) { FNum.Int = v; }
    TVariant(double v) : FType(TVarType::vtFloat) { FNum.Float = v; }
    TVariant(bool v) : FType(TVarType::vtInteger) { FNum.Int = v ? 1 : 0; }
    TVariant(std::string v) : FType(TVarType::vtString), FStr(std::move(v)) {}
    TVariant(const char* v) : FType(TVarType::vtString), FStr(v) {}
    static TVariant FromDate(TDateTime d) {
        TVariant r(d);
        r.FType = TVarType::vtDate;
        return r;
    }
    static TVariant Null() { return TVariant(); }

    TVarType VarType() const { return FType; }
    bool IsNull() const { return FType == TVarType::vtNull; }
    bool IsString() const { return FType == TVarType::vtString; }
    bool IsIntegral() const { return FType == TVarType::vtInteger || FType == TVarType::vtInt64; }
    bool IsNumeric() const {
        return IsIntegral() || FType == TVarType::vtFloat || FType == TVarType::vtDate;
    }

    // Conversions. Null gives 0 / 0.0 / "". A non-numeric string raises EConvertError.
    std::int64_t AsInt64() const;
    double AsFloat() const;
    std::string AsString() const;
    bool AsBoolean() const { return AsInt64() != 0; }

    // Direct access without conversion; valid only for the matching type.
    std::int64_t RawInt() const { return FNum.Int; }
    double RawFloat() const { return FNum.Float; }
    const std::string& RawString() const { return FStr; }

    // Same type class and value; null equals only null. Integers and floats compare by number.
    friend bool operator==(const TVariant& a, const TVariant& b);

  private:
    TVarType FType = TVarType::vtNull;
    union {
        std::int64_t Int;  // vtInteger, vtInt64
        double Float;      // vtFloat, vtDate
    } FNum{0};
    std::string FStr;
};

// Text of a floating point number that reads back to the same double ("%.17g").
std::string FloatToStrExact(double v);
// Strict parse of a whole decimal integer (optional sign, no blanks); false when it is none.
// Strict parse of a whole floating point number; false when it is none.
bool TryStrToFloat(const std::string& s, double& out);

}  // namespace docadmin
