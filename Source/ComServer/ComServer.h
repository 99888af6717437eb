// An in-process COM server's entry points, without the classes that it serves.
#pragma once

#include <span>

#include <unknwn.h>

#include "ClassFactory.h"

/// A class that the server offers.
struct ClassRow {
    const CLSID* classId;
    CreateFunction create;
};

/// What DllMain does at process attach.
void attachServer(HMODULE module) noexcept;

/// DllGetClassObject of a server with these classes.
HRESULT getClassObject(std::span<const ClassRow> classes, REFCLSID rclsid, REFIID riid, void** ppv) noexcept;

/// DllCanUnloadNow: S_OK when nothing that needs the module is alive.
HRESULT canUnloadServer() noexcept;
