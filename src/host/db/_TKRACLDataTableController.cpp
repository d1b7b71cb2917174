#include "_TKRACLDataTableController.h"

#include <algorithm>

namespace docadmin {

namespace {

std::mutex& RegistryLock() {
    static std::mutex m;
    return m;
}

// Live controllers; guarded by RegistryLock.
std::vector<TKRACLDataTableController*>& Registry() {
    static std::vector<TKRACLDataTableController*> r;
    return r;
}

bool SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

TKRACLDataTableController::TKRACLDataTableController(TComponent* AOwner) : TComponent(AOwner) {
    std::lock_guard lock(RegistryLock());
    Registry().push_back(this);
}

TKRACLDataTableController::~TKRACLDataTableController() {
    std::lock_guard lock(RegistryLock());
    auto& r = Registry();
    r.erase(std::remove(r.begin(), r.end(), this), r.end());
}

int TKRACLDataTableController::AddTable(const std::string& ASQLTableName, TACLTableType ATableType,
                                        const std::string& AACLFields,
                                        const std::string& ACaption) {
    std::lock_guard lock(RegistryLock());
    FTables.push_back(TKRACLDataTable{ASQLTableName, ATableType, AACLFields, ACaption});
    return static_cast<int>(FTables.size()) - 1;
}

int TKRACLDataTableController::TableCount() const {
    std::lock_guard lock(RegistryLock());
    return static_cast<int>(FTables.size());
}

TKRACLDataTable TKRACLDataTableController::Tables(int AIndex) const {
    std::lock_guard lock(RegistryLock());
    return FTables.at(static_cast<size_t>(AIndex));
}

TKRACLDataTableController* TKRACLDataTableController::FindController(
    const std::string& ASQLTableName) {
    std::lock_guard lock(RegistryLock());
    for (TKRACLDataTableController* c : Registry())
        for (const auto& t : c->FTables)
            if (SameName(t.SQLTableName, ASQLTableName)) return c;
    return nullptr;
}

bool TKRACLDataTableController::FindTable(const std::string& ASQLTableName,
                                          TKRACLDataTable& ATable) {
    std::lock_guard lock(RegistryLock());
    for (TKRACLDataTableController* c : Registry())
        for (const auto& t : c->FTables)
            if (SameName(t.SQLTableName, ASQLTableName)) {
                ATable = t;
                return true;
            }
    return false;
}

}  // namespace docadmin
