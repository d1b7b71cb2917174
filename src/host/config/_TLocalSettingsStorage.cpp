#include "_TLocalSettingsStorage.h"

#include <utility>

namespace docadmin {

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
    if (!v || !TryStrToInt64(v->Text, n)) return 0;
    return n;
}

bool TLocalSettingsStorage::ReadBool(const std::string& ASection, const std::string& AKey,
                                     bool ADefault) {
    std::lock_guard lock(FLock);
    const TLocalSettingValue* v = Find(ASection, AKey);
    if (!v) return ADefault;
    return StrToBoolDef(v->Text, ADefault);
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
