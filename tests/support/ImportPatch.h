// Swaps a function that a loaded module imports (by name, from any DLL) for
// another one, for as long as the patch lives: the way a test makes a call of
// the C runtime fail inside the real driver DLL.
#pragma once

#include <windows.h>

#include <cstring>

namespace dwtest {

class ImportPatch {
public:
    ImportPatch(HMODULE module, const char* function, void* replacement) {
        auto* base = reinterpret_cast<BYTE*>(module);
        auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
        const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
        for (; imports.VirtualAddress && library->Name; ++library) {
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
            auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
            for (; library->OriginalFirstThunk && names->u1.AddressOfData; ++names, ++slots) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
                auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                if (std::strcmp(reinterpret_cast<const char*>(byName->Name), function) == 0) {
                    slot_ = reinterpret_cast<void**>(&slots->u1.Function);
                    original_ = write(replacement);
                    return;
                }
            }
        }
    }
    ~ImportPatch() {
        if (slot_) write(original_);
    }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    bool applied() const { return slot_ != nullptr; }
    void* original() const { return original_; }

private:
    void* write(void* value) {
        DWORD protection = 0;
        VirtualProtect(slot_, sizeof(void*), PAGE_READWRITE, &protection);
        void* old = *slot_;
        *slot_ = value;
        VirtualProtect(slot_, sizeof(void*), protection, &protection);
        return old;
    }

    void** slot_ = nullptr;
    void* original_ = nullptr;
};

}  // namespace dwtest
