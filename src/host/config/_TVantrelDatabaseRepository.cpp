#include "_TVantrelDatabaseRepository.h"

#include <utility>

namespace docadmin {

namespace {

bool SameTextAt(const std::string& s, size_t pos, const std::string& word) {
    if (s.size() - pos < word.size()) return false;
    for (size_t i = 0; i < word.size(); ++i) {
        char a = s[pos + i], b = word[i];
        if (a >= 'a' && a <= 'z') a = static_cast<char>(a - 'a' + 'A');
        if (b >= 'a' && b <= 'z') b = static_cast<char>(b - 'a' + 'A');
        if (a != b) return false;
    }
    return true;
}

}  // namespace

TVantrelDatabaseRepository::TVantrelDatabaseRepository(TDocAdminConfig AConfig)
    : FConfig(std::move(AConfig)) {}

std::string TVantrelDatabaseRepository::UserDocumentsFolder() const {
    return FConfig.DataDir() + "/userdocs";
}

int TVantrelDatabaseRepository::SelectedDatabaseIndex() {
    return FConfig.SelectedDatabaseIndex();
}

int TVantrelDatabaseRepository::OfflineDatabaseIndex() {
    return FConfig.OfflineDatabaseIndex();
}

std::string TVantrelDatabaseRepository::ReadDatabaseSetting(int AIndex, const std::string& AKey) {
    const auto& dbs = FConfig.Databases();
    if (AIndex < 0 || static_cast<size_t>(AIndex) >= dbs.size()) return {};
    const auto& s = dbs[static_cast<size_t>(AIndex)].Settings;
    const auto it = s.find(AKey);
    return it == s.end() ? std::string() : it->second;
}

int TVantrelDatabaseRepository::ConnectionKind(int AIndex) {
    const auto& dbs = FConfig.Databases();
    if (AIndex < 0 || static_cast<size_t>(AIndex) >= dbs.size()) return 0;
    return dbs[static_cast<size_t>(AIndex)].ConnectionKind;
}

std::string TVantrelDatabaseRepository::ExpandPathMacros(const std::string& APath) {
    const std::pair<std::string, std::string> macros[] = {
        {"$UserDocuments$", UserDocumentsFolder() + "/"},
        {"$DataDir$", FConfig.DataDir() + "/"},
    };
    std::string out;
    out.reserve(APath.size());
    size_t i = 0;
    while (i < APath.size()) {
        bool replaced = false;
        if (APath[i] == '$') {
            for (const auto& [name, value] : macros) {
                if (SameTextAt(APath, i, name)) {
                    out += value;
                    i += name.size();
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) out += APath[i++];
    }
    // A relative folder is taken from the data folder, not from wherever the program runs.
    if (!out.empty() && out.front() != '/') out = FConfig.DataDir() + "/" + out;
    return out;
}

std::string TVantrelDatabaseRepository::DefaultDocRootFolder() {
    return FConfig.DataDir() + "/docroot";
}

std::string TVantrelDatabaseRepository::SeedDocRootFolder() {
    return FConfig.SeedDocRoot();
}

}  // namespace docadmin
