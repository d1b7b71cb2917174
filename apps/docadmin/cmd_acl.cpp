// docadmin repair-acl --group G: gives the folders and documents that have no ACL group (-1) the
// group G, in one transaction, and says how many rows of each table it moved.
//
// Tree verbs of earlier versions ran with no user and wrote such rows; no user of the server may
// read them, so the server's users saw nothing of what was imported and the server made a second
// folder chain beside the hidden one. Which group they belong in is the administrator's decision
// (0 opens them to everybody), so this is a verb that asks for it and not a step of the schema
// upgrade. Rows of any other group are left as they are.
#include <iostream>
#include <memory>

#include "_Tools.h"
#include "commands.h"
#include "host_options.h"
#include "user_lookup.h"

namespace docadmin::app {
namespace {

// Rows that the tree wrote without a group of their own.
constexpr long long NoACLGroup = -1;

struct RepairACLOptions {
    HostOptions Host;
    std::string Group;
};

void RunRepairACL(const RepairACLOptions& o) {
    auto host = OpenHost(o.Host);
    const std::int64_t group = ResolveGroup(host->Users(), o.Group);
    IDBInterface* db = host->GetDBInterface();
    const std::int64_t transaction = db->BeginTransaction();
    std::int64_t moved[2] = {0, 0};
    try {
        const char* const tables[2] = {"docadmindir", "docadmindocs"};
        for (int i = 0; i < 2; ++i) {
            TClientSQL sql(nullptr, db);
            sql.SetStatementKind(skUpdate);
            sql.SetSchemaName(tables[i]);
            sql.SetDBATransactionID(transaction);
            sql.GetFields()->AddField("globalaclgrp", TVariant(static_cast<long long>(group)));
            sql.GetFilters()->AddFilter("globalaclgrp", TVariant(NoACLGroup));
            sql.ExecuteSQL();
            moved[i] = sql.RowsAffected();
        }
        db->CommitTransaction(transaction);
    } catch (...) {
        db->RollbackTransaction(transaction);
        throw;
    }
    std::cout << "moved " << moved[0] << " folder(s) and " << moved[1]
              << " document(s) without an ACL group into group " << group << "\n";
}

CommandRegistrar reg([](CLI::App& app) {
    auto o = std::make_shared<RepairACLOptions>();
    auto* cmd = app.add_subcommand(
        "repair-acl",
        "Give the folders and documents without an ACL group (-1, written by "
        "earlier versions of the tree verbs) a group, so that the server's users "
        "in that group see them");
    AddHostOptions(cmd, o->Host);
    cmd->add_option("--group", o->Group, "ACL group (id or name); 0 is readable by every user")
        ->required();
    cmd->callback([o] { RunRepairACL(*o); });
});

}  // namespace
}  // namespace docadmin::app
