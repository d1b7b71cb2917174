// What the test plug-ins and the tests share. The event log and the live-object count sit in a
// shared library of their own, so that they outlive the plug-ins; the exception and interface
// are declared in this header only, as plug-ins declare theirs, so that their RTTI meets across
// the library boundary by name.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "_Interfaces.h"
#include "_RessourceIntf.h"
#include "_SysUtils.h"

namespace plughost_test {

// "A.First.Init", ... in the order they happened.
void Record(const std::string& AEvent);
std::vector<std::string> TakeEvents();
// Objects made by a plug-in that are alive.
std::atomic<int>& LiveObjects();

using docadmin::EDocAdminException;
DOCADMIN_DECLARE_EXCEPTION(EPlugTestFault, EDocAdminException);

// Offered by the data module of plug-in A that declares itself the external-function object.
class IPlugTestExt : public docadmin::IInterface {
  public:
    DOCADMIN_IID("{5B0E3C1A-94D2-4E6F-8A37-C2D1F0B9E845}");
    virtual std::string Hello() = 0;
    // Raises EPlugTestFault("fault in the plug-in").
    virtual void Fail() = 0;
    // The plug-in holds a reference to AObject until its data module goes.
    virtual void Keep(docadmin::IInterface* AObject) = 0;
    // A new object of the plug-in, counted in LiveObjects.
    virtual docadmin::IPtr<docadmin::IInterface> MakeObject() = 0;
};

// An object counted in LiveObjects that implements the interfaces Is.
template <class... Is>
class TCountedImpl : public docadmin::TInterfacedImpl<Is...> {
  public:
    TCountedImpl() { ++LiveObjects(); }
    ~TCountedImpl() override { --LiveObjects(); }
};
using TCounted = TCountedImpl<>;

// A resource source that offers nothing.
class TSource : public TCountedImpl<docadmin::IRessourceSource> {
  public:
    std::int32_t Get_ContainerCount() override { return 0; }
    std::int32_t Get_ContainerInfo(std::int32_t,
                                   docadmin::IPtr<docadmin::IInterface>& AContainer) override {
        AContainer = nullptr;
        return 0;
    }
    std::string Get_Caption() override { return "Test source"; }
    bool Get_Enabled() override { return true; }
    docadmin::IPtr<docadmin::IRessourceContainer> GetRessourceContainer(const std::string&,
                                                                        std::int64_t) override {
        return nullptr;
    }
    void Do_AddNotifier(docadmin::IRessourceSourceNotify*) override {}
    void Do_RemoveNotifier(docadmin::IRessourceSourceNotify*) override {}
};

}  // namespace plughost_test
