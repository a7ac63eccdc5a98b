// The automation back end: its dispatch thread and work queue, attaching to a
// target, and the operations that the natives call.
#pragma once

#include "common/Array.h"
#include "common/Handle.h"
#include "common/Owners.h"
#include "element/UiaControl.h"

#include <uiautomation.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolva {

// Top-level windows that were there before the target started; the title
// finder prefers a window that isn't among them.
extern std::vector<HWND> existingWindows;

using NameList = Array<const wchar_t*>;

class Uia {
public:
    static Uia& getInstance();
    ~Uia();

    // --- dispatch thread ---
    static unsigned __stdcall uiaThreadProc(void* uia);
    bool readAndDispatch();
    HRESULT createAutomationObject();
    bool setTimeouts(int connectionTimeout, int transactionTimeout);
    bool isUia8();
    void triggerThread();
    void detach();

    // --- attaching ---
    // Whether the last dispatch thread has ended (true if there was none),
    // waiting for it up to the time given. Java's attaching thread only.
    bool awaitDispatchEnd(DWORD timeoutMs);
    int setup(const std::wstring& title, const std::wstring& className, int pid, int timeoutMs);
    void cacheExistingWindows();
    void registerEventHandler(std::int32_t mode);
    void removeEventHandler();
    void processTerminated();

    // --- operations for the natives ---
    // 0 if the handle names a living control, 1 if it names none, 2 if its
    // element is gone (the control is then removed).
    int checkHandle(Handle handle);
    // The operations on a control take it from the caller, who holds its use
    // (a ControlRef) for the length of the call.
    Array<Handle> getToplevels();
    Array<Handle> getElementsByProperty(UiaControl& control, const std::wstring& name, const std::wstring& value);
    Array<Handle> findAllWindows(UiaControl& control);
    Array<Handle> getChildren(UiaControl& control);
    Array<std::wstring> getChildrenWithAttributes(UiaControl& control, NameList& names);
    Array<std::wstring> getAttributes(UiaControl& control, NameList& names);
    void getHierarchyWithAttributes(UiaControl& control, NameList& names, Array<Handle>& excluded,
                                    std::vector<std::wstring>& out, int depth);
    Handle getParent(UiaControl& control);
    Handle getElementFromPoint(int x, int y);
    std::int32_t highlight(UiaControl& control, int duration, int color);
    std::int32_t enableEventListeners(std::int32_t mode);
    void enableCheckMode(bool enable, std::int32_t mode);
    void enableRecordingMode(bool enable, std::int32_t mode);
    void simulateMouseEvent(UiaControl& control, int id, int button, int x, int y, int modifiers, int count);
    void simulateKeyStroke(UiaControl& control, wchar_t c, int keyCode, int modifiers);
    void setFocus(UiaControl& control);
    bool moveControl(UiaControl& control, int x, int y);
    bool resizeControl(UiaControl& control, int width, int height);
    bool closeControl(UiaControl& control);
    bool bringToFront(UiaControl& control);
    bool doDefaultAction(UiaControl& control);
    bool invoke(UiaControl& control);
    void select(UiaControl& control, int mode);
    bool toggle(UiaControl& control, int mode);
    bool expand(UiaControl& control, int expand);
    bool scroll(UiaControl& control, double horizontal, double vertical);
    int scrollIntoView(UiaControl& control);

    int pid = 0;
    std::wstring className;
    bool recording = false;
    bool viaHwnd = false;

private:
    Uia();
    UniqueHandle startDispatchThread();  // empty on failure, logged
    void appendHierarchy(Handle handle, NameList& names, Array<Handle>& excluded, std::vector<std::wstring>& out,
                         int depth);
    // Gives the automation object up at the end of the dispatch thread; waits,
    // bounded, for the Java threads still using it.
    void releaseAutomation();

    UniqueHandle dispatchThread_;  // the last one started, until seen ended
};

}  // namespace tolva
