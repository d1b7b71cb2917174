#include "_DocArchive.h"

#include <cctype>

namespace docadmin {

namespace {

constexpr const char* kArchive = "docadmin_docarchive";

TVariant Int(std::int64_t v) {
    return TVariant(static_cast<long long>(v));
}

bool IsHostColumnOrKey(const std::string& AName, const std::string& AKey) {
    const std::string n = LowerCase(AName);
    return n == LowerCase(AKey) || n == "creadate" || n == "creaid" || n == "lastchangedtsp" ||
           n == "lastchangedid" || n == "globalrecuid";
}

}  // namespace

void ArchiveDocumentVersion(TBaseDocAdmin* AOwner, TDocument* ADocument,
                            std::int64_t ADBATransactionID) {
    if (ADocument->DocID() <= 0) return;
    IDBInterface* db =
        AOwner->MainInterface() ? AOwner->MainInterface()->GetDBInterface() : nullptr;
    if (!db) throw EDocAdminException("The document administrator has no database");
    // Without a transaction id the archive row stands even when the caller's work is rolled back.
    TClientSQL sql(nullptr, db);
    sql.SetDBATransactionID(ADBATransactionID);
    sql.SetStatementKind(skInsert);
    sql.SetSchemaName(kArchive);
    TClientSQLFields* f = sql.GetFields();
    if (TDocDirectory* dir = ADocument->Directory()) f->AddField("dirid", Int(dir->DirID()));
    f->AddField("docname", TVariant(ADocument->DocName()));
    f->AddField("flsize", Int(ADocument->PrevSize()));
    f->AddField("flversion", TVariant(FileVersionToStr(ADocument->PrevVersion())));
    f->AddField("fldate", TVariant::FromDate(ADocument->PrevDate()));
    f->AddField("fllocname", TVariant(ADocument->RemoteFileName()));
    f->AddField("globalaclgrp", Int(ADocument->ACLGroupID()));
    f->AddField("doctags", TVariant(static_cast<int>(ADocument->DocumentTags())));
    f->AddField("origcreadate", TVariant::FromDate(ADocument->PrevChangeDate()));
    f->AddField("origcreaid", Int(ADocument->PrevChangeID()));
    f->AddField("docadmindocid", Int(ADocument->DocID()));
    sql.ExecuteSQL();
}

void ArchiveRecordSetRow(TComponent* /*AOwner*/, TKRCustomRecordSet* ARecordSet, int ARecNo,
                         std::int64_t ADBATransactionID) {
    TClientSQL sql(nullptr, ARecordSet->GetDatabase());
    sql.SetDBATransactionID(ADBATransactionID);
    sql.SetStatementKind(skInsert);
    sql.SetSchemaName(kArchive);
    TClientSQLFields* f = sql.GetFields();
    const std::string key = ARecordSet->GetActiveSchema()->GetKeyFieldName();
    for (int col = 0; col < ARecordSet->GetFieldCount(); ++col) {
        if (!ARecordSet->GetHasSchemaField(col)) continue;
        const std::string& name = ARecordSet->GetFieldName(col);
        if (IsHostColumnOrKey(name, key)) continue;
        const TFieldDataAccess cell = ARecordSet->ValueByIndex(ARecNo, col);
        IPtr<IDBSchemaFieldItem> field = ARecordSet->GetSchemaFields(col);
        // A lookup column carries the key it stores, not its display text.
        if (field && field->GetIsLookup() && !cell.IsNull())
            f->AddField(name, Int(cell.GetRealValue()));
        else
            f->AddField(name, cell.GetAsVariant());
    }
    f->AddField("origcreadate",
                TVariant::FromDate(ARecordSet->ValueByName(ARecNo, "lastchangedtsp").GetAsFloat()));
    f->AddField("origcreaid", Int(ARecordSet->ValueByName(ARecNo, "lastchangedid").GetRealValue()));
    f->AddField("docadmindocid", Int(ARecordSet->GetDBIDByRecNo(ARecNo)));
    sql.ExecuteSQL();
}

}  // namespace docadmin
