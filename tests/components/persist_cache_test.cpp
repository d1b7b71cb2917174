// The unique folder cache on its own: keys, replacement, the child it makes, and sharing.
#include <thread>

#include "_TUniqueFolderCache.h"
#include "components_fixtures.h"

namespace docadmin::test {
namespace {

using UniqueFolderCacheTest = TreeTest;

const std::string kP1 = "{11111111-1111-4111-8111-111111111111}";
const std::string kP2 = "{22222222-2222-4222-8222-222222222222}";

TDocDirectory* StoredFolder(TTestDocAdmin& admin, const std::string& plugin,
                            const std::string& title, std::int64_t id) {
    TDocDirectory* d = admin.Directories()->AddChildDirectory();
    d->SetDirID(id);
    d->SetTitel(title);
    d->SetPlugin(plugin);
    d->SetGlobalRecUID("{REC-" + std::to_string(id) + "}");
    d->SetACLGroupID(id * 10);
    return d;
}

TEST_F(UniqueFolderCacheTest, RecordRootFolderNeedsALeadingCharacter) {
    EXPECT_FALSE(TUniqueFolderCache::GetIsRecordRootFolder("#Records"));
    EXPECT_TRUE(TUniqueFolderCache::GetIsRecordRootFolder("x#Records"));
    EXPECT_TRUE(TUniqueFolderCache::GetIsRecordRootFolder("#Records#Records"));
    EXPECT_FALSE(TUniqueFolderCache::GetIsRecordRootFolder("x#records"));
    EXPECT_FALSE(TUniqueFolderCache::GetIsRecordRootFolder("Invoices#Main"));
    TUniqueFolderCache cache;
    EXPECT_FALSE(cache.GetIsCacheableUniqueFolder("{11111111-1111-4111-8111-111111111111}"));
    EXPECT_TRUE(cache.GetIsCacheableUniqueFolder("Invoices#Records"));
}

TEST_F(UniqueFolderCacheTest, LoadMakesAStoredChildFromTheNewestEntryOfItsKey) {
    TTestDocAdmin admin;
    TUniqueFolderCache cache;
    TDocDirectory* dest = admin.Directories();
    EXPECT_FALSE(cache.LoadUniqueFolder(kP1, "Inv#Records", dest));
    EXPECT_TRUE(dest->ChildDirectoriesInMemory().empty());

    cache.CacheUniqueFolder(StoredFolder(admin, kP1, "Inv#Records", 5));
    cache.CacheUniqueFolder(StoredFolder(admin, kP1, "Inv#Records", 6));
    cache.CacheUniqueFolder(StoredFolder(admin, kP2, "Inv#Records", 7));
    EXPECT_EQ(cache.PluginCount(), 2);
    EXPECT_EQ(cache.FolderCount(kP1), 1);
    EXPECT_EQ(cache.FolderCount(kP2), 1);
    // Plug-in keys are taken exactly as given.
    EXPECT_EQ(cache.FolderCount("{11111111-1111-4111-8111-111111111111}"), 1);
    EXPECT_FALSE(cache.LoadUniqueFolder(kP1, "Other#Records", dest));

    TDocDirectory* target = dest->AddChildDirectory();
    ASSERT_TRUE(cache.LoadUniqueFolder(kP1, "Inv#Records", target));
    ASSERT_EQ(target->ChildDirectoriesInMemory().size(), 1u);
    TDocDirectory* made = target->ChildDirectoriesInMemory()[0];
    EXPECT_EQ(made->DirID(), 6);
    EXPECT_EQ(made->Titel(), "Inv#Records");
    EXPECT_EQ(made->Plugin(), kP1);
    EXPECT_EQ(made->GlobalRecUID(), "{REC-6}");
    EXPECT_EQ(made->ACLGroupID(), 60);
    EXPECT_EQ(made->ChangeState(), chNone);
    EXPECT_TRUE(made->LoadingState().Empty());

    // A folder without plug-in is keyed by its parents'.
    TUniqueFolderCache byParent;
    TDocDirectory* child = StoredFolder(admin, kP2, "P", 1)->AddChildDirectory();
    child->SetTitel("Inv#Records");
    child->SetDirID(2);
    byParent.CacheUniqueFolder(child);
    EXPECT_EQ(byParent.FolderCount(kP2), 1);
    EXPECT_EQ(byParent.FolderCount(""), 0);
}

TEST_F(UniqueFolderCacheTest, SharedByThreads) {
    TUniqueFolderCache cache;
    std::vector<std::thread> threads;
    std::atomic<int> hits{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&cache, &hits, t] {
            TTestDocAdmin admin;
            for (int i = 0; i < 200; ++i) {
                const std::string title = "T" + std::to_string(i % 10) + "#Records";
                TDocDirectory* d = StoredFolder(admin, kP1, title, t * 1000 + i);
                cache.CacheUniqueFolder(d);
                if (cache.LoadUniqueFolder(kP1, title, d)) ++hits;
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(hits.load(), 800);
    EXPECT_EQ(cache.FolderCount(kP1), 10);
}

}  // namespace
}  // namespace docadmin::test
