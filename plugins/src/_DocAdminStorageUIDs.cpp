#include "_DocAdminStorageUIDs.h"

#include <array>
#include <string_view>
#include <utility>

namespace docadmin {

std::string GuessStorageUIDBySQLTableName(const std::string& ASQLTableName) {
    static const std::array<std::pair<std::string_view, std::string_view>, 9> prefixes = {{
        {"catalog_", "{14003704-5069-4B18-AA23-A71F76B231C2}"},
        {"marketplace_", "{B5266F78-148B-4222-8FE9-E34E64AC0605}"},
        {"view_marketplace", "{B5266F78-148B-4222-8FE9-E34E64AC0605}"},
        {"knowledgebase_", "{BCC774D5-21B7-4733-B5EA-63311654D9B9}"},
        {"manufacturing_", "{DA97457A-89E6-4E53-B52D-5FF9095D2A0B}"},
        {"article_", "{28FFFE04-66C0-4F03-BB58-92B5D6F2D78E}"},
        {"sales_", "{C4BE0188-FE3A-47E7-B34D-63569B3CBC95}"},
        {"supplierorder_", "{BA23226D-4FE1-438A-AD04-869B8A9DECB5}"},
        {"project_", "{83549848-907D-496E-A077-7983E79ABF61}"},
    }};
    for (const auto& [prefix, uid] : prefixes)
        if (std::string_view(ASQLTableName).starts_with(prefix)) return std::string(uid);
    return ContactsStorageUID;
}

}  // namespace docadmin
