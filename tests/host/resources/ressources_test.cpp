// The resource framework: loading, nested updates and their notices, deleting and detaching
// resources, the container's last release, the event pool and the host's questions to sources.
#include <gtest/gtest.h>

#include "_RessourceSources.h"
#include "_TCustomRessourceContainer.h"
#include "_TRessourceSourceList.h"
#include "_TVTLEventPool.h"

using namespace docadmin;

namespace {

class TTestContainer : public TCustomRessourceContainer {
  public:
    TTestContainer() : TCustomRessourceContainer(nullptr, "REC", 4, nullptr) {}
    using TCustomRessourceContainer::Changed;
    int Loads = 0;
    std::vector<std::pair<TRessourceAction, TCustomRessource*>> Actions;

  protected:
    void LoadRessources() override {
        TCustomRessourceContainer::LoadRessources();
        ++Loads;
        BeginUpdate();
        for (const char* caption : {"a", "b"})
            AddRessource()->SetCaption(caption);
        EndUpdate();
    }
    bool ExecuteAction(TRessourceAction AAction, TCustomRessource* ARessource, const std::string&,
                       const std::string&, bool, bool, IRessourceActionCallBack*, IVTLEventPool*,
                       TRessourceArchiveMode) override {
        Actions.emplace_back(AAction, ARessource);
        return true;
    }
};

class TNotify : public TInterfacedImpl<IRessourceContainerNotify> {
  public:
    void Do_ContainerNotify(TRessourceContainerNotifyType AType, IRessourceContainer* C) override {
        Log.push_back("notify" + std::to_string(AType) + ":" + C->Get_ResIdentifier());
    }
    void Do_RessourceRemoved(IRessource* ARessource) override {
        Log.push_back("removed:" + ARessource->Get_Caption());
    }
    void Do_ChildsChanged(IRessourceContainer*, IRessource* ARessource) override {
        Log.push_back(ARessource ? "childs:" + ARessource->Get_Caption() : "childs");
    }
    std::vector<std::string> Log;
};

using Log = std::vector<std::string>;

TEST(RessourceContainer, LoadsOnceAndSendsChangesAtTheLastEndUpdate) {
    IPtr<TTestContainer> c(new TTestContainer);
    IPtr<TNotify> n(new TNotify);
    c->Do_RegisterNotifier(n.get());
    c->Do_RegisterNotifier(n.get());  // once is enough
    EXPECT_FALSE(c->IsLoaded());
    EXPECT_EQ(c->Get_Count(), 2);
    EXPECT_EQ(c->Get_Count(), 2);
    EXPECT_EQ(c->Loads, 1);
    EXPECT_EQ(n->Log, (Log{"notify0:REC", "childs"}));  // one notice for the whole load
    EXPECT_EQ(c->Get_Item(1)->Get_Caption(), "b");
    EXPECT_THROW(c->Get_Item(2), EListError);

    n->Log.clear();
    c->Do_BeginUpdate();
    c->BeginUpdate();
    c->AddRessource()->SetCaption("c");
    c->Changed();
    c->EndUpdate();
    EXPECT_TRUE(n->Log.empty());
    c->Do_EndUpdate();
    EXPECT_EQ(n->Log, (Log{"notify0:REC", "childs"}));
    EXPECT_THROW(c->EndUpdate(), EAssertionFailed);  // unbalanced
    EXPECT_EQ(n->Log.size(), 2u);

    n->Log.clear();
    c->Do_Reload(false);
    EXPECT_FALSE(c->IsLoaded());
    EXPECT_EQ(c->Count(), 0);
    EXPECT_EQ(c->Get_Count(), 2);
    EXPECT_EQ(c->Loads, 2);
    EXPECT_EQ(n->Log, (Log{"notify0:REC", "childs", "notify0:REC", "childs"}));
    c->Do_UnregisterNotifier(n.get());
    c->AddRessource();
    EXPECT_EQ(n->Log.size(), 4u);
}

TEST(RessourceContainer, ActionsDeletesAndTheEndOfTheContainer) {
    IPtr<TNotify> n(new TNotify);
    IPtr<IRessource> kept;
    IPtr<IRessource> foreign;
    {
        IPtr<TTestContainer> other(new TTestContainer);
        foreign = other->Get_Item(0);
        IPtr<TTestContainer> c(new TTestContainer);
        c->Do_RegisterNotifier(n.get());
        IPtr<IRessource> a = c->Get_Item(0);
        kept = c->Get_Item(1);
        EXPECT_EQ(kept->Get_Container().get(), static_cast<IRessourceContainer*>(c.get()));
        EXPECT_TRUE(
            a->Do_ExecuteAction(raView, "", "", false, false, nullptr, nullptr, ramDefault));
        EXPECT_TRUE(c->Do_ExecuteAction(raDelete, nullptr, "", "", false, false, nullptr, nullptr,
                                        ramDefault));
        EXPECT_FALSE(c->Do_ExecuteAction(raView, foreign.get(), "", "", false, false, nullptr,
                                         nullptr, ramDefault));
        ASSERT_EQ(c->Actions.size(), 2u);
        EXPECT_EQ(c->Actions[0].first, raView);
        EXPECT_EQ(static_cast<IRessource*>(c->Actions[0].second), a.get());
        EXPECT_EQ(c->Actions[1].second, nullptr);

        n->Log.clear();
        c->DeleteRessource(c->FindRessource(a.get()));
        EXPECT_EQ(n->Log, (Log{"removed:a", "notify0:REC", "childs"}));
        EXPECT_EQ(c->Count(), 1);
        EXPECT_EQ(a->Get_Container(), nullptr);  // detached: its actions go nowhere
        EXPECT_FALSE(
            a->Do_ExecuteAction(raView, "", "", false, false, nullptr, nullptr, ramDefault));
        n->Log.clear();
    }
    EXPECT_EQ(n->Log, (Log{"notify1:REC"}));  // the last release says so first
    EXPECT_EQ(kept->Get_Container(), nullptr);
    EXPECT_EQ(kept->Get_Caption(), "b");
}

TEST(VTLEventPool, FiresListenersInOrderUntilRemoved) {
    IPtr<TVTLEventPool> pool(new TVTLEventPool);
    std::vector<std::string> calls;
    const auto first =
        pool->AddListener([&](std::int64_t id) { calls.push_back("1:" + std::to_string(id)); });
    pool->AddListener([&](std::int64_t id) { calls.push_back("2:" + std::to_string(id)); });
    pool->Do_FireEvent(7);
    pool->RemoveListener(first);
    pool->Do_FireEvent(8);
    EXPECT_EQ(calls, (std::vector<std::string>{"1:7", "2:7", "2:8"}));
}

class TSource : public TInterfacedImpl<IRessourceSource> {
  public:
    TSource(bool AEnabled, bool AAnswers, std::string ACaption)
        : FEnabled(AEnabled), FAnswers(AAnswers), FCaption(std::move(ACaption)) {}
    std::int32_t Get_ContainerCount() override { return 1; }
    std::int32_t Get_ContainerInfo(std::int32_t, IPtr<IInterface>& C) override {
        C.reset();
        return 0;
    }
    std::string Get_Caption() override { return FCaption; }
    bool Get_Enabled() override { return FEnabled; }
    IPtr<IRessourceContainer> GetRessourceContainer(const std::string& AID,
                                                    std::int64_t ARecord) override {
        ++Asked;
        if (!FAnswers) return nullptr;
        return IPtr<IRessourceContainer>(static_cast<IRessourceContainerEx*>(
            new TCustomRessourceContainer(nullptr, AID, ARecord, nullptr)));
    }
    void Do_AddNotifier(IRessourceSourceNotify*) override {}
    void Do_RemoveNotifier(IRessourceSourceNotify*) override {}
    int Asked = 0;

  private:
    bool FEnabled, FAnswers;
    std::string FCaption;
};

TEST(RessourceSources, EveryEnabledSourceIsAskedAndThoseThatAnswerAreListed) {
    TRessourceSourceList list;
    IPtr<TSource> off(new TSource(false, true, "off")), none(new TSource(true, false, "none")),
        one(new TSource(true, true, "one")), two(new TSource(true, true, "two"));
    list.Add("{A}", off.get());
    list.Add("{B}", none.get());
    list.Add("{C}", one.get());
    list.Add("{D}", two.get());
    const auto found = GetRessourceContainers(&list, "REC", 3);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].SourceIdentifier, "{C}");
    EXPECT_EQ(found[0].Caption, "one");  // the container has no caption of its own
    EXPECT_EQ(found[1].SourceIdentifier, "{D}");
    EXPECT_EQ(found[1].Container->Get_ResID(), 3);
    EXPECT_EQ(off->Asked + none->Asked + one->Asked, 2);
    EXPECT_TRUE(GetRessourceContainers(nullptr, "REC", 3).empty());
}

}  // namespace
