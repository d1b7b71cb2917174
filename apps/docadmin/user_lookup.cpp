#include "user_lookup.h"

#include "_Tools.h"

namespace docadmin::app {

std::int64_t ResolveGroup(TUserStore& AUsers, const std::string& AText) {
    bool numeric = !AText.empty() && AText.size() <= 18;
    for (char c : AText)
        numeric = numeric && c >= '0' && c <= '9';
    if (numeric) {
        const std::int64_t id = std::stoll(AText);
        if (id != 0 && !AUsers.GetACLGroup(id))
            throw Exception("ACL group " + AText + " does not exist");
        return id;
    }
    const auto g = AUsers.FindACLGroup(AText);
    if (!g) throw Exception("ACL group " + PrintableText(AText) + " does not exist");
    return g->ID;
}

void ActAs(THost& AHost, const std::string& AUserName, bool AWriting) {
    TUserStore& users = AHost.Users();
    if (AUserName.empty()) {
        const std::int64_t group = AHost.Config().ToolACLGroup();
        if (group != 0 && !users.GetACLGroup(group))
            throw Exception("[host] tool_acl_group: ACL group " + std::to_string(group) +
                            " does not exist");
        AHost.ActAsLocalAdministrator(static_cast<std::int32_t>(group));
        return;
    }
    const auto user = users.FindUser(AUserName);
    if (!user) throw Exception("--as: user " + PrintableText(AUserName) + " does not exist");
    if (user->Disabled)
        throw Exception("--as: user " + PrintableText(user->UserName) + " is disabled");
    AHost.SetCurrentUser(user->ID);
    if (!AWriting) return;
    // What a verb adds goes into the user's default group: the user must be allowed to write
    // there, as the server asks before it adds to a folder (modes 0 and 2 write).
    IUserAccess* access = AHost.GetUserAccess();
    if (access->IsReadOnly())
        throw Exception("--as: user " + PrintableText(user->UserName) + " may only read");
    const std::int32_t mode = access->GetGroupAccessMode(user->DefaultACLGroup);
    if (mode != uamFull && mode != uamReadWrite)
        throw Exception("--as: user " + PrintableText(user->UserName) +
                        " may not write in the default ACL group " +
                        std::to_string(user->DefaultACLGroup));
}

}  // namespace docadmin::app
