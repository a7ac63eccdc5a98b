// Elements of live windows. The real platform answers ElementFromHandle for
// every window that exists, with an element built from the window itself;
// the simulation does the same for windows that no node of the tree names.
// Every read goes to the window again, without window messages (the window's
// thread may be waiting for the caller), so it never blocks.
#include "FakeUiaInternal.h"

namespace fakeuia {
namespace detail {

namespace {

NodeSpec specOfWindow(HWND window) {
    NodeSpec spec;
    const LONG style = GetWindowLongW(window, GWL_STYLE);
    spec.controlType = (style & WS_CHILD) ? UIA_PaneControlTypeId : UIA_WindowControlTypeId;
    wchar_t text[512] = {};
    InternalGetWindowText(window, text, static_cast<int>(sizeof text / sizeof text[0]));
    spec.name = text;
    wchar_t className[256] = {};
    GetClassNameW(window, className, static_cast<int>(sizeof className / sizeof className[0]));
    spec.className = className;
    spec.frameworkId = L"Win32";
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    spec.processId = static_cast<int>(pid);
    GetWindowRect(window, &spec.bounds);
    spec.nativeWindowHandle = window;
    spec.runtimeId = std::vector<int>{0x2a, static_cast<int>(reinterpret_cast<std::intptr_t>(window))};
    spec.isOffscreen = IsWindowVisible(window) == FALSE;
    spec.isEnabled = IsWindowEnabled(window) != FALSE;
    spec.isKeyboardFocusable = spec.isEnabled;
    return spec;
}

}  // namespace

Node* nodeOfWindowLocked(State& state, HWND window) {
    if (!window) return nullptr;
    std::vector<Node*> all;
    preorderLocked(state.root, all);
    for (Node* n : all)
        if (D(n).spec.nativeWindowHandle == window) return n;
    if (window == GetDesktopWindow()) return state.root;
    if (!IsWindow(window)) return nullptr;
    auto known = state.windowNodes.find(window);
    if (known != state.windowNodes.end() && D(known->second).alive) return known->second;
    Node* node = state.makeNodeLocked(nullptr, 0, specOfWindow(window));
    D(node).window = window;
    state.windowNodes[window] = node;
    return node;
}

HRESULT refreshWindowNodeLocked(Node* node) {
    NodeData& d = D(node);
    if (!d.window) return S_OK;
    if (!d.alive || !IsWindow(d.window)) {
        d.alive = false;  // a handle that comes again is another window: it gets a new node
        return kElementNotAvailable;
    }
    NodeSpec spec = specOfWindow(d.window);
    spec.hasKeyboardFocus = d.spec.hasKeyboardFocus;
    d.spec = spec;
    return S_OK;
}

Node* windowParentLocked(State& state, Node* node) {
    HWND parent = GetAncestor(D(node).window, GA_PARENT);
    if (!parent || parent == GetDesktopWindow()) return state.root;
    Node* found = nodeOfWindowLocked(state, parent);
    return found ? found : state.root;
}

}  // namespace detail
}  // namespace fakeuia
