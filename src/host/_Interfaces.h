// COM-style interfaces: GUIDs, reference counting, QueryInterface and a holder.
//
// Every interface derives from IInterface and names its identifier with DOCADMIN_IID. A class
// that implements several interfaces implements QueryInterface, _AddRef and _Release once; the
// single overrider serves all its interface bases. IPtr<T> holds one reference and releases it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

#include "_SysUtils.h"

namespace docadmin {

struct TGUID {
    std::uint32_t D1 = 0;
    std::uint16_t D2 = 0;
    std::uint16_t D3 = 0;
    std::uint8_t D4[8] = {};

    friend constexpr bool operator==(const TGUID& a, const TGUID& b) {
        if (a.D1 != b.D1 || a.D2 != b.D2 || a.D3 != b.D3) return false;
        for (int i = 0; i < 8; ++i)
            if (a.D4[i] != b.D4[i]) return false;
        return true;
    }

    // Parses "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" at compile time; a malformed literal fails
    // the build.
    static constexpr TGUID Parse(const char* s) {
        auto hex = [](char c) -> std::uint32_t {
            if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0');
            if (c >= 'A' && c <= 'F') return static_cast<std::uint32_t>(c - 'A' + 10);
            if (c >= 'a' && c <= 'f') return static_cast<std::uint32_t>(c - 'a' + 10);
            throw "invalid GUID literal";
        };
        auto read = [&](int pos, int digits) {
            std::uint32_t v = 0;
            for (int i = 0; i < digits; ++i)
                v = (v << 4) | hex(s[pos + i]);
            return v;
        };
        if (s[0] != '{' || s[9] != '-' || s[14] != '-' || s[19] != '-' || s[24] != '-' ||
            s[37] != '}' || s[38] != 0)
            throw "invalid GUID literal";
        TGUID g;
        g.D1 = read(1, 8);
        g.D2 = static_cast<std::uint16_t>(read(10, 4));
        g.D3 = static_cast<std::uint16_t>(read(15, 4));
        g.D4[0] = static_cast<std::uint8_t>(read(20, 2));
        g.D4[1] = static_cast<std::uint8_t>(read(22, 2));
        for (int i = 0; i < 6; ++i)
            g.D4[2 + i] = static_cast<std::uint8_t>(read(25 + 2 * i, 2));
        return g;
    }
};

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case.
std::string GUIDToString(const TGUID& g);
// Parses the braced form; raises EConvertError on anything else.
TGUID StringToGUID(const std::string& text);
// A new random (version 4) GUID from the operating system's generator.
TGUID CreateGUID();
// The braced text of a new GUID.
std::string CreateGUIDString();

using HRESULT = std::int32_t;
inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);

#define DOCADMIN_IID(text) static constexpr ::docadmin::TGUID IID = ::docadmin::TGUID::Parse(text)

class IInterface {
  public:
    DOCADMIN_IID("{00000000-0000-0000-C000-000000000046}");
    virtual HRESULT QueryInterface(const TGUID& iid, void** obj) = 0;
    virtual std::int32_t _AddRef() = 0;
    virtual std::int32_t _Release() = 0;

  protected:
    ~IInterface() = default;
};

// Holds one reference to an interface.
template <class T>
class IPtr {
  public:
    IPtr() = default;
    IPtr(std::nullptr_t) {}
    // Takes a new reference.
    IPtr(T* p) : p_(p) {
        if (p_) p_->_AddRef();
    }
    IPtr(const IPtr& o) : IPtr(o.p_) {}
    IPtr(IPtr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> IPtr(const IPtr<U>& o)
        : IPtr(static_cast<T*>(o.get())) {}
    ~IPtr() { reset(); }

    IPtr& operator=(IPtr o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }
    void reset() {
        if (T* p = std::exchange(p_, nullptr)) p->_Release();
    }
    // Adopts a reference that the caller already owns (as QueryInterface hands out).
    static IPtr Adopt(T* p) {
        IPtr r;
        r.p_ = p;
        return r;
    }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    friend bool operator==(const IPtr& a, const IPtr& b) { return a.p_ == b.p_; }
    friend bool operator==(const IPtr& a, std::nullptr_t) { return a.p_ == nullptr; }

  private:
    T* p_ = nullptr;
};

// True when the object supports the interface; the result then holds a new reference.
template <class T>
bool Supports(IInterface* instance, IPtr<T>& result) {
    result.reset();
    if (!instance) return false;
    void* p = nullptr;
    if (instance->QueryInterface(T::IID, &p) != S_OK || !p) return false;
    result = IPtr<T>::Adopt(static_cast<T*>(p));
    return true;
}

template <class T>
bool Supports(IInterface* instance) {
    IPtr<T> unused;
    return Supports(instance, unused);
}

// The root of the class tree. Objects are destroyed through it.
class TObject {
  public:
    TObject() = default;
    TObject(const TObject&) = delete;
    TObject& operator=(const TObject&) = delete;
    virtual ~TObject() = default;
};

// An object whose lifetime follows its interface references. The count starts at 0: the first
// IPtr that takes it owns it, and the last release deletes it.
class TInterfacedObject : public TObject, public IInterface {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (iid == IInterface::IID) {
            *obj = static_cast<IInterface*>(this);
            _AddRef();
            return S_OK;
        }
        *obj = nullptr;
        return E_NOINTERFACE;
    }
    std::int32_t _AddRef() override { return ++FRefCount; }
    std::int32_t _Release() override {
        const std::int32_t r = --FRefCount;
        if (r == 0) delete this;
        return r;
    }
    std::int32_t RefCount() const { return FRefCount.load(); }

  protected:
    // Answers iid for this object when it is one of Is; for use in QueryInterface overrides.
    // The interfaces are siblings of this base, so the pointer is found by a cross-cast.
    template <class... Is>
    bool QueryOwn(const TGUID& iid, void** obj) {
        return ((iid == Is::IID ? (*obj = dynamic_cast<Is*>(this), _AddRef(), true) : false) ||
                ...);
    }

    std::atomic<std::int32_t> FRefCount{0};
};

// A TInterfacedObject that implements the interfaces Is: QueryInterface answers each of their
// identifiers (then IInterface's) and one reference count serves them all.
template <class... Is>
class TInterfacedImpl : public TInterfacedObject, public Is... {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        const bool found =
            ((iid == Is::IID ? (*obj = static_cast<Is*>(this), _AddRef(), true) : false) || ...);
        return found ? S_OK : TInterfacedObject::QueryInterface(iid, obj);
    }
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    std::int32_t _Release() override { return TInterfacedObject::_Release(); }
};

}  // namespace docadmin
