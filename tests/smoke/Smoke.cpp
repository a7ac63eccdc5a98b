// A smoke session of the driver: loads deskwright.dll into the JNI test host,
// as a Java VM would, drives it over a simulated desktop whose one window
// belongs to this process, then attaches it to a real target process
// (target.exe, beside this program), clicks a button and types into an edit
// there with real input, and prints what happened and what the target
// received. Exit code 0 when every step answered as expected.
#include "Deskwright.h"
#include "FakeUia.h"
#include "JniHost.h"
#include "TargetProcess.h"

#include <objbase.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

int failures = 0;

void step(bool ok, const std::string& what) {
    std::printf("  [%s] %s\n", ok ? " ok " : "FAIL", what.c_str());
    std::fflush(stdout);
    failures += ok ? 0 : 1;
}

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

fakeuia::NodeSpec specOf(HWND window, CONTROLTYPEID type, DWORD pid) {
    fakeuia::NodeSpec spec;
    spec.controlType = type;
    wchar_t text[256] = {};
    GetClassNameW(window, text, 256);
    spec.className = text;
    InternalGetWindowText(window, text, 256);
    spec.name = text;
    spec.processId = static_cast<int>(pid);
    GetWindowRect(window, &spec.bounds);
    spec.nativeWindowHandle = window;
    return spec;
}

// What the target's windows received, moves summed up per window.
void printReceived(const std::vector<dwtest::TargetProcess::Received>& lines, const std::map<HWND, std::string>& names) {
    std::map<HWND, int> moves;
    std::printf("         the target received:\n");
    for (const auto& line : lines) {
        const auto name = names.find(line.window);
        const std::string who = name == names.end() ? "other window" : name->second;
        if (line.what.compare(0, 12, "WM_MOUSEMOVE") == 0) {
            ++moves[line.window];
            continue;
        }
        std::printf("           %-7s %s\n", who.c_str(), line.what.c_str());
    }
    for (const auto& counted : moves) {
        const auto name = names.find(counted.first);
        std::printf("           %-7s and %d WM_MOUSEMOVE on the way\n",
                    name == names.end() ? "other" : name->second.c_str(), counted.second);
    }
    std::fflush(stdout);
}

}  // namespace

int main() {
    std::printf("deskwright smoke session (%d-bit)\n", static_cast<int>(sizeof(void*) * 8));
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    fakeuia::Platform platform;
    platform.install();
    fakeuia::NodeSpec window{UIA_WindowControlTypeId, L"Smoke target", L"SmokeWindow"};
    window.processId = static_cast<int>(GetCurrentProcessId());
    window.bounds = {100, 100, 500, 400};
    fakeuia::NodeSpec button{UIA_ButtonControlTypeId, L"OK", L"", L"1001"};
    button.bounds = {120, 350, 200, 380};
    platform.desktop().add(window).add(button);

    jnihost::JavaHost host;
    JNIEnv* env = host.attachCurrentThread();
    jobject self = host.callbackObject();
    dwtest::Deskwright dll;
    auto call = [&](const char* name, auto... args) { return dll.call<jint>(name, env, self, args...); };

    step(dll.onLoad(host.vm()) == 0x00010004, "JNI_OnLoad answers JNI 1.4");
    step(call("SetupNativeLogging") == 0, "SetupNativeLogging");

    dll.call<void>("SetPreference", env, self, host.str(L"deskwright.max.children"), host.str(L"25"));
    auto pref = host.text(dll.call<jstring>("GetPreference", env, self, host.str(L"deskwright.max.children")));
    step(pref == L"25", "preference deskwright.max.children = " + narrow(pref));

    HWND edit = CreateWindowExW(0, L"EDIT", L"plain window", WS_OVERLAPPEDWINDOW, 0, 0, 200, 80, nullptr, nullptr,
                                nullptr, nullptr);
    const jlong hwnd = static_cast<jlong>(reinterpret_cast<intptr_t>(edit));
    auto title = host.text(dll.call<jstring>("GetWindowText", env, self, hwnd));
    auto cls = host.text(dll.call<jstring>("GetWindowClassName", env, self, hwnd));
    step(title == L"plain window" && cls == L"Edit", "window natives: \"" + narrow(title) + "\" of class " + narrow(cls));
    DestroyWindow(edit);

    const std::wstring args = L"-pid " + std::to_wstring(GetCurrentProcessId());
    const jint pid = dll.call<jint>("AttachUiaClient", env, self, host.str(args), jint{3000});
    step(pid == static_cast<jint>(GetCurrentProcessId()), "AttachUiaClient(\"" + narrow(args) + "\") = " + std::to_string(pid));
    step(host.waitForCalls("filterEvent", 1, 5000), "Java received the connect event");
    auto calls = host.calls("filterEvent");
    if (!calls.empty()) {
        std::printf("         filterEvent(%s) on thread %lu (Java's thread: %lu)\n",
                    calls[0].args[0].toString().c_str(), calls[0].threadId, GetCurrentThreadId());
    }
    step(dll.call<jboolean>("IsConnected", env, self) == JNI_TRUE, "IsConnected");
    step(dll.call<jboolean>("IsUia8", env, self) == JNI_TRUE, "IsUia8");
    step(dll.call<jboolean>("SetTimeouts", env, self, jint{2000}, jint{20000}) == JNI_TRUE &&
             platform.connectionTimeout() == std::optional<DWORD>(2000),
         "SetTimeouts(2000, 20000) reached the automation object");

    auto tops = host.longs(dll.call<jlongArray>("GetToplevels", env, self));
    step(tops.size() == 1, "GetToplevels: " + std::to_string(tops.size()) + " window(s)");
    if (!tops.empty()) {
        auto children = host.longs(dll.call<jlongArray>("GetChildren", env, self, tops[0]));
        auto again = host.longs(dll.call<jlongArray>("GetChildren", env, self, tops[0]));
        step(children.size() == 1 && children == again, "GetChildren: one button, the same handle on every read");
        if (!children.empty()) {
            step(dll.call<jlong>("GetParent", env, self, children[0]) == tops[0], "GetParent of the button is the window");
        }
    }

    dll.call<void>("TriggerThread", env, self);
    step(host.waitForConstructions("net/tolva/apps/cuebench/client/win/deskwright/event/CallbackEvent", 1, 5000),
         "TriggerThread: a CallbackEvent went up");

    dll.call<jlongArray>("GetChildren", env, self, jlong{0x1234});
    auto thrown = host.takeException();
    step(thrown && thrown->message == L"Invalid handle value",
         "GetChildren(0x1234) threw " + (thrown ? thrown->className + ": " + narrow(thrown->message) : "nothing"));

    dll.call<void>("DetachClient", env, self);
    for (int waited = 0; waited < 5000 && platform.outstandingReferences() != 0; waited += 20) Sleep(20);
    step(platform.outstandingReferences() == 0, "DetachClient: the dispatch thread ended; automation objects still held: " +
                       platform.outstandingBreakdown());
    std::printf("  real input into a target process\n");
    dwtest::TargetProcess target{dwtest::TargetProcess::Serving{}};
    step(target.ready(), "target.exe serving, pid " + std::to_string(target.pid()));
    HWND remoteMain = target.makeWindow(L"DeskwrightTarget", L"Smoke target process", {200, 150, 600, 400});
    HWND remoteButton = remoteMain ? target.makeWindow(L"Button", L"Press me", {20, 20, 140, 60}, remoteMain) : nullptr;
    HWND remoteEdit = remoteMain ? target.makeWindow(L"Edit", L"", {20, 80, 300, 110}, remoteMain) : nullptr;
    step(remoteMain && remoteButton && remoteEdit, "the target made a window with a Button and an Edit");
    if (remoteMain && remoteButton && remoteEdit) {
        fakeuia::Node& node = platform.desktop().add(specOf(remoteMain, UIA_WindowControlTypeId, target.pid()));
        node.add(specOf(remoteButton, UIA_ButtonControlTypeId, target.pid()));
        node.add(specOf(remoteEdit, UIA_EditControlTypeId, target.pid()));
        const std::wstring targetArgs = L"-pid " + std::to_wstring(target.pid());
        const jint attachedPid = dll.call<jint>("AttachUiaClient", env, self, host.str(targetArgs), jint{5000});
        step(attachedPid == static_cast<jint>(target.pid()), "AttachUiaClient(\"" + narrow(targetArgs) + "\")");
        std::vector<jlong> children;
        const jlong window = static_cast<jlong>(reinterpret_cast<intptr_t>(remoteMain));
        for (jlong top : host.longs(dll.call<jlongArray>("GetToplevels", env, self))) {
            if (dll.call<jlong>("GetNativeHandle", env, self, top) == window) {
                children = host.longs(dll.call<jlongArray>("GetChildren", env, self, top));
            }
        }
        step(children.size() == 2, "the target's window has " + std::to_string(children.size()) + " children");
        if (children.size() == 2) {
            dll.call<void>("SimulateMouseEvent", env, self, children[0], jint{500}, jint{0}, jint{60}, jint{20}, jint{0},
                           jint{1});
            dll.call<void>("SimulateMouseEvent", env, self, children[1], jint{500}, jint{0}, jint{10}, jint{15}, jint{0},
                           jint{1});
            const std::wstring typed = L"Hello 42";
            for (wchar_t c : typed) dll.call<void>("SimulateKeyStroke", env, self, children[1], jchar(c), jint{0}, jint{0});
            // The target takes the input in its own time.
            std::vector<dwtest::TargetProcess::Received> lines;
            bool clicked = false;
            std::string text;
            for (int waited = 0; waited < 3000 && !(clicked && text == narrow(typed)); waited += 100) {
                Sleep(100);
                for (const auto& line : target.received()) {
                    clicked = clicked || (line.window == remoteButton && line.what == "BN_CLICKED");
                    lines.push_back(line);
                }
                text = target.text(remoteEdit);
            }
            printReceived(lines, {{remoteMain, "window"}, {remoteButton, "button"}, {remoteEdit, "edit"}});
            step(clicked, "SimulateMouseEvent clicked the button: the target had BN_CLICKED");
            step(text == narrow(typed), "SimulateKeyStroke typed into the edit, which reads \"" + text + "\"");
        }
        dll.call<void>("DetachClient", env, self);
        for (int waited = 0; waited < 5000 && platform.outstandingReferences() != 0; waited += 20) Sleep(20);
        step(platform.outstandingReferences() == 0, "DetachClient from the target; automation objects still held: " +
                                                        platform.outstandingBreakdown());
    }
    step(host.violations().empty() && host.outstandingPins() == 0, "no JNI misuse, no pins left");

    platform.uninstall();
    std::printf("smoke session: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
