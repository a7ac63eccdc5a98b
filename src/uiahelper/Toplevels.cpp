// Finding top-level windows of the target: through the automation tree, and
// through the window system.
#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"
#include "common/ComPtr.h"
#include "uiahelper/Regex.h"

#include <utility>

using tolva::ComPtr;

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

BOOL CALLBACK CollectVisibleWindow(HWND hwnd, LPARAM windows) {
    if (IsWindowVisible(hwnd)) {
        reinterpret_cast<std::vector<HWND>*>(windows)->push_back(hwnd);
    }
    return TRUE;  // never stop early
}

std::vector<HWND> VisibleWindows() {
    std::vector<HWND> windows;
    EnumWindows(CollectVisibleWindow, reinterpret_cast<LPARAM>(&windows));
    return windows;
}

int ProcessIdOf(IUIAutomationElement* element) {
    int pid = 0;
    GetControlProcessId(element, &pid);
    return pid;
}

// A frame window of another process hosts the target's windows (store apps):
// its children of the wanted process count as top-level windows.
void AppendHostedWindows(IUIAutomationElement* frame, IUIAutomationCondition* condition, int pid,
                         ElementList& result) {
    ComPtr<IUIAutomationElementArray> children;
    if (FAILED(frame->FindAll(TreeScope_Children, condition, children.put())) || !children) {
        return;
    }
    ForEachElement(children.get(), [&](ElementPtr child) {
        if (ProcessIdOf(child.get()) == pid) {
            result.push_back(std::move(child));
        }
        return true;
    });
}

}  // namespace

ElementList GetToplevelsForPid(int pid) {
    ElementList result;
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return result;
    }
    ComPtr<IUIAutomationCondition> condition;
    HRESULT hr = automation->CreateTrueCondition(condition.put());
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 1, "Failed to create a condition " << std::hex << hr);
        return result;
    }
    ComPtr<IUIAutomationElement> desktop;
    hr = automation->GetRootElement(desktop.put());
    if (FAILED(hr)) {
        TOLVA_LOG(logger, 1, "Failed to get root " << std::hex << hr);
        return result;
    }
    ComPtr<IUIAutomationElementArray> children;
    hr = desktop->FindAll(TreeScope_Children, condition.get(), children.put());
    if (FAILED(hr) || !children) {
        TOLVA_LOG(logger, 1, "Failed to get children " << std::hex << hr);
        return result;
    }
    ForEachElement(children.get(), [&](ElementPtr element) {
        const int elementPid = ProcessIdOf(element.get());
        const std::wstring className = GetControlClassName(element.get());
        if (elementPid == pid) {
            if (className == L"SysShadow") {
                TOLVA_LOG(logger, 9, "SysShadow ignored");
            } else {
                result.push_back(std::move(element));
            }
        } else if (className == L"ApplicationFrameWindow") {
            AppendHostedWindows(element.get(), condition.get(), pid, result);
        }
        return true;
    });
    return result;
}

ElementList GetToplevelsForPidViaHWND(int pid) {
    ElementList result;
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return result;
    }
    for (HWND hwnd : VisibleWindows()) {
        DWORD windowPid = 0;
        GetWindowThreadProcessId(hwnd, &windowPid);
        if (static_cast<int>(windowPid) != pid) {
            continue;
        }
        ElementPtr element;
        automation->ElementFromHandle(hwnd, element.put());  // a failure leaves a null entry
        TOLVA_LOG(logger, 9, "Found: " << static_cast<void*>(hwnd) << ", el: " << static_cast<void*>(element.get()));
        result.push_back(std::move(element));
    }
    return result;
}

IUIAutomationElement* GetToplevelByClassName(const std::wstring& classRegex) {
    const tolva::AutomationRef automation = tolva::automation();
    ComPtr<IUIAutomationElement> desktop;
    if (!automation || FAILED(automation->GetRootElement(desktop.put())) || !desktop) {
        return nullptr;
    }
    ComPtr<IUIAutomationElementArray> children;
    {
        ComPtr<IUIAutomationCondition> condition;
        automation->CreateTrueCondition(condition.put());
        desktop->FindAll(TreeScope_Children, condition.get(), children.put());
    }
    if (!children) {
        return nullptr;
    }
    const Regex pattern(classRegex);
    if (!pattern.valid()) {
        TOLVA_LOG(logger, 1, pattern.error());
        return nullptr;
    }
    ElementPtr hit;
    ForEachElement(children.get(), [&](ElementPtr element) {
        const std::wstring className = GetControlClassName(element.get());
        TOLVA_LOG(logger, 9, "cl: " << className);
        if (pattern.matches(className)) {
            hit = std::move(element);
        }
        return !hit;
    });
    return hit.detach();
}

IUIAutomationElement* GetToplevelByTitleViaHWND(const std::wstring& titleRegex) {
    const Regex pattern(titleRegex);
    if (!pattern.valid()) {
        TOLVA_LOG(logger, 1, pattern.error());
        return nullptr;
    }
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return nullptr;
    }
    for (HWND hwnd : VisibleWindows()) {
        if (pattern.matches(GetWindowTextViaMessage(hwnd))) {
            IUIAutomationElement* element = nullptr;
            automation->ElementFromHandle(hwnd, &element);
            return element;
        }
    }
    return nullptr;
}

}  // namespace UiaHelper
