#include "events/WinClientEvent.h"

#include <windows.h>

#include <new>

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

// --- the records on a queue ----------------------------------------------------

namespace {

// A new record of the kind that the type code names; a plain one for any other code.
WinClientEvent* newRecord(std::int32_t type) {
    switch (type) {
    case EVENT_MOUSE: return new (std::nothrow) MouseEvent();
    case EVENT_KEY: return new (std::nothrow) KeyEvent();
    case EVENT_UIAUTOMATION: return new (std::nothrow) UIAutomationEvent();
    case EVENT_MSAA: return new (std::nothrow) MSAAEvent();
    case EVENT_CHANGE: return new (std::nothrow) ChangeEvent();
    default: return new (std::nothrow) WinClientEvent();
    }
}

}  // namespace

std::unique_ptr<WinClientEvent> WinClientEvent::readEvent(ShmQueue& queue) {
    int marker = 0;
    queue.pop(marker);
    queue.validateType(marker, EVENT_MARKER);
    std::int32_t type = 0;
    queue >> type;
    std::unique_ptr<WinClientEvent> event(newRecord(type));
    if (event) {
        event->read(queue);
        event->type = type;
    }
    return event;
}

void WinClientEvent::write(ShmQueue& queue) const {
    queue.push(static_cast<int>(EVENT_MARKER));
    queue << type << handle << code << timestamp;
}

void WinClientEvent::read(ShmQueue& queue) {
    queue >> handle >> code;
}

void KeyEvent::write(ShmQueue& queue) const {
    WinClientEvent::write(queue);
    queue << vk << character << shift << ctrl << alt;
}

void KeyEvent::read(ShmQueue& queue) {
    WinClientEvent::read(queue);
    queue >> vk >> character >> shift >> ctrl >> alt;
}

void MouseEvent::write(ShmQueue& queue) const {
    WinClientEvent::write(queue);
    queue << x << y << screenX << screenY << button << modifiers;
}

void MouseEvent::read(ShmQueue& queue) {
    WinClientEvent::read(queue);
    queue >> x >> y >> screenX >> screenY >> button >> modifiers;
}

void UIAutomationEvent::write(ShmQueue& queue) const {
    WinClientEvent::write(queue);
    queue << param << text;
}

void UIAutomationEvent::read(ShmQueue& queue) {
    WinClientEvent::read(queue);
    queue >> param >> text;
}

void MSAAEvent::write(ShmQueue& queue) const {
    WinClientEvent::write(queue);
    queue << hwnd << arg;
}

void MSAAEvent::read(ShmQueue& queue) {
    WinClientEvent::read(queue);
    queue >> hwnd >> arg;
}

}  // namespace tolva
