// Event records: one thing that happened in the target, on its way up to the
// Java host. EventFilter::callJava tells the kinds apart by their run-time type.
//
// On a queue a record is the marker, then typed values. write sends the
// time stamp after the code; read, for what the client sends, takes none:
// a client's record is marker, type, handle, code and the fields of its
// kind, and arrives with time stamp 0. So a record's own write doesn't read
// back through readEvent.
#pragma once

#include "tolvacore/ipc/ShmQueue.h"

#include <cstdint>
#include <memory>
#include <string>

namespace tolva {

enum EventType : std::int32_t {
    EVENT_CONNECTED = 100,
    EVENT_TERMINATED = 101,
    EVENT_CALLBACK = 120,
    EVENT_KEY = 201,
    EVENT_MOUSE = 202,
    EVENT_CHANGE = 203,
    EVENT_UIAUTOMATION = 204,
    EVENT_MSAA = 205,
};

// The raw value before each record on a queue.
const unsigned EVENT_MARKER = 0x1E000000;

// Milliseconds since 1970-01-01 00:00 UTC.
std::int64_t currentTimeMillis();

using tolvacore::ipc::ShmQueue;

class WinClientEvent : public tolvacore::ipc::ShmStreamable {
public:
    WinClientEvent() = default;
    WinClientEvent(std::int32_t type, std::int64_t handle, std::int32_t code)
        : type(type), handle(handle), code(code) {}
    ~WinClientEvent() override = default;

    // The record that the queue holds next, of the kind its type code names
    // (a plain record for a code of no kind), with that type code; null only
    // when it can't be allocated. Throws ShmException for a wrong marker or
    // a value that isn't there or is of another type.
    static std::unique_ptr<WinClientEvent> readEvent(ShmQueue& queue);

    // The marker and the fields, time stamp included.
    virtual void write(ShmQueue& queue) const;
    // handle and code, and the fields of the kind; the time stamp stays 0.
    virtual void read(ShmQueue& queue);

    std::int32_t type = 0;
    std::int64_t handle = 0;   // the element concerned, sign-extended; 0 for none
    std::int32_t code = 0;     // what happened; meaning by kind
    std::int64_t timestamp = 0;  // 0: none
};

class KeyEvent : public WinClientEvent {
public:
    KeyEvent() : WinClientEvent(EVENT_KEY, 0, 0) {}
    KeyEvent(std::int64_t handle, std::int32_t code, std::int32_t vk, std::int32_t character, bool shift,
             bool ctrl, bool alt, std::int64_t timestamp);
    void write(ShmQueue& queue) const override;
    void read(ShmQueue& queue) override;

    std::int32_t vk = 0;
    std::int32_t character = 0;
    bool shift = false;
    bool ctrl = false;
    bool alt = false;
};

class MouseEvent : public WinClientEvent {
public:
    MouseEvent() : WinClientEvent(EVENT_MOUSE, 0, 0) {}
    MouseEvent(std::int64_t handle, std::int32_t code, std::int32_t x, std::int32_t y, std::int32_t screenX,
               std::int32_t screenY, std::int32_t button, std::int32_t modifiers, std::int64_t timestamp);
    void write(ShmQueue& queue) const override;
    void read(ShmQueue& queue) override;

    std::int32_t x = 0;
    std::int32_t y = 0;
    std::int32_t screenX = 0;
    std::int32_t screenY = 0;
    std::int32_t button = 0;     // 0 left or none, 1 right, 2 middle
    std::int32_t modifiers = 0;  // Java input-event bits
};

class ChangeEvent : public WinClientEvent {
public:
    ChangeEvent() : WinClientEvent(EVENT_CHANGE, 0, 0) {}
};

class UIAutomationEvent : public WinClientEvent {
public:
    UIAutomationEvent() : WinClientEvent(EVENT_UIAUTOMATION, 0, 0) {}
    UIAutomationEvent(std::int64_t handle, std::int32_t code, std::int32_t param, const std::wstring& text,
                      std::int64_t timestamp);
    void write(ShmQueue& queue) const override;
    void read(ShmQueue& queue) override;

    std::int32_t param = 0;
    std::wstring text;
};

class MSAAEvent : public WinClientEvent {
public:
    MSAAEvent() : WinClientEvent(EVENT_MSAA, 0, 0) {}
    MSAAEvent(std::int32_t code, std::int32_t hwnd, std::int32_t arg);
    MSAAEvent(std::int32_t code, std::int32_t hwnd, std::int32_t arg, std::int64_t timestamp);
    void write(ShmQueue& queue) const override;
    void read(ShmQueue& queue) override;

    std::int32_t hwnd = 0;
    std::int32_t arg = 0;
};

}  // namespace tolva
