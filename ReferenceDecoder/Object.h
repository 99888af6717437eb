// What all interface objects of the library share: reference counting with a strict account, and the crossing
// of each call.
#pragma once

#include <atomic>
#include <utility>

#include <BlackmagicRawAPI.h>

#include "Crossing.h"

namespace reference {

/// Interfaces that can be asked for by identifier.
template <class Interface>
inline constexpr bool hasIdentifier = false;
template <>
inline constexpr bool hasIdentifier<IBlackmagicRawManualDecoderFlow1> = true;
template <>
inline constexpr bool hasIdentifier<IBlackmagicRawManualDecoderFlow2> = true;
template <>
inline constexpr bool hasIdentifier<IBlackmagicRawConfiguration> = true;
template <>
inline constexpr bool hasIdentifier<IBlackmagicRawConfigurationEx> = true;
template <>
inline constexpr bool hasIdentifier<IBlackmagicRawClipEx> = true;
template <>
inline constexpr bool hasIdentifier<IBlackmagicRawClipResolutions> = true;

/// Counts references. An object whose last reference went gives back all it holds but stays readable for a
/// while, so that a use too many is counted instead of touching freed memory.
class Counted {
public:
    Counted();
    virtual ~Counted();
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    ULONG addReference();
    ULONG removeReference();
    /// Until all is given back: a codec that waits for its last jobs still serves their callbacks.
    bool isAlive() const { return m_life != Life::gone; }

protected:
    /// Gives back what the object holds; called once, when its last reference goes.
    virtual void finish() noexcept {}

private:
    enum class Life { held, finishing, gone };
    std::atomic<long> m_references{1};
    std::atomic<Life> m_life{Life::held};
};

/// crossInto for a call on an object: refused when the object is gone.
template <CallName name, class Work, class... Output>
HRESULT crossIntoObject(const Counted& object, Work&& work, Output*... outputs) noexcept {
    return crossInto<name>(
        [&]() -> HRESULT {
            if (!object.isAlive()) {
                ++account().usesAfterRelease;
                return E_UNEXPECTED;
            }
            return work();
        },
        outputs...);
}

/// An object behind one or more interfaces; `name` is the one that its QueryInterface is recorded under.
template <CallName name, class First, class... More>
class Object : public Counted, public First, public More... {
public:
    ULONG STDMETHODCALLTYPE AddRef() final { return addReference(); }
    ULONG STDMETHODCALLTYPE Release() final { return removeReference(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID identifier, void** result) final {
        return cross<name + CallName("::QueryInterface")>(
            [&] {
                if (identifier == IID_IUnknown)
                    *result = static_cast<First*>(this);
                else if (IUnknown* other = facet(identifier))
                    *result = other;
                else
                    (findInterface<First>(identifier, result) || ... ||
                     findInterface<More>(identifier, result));
                if (!*result)
                    return E_NOINTERFACE;
                addReference();
                return S_OK;
            },
            result);
    }

protected:
    template <CallName call, class Work, class... Output>
    HRESULT cross(Work&& work, Output*... outputs) const noexcept {
        return crossIntoObject<call>(*this, std::forward<Work>(work), outputs...);
    }

    /// An interface of this object that lies in a part of it, or null.
    virtual IUnknown* facet(REFIID) { return nullptr; }

private:
    template <class Interface>
    bool findInterface(REFIID identifier, void** result) {
        if constexpr (hasIdentifier<Interface>)
            if (identifier == __uuidof(Interface))
                *result = static_cast<Interface*>(this);
        return *result != nullptr;
    }
};

/// A part of an object that carries one of its interfaces, for interfaces whose operations have the same
/// names.
template <class Interface>
class Facet : public Interface {
public:
    Facet(Counted& object, IUnknown& identity) : m_object(object), m_identity(identity) {}
    ULONG STDMETHODCALLTYPE AddRef() final { return m_object.addReference(); }
    ULONG STDMETHODCALLTYPE Release() final { return m_object.removeReference(); }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID identifier, void** result) final {
        return m_identity.QueryInterface(identifier, result);
    }

protected:
    template <CallName call, class Work, class... Output>
    HRESULT cross(Work&& work, Output*... outputs) const noexcept {
        return crossIntoObject<call>(m_object, std::forward<Work>(work), outputs...);
    }

private:
    Counted& m_object;
    IUnknown& m_identity;
};

/// The object of ours behind an interface that a caller hands in; null unless it is alive.
template <class Ours, class Interface>
Ours* ours(Interface* given) {
    auto* object = static_cast<Ours*>(given);
    return object && object->isAlive() ? object : nullptr;
}

/// Hands out a new object with its one reference.
template <class Interface, class Ours>
HRESULT handOut(Interface** place, Ours* object) {
    *place = object;
    return S_OK;
}
inline HRESULT handOut(BSTR* place, const wchar_t* text) {
    *place = SysAllocString(text);
    return *place ? S_OK : E_OUTOFMEMORY;
}

} // namespace reference
