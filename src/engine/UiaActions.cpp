// The actions that the natives ask of the automation back end: each passes
// the control's element on to the element helpers, with a log line. The
// natives have checked the handle just before, so the control is taken as it
// stands. Most run on the calling Java thread; highlighting and check mode go
// to the dispatch thread, and recording mode has a thread of its own.
#include "engine/Uia.h"

#include "bridge/Logging.h"
#include "element/UiaControl.h"
#include "engine/Runnable.h"
#include "engine/UiaEventQueue.h"
#include "overlay/Highlighter.h"
#include "overlay/ProcessOverlay.h"
#include "overlay/UiaChecker.h"
#include "uiahelper/Input.h"
#include "uiahelper/UiaHelper.h"

#include <process.h>

#include <cerrno>

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.Uia");

const unsigned OVERLAY_STACK_SIZE = 0x10000;
// A thread that has only just started may have no message queue yet, and a
// message posted to it then is refused: the quit is tried a few times.
const int QUIT_ATTEMPTS = 20;
const DWORD QUIT_RETRY_MS = 10;

// The control's current element, with a reference of the caller's own for
// the length of the call it is passed to.
ComPtr<IUIAutomationElement> elementOf(Handle handle) {
    return UiaControl::fromHandle(handle)->getElement();
}

// Invokes a control; made on the stack and called directly.
class UiaInvoker : public Runnable {
public:
    explicit UiaInvoker(Handle control) : control_(control) {}
    std::int32_t operator()() override { return UiaHelper::DoInvoke(elementOf(control_).get()) ? 1 : 0; }

private:
    Handle control_;
};

// Makes a mouse event on a control; made on the stack and called directly.
class UiaMouseEventer : public Runnable {
public:
    UiaMouseEventer(Handle control, int id, int button, int x, int y, int modifiers, int count, bool toFront)
        : control_(control), id_(id), button_(button), x_(x), y_(y), modifiers_(modifiers), count_(count),
          toFront_(toFront) {}
    std::int32_t operator()() override {
        UiaHelper::DoMouseEvent(elementOf(control_).get(), id_, button_, x_, y_, modifiers_, count_, toFront_);
        return 0;
    }

private:
    Handle control_;
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
bool bringsToFront(Uia& uia, Handle handle) {
    if (UiaControl::fromHandle(handle)->type != L"MenuItem") {
        return true;
    }
    const Handle parent = uia.getParent(handle);
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

// The process overlay's thread: the overlay's windows live and die here.
unsigned __stdcall overlayThreadProc(void* param) {
    const auto pid = static_cast<DWORD>(static_cast<Uia*>(param)->pid);
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

// --- the dispatch thread and recording mode --------------------------------------------

std::int32_t Uia::highlight(Handle handle, int duration, int color) {
    TOLVA_LOG(logger, 7, "c: " << std::hex << handle << std::dec << ", d: " << duration << ", col: " << color);
    const auto queue = UiaEventQueue::getInstance();
    return queue ? queue->invokeNow(new HighlightRunner(handle, duration, color)) : 0;
}

void Uia::enableCheckMode(bool enable, std::int32_t mode) {
    TOLVA_LOG(logger, 7, "enable: " << enable << ", mode: " << mode);
    // Without a dispatch thread (detached, or never attached) there is no
    // check mode to start or to end.
    if (auto queue = UiaEventQueue::getInstance()) {
        queue->invokeLater(new CheckerRegistrator(enable));
    }
}

void Uia::enableRecordingMode(bool enable, std::int32_t mode) {
    TOLVA_LOG(logger, 7, "enable: " << enable << ", mode: " << mode);
    if (enable && overlayThreadId == 0) {
        const UniqueHandle thread(reinterpret_cast<HANDLE>(
            _beginthreadex(nullptr, OVERLAY_STACK_SIZE, &overlayThreadProc, this, 0, nullptr)));
        if (!thread) {
            TOLVA_LOG(logger, 1, "Overlay thread not started: " << errno);
            return;
        }
        overlayThreadId = GetThreadId(thread.get());
        recording = true;
        return;
    }
    // Not a test of enable: a second start stops the overlay.
    if (overlayThreadId != 0) {
        postQuit(overlayThreadId);
        overlayThreadId = 0;
        recording = false;
    }
}

// --- input -------------------------------------------------------------------------------

void Uia::simulateMouseEvent(Handle handle, int id, int button, int x, int y, int modifiers, int count) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", id: " << id << ", btn: " << button
                                    << ", x: " << x << ", y: " << y << ", mod: " << modifiers
                                    << ", count: " << count);
    const bool toFront = bringsToFront(*this, handle);
    UiaMouseEventer eventer(handle, id, button, x, y, modifiers, count, toFront);
    eventer();
}

void Uia::simulateKeyStroke(Handle handle, wchar_t c, int keyCode, int modifiers) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", c: " << static_cast<int>(c)
                                    << ", kc: " << keyCode << ", m: " << modifiers);
    UiaHelper::SimulateKeyStroke(elementOf(handle).get(), c, keyCode, modifiers);
}

// --- element actions ------------------------------------------------------------------------

void Uia::setFocus(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    UiaHelper::SetControlFocus(elementOf(handle).get());
}

bool Uia::moveControl(Handle handle, int x, int y) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", x: " << x << ", y: " << y);
    return UiaHelper::MoveControl(elementOf(handle).get(), x, y);
}

bool Uia::resizeControl(Handle handle, int width, int height) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", width: " << width
                                    << ", height: " << height);
    return UiaHelper::ResizeControl(elementOf(handle).get(), width, height);
}

bool Uia::closeControl(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    return UiaHelper::CloseControl(elementOf(handle).get());
}

bool Uia::bringToFront(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    return UiaHelper::BringToFront(elementOf(handle).get());
}

bool Uia::doDefaultAction(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    // Java isn't told: the native returns nothing, so the log is all there is.
    const bool done = UiaHelper::DoDefaultAction(elementOf(handle).get());
    TOLVA_LOG(logger, 9, "res: " << done);
    return done;
}

bool Uia::invoke(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    UiaInvoker invoker(handle);
    return invoker() != 0;
}

void Uia::select(Handle handle, int mode) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", mode:" << mode);
    if (!UiaHelper::DoSelect(elementOf(handle).get(), mode)) {
        TOLVA_LOG(logger, 9, "Operation failed");
    }
}

bool Uia::toggle(Handle handle, int mode) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", mode:" << mode);
    const bool done = UiaHelper::SetToggleState(elementOf(handle).get(), toggleModeOf(mode));
    if (!done) {
        TOLVA_LOG(logger, 9, "Operation failed");
    }
    return done;
}

bool Uia::expand(Handle handle, int expand) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", expand:" << expand);
    const bool done = UiaHelper::DoExpand(elementOf(handle).get(), expand != 0);
    TOLVA_LOG(logger, 9, "res: " << done);
    return done;
}

bool Uia::scroll(Handle handle, double horizontal, double vertical) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle << std::dec << ", h:" << horizontal
                                    << ", v:" << vertical);
    return UiaHelper::DoScroll(elementOf(handle).get(), horizontal, vertical);
}

int Uia::scrollIntoView(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    return UiaHelper::ScrollIntoView(elementOf(handle).get()) ? 1 : 0;
}

}  // namespace tolva
