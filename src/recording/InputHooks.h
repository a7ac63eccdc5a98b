// The posters of the input hooks: what the hook procedures hand to the
// dispatch thread, which resolves the event to its element there and sends
// it up to Java.
#pragma once

#include "common/ComPtr.h"
#include "dispatch/Runnable.h"
#include "uiahelper/Common.h"

#include <cstdint>

namespace tolva {

// A mouse event at a screen point; resolved to the element under the point
// only when its turn comes. Nothing reaches Java for a point outside the
// target or an element that can't become a control.
class MouseEventPoster : public Runnable {
public:
    // Stamps the time of its making, that is of the hook's call.
    MouseEventPoster(std::int32_t pid, std::int32_t code, std::int32_t x, std::int32_t y, std::int32_t button,
                     std::int32_t modifiers);
    std::int32_t operator()() override;

    // The element under the point with a reference for the caller, or null:
    // also for an element of another process than pid (unless recording lets
    // an element whose ancestor is of pid count as the target's).
    static IUIAutomationElement* elementFromPoint(std::int32_t x, std::int32_t y, std::int32_t pid);

private:
    std::int32_t pid_, code_, x_, y_, modifiers_, button_;
    std::int64_t timestamp_;
};

// A key event on the element that had the focus at the moment of the key.
class KeyEventPoster : public Runnable {
public:
    // Takes its own reference on the element; stamps the time of its making.
    KeyEventPoster(IUIAutomationElement* element, std::int32_t code, std::int32_t vk, std::int32_t character,
                   bool shift, bool ctrl, bool alt);
    std::int32_t operator()() override;

private:
    ComPtr<IUIAutomationElement> element_;  // given up by the run, or with the poster if it never runs
    std::int32_t code_, vk_, character_;
    bool shift_, ctrl_, alt_;
    std::int64_t timestamp_;
};

}  // namespace tolva
