#include "Deskwright.h"

namespace dwtest {

Deskwright::Deskwright() {
    // The DLL stands beside the test executable.
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dll(path);
    dll = dll.substr(0, dll.find_last_of(L"\\/") + 1) + L"deskwright.dll";
    module_ = LoadLibraryW(dll.c_str());
    if (!module_) throw std::runtime_error("LoadLibrary(deskwright.dll) failed: " + std::to_string(GetLastError()));
}

Deskwright::~Deskwright() {
    // The driver's threads may outlive a test; the library stays loaded until
    // the process ends, as it does in a Java VM.
}

FARPROC Deskwright::exportNamed(const std::string& name) const {
    FARPROC address = GetProcAddress(module_, name.c_str());
    if (!address) throw std::runtime_error("deskwright.dll has no export " + name);
    return address;
}

jint Deskwright::onLoad(JavaVM* vm) const {
    using OnLoad = jint(JNICALL*)(JavaVM*, void*);
    const char* name = sizeof(void*) == 8 ? "JNI_OnLoad" : "_JNI_OnLoad@8";
    return exportAs<OnLoad>(name)(vm, nullptr);
}

}  // namespace dwtest
