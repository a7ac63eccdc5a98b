#include "PlatformCalls.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <stdexcept>

namespace dwtest {

namespace {

std::atomic<PlatformCalls*> active{nullptr};
std::atomic<DWORD> recordingThread{0};

// The screen's device context as the simulated GetDC hands it out.
HDC const SCREEN_DC = reinterpret_cast<HDC>(static_cast<std::uintptr_t>(0x5c5c));

std::string hex(unsigned long value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%lx", value);
    return text;
}

std::string handleText(const void* handle) {
    return handle ? hex(static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(handle))) : "0";
}

std::string dcName(HDC dc) {
    return dc == SCREEN_DC ? "screen" : handleText(dc);
}

// The recorder, if this call is one to record.
PlatformCalls* recorder() {
    PlatformCalls* calls = active.load();
    return calls && calls->recordsThisThread() ? calls : nullptr;
}

// The real function, for the calls that aren't recorded. It is resolved by
// name, as the loader did for the driver, so that a call of another thread
// never waits for the patch to hand back its slot.
template <class Fn>
Fn real(const wchar_t* library, const char* function) {
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(library), function)));
}

VOID WINAPI MouseEvent(DWORD flags, DWORD dx, DWORD dy, DWORD data, ULONG_PTR extra) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&MouseEvent)>(L"user32", "mouse_event")(flags, dx, dy, data, extra);
    }
    std::string text = "mouse_event(" + hex(flags) + "," + std::to_string(static_cast<LONG>(dx)) + "," +
                       std::to_string(static_cast<LONG>(dy));
    if (data || extra) {
        text += "," + std::to_string(data) + "," + std::to_string(extra);
    }
    calls->record(text + ")");
}

VOID WINAPI KeybdEvent(BYTE key, BYTE scan, DWORD flags, ULONG_PTR extra) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&KeybdEvent)>(L"user32", "keybd_event")(key, scan, flags, extra);
    }
    std::string text = "keybd_event(" + hex(key) + "," + hex(scan) + "," + std::to_string(flags);
    if (extra) {
        text += "," + std::to_string(extra);
    }
    calls->record(text + ")");
}

VOID WINAPI SleepFor(DWORD milliseconds) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&SleepFor)>(L"kernel32", "Sleep")(milliseconds);
    }
    calls->record("Sleep(" + std::to_string(milliseconds) + ")");
}

BOOL WINAPI CursorPos(LPPOINT point) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&CursorPos)>(L"user32", "GetCursorPos")(point);
    }
    calls->record("GetCursorPos");
    *point = calls->cursor;
    return TRUE;
}

int WINAPI SystemMetrics(int index) {
    PlatformCalls* calls = recorder();
    const int answer = real<decltype(&SystemMetrics)>(L"user32", "GetSystemMetrics")(index);
    if (!calls) {
        return answer;
    }
    calls->record("GetSystemMetrics(" + std::to_string(index) + ")");
    return index == SM_CXSCREEN ? calls->screenWidth : index == SM_CYSCREEN ? calls->screenHeight : answer;
}

UINT WINAPI MapVirtualKey(UINT code, UINT type) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&MapVirtualKey)>(L"user32", "MapVirtualKeyW")(code, type);
    }
    calls->record("MapVirtualKeyW(" + hex(code) + "," + std::to_string(type) + ")");
    const auto found = calls->scanCodes.find(code);
    return type == MAPVK_VK_TO_VSC && found != calls->scanCodes.end() ? found->second : 0;
}

SHORT WINAPI VkKeyScan(WCHAR c) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&VkKeyScan)>(L"user32", "VkKeyScanW")(c);
    }
    calls->record("VkKeyScanW(" + hex(c) + ")");
    const auto found = calls->layout.find(c);
    return found != calls->layout.end() ? found->second : SHORT{-1};
}

HDC WINAPI DeviceContext(HWND window) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&DeviceContext)>(L"user32", "GetDC")(window);
    }
    calls->record("GetDC(" + handleText(window) + ")");
    return SCREEN_DC;
}

int WINAPI ReleaseContext(HWND window, HDC dc) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&ReleaseContext)>(L"user32", "ReleaseDC")(window, dc);
    }
    calls->record("ReleaseDC(" + handleText(window) + "," + dcName(dc) + ")");
    return 1;
}

int WINAPI DeviceCaps(HDC dc, int index) {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&DeviceCaps)>(L"gdi32", "GetDeviceCaps")(dc, index);
    }
    calls->record("GetDeviceCaps(" + dcName(dc) + "," + std::to_string(index) + ")");
    return index == VERTRES ? calls->vertRes
           : index == DESKTOPVERTRES ? calls->desktopVertRes
           : index == LOGPIXELSY ? calls->logPixelsY
                                 : 0;
}

BOOL WINAPI DpiAware() {
    PlatformCalls* calls = recorder();
    if (!calls) {
        return real<decltype(&DpiAware)>(L"user32", "IsProcessDPIAware")();
    }
    calls->record("IsProcessDPIAware");
    return calls->dpiAware;
}

struct StandIn {
    const char* function;
    void* replacement;
};

const StandIn STAND_INS[] = {
    {"mouse_event", reinterpret_cast<void*>(&MouseEvent)},
    {"keybd_event", reinterpret_cast<void*>(&KeybdEvent)},
    {"Sleep", reinterpret_cast<void*>(&SleepFor)},
    {"GetCursorPos", reinterpret_cast<void*>(&CursorPos)},
    {"GetSystemMetrics", reinterpret_cast<void*>(&SystemMetrics)},
    {"MapVirtualKeyW", reinterpret_cast<void*>(&MapVirtualKey)},
    {"VkKeyScanW", reinterpret_cast<void*>(&VkKeyScan)},
    {"GetDC", reinterpret_cast<void*>(&DeviceContext)},
    {"ReleaseDC", reinterpret_cast<void*>(&ReleaseContext)},
    {"GetDeviceCaps", reinterpret_cast<void*>(&DeviceCaps)},
    {"IsProcessDPIAware", reinterpret_cast<void*>(&DpiAware)},
};

}  // namespace

PlatformCalls::PlatformCalls(HMODULE driver) {
    PlatformCalls* none = nullptr;
    if (!active.compare_exchange_strong(none, this)) {
        throw std::logic_error("a second PlatformCalls");
    }
    for (const StandIn& standIn : STAND_INS) {
        patches_.push_back(std::make_unique<ImportPatch>(driver, standIn.function, standIn.replacement));
        names_.push_back(standIn.function);
    }
}

PlatformCalls::~PlatformCalls() {
    recordingThread = 0;
    patches_.clear();
    active = nullptr;
}

std::vector<std::string> PlatformCalls::missing() const {
    std::vector<std::string> names;
    for (size_t i = 0; i < patches_.size(); ++i) {
        if (!patches_[i]->applied()) {
            names.push_back(names_[i]);
        }
    }
    return names;
}

void PlatformCalls::start() {
    calls_.clear();
    recordingThread = GetCurrentThreadId();
}

std::string PlatformCalls::take(std::initializer_list<const char*> omit) {
    recordingThread = 0;
    std::string text;
    for (const std::string& call : calls_) {
        const std::string name = call.substr(0, call.find('('));
        if (std::none_of(omit.begin(), omit.end(), [&](const char* left) { return name == left; })) {
            text += (text.empty() ? "" : "; ") + call;
        }
    }
    calls_.clear();
    return text;
}

bool PlatformCalls::recordsThisThread() const {
    const DWORD thread = recordingThread.load();
    return thread != 0 && thread == GetCurrentThreadId();
}

}  // namespace dwtest
