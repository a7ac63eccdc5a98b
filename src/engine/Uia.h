// The automation back end: its dispatch thread and work queue, attaching to a
// target, and the operations that the natives call.
#pragma once

#include "bridge/Array.h"
#include "bridge/Handles.h"
#include "uiahelper/Owners.h"

#include <uiautomation.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolva {

// Top-level windows that were there before the target started; the title
// finder prefers a window that isn't among them.
extern std::vector<HWND> existingWindows;

// Thread id of the process overlay's thread, 0 while none runs.
extern DWORD overlayThreadId;

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
    int checkHandle(Handle handle);
    Array<Handle> getToplevels();
    Array<Handle> getElementsByProperty(Handle handle, const std::wstring& name, const std::wstring& value);
    Array<Handle> findAllWindows(Handle handle);
    Array<Handle> getChildren(Handle handle);
    Array<std::wstring> getChildrenWithAttributes(Handle handle, NameList& names);
    Array<std::wstring> getAttributes(Handle handle, NameList& names);
    void getHierarchyWithAttributes(Handle handle, NameList& names, Array<Handle>& excluded,
                                    std::vector<std::wstring>& out, int depth);
    Handle getParent(Handle handle);
    Handle getElementFromPoint(int x, int y);
    std::int32_t highlight(Handle handle, int duration, int color);
    std::int32_t enableEventListeners(std::int32_t mode);
    void enableCheckMode(bool enable, std::int32_t mode);
    void enableRecordingMode(bool enable, std::int32_t mode);
    void simulateMouseEvent(Handle handle, int id, int button, int x, int y, int modifiers, int count);
    void simulateKeyStroke(Handle handle, wchar_t c, int keyCode, int modifiers);
    void setFocus(Handle handle);
    bool moveControl(Handle handle, int x, int y);
    bool resizeControl(Handle handle, int width, int height);
    bool closeControl(Handle handle);
    bool bringToFront(Handle handle);
    bool doDefaultAction(Handle handle);
    bool invoke(Handle handle);
    void select(Handle handle, int mode);
    bool toggle(Handle handle, int mode);
    bool expand(Handle handle, int expand);
    bool scroll(Handle handle, double horizontal, double vertical);
    int scrollIntoView(Handle handle);

    int pid = 0;
    std::wstring className;
    bool recording = false;
    bool viaHwnd = false;

private:
    Uia();
    UniqueHandle startDispatchThread();  // empty on failure, logged
    // Gives the automation object up at the end of the dispatch thread; waits,
    // bounded, for the Java threads still using it.
    void releaseAutomation();

    UniqueHandle dispatchThread_;  // the last one started, until seen ended
};

}  // namespace tolva
