#include "_RessourceSources.h"

#include "_SysUtils.h"

namespace docadmin {

std::vector<TSourceRessourceContainer> GetRessourceContainers(IRessourceSourceList* ASources,
                                                              const std::string& AResIdentifier,
                                                              std::int64_t AResID) {
    std::vector<TSourceRessourceContainer> result;
    if (!ASources) return result;
    for (std::int32_t i = 0; i < ASources->Count(); ++i) {
        IPtr<IRessourceSource> source;
        std::string identifier;
        try {
            source = ASources->Item(i);
            identifier = ASources->Identifier(i);
        } catch (const EListError&) {
            break;  // the list shrank meanwhile
        }
        if (!source->Get_Enabled()) continue;
        IPtr<IRessourceContainer> container = source->GetRessourceContainer(AResIdentifier, AResID);
        if (!container) continue;
        IPtr<IRessourceContainerEx> ex;
        std::string caption = Supports(container.get(), ex) ? ex->Get_Caption() : std::string();
        if (caption.empty()) caption = source->Get_Caption();
        result.push_back({identifier, std::move(caption), std::move(container)});
    }
    return result;
}

}  // namespace docadmin
