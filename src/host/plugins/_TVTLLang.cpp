#include "_TVTLLang.h"

namespace docadmin {

std::int32_t TVTLLang::IndexOfLanguage(const std::string& AName) const {
    for (std::size_t i = 0; i < FLanguages.size(); ++i)
        if (FLanguages[i] == AName) return static_cast<std::int32_t>(i);
    return -1;
}

void TVTLLang::SetTexts(const std::string& AKey, std::vector<std::string> ATexts) {
    FTexts[AKey] = std::move(ATexts);
}

std::string TVTLLang::GetText(const std::string& AKey, std::int32_t ALanguageIndex) const {
    const auto it = FTexts.find(AKey);
    if (it == FTexts.end()) return AKey;
    const std::vector<std::string>& texts = it->second;
    if (ALanguageIndex >= 0 && static_cast<std::size_t>(ALanguageIndex) < texts.size() &&
        !texts[static_cast<std::size_t>(ALanguageIndex)].empty())
        return texts[static_cast<std::size_t>(ALanguageIndex)];
    return texts.empty() ? std::string() : texts.front();
}

}  // namespace docadmin
