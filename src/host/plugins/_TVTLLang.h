// TVTLLang: a plug-in's table of translated texts. A text is found by its key and a language
// index; the languages are named in order, and the first is the base language whose text stands
// in for an empty translation. A key the table doesn't hold answers itself.
//
// The texts are filled at construction of the owning data module and only read afterwards; reads
// may then come from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "_Classes.h"

namespace docadmin {

class TVTLLang : public TComponent {
  public:
    explicit TVTLLang(TComponent* AOwner) : TComponent(AOwner) {}

    // The languages in index order; the first is the base language.
    void SetLanguages(std::vector<std::string> ALanguages) { FLanguages = std::move(ALanguages); }
    const std::vector<std::string>& Languages() const { return FLanguages; }
    // The index of a language name, or -1.
    std::int32_t IndexOfLanguage(const std::string& AName) const;

    // Sets the texts of a key, one per language in index order (missing ones stay empty).
    void SetTexts(const std::string& AKey, std::vector<std::string> ATexts);
    bool HasKey(const std::string& AKey) const { return FTexts.count(AKey) != 0; }

    // The text of a key in a language; an empty or missing translation gives the base language's
    // text, an unknown key gives the key itself.
    std::string GetText(const std::string& AKey, std::int32_t ALanguageIndex) const;

  private:
    std::vector<std::string> FLanguages;
    std::map<std::string, std::vector<std::string>> FTexts;
};

}  // namespace docadmin
