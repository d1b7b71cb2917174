// Runtime basics shared by every layer: the exception hierarchy and date-times.
//
// Exception texts are part of the system's contract: constructors take the final text, and
// callers build it exactly as it must read. Every class derives from `Exception`, which derives
// from std::exception so that foreign code can still catch it.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>

namespace docadmin {

class Exception : public std::exception {
  public:
    explicit Exception(std::string message) : FMessage(std::move(message)) {}
    const std::string& Message() const noexcept { return FMessage; }
    void SetMessage(std::string message) { FMessage = std::move(message); }
    const char* what() const noexcept override { return FMessage.c_str(); }

  private:
    std::string FMessage;
};

#define DOCADMIN_DECLARE_EXCEPTION(Name, Base) \
    class Name : public Base {                 \
      public:                                  \
        using Base::Base;                      \
    }

DOCADMIN_DECLARE_EXCEPTION(EAbort, Exception);
DOCADMIN_DECLARE_EXCEPTION(EConvertError, Exception);
DOCADMIN_DECLARE_EXCEPTION(EArgumentException, Exception);
DOCADMIN_DECLARE_EXCEPTION(EListError, Exception);
DOCADMIN_DECLARE_EXCEPTION(EAssertionFailed, Exception);
DOCADMIN_DECLARE_EXCEPTION(EInOutError, Exception);
DOCADMIN_DECLARE_EXCEPTION(EStreamError, Exception);
DOCADMIN_DECLARE_EXCEPTION(EFileStreamError, EStreamError);
DOCADMIN_DECLARE_EXCEPTION(EFOpenError, EFileStreamError);
DOCADMIN_DECLARE_EXCEPTION(EFCreateError, EFileStreamError);
DOCADMIN_DECLARE_EXCEPTION(EReadError, EStreamError);
DOCADMIN_DECLARE_EXCEPTION(EWriteError, EStreamError);

// A message meant for the user as it stands.
DOCADMIN_DECLARE_EXCEPTION(EKRUserMessageException, Exception);
// A remote file does not exist in the file store.
DOCADMIN_DECLARE_EXCEPTION(EFileNotFoundInRepositoryException, EKRUserMessageException);
// Failures of the document layer.
DOCADMIN_DECLARE_EXCEPTION(EDocAdminException, Exception);
DOCADMIN_DECLARE_EXCEPTION(EDocAdminFileNotFoundInRepository, EDocAdminException);
DOCADMIN_DECLARE_EXCEPTION(EDocAdminNoWriteAccessError, EDocAdminException);
// A document's row no longer is what the change was based on: someone else changed or removed it.
DOCADMIN_DECLARE_EXCEPTION(EDocAdminChangedByOtherUser, EDocAdminException);

// A peer closed a transfer connection in an orderly way. A save counts a transfer that ends with
// it as done.
DOCADMIN_DECLARE_EXCEPTION(EIdConnClosedGracefully, Exception);

// A REST failure with its HTTP status.
class EVTLRestServiceError : public Exception {
  public:
    EVTLRestServiceError(int status, std::string message)
        : Exception(std::move(message)), FStatus(status) {}
    int Status() const noexcept { return FStatus; }

  private:
    int FStatus;
};

// Raises EAssertionFailed with the text when the condition does not hold. Assertions stay on in
// release builds: they guard the tree's invariants, which are cheap to check.
void Assert(bool condition, const char* text = "Assertion failed");

// ASCII case folding; bytes outside A-Z / a-z (UTF-8 sequences included) stay as they are.
std::string LowerCase(std::string s);
std::string UpperCase(std::string s);
// A whole decimal integer with an optional sign; false on anything else (spaces included).
bool TryStrToInt64(const std::string& s, std::int64_t& out);
// "true"/"yes"/"on" and "false"/"no"/"off" in any case, or a number (not 0 is true); otherwise
// the default.
bool StrToBoolDef(const std::string& s, bool Default);

// Runs a step when the scope ends, also when an exception leaves it: the "finally" of a block.
template <class F>
struct TFinally {
    F f;
    ~TFinally() { f(); }
};
template <class F>
TFinally(F) -> TFinally<F>;

// Days since 1899-12-30 00:00 in local time; the fraction is the time of day.
using TDateTime = double;

// The smallest date-time (0100-01-01), used as "no date".
inline constexpr TDateTime MinDateTime = -657434.0;

TDateTime Now();
// Seconds since the Unix epoch (UTC) to a local date-time and back.
TDateTime UnixToDateTime(double unixSeconds);
double DateTimeToUnix(TDateTime value);
// File times as date-times.
TDateTime FileTimeToDateTime(std::filesystem::file_time_type t);
std::filesystem::file_time_type DateTimeToFileTime(TDateTime value);
// "YYYY-MM-DDTHH:MM:SS.mmm" of the local date-time, for JSON and listings.
std::string DateTimeToISO8601(TDateTime value);

}  // namespace docadmin
