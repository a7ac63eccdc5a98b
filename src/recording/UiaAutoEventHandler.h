// What listens to the target for recording: one COM object that receives the
// target's UI Automation events, and around it the static operations that
// install and remove everything that listens, switched by one word of mode
// bits (see the ListenerBits below). The automation handlers and their
// posters live in UiaAutoEventHandler.cpp and AutoEventPosters.cpp, the
// system window events in WinEvents.cpp, the input hooks in InputHooks.cpp.
#pragma once

#include "uiahelper/Common.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace tolva {

enum ListenerBits : std::int32_t {
    LISTEN_INPUT = 0x001,                // the input hook thread
    LISTEN_AUTOMATION = 0x002,           // window opened on the root, nine event ids on each top-level window
    LISTEN_STRUCTURE = 0x004,            // structure changes on each top-level window
    LISTEN_PROPERTIES = 0x008,           // property changes on each top-level window
    LISTEN_ALL_WINEVENTS = 0x010,        // every system window event; nothing when 0x020 is set
    LISTEN_REQUIRED_WINEVENTS = 0x020,   // only the system window events a recording needs
    LISTEN_THIN_CREATES = 0x040,         // repeated creates of one window within 200 ticks dropped
    LISTEN_WINEVENTS_ON_THREAD = 0x080,  // system window events on a thread of their own, posted
    LISTEN_PARENT_OF_ADDED = 0x100,      // a child-added event carries its parent's handle
    LISTEN_THIN_ADDED = 0x200,           // with 0x100: repeated child-added events of a parent within 200 ticks dropped
};

// The recorder's clock: milliseconds since the driver was loaded.
std::int64_t recordingClock();
// How far apart two events of one thing must be not to count as a repeat.
constexpr std::int64_t REPEAT_TICKS = 200;

class UiaAutoEventHandler final : public IUIAutomationEventHandler,
                                  public IUIAutomationPropertyChangedEventHandler,
                                  public IUIAutomationStructureChangedEventHandler {
public:
    UiaAutoEventHandler();

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // On the platform's threads: they only post to the dispatch queue.
    HRESULT STDMETHODCALLTYPE HandleAutomationEvent(IUIAutomationElement* sender, EVENTID eventId) override;
    HRESULT STDMETHODCALLTYPE HandlePropertyChangedEvent(IUIAutomationElement* sender, PROPERTYID propertyId,
                                                         VARIANT newValue) override;
    HRESULT STDMETHODCALLTYPE HandleStructureChangedEvent(IUIAutomationElement* sender,
                                                          StructureChangeType changeType,
                                                          SAFEARRAY* runtimeId) override;

    static std::int32_t listenersMode();
    static std::int32_t setListenersMode(std::int32_t mode);  // stores it; installs nothing

    // On the dispatch thread.
    static bool InstallAutoEventHandlers(std::int32_t pid, std::int32_t mode);
    static void UninstallAutoEventHandlers();

    // System window events of the target, on the calling thread or on a
    // thread of their own.
    static void HookWinEvents(std::int32_t mode);
    static void UnhookWinEvents();
    static DWORD WINAPI WinEventThreadProc(void* modePointer);
    // Posts the quit to that thread, also while it is only starting.
    static void QuitWinEventThread(DWORD threadId);
    static void CALLBACK HandleWinEvent(HWINEVENTHOOK hook, DWORD event, HWND hwnd, LONG idObject, LONG idChild,
                                        DWORD idEventThread, DWORD eventTime);

    // The input hook thread and its low-level hooks.
    static bool InstallHooks(std::int32_t pid);
    static void UninstallHooks();
    static bool hooksInstalled();
    static DWORD WINAPI hookThreadProc(void* pidPointer);
    static bool InstallWindowsHooks(std::int32_t pid);
    static void UninstallWindowsHooks();
    static LRESULT CALLBACK MouseProc(int nCode, WPARAM wParam, LPARAM lParam);
    static LRESULT CALLBACK KeyboardProc(int nCode, WPARAM wParam, LPARAM lParam);

    // What the parts share. Written on the dispatch thread, read in passing
    // by the handlers and hooks on theirs.
    static inline std::atomic<std::int32_t> targetPid{0};
    // The target had top-level windows at the last installation.
    static inline std::atomic<bool> hasToplevels{true};
    // System window events are hooked on a thread of their own, which reads
    // its mode from winEventMode.
    static inline std::atomic<bool> winEventsOnThread{false};
    static inline std::atomic<std::int32_t> winEventMode{0};
    static inline std::atomic<DWORD> winEventThreadId{0};
    // Set by the automation back end: recording mode is on (the input hooks
    // then also report elements of the target's child processes, when the
    // preference allows), and top-level windows are found through window
    // handles.
    static inline std::atomic<bool> recording{false};
    static inline std::atomic<bool> viaHwnd{false};

    // The automation handlers' part: the handler object that stands
    // registered now (dispatch thread only), and the runtime id of the window
    // last reported as opened, which the platform's threads compare and set.
    static inline UiaAutoEventHandler* eventHandler = nullptr;
    // Stores the id as lastWindowRid; false if it was the one stored already.
    static bool exchangeLastWindowRid(const std::wstring& rid);

private:
    ~UiaAutoEventHandler();

    std::atomic<ULONG> refs_{1};
};

}  // namespace tolva
