// The actions that the natives ask of the automation back end: each passes
// the control's element on to the element helpers, with a log line. The
// natives have checked the handle just before and hold the control's use
// while the action runs. Most run on the calling Java thread; highlighting and
// check mode go to the dispatch thread, and recording mode starts the
// overlay's thread.
#include "engine/Uia.h"

#include "common/Logging.h"
#include "element/UiaControl.h"
#include "dispatch/Runnable.h"
#include "dispatch/UiaEventQueue.h"
#include "overlay/Highlighter.h"
#include "overlay/ProcessOverlay.h"
#include "overlay/UiaChecker.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/Input.h"
#include "uiahelper/UiaHelper.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.Uia");

// Invokes a control; made on the stack and called directly.
class UiaInvoker : public Runnable {
public:
    explicit UiaInvoker(UiaControl& control) : control_(control) {}
    std::int32_t operator()() override { return UiaHelper::DoInvoke(control_.getElement().get()) ? 1 : 0; }

private:
    UiaControl& control_;
};

// Makes a mouse event on a control; made on the stack and called directly.
class UiaMouseEventer : public Runnable {
public:
    UiaMouseEventer(UiaControl& control, int id, int button, int x, int y, int modifiers, int count, bool toFront)
        : control_(control), id_(id), button_(button), x_(x), y_(y), modifiers_(modifiers), count_(count),
          toFront_(toFront) {}
    std::int32_t operator()() override {
        UiaHelper::DoMouseEvent(control_.getElement().get(), id_, button_, x_, y_, modifiers_, count_, toFront_);
        return 0;
    }

private:
    UiaControl& control_;
    int id_;
    int button_;
    int x_;
    int y_;
    int modifiers_;
    int count_;
    bool toFront_;
};

// Whether a mouse event brings the control's window to the front first. An
// item of an open menu must not: raising the window would close the menu.
// Items of a menu bar, and of a WPF menu, which lives in the window itself,
// may. The parent becomes a control of the table on the way.
bool bringsToFront(Uia& uia, UiaControl& control) {
    if (control.type != L"MenuItem") {
        return true;
    }
    const Handle parent = uia.getParent(control);
    if (parent == 0) {
        return true;
    }
    // Made by another call than this native's check: held here, as another
    // thread may remove it at once.
    ControlRef menu = UiaControl::acquire(parent);
    if (!menu) {
        return true;
    }
    if (menu->type == L"MenuBar") {
        return true;
    }
    return UiaHelper::GetControlClassName(menu->getElement().get()) == L"Menu" &&
           UiaHelper::GetControlFrameworkId(menu->getElement().get()) == L"WPF";
}

// Java's toggle mode (1 on, 0 off, anything else toggle) as SetToggleState's.
int toggleModeOf(int javaMode) {
    switch (javaMode) {
    case 1:
        return UiaHelper::TOGGLE_ON;
    case 0:
        return UiaHelper::TOGGLE_OFF;
    default:
        return UiaHelper::TOGGLE_ANY;
    }
}

}  // namespace

// --- the dispatch thread and recording mode --------------------------------------------

std::int32_t Uia::highlight(UiaControl& control, int duration, int color) {
    TOLVA_LOG(logger, 7, "c: " << std::hex << control.handle() << std::dec << ", d: " << duration
                                << ", col: " << color);
    const auto queue = UiaEventQueue::getInstance();
    return queue ? queue->invokeNow(new HighlightRunner(control.handle(), duration, color)) : 0;
}

void Uia::enableCheckMode(bool enable, std::int32_t mode) {
    TOLVA_LOG(logger, 7, "enable: " << enable << ", mode: " << mode);
    // Without a dispatch thread (detached, or never attached) there is no
    // check mode to start or to end.
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->invokeLater(new CheckerRegistrator(enable, pid, viaHwnd, className));
    }
}

void Uia::enableRecordingMode(bool enable, std::int32_t mode) {
    TOLVA_LOG(logger, 7, "enable: " << enable << ", mode: " << mode);
    if (enable && overlayThreadId == 0) {
        if (startOverlayThread(static_cast<DWORD>(pid))) {
            recording = true;
            UiaAutoEventHandler::recording = true;
        }
        return;
    }
    // Not a test of enable: a second start stops the overlay.
    if (overlayThreadId != 0) {
        stopOverlayThread();
        recording = false;
        UiaAutoEventHandler::recording = false;
    }
}

// --- input -------------------------------------------------------------------------------

void Uia::simulateMouseEvent(UiaControl& control, int id, int button, int x, int y, int modifiers, int count) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", id: " << id
                                    << ", btn: " << button << ", x: " << x << ", y: " << y << ", mod: " << modifiers
                                    << ", count: " << count);
    const bool toFront = bringsToFront(*this, control);
    UiaMouseEventer eventer(control, id, button, x, y, modifiers, count, toFront);
    eventer();
}

void Uia::simulateKeyStroke(UiaControl& control, wchar_t c, int keyCode, int modifiers) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec
                                    << ", c: " << static_cast<int>(c) << ", kc: " << keyCode << ", m: " << modifiers);
    UiaHelper::SimulateKeyStroke(control.getElement().get(), c, keyCode, modifiers);
}

// --- element actions ------------------------------------------------------------------------

void Uia::setFocus(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    UiaHelper::SetControlFocus(control.getElement().get());
}

bool Uia::moveControl(UiaControl& control, int x, int y) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", x: " << x << ", y: " << y);
    return UiaHelper::MoveControl(control.getElement().get(), x, y);
}

bool Uia::resizeControl(UiaControl& control, int width, int height) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", width: " << width
                                    << ", height: " << height);
    return UiaHelper::ResizeControl(control.getElement().get(), width, height);
}

bool Uia::closeControl(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    return UiaHelper::CloseControl(control.getElement().get());
}

bool Uia::bringToFront(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    return UiaHelper::BringToFront(control.getElement().get());
}

bool Uia::doDefaultAction(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    // Java isn't told: the native returns nothing, so the log is all there is.
    const bool done = UiaHelper::DoDefaultAction(control.getElement().get());
    TOLVA_LOG(logger, 9, "res: " << done);
    return done;
}

bool Uia::invoke(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    UiaInvoker invoker(control);
    return invoker() != 0;
}

void Uia::select(UiaControl& control, int mode) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", mode:" << mode);
    if (!UiaHelper::DoSelect(control.getElement().get(), mode)) {
        TOLVA_LOG(logger, 9, "Operation failed");
    }
}

bool Uia::toggle(UiaControl& control, int mode) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", mode:" << mode);
    const bool done = UiaHelper::SetToggleState(control.getElement().get(), toggleModeOf(mode));
    if (!done) {
        TOLVA_LOG(logger, 9, "Operation failed");
    }
    return done;
}

bool Uia::expand(UiaControl& control, int expand) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", expand:" << expand);
    const bool done = UiaHelper::DoExpand(control.getElement().get(), expand != 0);
    TOLVA_LOG(logger, 9, "res: " << done);
    return done;
}

bool Uia::scroll(UiaControl& control, double horizontal, double vertical) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle() << std::dec << ", h:" << horizontal
                                    << ", v:" << vertical);
    return UiaHelper::DoScroll(control.getElement().get(), horizontal, vertical);
}

int Uia::scrollIntoView(UiaControl& control) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << control.handle());
    return UiaHelper::ScrollIntoView(control.getElement().get()) ? 1 : 0;
}

}  // namespace tolva
