#include "_DocAdminSearch.h"

#include <algorithm>
#include <iterator>
#include <memory>

namespace docadmin {

namespace {

const std::string RecordsMarker = "#Records";

// Sorted and without duplicates.
void SortUnique(std::vector<std::int64_t>& AIDs) {
    std::sort(AIDs.begin(), AIDs.end());
    AIDs.erase(std::unique(AIDs.begin(), AIDs.end()), AIDs.end());
}

std::string CommaText(const std::vector<std::int64_t>& AIDs) {
    std::string r;
    r.reserve(AIDs.size() * 8);
    for (const std::int64_t id : AIDs) {
        if (!r.empty()) r += ',';
        r += std::to_string(id);
    }
    return r;
}

}  // namespace

TDocAdminSearchObject::TDocAdminSearchObject(TComponent* AOwner, IMainInterface* AMainInterface)
    : TPluginBaseComponent(AOwner) {
    if (AMainInterface) SetMainInterface(AMainInterface);
    FDocSearchRS = new TKRRecordSet(this);
    FDocSearchRS->SetSchemaName("docadmindocs");
    FDocSearchRS->SetOptions({rsoUserRowRights});
    FDocSearchRS->SetAccessMode(gamRead);
    FDocSearchRS->GetSelectFields()->Add("dirid");
    FDocSearchRS->GetSelectFieldOptions("dirid").DisableLookupValueLoading = true;
}

TDocAdminSearchObject::~TDocAdminSearchObject() = default;

void TDocAdminSearchObject::SetRootFolderName(const std::string& AValue) {
    FRootFolderName = AValue;
    TKRRecordSet rs(this);
    rs.SetSchemaName("docadmindir");
    rs.SetOptions({rsoUserRowRights});
    rs.SetAccessMode(gamRead);
    rs.GetSelectFields()->Add("id");
    rs.GetFilters()->AddFilter("title", TVariant(AValue));
    rs.Open();
    FRootFolderList.Clear();
    for (int r = 0; r < rs.GetRecordCount(); ++r)
        FRootFolderList.Add(rs.GetDBIDByRecNo(r));
}

std::string TDocAdminSearchObject::ResultUIDCommaText() const {
    // Only UIDs: a folder title is free text, and a comma in it must not add list items.
    std::string r;
    for (const TResultItem& item : FResultList)
        if (IsGuid(item.Title)) r += (r.empty() ? "" : ",") + item.Title;
    return r;
}

void TDocAdminSearchObject::Search(const std::string& AStr, TFilterType AFilterType) {
    FDocSearchRS->Close();
    TClientSQLFilters* filters = FDocSearchRS->GetFilters();
    filters->Clear();
    TClientSQLFilter* f = filters->AddFilter("docname", TVariant(AStr));
    f->SetFilterType(AFilterType);
    f->SetFieldFunction(fffUpper);
    FDocSearchRS->Open();
    std::vector<std::int64_t> dirs;
    dirs.reserve(static_cast<size_t>(FDocSearchRS->GetRecordCount()));
    const int col = FDocSearchRS->GetFieldIndex("dirid");
    for (int r = 0; r < FDocSearchRS->GetRecordCount(); ++r)
        dirs.push_back(FDocSearchRS->ValueByIndex(r, col).GetRealValue());
    FDocSearchRS->Close();
    // Documents without a directory (dirid 0) belong to no record.
    std::erase(dirs, 0);
    SortUnique(dirs);
    Climb(std::move(dirs));
}

void TDocAdminSearchObject::Climb(std::vector<std::int64_t> AIDs) {
    TKRRecordSet rs(this);
    rs.SetSchemaName("docadmindir");
    for (const char* field : {"parentdirid", "title"})
        rs.GetSelectFields()->Add(field);
    rs.GetSelectFieldOptions("parentdirid").DisableLookupValueLoading = true;
    // Each directory is read once: a folder reached again from a deeper level has already
    // passed its parent on, and a damaged table whose parents form a cycle ends the climb.
    std::vector<std::int64_t> seen = AIDs;
    while (!AIDs.empty()) {
        rs.Close();
        rs.GetFilters()->Clear();
        rs.GetFilters()->AddFilter("id", TVariant(CommaText(AIDs)))->SetFilterType(ftInList);
        rs.Open();
        const int parentCol = rs.GetFieldIndex("parentdirid");
        const int titleCol = rs.GetFieldIndex("title");
        std::vector<std::int64_t> next;
        for (int r = 0; r < rs.GetRecordCount(); ++r) {
            const std::int64_t parent = rs.ValueByIndex(r, parentCol).GetRealValue();
            if (parent <= 0) continue;
            const std::string title = rs.ValueByIndex(r, titleCol).GetAsString();
            if (FRootFolderList.IndexOf(parent) >= 0)
                FResultList.push_back({title, rs.GetDBIDByRecNo(r)});
            else if (title.find(RecordsMarker) == std::string::npos)
                next.push_back(parent);
        }
        SortUnique(next);
        std::vector<std::int64_t> fresh;
        std::set_difference(next.begin(), next.end(), seen.begin(), seen.end(),
                            std::back_inserter(fresh));
        std::vector<std::int64_t> merged;
        std::merge(seen.begin(), seen.end(), fresh.begin(), fresh.end(),
                   std::back_inserter(merged));
        seen = std::move(merged);
        AIDs = std::move(fresh);
    }
}

void DocAdminSearchApplyFilter(IMainInterface* AMain, TKRRecordSet& ASet,
                               const std::string& AValue) {
    auto search = std::make_unique<TDocAdminSearchObject>(nullptr, AMain);
    search->SetRootFolderName(ASet.GetSchemaName() + RecordsMarker);
    search->Search("%" + UpperCase(AValue) + "%", ftLike);
    const std::string uids = search->ResultUIDCommaText();
    TClientSQLFilter* f = ASet.GetFilters()->AddFilter(
        "globalrecuid", TVariant(uids.empty() ? DocAdminSearchNoMatchUID : uids));
    f->SetFilterType(uids.empty() ? ftExactEqual : ftInList);
    f->SetFilterLink(flAnd);
}

}  // namespace docadmin
