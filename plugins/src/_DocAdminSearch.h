// TDocAdminSearchObject: finds the records of a table that hold a stored document whose name
// matches a pattern, and the record filter that narrows a list of that table to them.
//
// A table's records keep their documents below "<schema>#Records" / "<record UID>" / ... in
// docadmindir. The search reads the matching documents' folders from docadmindocs and climbs
// from there through docadmindir, one query per level with the ids of that level as an in-list,
// until it meets folders whose parent is a record root folder: their titles are the record UIDs.
// Nothing of the tree is loaded and no administrator is made.
//
// The document query applies the current user's row rights; a document the user may not read
// finds nothing. An object serves one thread at a time; the filter callback makes its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_TKRRecordSet.h"
#include "_Tools.h"

namespace docadmin {

// The filter value that no record has: the answer when no document matches, so that the list
// gives no rows rather than all of them.
inline const std::string DocAdminSearchNoMatchUID = "{86B7B156-83FD-4EB1-8926-5AF78D39726D}";

class TDocAdminSearchObject : public TPluginBaseComponent {
  public:
    // A record folder found: its title (the record UID) and its row id.
    struct TResultItem {
        std::string Title;
        std::int64_t DirID = 0;
    };

    // The host comes from AMainInterface, or else from the owner chain.
    explicit TDocAdminSearchObject(TComponent* AOwner, IMainInterface* AMainInterface = nullptr);
    ~TDocAdminSearchObject() override;

    const std::string& RootFolderName() const { return FRootFolderName; }
    // Stores the title and reads the row ids of all directories with that title (every plug-in
    // may have one) into RootFolderList.
    void SetRootFolderName(const std::string& AValue);
    const TSortedIntegerList& RootFolderList() const { return FRootFolderList; }
    const std::vector<TResultItem>& ResultList() const { return FResultList; }
    // The result's titles that are record UIDs, as comma text ("" when there are none).
    std::string ResultUIDCommaText() const;

    // Adds the record folders above the documents whose name matches AStr (compared in upper
    // case, so AStr is expected upper-cased) to ResultList; the list isn't cleared first.
    void Search(const std::string& AStr, TFilterType AFilterType);

  private:
    // Climbs from the directories AIDs (ascending, no duplicates) level by level to the record
    // folders.
    void Climb(std::vector<std::int64_t> AIDs);

    TKRRecordSet* FDocSearchRS = nullptr;  // owned through the component list
    std::string FRootFolderName;
    TSortedIntegerList FRootFolderList;
    std::vector<TResultItem> FResultList;
};

// The module's record filter "search in stored documents": narrows ASet (a list of any schema
// with record UIDs) to the records holding a document whose name contains AValue, ignoring
// case. AMain is the host the search reads through.
void DocAdminSearchApplyFilter(IMainInterface* AMain, TKRRecordSet& ASet,
                               const std::string& AValue);

}  // namespace docadmin
