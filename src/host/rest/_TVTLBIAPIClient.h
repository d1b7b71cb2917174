// API publication: a plug-in's TVTLBIAPIClient lists API items (caption, identifier, APIRoot);
// when the REST server starts it fires OnGetAPIService for each item, and the handler answers with
// a factory of the implementing service class and the interface types it implements.
//
// An interface type describes its methods and their parameters by name, kind and direction, and
// carries for each method the thunk that calls it on a service object. The server serves each
// method as POST /<APIRoot>/<Interface>/<Method> with a JSON object of the in-parameters and
// answers with a JSON object of the out-parameters. RawJSON parameters travel as JSON text that
// nobody parses or rewrites: an in-parameter is the exact text of the client's value, an
// out-parameter is placed into the answer as the service wrote it.
//
// Clients register for their lifetime; the registry is process-wide and thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "_Classes.h"
#include "_Interfaces.h"
#include "_TVTLCustomRestService.h"

namespace docadmin {

enum class TAPIParamKind : std::uint8_t { pkString, pkInt64, pkBoolean, pkRawJSON };

struct TAPIParam {
    std::string Name;
    TAPIParamKind Kind = TAPIParamKind::pkString;
    bool Out = false;
};

// The values of one call, by parameter name. In-parameters are filled before the call (missing
// ones hold the kind's empty value), out-parameters by the method.
class TAPICallArgs {
  public:
    using TValue = std::variant<std::string, std::int64_t, bool>;
    const std::string& Str(const std::string& AName) const;
    std::int64_t Int(const std::string& AName) const;
    bool Bool(const std::string& AName) const;
    // RawJSON values are texts.
    const std::string& Raw(const std::string& AName) const { return Str(AName); }
    std::string& OutStr(const std::string& AName);
    std::int64_t& OutInt(const std::string& AName);
    bool& OutBool(const std::string& AName);
    std::string& OutRaw(const std::string& AName) { return OutStr(AName); }

    void Set(const std::string& AName, TValue AValue) { FValues[AName] = std::move(AValue); }
    const TValue* Get(const std::string& AName) const;

  private:
    std::map<std::string, TValue> FValues;
};

struct TAPIMethod {
    std::string Name;
    std::vector<TAPIParam> Params;
    std::function<void(TVTLCustomRestService& AService, TAPICallArgs& AArgs)> Invoke;
};

struct TAPIInterfaceType {
    std::string Name;  // the URL segment, e.g. "IDocumentStore"
    TGUID IID;
    std::vector<TAPIMethod> Methods;
    const TAPIMethod* FindMethod(const std::string& AName) const;
};

using TInterfaceTypeList = std::vector<const TAPIInterfaceType*>;
using TRestServiceClass = std::function<std::unique_ptr<TVTLCustomRestService>()>;

class TVTLBIAPIClient;

struct TVTLBIAPIItem {
    std::string Caption;
    std::string Identifier;  // GUID text in braces
    std::string APIRoot;
    int Index = 0;  // position in the client's list
};

using TGetAPIServiceEvent = std::function<void(TVTLBIAPIClient* Sender, const TVTLBIAPIItem& AItem,
                                               TRestServiceClass& AImplementorClass,
                                               TInterfaceTypeList& AImplementedInterfaces)>;

class TVTLBIAPIClient : public TComponent {
  public:
    explicit TVTLBIAPIClient(TComponent* AOwner);
    ~TVTLBIAPIClient() override;

    TVTLBIAPIItem& AddItem(const std::string& ACaption, const std::string& AIdentifier,
                           const std::string& AAPIRoot);
    const std::vector<TVTLBIAPIItem>& Items() const { return FItems; }

    TGetAPIServiceEvent OnGetAPIService;

    // The clients alive now, in order of creation.
    static std::vector<TVTLBIAPIClient*> RegisteredClients();

  private:
    std::vector<TVTLBIAPIItem> FItems;
};

// One published method as the server serves it.
struct TPublishedAPIMethod {
    TVTLBIAPIItem Item;
    const TAPIInterfaceType* Interface = nullptr;
    const TAPIMethod* Method = nullptr;
    TRestServiceClass ServiceClass;
};

// Asks every registered client for its services; the key is "/<APIRoot>/<Interface>/<Method>".
std::map<std::string, TPublishedAPIMethod> CollectPublishedAPIMethods();

// The members of a JSON object text, each with the exact text of its value. Raises
// EVTLRestServiceError 400 when the text isn't one JSON object.
std::vector<std::pair<std::string, std::string>> SplitJsonObjectMembers(const std::string& AText);

// Runs one published method: in-parameters from the body, answer of the out-parameters. Raises
// EVTLRestServiceError 400 on a body that doesn't fit the parameters.
std::string InvokePublishedAPIMethod(const TPublishedAPIMethod& AMethod, const std::string& ABody,
                                     TVTLCustomRestService& AService);

}  // namespace docadmin
