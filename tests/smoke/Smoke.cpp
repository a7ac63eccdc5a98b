// A smoke session of the driver: loads deskwright.dll into the JNI test host,
// as a Java VM would, drives it over a simulated desktop whose one window
// belongs to this process, and prints what happened. Exit code 0 when every
// step answered as expected.
#include "Deskwright.h"
#include "FakeUia.h"
#include "JniHost.h"

#include <objbase.h>

#include <cstdio>
#include <string>

namespace {

int failures = 0;

void step(bool ok, const std::string& what) {
    std::printf("  [%s] %s\n", ok ? " ok " : "FAIL", what.c_str());
    std::fflush(stdout);
    failures += ok ? 0 : 1;
}

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

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
    step(host.violations().empty() && host.outstandingPins() == 0, "no JNI misuse, no pins left");

    platform.uninstall();
    std::printf("smoke session: %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
