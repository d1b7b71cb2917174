#include "_TLocalSettingsStorage.h"

#include <charconv>
#include <utility>

namespace docadmin {

namespace {

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

bool ParseInt64(const std::string& s, std::int64_t& out) {
    const char* b = s.data();
    const char* e = b + s.size();
    if (b != e && *b == '+') ++b;
    const auto r = std::from_chars(b, e, out);
    return r.ec == std::errc() && r.ptr == e && b != e;
}

}  // namespace

TLocalSettingsStorage::TLocalSettingsStorage(const TDocAdminConfig& AConfig)
    : TLocalSettingsStorage(AConfig.LocalSettings(), AConfig.SaveFileName()) {}

TLocalSettingsStorage::TLocalSettingsStorage(TLocalSettings ASettings, std::string AFileName)
    : FValues(std::move(ASettings)), FFileName(std::move(AFileName)) {}

const TLocalSettingValue* TLocalSettingsStorage::Find(const std::string& ASection,
                                                      const std::string& AKey) const {
    const auto s = FValues.find(ASection);
    if (s == FValues.end()) return nullptr;
    const auto k = s->second.find(AKey);
    return k == s->second.end() ? nullptr : &k->second;
}

std::int64_t TLocalSettingsStorage::ReadInt64(const std::string& ASection,
                                              const std::string& AKey) {
    std::lock_guard lock(FLock);
    const TLocalSettingValue* v = Find(ASection, AKey);
    std::int64_t n = 0;
    if (!v || !ParseInt64(v->Text, n)) return 0;
    return n;
}

bool TLocalSettingsStorage::ReadBool(const std::string& ASection, const std::string& AKey,
                                     bool ADefault) {
    std::lock_guard lock(FLock);
    const TLocalSettingValue* v = Find(ASection, AKey);
    if (!v) return ADefault;
    const std::string t = Lower(v->Text);
    if (t == "true" || t == "yes" || t == "on") return true;
    if (t == "false" || t == "no" || t == "off") return false;
    std::int64_t n = 0;
    if (ParseInt64(t, n)) return n != 0;
    return ADefault;
}

std::string TLocalSettingsStorage::ReadString(const std::string& ASection, const std::string& AKey,
                                              const std::string& ADefault) {
    std::lock_guard lock(FLock);
    const TLocalSettingValue* v = Find(ASection, AKey);
    return v ? v->Text : ADefault;
}

void TLocalSettingsStorage::Write(const std::string& ASection, const std::string& AKey,
                                  TLocalSettingValue AValue) {
    std::lock_guard lock(FLock);
    TLocalSettingValue& slot = FValues[ASection][AKey];
    if (slot.Kind == AValue.Kind && slot.Text == AValue.Text) return;
    slot = std::move(AValue);
    FModified = true;
}

void TLocalSettingsStorage::WriteInt64(const std::string& ASection, const std::string& AKey,
                                       std::int64_t AValue) {
    Write(ASection, AKey, {TLocalSettingValue::TKind::Integer, std::to_string(AValue)});
}

void TLocalSettingsStorage::WriteString(const std::string& ASection, const std::string& AKey,
                                        const std::string& AValue) {
    Write(ASection, AKey, {TLocalSettingValue::TKind::String, AValue});
}

void TLocalSettingsStorage::WriteBool(const std::string& ASection, const std::string& AKey,
                                      bool AValue) {
    Write(ASection, AKey, {TLocalSettingValue::TKind::Boolean, AValue ? "true" : "false"});
}

bool TLocalSettingsStorage::Modified() const {
    std::lock_guard lock(FLock);
    return FModified;
}

void TLocalSettingsStorage::Save() {
    std::lock_guard lock(FLock);
    if (!FModified) return;
    SaveLocalSettingsToFile(FFileName, FValues);
    FModified = false;
}

}  // namespace docadmin
