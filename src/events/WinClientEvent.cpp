#include "events/WinClientEvent.h"

#include <windows.h>

namespace tolva {

namespace {

std::int64_t fileTimeValue(const FILETIME& time) {
    return (static_cast<std::int64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

std::int64_t epochFileTime() {
    SYSTEMTIME epoch = {};
    epoch.wYear = 1970;
    epoch.wMonth = 1;
    epoch.wDay = 1;
    FILETIME time;
    SystemTimeToFileTime(&epoch, &time);
    return fileTimeValue(time);
}

}  // namespace

std::int64_t currentTimeMillis() {
    static const std::int64_t epoch = epochFileTime();
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return (fileTimeValue(now) - epoch) / 10000;
}

KeyEvent::KeyEvent(std::int64_t handle, std::int32_t code, std::int32_t vk, std::int32_t character, bool shift,
                   bool ctrl, bool alt, std::int64_t timestamp)
    : WinClientEvent(EVENT_KEY, handle, code), vk(vk), character(character), shift(shift), ctrl(ctrl), alt(alt) {
    this->timestamp = timestamp;
}

MouseEvent::MouseEvent(std::int64_t handle, std::int32_t code, std::int32_t x, std::int32_t y,
                       std::int32_t screenX, std::int32_t screenY, std::int32_t button, std::int32_t modifiers,
                       std::int64_t timestamp)
    : WinClientEvent(EVENT_MOUSE, handle, code),
      x(x), y(y), screenX(screenX), screenY(screenY), button(button), modifiers(modifiers) {
    this->timestamp = timestamp;
}

UIAutomationEvent::UIAutomationEvent(std::int64_t handle, std::int32_t code, std::int32_t param,
                                     const std::wstring& text, std::int64_t timestamp)
    : WinClientEvent(EVENT_UIAUTOMATION, handle, code), param(param), text(text) {
    this->timestamp = timestamp;
}

MSAAEvent::MSAAEvent(std::int32_t code, std::int32_t hwnd, std::int32_t arg)
    : WinClientEvent(EVENT_MSAA, 0, code), hwnd(hwnd), arg(arg) {}

MSAAEvent::MSAAEvent(std::int32_t code, std::int32_t hwnd, std::int32_t arg, std::int64_t timestamp)
    : MSAAEvent(code, hwnd, arg) {
    this->timestamp = timestamp;
}

}  // namespace tolva
