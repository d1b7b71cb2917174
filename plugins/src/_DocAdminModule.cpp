// The module's entry point and its data module classes.
#include "_DocAdminIntf.h"
#include "_PluginBase.h"
#include "_dmDocAdminMain.h"
#include "_dmDocAdminMainForms.h"
#include "_dmDocAdminRepository.h"

namespace docadmin {

namespace {

template <class T>
TPluginBaseDataModule* MakeDataModule(TClientPluginBase* AOwner) {
    return new T(AOwner);
}

// The repository first: the other two lean on it from their constructors on.
TClassList& ModuleClasses() {
    static TClassList list = [] {
        TClassList l;
        RegisterPluginDataModule(&MakeDataModule<TdmDocAdminRepository>, l);
        RegisterPluginDataModule(&MakeDataModule<TdmDocAdminMainForms>, l);
        RegisterPluginDataModule(&MakeDataModule<TdmDocAdminMain>, l);
        return l;
    }();
    return list;
}

// Any address inside this library identifies it.
const char ModuleInstanceMarker = 0;

}  // namespace

}  // namespace docadmin

extern "C" __attribute__((visibility("default"))) void InitProc(
    docadmin::TClientPluginBase** APlugin) {
    *APlugin = new docadmin::TClientPluginBase(
        docadmin::DocAdminPluginGUID,
        reinterpret_cast<std::intptr_t>(&docadmin::ModuleInstanceMarker),
        &docadmin::ModuleClasses(), true);
}
