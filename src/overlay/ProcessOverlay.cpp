// The process overlay of recording mode and its thread.
#include "overlay/ProcessOverlay.h"

#include "common/Logging.h"
#include "common/Owners.h"

#include <objbase.h>
#include <process.h>

#include <cerrno>
#include <cstdint>

namespace tolva {

DWORD overlayThreadId = 0;

namespace {

Logger& logger = Log::getLogger("tolva.ProcessOverlay");

const unsigned OVERLAY_STACK_SIZE = 0x10000;
// A thread that has only just started may have no message queue yet, and a
// message posted to it then is refused: the quit is tried a few times.
const int QUIT_ATTEMPTS = 20;
const DWORD QUIT_RETRY_MS = 10;

unsigned __stdcall overlayThreadProc(void* param) {
    const auto pid = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(param));
    MSG message;
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);  // makes the message queue now
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        ProcessOverlay overlay(pid);
        while (GetMessageW(&message, nullptr, 0, 0) > 0) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        // The overlay goes after the apartment, as it came after it.
        CoUninitialize();
    }
    return 0;
}

void postQuit(DWORD threadId) {
    for (int attempt = 0; attempt < QUIT_ATTEMPTS; ++attempt) {
        if (PostThreadMessageW(threadId, WM_QUIT, 0, 0)) {
            return;
        }
        Sleep(QUIT_RETRY_MS);
    }
    TOLVA_LOG(logger, 3, "The overlay thread takes no messages: " << GetLastError());
}

}  // namespace

ProcessOverlay::ProcessOverlay(DWORD pid) {
    TOLVA_LOG(logger, 7, "pid: " << pid);
    TOLVA_LOG(logger, 3, "Not yet implemented");
}

ProcessOverlay::~ProcessOverlay() {
    TOLVA_LOG(logger, 7, "");
}

bool startOverlayThread(DWORD pid) {
    const UniqueHandle thread(reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, OVERLAY_STACK_SIZE, &overlayThreadProc, reinterpret_cast<void*>(std::uintptr_t{pid}), 0, nullptr)));
    if (!thread) {
        TOLVA_LOG(logger, 1, "Overlay thread not started: " << errno);
        return false;
    }
    overlayThreadId = GetThreadId(thread.get());
    return true;
}

void stopOverlayThread() {
    if (overlayThreadId != 0) {
        postQuit(overlayThreadId);
        overlayThreadId = 0;
    }
}

}  // namespace tolva
