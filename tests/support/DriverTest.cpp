#include "DriverTest.h"

#include <objbase.h>

namespace dwtest {

const char* const INVALID_HANDLE_EXCEPTION = "net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException";
const std::string EVENT_PACKAGE = "net/tolva/apps/cuebench/client/win/deskwright/event/";
const char* const DRIVER_CLASS = "net/tolva/apps/cuebench/client/win/deskwright/DefaultDeskwright";
const char* const FILTER_SIGNATURE = "(Lnet/tolva/apps/cuebench/client/win/deskwright/event/WinEvent;)Z";

std::wstring ownPidArgs() {
    return L"-pid " + std::to_wstring(GetCurrentProcessId());
}

bool waitUntil(const std::function<bool()>& condition, unsigned timeoutMs) {
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    while (!condition()) {
        if (GetTickCount64() > end) return condition();
        Sleep(10);
    }
    return true;
}

bool waitForDispatchThreadsToEnd(unsigned timeoutMs) {
    auto count = [](const char* word) {
        size_t n = 0;
        for (const LogLine& line : LogFile::find(word, 5)) {
            n += line.logger == "tolva.Uia" && line.message == word ? 1 : 0;
        }
        return n;
    };
    return waitUntil([&] { return count("Done") == count("Start"); }, timeoutMs);
}

std::string pendingException(jnihost::JavaHost& host) {
    auto thrown = host.pendingException();
    if (!thrown) return "";
    std::string message(thrown->message.begin(), thrown->message.end());
    return thrown->className + ": " + message;
}

void DriverTest::SetUp() {
    LogFile::configure(logLevels());
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    platform = std::make_unique<fakeuia::Platform>();
    platform->install();
    host = std::make_unique<jnihost::JavaHost>(hostOptions());
    env = host->attachCurrentThread();
    self = host->callbackObject();
    dll = std::make_unique<Deskwright>();
    ASSERT_EQ(0x00010004, dll->onLoad(host->vm()));
    ASSERT_EQ(0, native<jint>("SetupNativeLogging"));
}

void DriverTest::TearDown() {
    if (attached) detachAndWait();
    // Events raised and not yet delivered would reach the driver after it is unloaded.
    EXPECT_TRUE(platform->waitForEvents(5000)) << "events still being delivered";
    EXPECT_TRUE(waitForReleases(5000)) << "outstanding: " << platform->outstandingBreakdown();
    EXPECT_EQ(0u, host->outstandingPins());
    for (const std::string& violation : host->violations()) ADD_FAILURE() << "JNI misuse: " << violation;
    for (const std::string& call : platform->unsupportedCalls()) {
        ADD_FAILURE() << "unsupported automation call: " << call;
    }
    if (HasFailure() && dumpLogOnFailure) {
        std::cerr << "---- driver log ----\n" << LogFile::dump() << "--------------------\n";
    }
    platform->uninstall();
}

jint DriverTest::attach(const std::wstring& args, jint timeoutMs) {
    jint pid = native<jint>("AttachUiaClient", host->str(args), timeoutMs);
    attached = attached || pid != 0;
    return pid;
}

void DriverTest::detachAndWait() {
    native<void>("DetachClient");
    attached = false;
    EXPECT_TRUE(LogFile::waitFor("Done", 5000, 5)) << "the dispatch thread did not end";
}

bool DriverTest::waitForReleases(unsigned timeoutMs) {
    return waitUntil([this] { return platform->outstandingReferences() == 0; }, timeoutMs);
}

fakeuia::Node& DriverTest::addOwnWindow(const std::wstring& name) {
    return addWindow(name, L"TestWindow", static_cast<int>(GetCurrentProcessId()));
}

fakeuia::Node& DriverTest::addWindow(const std::wstring& name, const std::wstring& className, int pid, HWND hwnd,
                                     RECT bounds) {
    return platform->desktop().add({.controlType = UIA_WindowControlTypeId, .name = name, .className = className,
                                    .processId = pid, .bounds = bounds, .nativeWindowHandle = hwnd});
}

fakeuia::Node& DriverTest::add(fakeuia::Node& parent, CONTROLTYPEID type, const std::wstring& name, RECT bounds,
                               const std::function<void(fakeuia::NodeSpec&)>& more) {
    fakeuia::NodeSpec spec{.controlType = type, .name = name, .bounds = bounds};
    if (more) more(spec);
    return parent.add(spec);
}

std::optional<std::wstring> DriverTest::attr(jlong handle, const std::wstring& name) {
    jstring value = native<jstring>("GetAttribute", handle, host->str(name));
    return host->isNull(value) ? std::nullopt : std::optional<std::wstring>(host->text(value));
}

std::vector<jlong> DriverTest::toplevels() { return host->longs(native<jlongArray>("GetToplevels")); }

std::vector<jlong> DriverTest::children(jlong handle) {
    return host->longs(native<jlongArray>("GetChildren", handle));
}

std::vector<std::wstring> DriverTest::names(const std::vector<jlong>& handles) {
    std::vector<std::wstring> result;
    for (jlong handle : handles) result.push_back(handle ? attr(handle, L"name").value_or(L"<null>") : L"<0>");
    return result;
}

fakeuia::Node& DriverTest::attachToOwnWindow(const std::wstring& name) {
    fakeuia::Node& window = addOwnWindow(name);
    EXPECT_NE(0, attach(L"-pid " + std::to_wstring(GetCurrentProcessId()), 1000));
    EXPECT_TRUE(host->waitForCalls("filterEvent", 1, 5000)) << "no onConnect";
    return window;
}

jlong DriverTest::handleOf(fakeuia::Node& node) {
    if (node.isRoot()) {
        std::vector<jlong> tops = host->longs(native<jlongArray>("GetToplevels"));
        EXPECT_FALSE(tops.empty());
        return tops.empty() ? 0 : native<jlong>("GetParent", tops[0]);
    }
    const std::vector<fakeuia::Node*> siblings = node.parent()->children();
    const std::vector<jlong> handles = host->longs(native<jlongArray>("GetChildren", handleOf(*node.parent())));
    for (size_t i = 0; i < siblings.size() && i < handles.size(); ++i) {
        if (siblings[i] == &node) return handles[i];
    }
    ADD_FAILURE() << "no handle for a node";
    return 0;
}

std::string DriverTest::thrown() {
    auto exception = host->takeException();
    if (!exception) return "";
    std::string message(exception->message.begin(), exception->message.end());
    return exception->className == INVALID_HANDLE_EXCEPTION ? message : exception->className + ": " + message;
}

namespace {

std::string quoted(const std::wstring& text) {
    std::string shown = "'";
    for (wchar_t c : text) {
        shown += c >= 0x20 && c < 0x7F ? std::string(1, static_cast<char>(c)) : "\\u" + std::to_string(c);
    }
    return shown + "'";
}

template <class T>
std::string joined(const std::vector<T>& values) {
    std::string text = "[";
    for (size_t i = 0; i < values.size(); ++i) text += (i ? "," : "") + std::to_string(values[i]);
    return text + "]";
}

}  // namespace

std::string DriverTest::show(jlongArray array) {
    return host->isNull(array) ? "null" : joined(host->longs(array));
}

std::string DriverTest::show(jintArray array) {
    return host->isNull(array) ? "null" : joined(host->ints(array));
}

std::string DriverTest::show(jstring text) {
    return host->isNull(text) ? "null" : quoted(host->text(text));
}

std::string DriverTest::show(jobjectArray strings) {
    if (host->isNull(strings)) return "null";
    std::string text = "[";
    for (const auto& entry : host->strings(strings)) {
        text += (text.size() > 1 ? "," : "") + (entry ? quoted(*entry) : std::string("null"));
    }
    return text + "]";
}

void DriverTest::setPreference(const std::wstring& key, const std::wstring& value) {
    native<void>("SetPreference", host->str(key), host->str(value));
}

}  // namespace dwtest
