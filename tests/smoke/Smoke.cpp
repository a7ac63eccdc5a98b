// A smoke session of the driver: loads deskwright.dll into the JNI test host,
// as a Java VM would, starts the target program through the classic back end
// and lists its windows over the client library inside it, drives the
// automation back end over a simulated desktop whose one window
// belongs to this process, then attaches it to a real target process
// (target.exe, beside this program), clicks a button and types into an edit
// there with real input while the recorder listens, and prints what happened,
// what the target received and what the recorder reported to Java, as a
// recorder's log. Exit code 0 when every step answered as expected.
#include "Deskwright.h"
#include "FakeUia.h"
#include "JniHost.h"
#include "Screenshot.h"
#include "TargetProcess.h"

#include <objbase.h>

#include <algorithm>
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


// --- the recorder's log ----------------------------------------------------------------

const std::string EVENTS = "net/tolva/apps/cuebench/client/win/deskwright/event/";

struct Named {
    int code;
    const char* name;
};

std::string nameOf(int code, std::initializer_list<Named> names) {
    for (const Named& n : names) {
        if (n.code == code) return n.name;
    }
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(code));
    return text;
}

std::string codeName(const std::string& kind, int code) {
    if (kind == "MouseEvent") {
        return nameOf(code, {{0x200, "move"}, {0x201, "left down"}, {0x202, "left up"}, {0x204, "right down"},
                             {0x205, "right up"}, {0x207, "middle down"}, {0x208, "middle up"}});
    }
    if (kind == "KeyboardEvent") {
        return nameOf(code, {{0x100, "key down"}, {0x101, "key up"}, {0x104, "sys key down"}, {0x105, "sys key up"}});
    }
    if (kind == "UIAutomationEvent") {
        return nameOf(code, {{4096, "property changed"}, {4097, "structure changed"}, {20005, "focus changed"},
                             {20003, "menu opened"}, {20006, "content loaded"}, {20007, "menu closed"},
                             {20008, "layout changed"}, {20009, "invoked"}, {20010, "added to selection"},
                             {20011, "left selection"}, {20012, "selected"}, {20015, "text changed"},
                             {20016, "window opened"}, {20017, "window closed"}});
    }
    return nameOf(code, {{0x3, "foreground"}, {0x4, "menu start"}, {0x5, "menu end"}, {0x6, "popup start"},
                         {0x7, "popup end"}, {0x10, "dialog start"}, {0x11, "dialog end"}, {0x8000, "create"},
                         {0x8001, "destroy"}, {0x8002, "show"}, {0x8003, "hide"}, {0x8005, "focus"}});
}

// One line a record: milliseconds since the first, kind, what happened, the
// element (its handle and name, asked of the driver) and the position or key.
class RecorderLog {
public:
    RecorderLog(jnihost::JavaHost& host, dwtest::Deskwright& dll, JNIEnv* env, jobject self)
        : host_(host), dll_(dll), env_(env), self_(self) {}

    struct Record {
        std::string kind;
        int code = 0;
        jlong handle = 0;
        int x = 0, y = 0, button = 0, modifiers = 0, vk = 0, character = 0;
        std::wstring text;
    };

    struct Line {
        Record record;
        jlong stamp = 0;
        std::string where, detail;
    };

    // The records Java received so far, read and described.
    std::vector<Line> read(const std::vector<jnihost::Call>& calls) {
        std::vector<Line> lines;
        for (const jnihost::Call& call : calls) {
            if (call.args.empty() || call.args[0].type != 'L') continue;
            lines.push_back(describe(call.args[0].l));
        }
        return lines;
    }

    static void print(const std::vector<Line>& lines) {
        std::printf("         the recorder reported to Java (filterEvent), in milliseconds since the first:\n");
        jlong first = 0;
        for (const Line& line : lines) first = first != 0 || line.stamp == 0 ? first : line.stamp;
        for (const Line& line : lines) {
            const Record& r = line.record;
            char when[32] = "      -";  // a record without a time stamp
            if (line.stamp != 0) std::snprintf(when, sizeof when, "%+7lld", static_cast<long long>(line.stamp - first));
            std::printf("           %s  %-17s %-17s %-28s %s\n", when, r.kind.c_str(), codeName(r.kind, r.code).c_str(),
                        line.where.c_str(), line.detail.c_str());
        }
        std::fflush(stdout);
    }

private:
    Line describe(jobject event) {
        Line line;
        Record& r = line.record;
        r.kind = host_.classNameOf(event);
        if (r.kind.compare(0, EVENTS.size(), EVENTS) == 0) r.kind.erase(0, EVENTS.size());
        r.code = intField(event, "code");
        const jnihost::Value handle = host_.field(event, "handle");
        r.handle = handle.type == 'J' ? handle.j : 0;
        line.stamp = host_.field(event, "timestamp").j;
        line.where = elementName(r.handle);
        std::string& detail = line.detail;
        if (r.kind == "MouseEvent") {
            r.x = intField(event, "x");
            r.y = intField(event, "y");
            r.button = intField(event, "button");
            r.modifiers = intField(event, "modifiers");
            detail = "at (" + std::to_string(r.x) + "," + std::to_string(r.y) + "), screen (" +
                     std::to_string(intField(event, "screenX")) + "," + std::to_string(intField(event, "screenY")) +
                     "), modifiers " + std::to_string(r.modifiers);
            if (r.code != 0x200) detail += r.button == 1 ? ", right button" : r.button == 2 ? ", middle button" : ", left button";
        } else if (r.kind == "KeyboardEvent") {
            r.vk = intField(event, "vk");
            r.character = intField(event, "character");
            char key[64];
            std::snprintf(key, sizeof key, "vk 0x%02X", static_cast<unsigned>(r.vk));
            detail = key;
            if (r.character >= 0x20 && r.character < 0x7F) detail += std::string(" '") + char(r.character) + "'";
            if (boolField(event, "shift")) detail += " +Shift";
            if (boolField(event, "ctrl")) detail += " +Ctrl";
            if (boolField(event, "alt")) detail += " +Alt";
        } else if (r.kind == "UIAutomationEvent") {
            const jnihost::Value text = host_.field(event, "text");
            r.text = text.type == 'L' && !host_.isNull(text.l) ? host_.text(static_cast<jstring>(text.l)) : L"";
            detail = "param " + std::to_string(intField(event, "param")) + ", text \"" + narrow(r.text) + "\"";
        } else if (r.kind == "MSAAEvent") {
            const jlong hwnd = static_cast<jlong>(intField(event, "hwnd"));
            const std::wstring windowClass = host_.text(dll_.call<jstring>("GetWindowClassName", env_, self_, hwnd));
            line.where = "window " + std::to_string(hwnd) + " (" + (windowClass.empty() ? "gone" : narrow(windowClass)) + ")";
            detail = "arg " + std::to_string(intField(event, "arg"));
        }
        return line;
    }

    int intField(jobject o, const char* name) {
        const jnihost::Value v = host_.field(o, name);
        return v.type == 'I' ? v.i : 0;
    }
    bool boolField(jobject o, const char* name) {
        const jnihost::Value v = host_.field(o, name);
        return v.type == 'Z' && v.z != JNI_FALSE;
    }
    std::string elementName(jlong handle) {
        if (handle == 0) return "(no element)";
        const auto known = names_.find(handle);
        if (known != names_.end()) return known->second;
        const jstring name = dll_.call<jstring>("GetAttribute", env_, self_, handle, host_.str(L"name"));
        const jstring type = dll_.call<jstring>("GetClassName", env_, self_, handle);
        host_.takeException();
        const std::string text = (type ? narrow(host_.text(type)) : "?") + " \"" + (name ? narrow(host_.text(name)) : "") + "\"";
        return names_[handle] = text;
    }

    jnihost::JavaHost& host_;
    dwtest::Deskwright& dll_;
    JNIEnv* env_;
    jobject self_;
    std::map<jlong, std::string> names_;
};

}  // namespace

// The classic back end, before any automation attach (which routes every
// later call to the automation side for good): StartClient starts the target
// program, whose client library connects over shared memory, and Java lists
// the target's windows through it.
void classicSession(dwtest::Deskwright& dll, jnihost::JavaHost& host, JNIEnv* env, jobject self) {
    std::printf("  classic back end: the client library inside the target\n");
    const jint pid = dll.call<jint>("StartClient", env, self, host.str(L"target.exe \"Classic smoke\" \"Second window\""));
    step(pid != 0, "StartClient(target.exe ...) = " + std::to_string(pid));
    if (pid == 0) return;
    bool connected = false;
    for (int waited = 0; waited < 10000 && !connected; waited += 50) {
        Sleep(50);
        connected = dll.call<jboolean>("IsConnected", env, self) == JNI_TRUE;
    }
    step(connected, "the client said connected");
    const auto tops = host.longs(dll.call<jlongArray>("GetToplevels", env, self));
    step(tops.size() == 2, "GetToplevels over the client: " + std::to_string(tops.size()) + " window(s)");
    for (jlong top : tops) {
        HWND window = reinterpret_cast<HWND>(static_cast<intptr_t>(top));
        wchar_t title[128] = {};
        GetWindowTextW(window, title, 128);
        const auto bounds = host.ints(dll.call<jintArray>("GetBounds", env, self, top));
        const std::wstring className = host.text(dll.call<jstring>("GetClassName", env, self, top));
        const auto children = host.longs(dll.call<jlongArray>("GetChildren", env, self, top));
        std::printf("         window 0x%llx \"%s\" class %s at %d,%d size %dx%d, %u children\n",
                    static_cast<unsigned long long>(top), narrow(title).c_str(), narrow(className).c_str(),
                    int(bounds.at(0)), int(bounds.at(1)), int(bounds.at(2)), int(bounds.at(3)),
                    static_cast<unsigned>(children.size()));
    }
    dll.call<void>("TriggerThread", env, self);
    step(host.waitForConstructions("net/tolva/apps/cuebench/client/win/deskwright/event/CallbackEvent", 1, 5000),
         "TriggerThread over the client: a CallbackEvent went up");
    dll.call<void>("DetachClient", env, self);
    bool ended = false;
    for (int waited = 0; waited < 10000 && !ended; waited += 50) {
        Sleep(50);
        ended = dll.call<jboolean>("IsConnected", env, self) == JNI_FALSE;
    }
    step(ended, "DetachClient: the client left the target and the channel ended");
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (process) {
        TerminateProcess(process, 0);
        WaitForSingleObject(process, 5000);
        CloseHandle(process);
    }
    host.clearRecords();
}

// Java points out the button: a frame around it for three seconds, kept as a
// screenshot beside this program for the user to look at.
void showHighlight(dwtest::Deskwright& dll, JNIEnv* env, jobject self, jlong handle, HWND button) {
    RECT bounds{};
    GetWindowRect(button, &bounds);
    const RECT area = {bounds.left - 40, bounds.top - 30, bounds.right + 40, bounds.bottom + 30};
    const dwtest::Screenshot before = dwtest::Screenshot::ofScreen(area);
    dll.call<void>("Highlight", env, self, handle, jint{3000}, jint{-1});
    Sleep(300);
    const dwtest::Screenshot shot = dwtest::Screenshot::composed(area, &before);
    wchar_t exe[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring path = exe;
    path = path.substr(0, path.find_last_of(L"\\/") + 1) + L"highlight.png";
    const bool saved = shot.savePng(path);
    const int middle = (bounds.top + bounds.bottom) / 2;
    const bool framed = shot.at(bounds.left, middle) == 0x8080CC && shot.at(bounds.right - 1, middle) == 0x8080CC &&
                        shot.at(bounds.left + 3, middle) == before.at(bounds.left + 3, middle);
    step(saved && framed, "Highlight framed the button for 3 s; screenshot " + narrow(path));
    dll.call<void>("Highlight", env, self, handle, jint{0}, jint{-1});
}

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

    classicSession(dll, host, env, self);

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
        fakeuia::Node& buttonNode = node.add(specOf(remoteButton, UIA_ButtonControlTypeId, target.pid()));
        fakeuia::Node& editNode = node.add(specOf(remoteEdit, UIA_EditControlTypeId, target.pid()));
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
            // Input hooks, the three kinds of automation handlers, the required
            // window events on a thread of their own, child-added with parents.
            const jint listeners = 0x1AF;
            dll.call<void>("EnableEventListeners", env, self, listeners);
            host.clearRecords();
            std::printf("         recording with listener mode 0x%X\n", static_cast<unsigned>(listeners));
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

            // The target's own automation provider would announce the press and
            // the new text; here the simulated platform raises them, on threads
            // of its own as the real one does.
            platform.raiseAutomationEvent(UIA_Invoke_InvokedEventId, buttonNode);
            platform.raiseAutomationEvent(UIA_Text_TextChangedEventId, editNode);
            platform.waitForEvents(5000);
            // A modal dialog of the target's, open for 200 ms: the system's window events.
            step(target.openDialog(remoteMain), "the target showed a dialog for 200 ms");
            // What a recorder must have seen: the press and release on the button,
            // the typed characters in order, the invoke and the edit's text change.
            RecorderLog log(host, dll, env, self);
            struct Seen {
                bool press = false, release = false, invoked = false, changed = false, dialog = false;
                std::string keys;
            };
            auto judge = [&](const std::vector<RecorderLog::Line>& lines) {
                Seen seen;
                for (const auto& line : lines) {
                    const RecorderLog::Record& r = line.record;
                    const bool onButton = r.handle == children[0];
                    if (r.kind == "MouseEvent" && onButton) {
                        seen.press = seen.press || (r.code == 0x201 && r.x == 60 && r.y == 20 && r.button == 0 &&
                                                    r.modifiers == 16);
                        seen.release = seen.release || r.code == 0x202;
                    } else if (r.kind == "KeyboardEvent" && r.code == 0x100 && r.character >= 0x20) {
                        seen.keys += char(r.character);
                    } else if (r.kind == "UIAutomationEvent") {
                        seen.invoked = seen.invoked || (r.code == UIA_Invoke_InvokedEventId && onButton);
                        seen.changed = seen.changed || (r.code == UIA_Text_TextChangedEventId && r.handle == children[1]);
                    } else if (r.kind == "MSAAEvent") {
                        seen.dialog = seen.dialog || r.code == EVENT_SYSTEM_DIALOGEND;
                    }
                }
                return seen;
            };
            auto complete = [&](const Seen& s) {
                return s.press && s.release && s.invoked && s.changed && s.dialog && s.keys == narrow(typed);
            };
            for (int waited = 0; waited < 3000 && !complete(judge(log.read(host.calls("filterEvent")))); waited += 100) {
                Sleep(100);
            }
            Sleep(200);  // the key-up of the last key
            const auto reported = log.read(host.calls("filterEvent"));
            RecorderLog::print(reported);
            const Seen seen = judge(reported);
            step(seen.press && seen.release, "recorded the left press at (60,20) of the button and its release");
            step(seen.keys == narrow(typed), "recorded the keys \"" + seen.keys + "\" on their way to the edit");
            step(seen.invoked && seen.changed, "recorded the button's invoke and the edit's text change");
            step(seen.dialog, "recorded the end of the target's dialog");

            dll.call<void>("EnableEventListeners", env, self, jint{0});
            host.clearRecords();
            dll.call<void>("SimulateMouseEvent", env, self, children[0], jint{500}, jint{0}, jint{60}, jint{20}, jint{0},
                           jint{1});
            Sleep(500);
            step(host.calls("filterEvent").empty(), "listeners off: the next click reported nothing");

            showHighlight(dll, env, self, children[0], remoteButton);
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
