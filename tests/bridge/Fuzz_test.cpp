// Random calls into the natives, as a careless or hostile Java caller makes
// them (handles that name nothing, nulls, empty and huge texts and arrays,
// extreme numbers), among the handles of a small simulated target. Nothing may
// crash, hang, misuse JNI or leave a pin; the only exception is
// InvalidHandleException, only for a handle, and with the empty default.
// DESKWRIGHT_FUZZ_CALLS (default 100000) and DESKWRIGHT_FUZZ_SEED choose the
// run; a failure names the seed, the index and the call with its arguments.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"
#include "ImportPatch.h"

#include <boost/regex.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <tuple>
#include <type_traits>

using dwtest::DriverTest;

namespace {

std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
    const char* text = std::getenv(name);
    return text && *text ? std::strtoull(text, nullptr, 0) : fallback;
}

// The fuzz asks for the driver's answers, not for real input: on the test's
// thread the input calls of the driver go nowhere and its sleeps (the glide
// of the pointer waits between its way points) return at once. Other threads
// of the driver sleep as they should.
DWORD fuzzThread = 0;
decltype(&Sleep) realSleep = nullptr;
void WINAPI fuzzSleep(DWORD ms) {
    if (GetCurrentThreadId() != fuzzThread) realSleep(ms);
}
void WINAPI noMouseEvent(DWORD, DWORD, DWORD, DWORD, ULONG_PTR) {}
void WINAPI noKeyEvent(BYTE, BYTE, DWORD, ULONG_PTR) {}

// The classic attach hooks whatever thread or window it is given, in any
// process of the display: Wine's own services and desktop, the suite's
// target, a test running beside this one. A random thread id (small numbers
// are live threads there) or a title that one of their windows has (every
// empty title) is left out of the fuzz; the rest goes in: malformed
// expressions, titles that match nothing, and this process's own windows.
bool threadOfAnotherProcess(jint threadId) {
    HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(threadId));
    if (!thread) return false;
    const DWORD pid = GetProcessIdOfThread(thread);
    CloseHandle(thread);
    return pid != GetCurrentProcessId();
}

BOOL CALLBACK collectWindow(HWND window, LPARAM list) {
    reinterpret_cast<std::vector<HWND>*>(list)->push_back(window);
    return TRUE;
}

// Matched as the driver matches a title: the whole title, by Boost's
// ECMAScript grammar without its Perl defaults, on at most 511 characters.
bool titleOfAnotherProcess(const std::wstring& title) {
    using Engine = boost::basic_regex<wchar_t, boost::cpp_regex_traits<wchar_t>>;
    Engine expression;
    try {
        expression.assign(title, boost::regex_constants::ECMAScript | boost::regex_constants::no_mod_m |
                                     boost::regex_constants::no_mod_s);
    } catch (const std::exception&) {
        return false;  // the driver matches nothing with it
    }
    std::vector<HWND> tops;
    EnumWindows(&collectWindow, reinterpret_cast<LPARAM>(&tops));
    for (HWND window : tops) {
        DWORD pid = 0;
        GetWindowThreadProcessId(window, &pid);
        if (pid == GetCurrentProcessId()) continue;
        wchar_t text[512] = {};
        GetWindowTextW(window, text, 512);
        try {
            if (boost::regex_match(std::wstring(text), expression)) return true;
        } catch (const std::exception&) {
            return true;  // too complex to tell: left out
        }
    }
    return false;
}

// What a call may answer: InvalidHandleException for a handle that doesn't
// name a living control (and no other exception at all); a non-null result.
const int HANDLE = 1;
const int NOT_NULL = 2;

class Fuzz : public DriverTest {
protected:
    void SetUp() override {
        dumpLogOnFailure = false;  // a failure names its call; the log is far too long to print
        DriverTest::SetUp();
        ASSERT_NE(nullptr, ownWindow.hwnd);
        seed = environmentNumber("DESKWRIGHT_FUZZ_SEED", 20261123);
        rng.seed(seed);
        makeTarget();
        fuzzThread = GetCurrentThreadId();
        realSleep = &Sleep;
        using Patch = std::pair<const char*, void*>;
        for (auto [function, replacement] : {Patch{"Sleep", reinterpret_cast<void*>(&fuzzSleep)},
                                             Patch{"mouse_event", reinterpret_cast<void*>(&noMouseEvent)},
                                             Patch{"keybd_event", reinterpret_cast<void*>(&noKeyEvent)}}) {
            patches.push_back(std::make_unique<dwtest::ImportPatch>(dll->module(), function, replacement));
            ASSERT_TRUE(patches.back()->applied()) << function;
        }
        // Input simulation waits between steps; a fuzz run shouldn't.
        for (const wchar_t* key : {L"deskwright.delay.after.mousemoved", L"deskwright.delay.after.mousepressed",
                                   L"deskwright.delay.mouse.multiclick", L"deskwright.delay.after.keydown"}) {
            setPreference(key, L"0");
        }
    }
    void TearDown() override {
        native<void>("EnableCheckMode", jboolean{JNI_FALSE}, jint{0});
        native<void>("EnableEventListeners", jint{0});
        native<void>("EnableRecordingMode", jboolean{JNI_FALSE}, jint{0});
        patches.clear();
        DriverTest::TearDown();
    }

    // A window with a few controls that answer the common patterns.
    void makeTarget() {
        fakeuia::Node& top = attachToOwnWindow(L"Target");
        LONG y = 20;
        auto add = [&](fakeuia::Node& parent, CONTROLTYPEID type, const wchar_t* name) -> fakeuia::Node& {
            y += 25;
            return parent.add({.controlType = type, .name = name, .automationId = name, .bounds = {20, y, 180, y + 20}});
        };
        fakeuia::attach<fakeuia::InvokeSource>(add(top, UIA_ButtonControlTypeId, L"OK"));
        fakeuia::attach<fakeuia::ValueSource>(add(top, UIA_EditControlTypeId, L"Field"), L"text");
        fakeuia::attach<fakeuia::ToggleSource>(add(top, UIA_CheckBoxControlTypeId, L"Check"));
        fakeuia::attach<fakeuia::RangeValueSource>(add(top, UIA_SliderControlTypeId, L"Slider"), 5.0, 0.0, 10.0);
        fakeuia::attach<fakeuia::ExpandCollapseSource>(add(top, UIA_TreeItemControlTypeId, L"Node"));
        fakeuia::Node& list = add(top, UIA_ListControlTypeId, L"List");
        fakeuia::attach<fakeuia::ScrollSource>(list);
        for (const wchar_t* item : {L"one", L"two", L"three"}) {
            fakeuia::attach<fakeuia::SelectionItemSource>(add(list, UIA_ListItemControlTypeId, item));
        }
        harvestTree();
        ASSERT_GE(pool.size(), 10u);
    }
    // Every control of the target, as GetHierarchyWithAttributes lists them.
    void harvestTree() {
        host->nativeCall([&] {
            for (jlong top : host->longs(native<jlongArray>("GetToplevels"))) {
                jobjectArray flat = native<jobjectArray>("GetHierarchyWithAttributes", top, host->stringArray({}),
                                                         host->longArray({}));
                host->takeException();
                auto entries = host->isNull(flat) ? std::vector<std::optional<std::wstring>>{} : host->strings(flat);
                for (size_t i = 1; i < entries.size(); i += 2) harvest({std::stoll(*entries[i])});
            }
            return 0;
        });
    }
    void harvest(const std::vector<jlong>& handles) {
        for (jlong handle : handles) if (handle != 0 && known.insert(handle).second) pool.push_back(handle);
    }
    // Whether the driver reads the value as a handle some control has had.
    bool namesAControl(jlong value) const {
        return std::any_of(known.begin(), known.end(), [value](jlong handle) {
            return sizeof(void*) == 4 ? static_cast<std::uint32_t>(value) == static_cast<std::uint32_t>(handle)
                                      : value == handle;
        });
    }

    // --- arguments, each written into the description of the call ----------------
    std::uint64_t below(std::uint64_t n) { return std::uniform_int_distribution<std::uint64_t>(0, n - 1)(rng); }

    // A value that names no control: random bits, or an address inside a control.
    jlong badHandle() {
        for (;;) {
            jlong value;
            switch (below(6)) {
            case 0: value = static_cast<jlong>(rng()); break;
            case 1: value = static_cast<jlong>(below(0x100000)); break;
            case 2: value = pool[below(pool.size())] + static_cast<jlong>(below(64)) - 32; break;
            case 3: value = pool[below(pool.size())] ^ (jlong{1} << (32 + below(31))); break;
            case 4: value = below(2) ? LLONG_MIN : LLONG_MAX; break;
            default: value = -static_cast<jlong>(below(0x10000)); break;
            }
            if (!namesAControl(value)) return value;
        }
    }
    template <class V, size_t N>
    V pick(const V (&values)[N]) {
        return values[below(N)];
    }
    template <class V>
    V logged(const char* tag, V value) {
        out << " " << tag << "=" << value;
        return value;
    }
    jlong handle() {
        const auto kind = below(10);
        handleFromPool = kind < 6;
        return logged("h", kind < 6 ? pool[below(pool.size())] : kind == 6 ? jlong{0} : badHandle());
    }
    jint integer() {
        static const jint extremes[] = {INT_MIN, INT_MAX, 0, -1, 1, INT_MIN + 1, INT_MAX - 1, 0x10000};
        const auto kind = below(3);
        return logged("i", kind == 0 ? pick(extremes)
                           : kind == 1 ? static_cast<jint>(below(2000)) - 1000 : static_cast<jint>(rng()));
    }
    jlong longValue() {
        static const jlong extremes[] = {LLONG_MIN, LLONG_MAX, 0, -1, 1, INT_MIN, INT_MAX, 0x100000000LL};
        return logged("j", below(2) ? pick(extremes) : static_cast<jlong>(rng()));
    }
    jdouble real() {
        using limits = std::numeric_limits<double>;
        static const jdouble extremes[] = {limits::quiet_NaN(), limits::infinity(), -limits::infinity(),
                                           limits::max(), -limits::max(), limits::denorm_min(),
                                           0.0, -0.0, -1.0, 100.0, 1e300};
        return logged("d", below(2) ? pick(extremes) : std::uniform_real_distribution<double>(-200.0, 200.0)(rng));
    }
    jboolean flag() { return static_cast<jboolean>(logged("z", below(2) ? 1 : 0)); }
    jchar character() {
        static const jchar extremes[] = {0, 0xFFFF, 0xD800, 0xDFFF, L'a', 0x1B, 0x7F};
        return logged("c", below(2) ? pick(extremes) : static_cast<jchar>(rng()));
    }
    std::wstring text() {
        static const wchar_t* const words[] = {L"name", L"rid", L"rid2", L"value", L"type", L"id", L"desc",
                                               L"bounds", L"state", L"class", L"horizscroll", L"vertscroll",
                                               L"rangevalue", L"__NULL__", L"__null_java_string__", L"Field",
                                               L"deskwright.max.children", L"deskwright.omit.states",
                                               L"deskwright.rid.append.loc", L"1", L"-1", L"abc", L"true"};
        // Now and then huge, up to 100,000 characters (rare: the log carries
        // them whole); else empty, a word, or short with any code unit, NUL
        // and lone surrogates included.
        const auto kind = below(100);
        if (kind >= 15 && kind < 60) return pick(words);
        std::wstring any(kind == 0 ? below(100000) + 1 : kind < 15 ? 0 : below(20), L'x');
        for (wchar_t& c : any) {
            c = kind == 0 && below(1000) ? L'x' : static_cast<wchar_t>(below(3) ? 0x20 + below(0x60) : rng());
        }
        return any;
    }
    // A text as the description of a call shows it: its first 24 code units.
    static std::string shown(const std::wstring& value) {
        std::ostringstream text;
        text << "\"" << std::hex;
        for (size_t i = 0; i < value.size() && i < 24; ++i) {
            if (value[i] >= 0x20 && value[i] < 0x7F) text << static_cast<char>(value[i]);
            else text << "\\u" << static_cast<unsigned>(value[i]);
        }
        text << std::dec << "\"(" << value.size() << ")";
        return text.str();
    }
    jstring string() {
        const bool isNull = below(6) == 0;
        const std::wstring value = isNull ? L"" : text();
        out << " s=" << (isNull ? "null" : shown(value));
        return isNull ? nullptr : host->str(value);
    }
    // Names for the attribute natives: null, empty, null entries, now and then many.
    jobjectArray names() {
        const size_t count = below(6) == 0 ? 0 : below(40) == 0 ? below(2000) : below(5);
        if (count == 0 && below(2)) {
            out << " names=null";
            return nullptr;
        }
        std::vector<std::wstring> items;
        for (size_t i = 0; i < count; ++i) items.push_back(text());
        jobjectArray array = host->stringArray(items);
        out << " names={";
        for (size_t i = 0; i < count; ++i) {
            const bool isNull = below(5) == 0;
            if (isNull) env->SetObjectArrayElement(array, static_cast<jsize>(i), nullptr);
            out << (i ? "," : "") << (isNull ? std::string("null") : shown(items[i]));
        }
        out << "}";
        return array;
    }
    jlongArray handles() {
        const size_t count = below(6) == 0 ? 0 : below(40) == 0 ? below(100000) : below(4);
        std::vector<jlong> items;
        for (size_t i = 0; i < count; ++i) items.push_back(below(2) ? pool[below(pool.size())] : static_cast<jlong>(rng()));
        out << " excluded=(" << count << ")";
        return count == 0 && below(2) ? nullptr : host->longArray(items);
    }
    // A window handle: this test's own window (given only harmless messages),
    // or a value that names no window at all.
    jlong window(bool anyMessage) {
        HWND hwnd = ownWindow.hwnd;
        if (anyMessage || below(2) == 0) {
            do {
                hwnd = reinterpret_cast<HWND>(static_cast<std::uintptr_t>(below(3) ? below(0x100000) : rng()));
            } while (IsWindow(hwnd) || LOWORD(reinterpret_cast<std::uintptr_t>(hwnd)) == 0xFFFF || !hwnd);
        }
        const jlong value = static_cast<jlong>(reinterpret_cast<std::intptr_t>(hwnd));
        out << " hwnd=" << value;
        return value;
    }
    jint message(bool anyMessage) {
        static const jint harmless[] = {WM_NULL, WM_GETTEXTLENGTH, WM_GETDLGCODE, WM_GETFONT};
        return logged("msg", anyMessage ? static_cast<jint>(rng()) : pick(harmless));
    }

    // A message to a window: to this test's own window only harmless ones.
    template <class R>
    void message(const char* native) {
        const bool any = below(2);
        jlong hwnd = window(any);
        jint msg = message(any);
        jlong wParam = any ? longValue() : 0;
        this->native<R>(native, hwnd, msg, wParam, any ? longValue() : jlong{0});
    }

    // --- results ----------------------------------------------------------------------
    void expect(bool holds, const char* what) {
        if (!holds) problem << what << "; ";
    }
    void harvestLongs(jlongArray found) {
        if (!host->isNull(found)) {
            std::vector<jlong> values = host->longs(found);
            values.resize(std::min<size_t>(values.size(), 16));
            harvest(values);
        }
    }
    // One native: its name, what it may throw and answer, and a call with
    // fresh arguments.
    struct Native { const char* name; int flags; std::function<void(Fuzz&)> call; };
    static const std::vector<Native>& natives();
    // A native called with arguments drawn by their types, in their order;
    // handles in its result join the pool.
    jlong draw(jlong*) { return handle(); }
    jint draw(jint*) { return integer(); }
    jstring draw(jstring*) { return string(); }
    jboolean draw(jboolean*) { return flag(); }
    jdouble draw(jdouble*) { return real(); }
    jchar draw(jchar*) { return character(); }
    jobjectArray draw(jobjectArray*) { return names(); }
    jlongArray draw(jlongArray*) { return handles(); }
    template <class R, class... A>
    static Native call(const char* name, int flags) {
        return {name, flags, [name, flags](Fuzz& t) {
                    std::tuple<A...> args{t.draw(static_cast<A*>(nullptr))...};
                    if constexpr (std::is_void_v<R>) {
                        std::apply([&](A... values) { t.native<void>(name, values...); }, args);
                    } else {
                        R result = std::apply([&](A... values) { return t.native<R>(name, values...); }, args);
                        t.resultEmpty = t.empty(result);
                        if constexpr (std::is_pointer_v<R>) {
                            t.expect(!(flags & NOT_NULL) || !t.host->isNull(result), "null result");
                        }
                        if constexpr (std::is_same_v<R, jlongArray>) {
                            t.harvestLongs(result);
                        } else if constexpr (std::is_same_v<R, jlong>) {
                            if (name == std::string("GetParent")) t.harvest({result});
                        }
                    }
                }};
    }

    // Whether a result is the empty default that comes with an exception.
    bool empty(jlong value) { return value == 0; }
    bool empty(jint value) { return value == 0; }
    bool empty(jboolean value) { return value == JNI_FALSE; }
    bool empty(jdouble) { return true; }
    bool empty(jstring value) { return host->isNull(value) || host->text(value).empty(); }
    bool empty(jlongArray value) { return host->isNull(value) || host->longs(value).empty(); }
    bool empty(jobjectArray value) { return host->isNull(value) || host->strings(value).empty(); }
    bool empty(jintArray value) {
        return host->isNull(value) || host->ints(value) == std::vector<jint>(host->ints(value).size(), 0);
    }

    // Runs one call in a native frame of its own; false (and a failure that
    // names the call) if anything went wrong.
    void runCalls(size_t calls);
    bool runOne(const Native& native, size_t index) {
        out.str("");
        problem.str("");
        handleFromPool = false;
        resultEmpty = true;
        const size_t misuse = host->violations().size();
        host->nativeCall([&] { native.call(*this); });
        auto thrown = host->takeException();
        if (thrown) {
            const bool invalid = thrown->message == L"Invalid handle value";
            const bool gone = thrown->message == L"Control does no longer exist";
            if (thrown->className != dwtest::INVALID_HANDLE_EXCEPTION || !(native.flags & HANDLE) ||
                (!invalid && !gone) || (!handleFromPool && !invalid)) {
                problem << "threw " << thrown->className << ": " << std::string(thrown->message.begin(),
                                                                                   thrown->message.end())
                        << "; ";
            }
            expect(resultEmpty, "a result beside the exception");
        } else if ((native.flags & HANDLE) && !handleFromPool) {
            problem << "no InvalidHandleException; ";
        }
        const auto violations = host->violations();
        for (size_t i = misuse; i < violations.size(); ++i) problem << "JNI misuse: " << violations[i] << "; ";
        if (host->outstandingPins() != 0) problem << host->outstandingPins() << " pins left; ";
        if (problem.str().empty()) return true;
        ADD_FAILURE() << "seed " << seed << ", call " << index << ": " << native.name << "(" << out.str()
                      << " ): " << problem.str();
        return false;
    }

    dwtest::OwnWindow ownWindow{L"EDIT", L"Own window"};
    std::vector<std::unique_ptr<dwtest::ImportPatch>> patches;
    std::uint64_t seed = 0;
    std::mt19937_64 rng;
    std::vector<jlong> pool;
    std::set<jlong> known;
    std::ostringstream out;
    std::ostringstream problem;
    bool handleFromPool = false;
    bool resultEmpty = true;
    size_t leftOut = 0;
};

const std::vector<Fuzz::Native>& Fuzz::natives() {
    using T = Fuzz;
    const int H = HANDLE, NN = NOT_NULL, HN = HANDLE | NOT_NULL;
    using J = jlong;
    using I = jint;
    using S = jstring;
    using Z = jboolean;
    using Names = jobjectArray;
    static const std::vector<Native> table = {
        call<jint, S>("StartClient", 0),
        {"AttachClient__I", 0,
         [](T& t) {
             const jint threadId = t.integer();
             if (threadOfAnotherProcess(threadId)) {
                 t.out << " (left out: a thread of another process)";
                 ++t.leftOut;
                 return;
             }
             t.native<jint>("AttachClient__I", threadId);
         }},
        {"AttachClient__Ljava_lang_String_2", 0,
         [](T& t) {
             jstring title = t.string();
             if (title && titleOfAnotherProcess(t.host->text(title))) {
                 t.out << " (left out: the title of another process's window)";
                 ++t.leftOut;
                 return;
             }
             t.native<jint>("AttachClient__Ljava_lang_String_2", title);
         }},
        call<void>("CacheExistingWindowHandles", 0),
        call<jint>("GetThreadId", 0), call<void>("TriggerThread", 0), call<void>("Terminate", 0),
        call<J, J>("GetNativeHandle", H), call<S, J, S>("GetAttribute", H), call<Z, J, S, S>("SetAttribute", H),
        call<S, J, S>("EvalJS", 0), call<Z>("IsUia8", 0), call<Z, I, I>("SetTimeouts", 0),
        call<jdouble>("GetScreenScaleFactor", 0), call<void, I>("EnableEventListeners", 0),
        call<void, Z, I>("EnableCheckMode", 0), call<void, Z, I>("EnableRecordingMode", 0),
        call<void, J, I, I>("Highlight", H), call<void, J, I, I, I, I, I, I>("SimulateMouseEvent", H),
        call<void, J, jchar, I, I>("SimulateKeyStroke", H), call<void, J>("SetFocus", H),
        call<Z, J, I, I>("Move", H), call<Z, J, I, I>("Resize", H), call<Z, J>("Close", H),
        call<Z, J>("BringToFront", H), call<void, J>("DoDefaultAction", H), call<void, J>("Invoke", H),
        call<void, J, I>("Select", H), call<Z, J, I>("Toggle", H), call<Z, J, Z>("Expand", H),
        call<void, J, jdouble, jdouble>("Scroll", H), call<Z, J>("ScrollIntoView", H),
        call<jlongArray, J>("GetChildren", HN), call<S, J>("GetClassName", HN), call<Names, J>("GetClassNames", HN),
        call<jlongArray>("GetToplevels", NN), call<jlongArray, J, S, S>("GetElementsByProperty", H),
        call<jlongArray, J>("FindAllWindows", H), call<S, S>("GetPreference", NN),
        {"SetupNativeLogging", 0, [](T& t) { t.expect(t.native<jint>("SetupNativeLogging") == 0, "not 0"); }},
        {"IsConnected", 0, [](T& t) { t.expect(t.native<Z>("IsConnected") == JNI_TRUE, "no longer connected"); }},
        {"SetPreference", 0,
         [](T& t) {
             jstring key = t.string();  // keys that make input simulation wait stay at 0
             if (!key || t.host->text(key).rfind(L"deskwright.delay", 0) != 0) {
                 t.native<void>("SetPreference", key, t.string());
             }
         }},
        call<Names, J, Names>("GetChildrenWithAttributes", H), call<Names, J, Names>("GetAttributes", H),
        call<Names, J, Names, jlongArray>("GetHierarchyWithAttributes", H), call<jintArray, J>("GetBounds", HN),
        call<J, J>("GetParent", H),
        {"GetElementFromPoint", 0,
         [](T& t) { I x = t.integer(); t.harvest({t.native<J>("GetElementFromPoint", x, t.integer())}); }},
        {"ReleaseControls", 0,
         [](T& t) {
             if (t.below(20) == 0) {  // now and then: every handle is invalid until read again
                 t.out << " (released)";
                 t.native<void>("ReleaseControls");
             }
         }},
        // The window natives: this test's own window, or none.
        {"GetWindowClassName", 0,
         [](T& t) { t.expect(!t.host->isNull(t.native<S>("GetWindowClassName", t.window(false))), "null result"); }},
        {"GetWindowText", 0,
         [](T& t) { t.expect(!t.host->isNull(t.native<S>("GetWindowText", t.window(false))), "null result"); }},
        {"SetWindowText", 0, [](T& t) { J hwnd = t.window(false); t.native<Z>("SetWindowText", hwnd, t.string()); }},
        {"GetWindowLong", 0, [](T& t) { J hwnd = t.window(false); t.native<I>("GetWindowLong", hwnd, t.integer()); }},
        {"SendMessage", 0, [](T& t) { t.message<I>("SendMessage"); }},
        {"PostMessage", 0, [](T& t) { t.message<Z>("PostMessage"); }},
    };
    return table;
}

}  // namespace

// Random calls into every native, the target's handles mixed in.
void Fuzz::runCalls(size_t calls) {
    const auto& table = natives();
    std::set<std::string> called;
    const ULONGLONG start = GetTickCount64();
    for (size_t index = 0; index < calls && !HasFailure(); ++index) {
        const Native& native = table[below(table.size())];
        called.insert(native.name);
        runOne(native, index);
        if (index % 1000 == 999) harvestTree();  // after ReleaseControls, the target is read again
    }
    std::cout << "seed " << seed << ": " << calls << " calls in " << (GetTickCount64() - start) / 1000 << " s, "
              << leftOut << " classic attaches to other processes left out" << std::endl;
    if (!HasFailure()) {
        EXPECT_EQ(table.size(), called.size()) << "some native was never called";
    }
}

// Every log statement is built, with whatever the arguments hold.
TEST_F(Fuzz, RandomArgumentsWithEveryLogStatement) {
    runCalls(10000);
}

namespace {
// Logs only the steps of the threads: a long run spends its time in the natives.
class QuietFuzz : public Fuzz {
protected:
    std::wstring logLevels() const override { return L"*=5"; }
};
}  // namespace

TEST_F(QuietFuzz, RandomArgumentsIntoEveryNative) {
    runCalls(environmentNumber("DESKWRIGHT_FUZZ_CALLS", 100000));
}
