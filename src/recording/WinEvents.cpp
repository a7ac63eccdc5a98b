#include "recording/UiaAutoEventHandler.h"

#include "common/Logging.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.uia.UiaAutoEvents");

}  // namespace

// The system window events are not part of this build yet.
void UiaAutoEventHandler::HookWinEvents(std::int32_t hookMode) {
    TOLVA_LOG(logger, 3, "Not yet implemented: mode: 0x" << std::hex << hookMode);
}

void UiaAutoEventHandler::UnhookWinEvents() {
    TOLVA_LOG(logger, 7, "");
}

DWORD WINAPI UiaAutoEventHandler::WinEventThreadProc(void*) {
    HookWinEvents(winEventMode);
    MSG message;
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    UnhookWinEvents();
    return 0;
}

void CALLBACK UiaAutoEventHandler::HandleWinEvent(HWINEVENTHOOK, DWORD, HWND, LONG, LONG, DWORD, DWORD) {}

}  // namespace tolva
