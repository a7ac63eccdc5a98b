// Random calls into the natives, as a careless or hostile Java caller makes
// them: handles that name nothing, nulls, empty and huge texts and arrays,
// extreme numbers, mixed with the handles of a small simulated target so that
// the working paths run too. Nothing may crash, hang, misuse JNI or leave a
// pin; the only exception is InvalidHandleException, and only for a handle.
//
// DESKWRIGHT_FUZZ_CALLS (default 100000) and DESKWRIGHT_FUZZ_SEED choose the
// run; a failure prints the seed, the index and the call with its arguments,
// so that the same seed replays it.
#include "DriverTest.h"

#include "FakeUiaPatterns.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <tuple>

using dwtest::DriverTest;

namespace {

std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
    const char* text = std::getenv(name);
    return text && *text ? std::strtoull(text, nullptr, 0) : fallback;
}

// What a call may answer besides its result.
enum class Check {
    None,     // no exception at all
    Handle,   // InvalidHandleException for a handle that doesn't name a living control
};

class Fuzz : public DriverTest {
protected:
    void SetUp() override {
        dumpLogOnFailure = false;  // a failure names its call; the log is far too long to print
        DriverTest::SetUp();
        ownWindow = CreateWindowExW(0, L"EDIT", L"Own window", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                    nullptr, GetModuleHandleW(nullptr), nullptr);
        ASSERT_NE(nullptr, ownWindow);
        seed = environmentNumber("DESKWRIGHT_FUZZ_SEED", 20261123);
        rng.seed(seed);
        makeTarget();
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
        DestroyWindow(ownWindow);
        DriverTest::TearDown();
    }

    // A window with a few controls that answer the common patterns.
    void makeTarget() {
        fakeuia::Node& top = attachToOwnWindow(L"Target");
        auto add = [](fakeuia::Node& parent, CONTROLTYPEID type, const wchar_t* name, LONG y) -> fakeuia::Node& {
            fakeuia::NodeSpec spec;
            spec.controlType = type;
            spec.name = name;
            spec.automationId = name;
            spec.bounds = {20, y, 180, y + 20};
            return parent.add(spec);
        };
        fakeuia::attach<fakeuia::InvokeSource>(add(top, UIA_ButtonControlTypeId, L"OK", 20));
        fakeuia::attach<fakeuia::ValueSource>(add(top, UIA_EditControlTypeId, L"Field", 45), L"text");
        fakeuia::attach<fakeuia::ToggleSource>(add(top, UIA_CheckBoxControlTypeId, L"Check", 70));
        fakeuia::attach<fakeuia::RangeValueSource>(add(top, UIA_SliderControlTypeId, L"Slider", 95), 5.0, 0.0,
                                                   10.0);
        fakeuia::Node& list = add(top, UIA_ListControlTypeId, L"List", 120);
        fakeuia::attach<fakeuia::ScrollSource>(list);
        for (const wchar_t* item : {L"one", L"two", L"three"}) {
            fakeuia::attach<fakeuia::SelectionItemSource>(add(list, UIA_ListItemControlTypeId, item, 145));
        }
        fakeuia::attach<fakeuia::ExpandCollapseSource>(add(top, UIA_TreeItemControlTypeId, L"Node", 170));
        harvest(host->longs(native<jlongArray>("GetToplevels")));
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
                if (host->isNull(flat)) {
                    continue;
                }
                auto entries = host->strings(flat);
                for (size_t i = 1; i < entries.size(); i += 2) {
                    harvest({std::stoll(*entries[i])});
                }
            }
            return 0;
        });
    }
    void harvest(const std::vector<jlong>& handles) {
        for (jlong handle : handles) {
            if (handle != 0 && known.insert(handle).second) {
                pool.push_back(handle);
            }
        }
    }
    // Whether the driver reads the value as a handle some control has had.
    bool namesAControl(jlong value) const {
        for (jlong handle : known) {
            if (sizeof(void*) == 4 ? static_cast<std::uint32_t>(value) == static_cast<std::uint32_t>(handle)
                                   : value == handle) {
                return true;
            }
        }
        return false;
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
            if (!namesAControl(value)) {
                return value;
            }
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
        const auto kind = below(100);
        if (kind == 0) {  // huge, up to 100,000 characters (rare: the log carries them whole)
            std::wstring huge(static_cast<size_t>(below(100000) + 1), L'x');
            huge[below(huge.size())] = static_cast<wchar_t>(rng());
            return huge;
        }
        if (kind < 15) {
            return L"";
        }
        if (kind < 60) {
            return pick(words);
        }
        // Short, any code unit, NUL and lone surrogates included.
        std::wstring any(static_cast<size_t>(below(20)), L' ');
        for (wchar_t& c : any) {
            c = static_cast<wchar_t>(below(3) ? 0x20 + below(0x60) : rng());
        }
        return any;
    }
    static std::string shown(const std::wstring& value) {
        std::ostringstream text;
        text << "\"";
        for (size_t i = 0; i < value.size() && i < 24; ++i) {
            if (value[i] >= 0x20 && value[i] < 0x7F) {
                text << static_cast<char>(value[i]);
            } else {
                text << "\\u" << std::hex << static_cast<unsigned>(value[i]) << std::dec;
            }
        }
        text << (value.size() > 24 ? "...\"(" + std::to_string(value.size()) + ")" : "\"");
        return text.str();
    }
    jstring string() {
        if (below(6) == 0) {
            out << " s=null";
            return nullptr;
        }
        const std::wstring value = text();
        out << " s=" << shown(value);
        return host->str(value);
    }
    // Names for the attribute natives: null, empty, null entries, now and then many.
    jobjectArray names() {
        if (below(6) == 0) {
            out << " names=null";
            namesCount = 0;
            return nullptr;
        }
        const size_t count = below(40) == 0 ? below(2000) : below(5);
        std::vector<std::wstring> items;
        std::vector<size_t> nulls;
        out << " names={";
        for (size_t i = 0; i < count; ++i) {
            items.push_back(text());
            const bool isNull = below(5) == 0;
            if (isNull) {
                nulls.push_back(i);
            }
            if (i < 8) {
                out << (i ? "," : "") << (isNull ? std::string("null") : shown(items.back()));
            }
        }
        out << (count > 8 ? ",...}(" + std::to_string(count) + ")" : "}");
        jobjectArray array = host->stringArray(items);
        for (size_t i : nulls) {
            env->SetObjectArrayElement(array, static_cast<jsize>(i), nullptr);
        }
        namesCount = count;
        return array;
    }
    jlongArray handles() {
        if (below(6) == 0) {
            out << " excluded=null";
            return nullptr;
        }
        const size_t count = below(40) == 0 ? below(100000) : below(4);
        std::vector<jlong> items;
        for (size_t i = 0; i < count; ++i) {
            items.push_back(below(2) ? pool[below(pool.size())] : static_cast<jlong>(rng()));
        }
        out << " excluded=(" << count << ")";
        return host->longArray(items);
    }
    // A window handle: this test's own window (given only harmless messages),
    // or a value that names no window at all.
    jlong window(bool anyMessage) {
        HWND hwnd = nullptr;
        if (!anyMessage && below(2)) {
            hwnd = ownWindow;
        } else {
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
        if (!holds) {
            problem << what << "; ";
        }
    }
    void harvestLongs(jlongArray found) {
        if (!host->isNull(found)) {
            std::vector<jlong> values = host->longs(found);
            values.resize(std::min<size_t>(values.size(), 16));
            harvest(values);
        }
    }
    // Records of a flat result: the handle (and level), then one value per name.
    void expectStride(jobjectArray flat, size_t extra) {
        const size_t stride = namesCount + extra;
        if (!host->isNull(flat) && host->strings(flat).size() % stride != 0) {
            problem << host->strings(flat).size() << " entries, not records of " << stride << "; ";
        }
    }

    // One native: its name, its handle check, and a call with fresh arguments.
    struct Native {
        const char* name;
        Check check;
        std::function<void(Fuzz&)> call;
    };
    static const std::vector<Native>& natives();
    // A native called with arguments drawn by their types, in their order.
    jlong draw(jlong*) { return handle(); }
    jint draw(jint*) { return integer(); }
    jstring draw(jstring*) { return string(); }
    jboolean draw(jboolean*) { return flag(); }
    jdouble draw(jdouble*) { return real(); }
    jchar draw(jchar*) { return character(); }
    template <class R, class... A>
    static Native call(const char* name, Check check) {
        return {name, check, [name](Fuzz& t) {
                    std::tuple<A...> args{t.draw(static_cast<A*>(nullptr))...};
                    std::apply([&](A... values) { t.native<R>(name, values...); }, args);
                }};
    }

    // Runs one call in a native frame of its own; false (and a failure that
    // names the call) if anything went wrong.
    void runCalls(size_t calls);
    bool runOne(const Native& native, Check check, size_t index) {
        out.str("");
        problem.str("");
        handleFromPool = false;
        const size_t misuse = host->violations().size();
        host->nativeCall([&] { native.call(*this); });
        auto thrown = host->takeException();
        if (thrown) {
            const bool invalid = thrown->message == L"Invalid handle value";
            const bool gone = thrown->message == L"Control does no longer exist";
            if (thrown->className != dwtest::INVALID_HANDLE_EXCEPTION || check == Check::None ||
                (!invalid && !gone) || (!handleFromPool && !invalid)) {
                problem << "threw " << thrown->className << ": " << std::string(thrown->message.begin(),
                                                                                   thrown->message.end())
                        << "; ";
            }
        } else if (check == Check::Handle && !handleFromPool) {
            problem << "no InvalidHandleException; ";
        }
        const auto violations = host->violations();
        for (size_t i = misuse; i < violations.size(); ++i) {
            problem << "JNI misuse: " << violations[i] << "; ";
        }
        if (host->outstandingPins() != 0) {
            problem << host->outstandingPins() << " pins left; ";
        }
        if (problem.str().empty()) {
            return true;
        }
        ADD_FAILURE() << "seed " << seed << ", call " << index << ": " << native.name << "(" << out.str()
                      << " ): " << problem.str();
        return false;
    }

    HWND ownWindow = nullptr;
    std::uint64_t seed = 0;
    std::mt19937_64 rng;
    std::vector<jlong> pool;
    std::set<jlong> known;
    std::ostringstream out;
    std::ostringstream problem;
    bool handleFromPool = false;
    size_t namesCount = 0;
};

const std::vector<Fuzz::Native>& Fuzz::natives() {
    using T = Fuzz;
    const Check H = Check::Handle;
    const Check N = Check::None;
    using J = jlong;
    using I = jint;
    using S = jstring;
    using Z = jboolean;
    static const std::vector<Native> table = {
        // Natives whose result tells nothing more: arguments by their type.
        call<jint, S>("StartClient", N), call<jint, I>("AttachClient__I", N),
        call<jint, S>("AttachClient__Ljava_lang_String_2", N), call<void>("CacheExistingWindowHandles", N),
        call<jint>("GetThreadId", N), call<void>("TriggerThread", N), call<void>("Terminate", N),
        call<J, J>("GetNativeHandle", H), call<S, J, S>("GetAttribute", H), call<Z, J, S, S>("SetAttribute", H),
        call<S, J, S>("EvalJS", N), call<Z>("IsUia8", N), call<Z, I, I>("SetTimeouts", N),
        call<jdouble>("GetScreenScaleFactor", N), call<void, I>("EnableEventListeners", N),
        call<void, Z, I>("EnableCheckMode", N), call<void, Z, I>("EnableRecordingMode", N),
        call<void, J, I, I>("Highlight", H), call<void, J, I, I, I, I, I, I>("SimulateMouseEvent", H),
        call<void, J, jchar, I, I>("SimulateKeyStroke", H), call<void, J>("SetFocus", H),
        call<Z, J, I, I>("Move", H), call<Z, J, I, I>("Resize", H), call<Z, J>("Close", H),
        call<Z, J>("BringToFront", H), call<void, J>("DoDefaultAction", H), call<void, J>("Invoke", H),
        call<void, J, I>("Select", H), call<Z, J, I>("Toggle", H), call<Z, J, Z>("Expand", H),
        call<void, J, jdouble, jdouble>("Scroll", H), call<Z, J>("ScrollIntoView", H),
        // Natives whose result is checked or read for handles.
        {"SetupNativeLogging", N, [](T& t) { EXPECT_EQ(0, t.native<jint>("SetupNativeLogging")); }},
        {"IsConnected", N,
         [](T& t) { t.expect(t.native<jboolean>("IsConnected") == JNI_TRUE, "no longer connected"); }},
        {"SetPreference", N,
         [](T& t) {
             jstring key = t.string();
             // Keys that make input simulation wait are left at 0.
             if (!key || t.host->text(key).rfind(L"deskwright.delay", 0) != 0) {
                 t.native<void>("SetPreference", key, t.string());
             }
         }},
        {"GetPreference", N,
         [](T& t) { t.expect(!t.host->isNull(t.native<jstring>("GetPreference", t.string())), "null preference"); }},
        {"GetChildren", H,
         [](T& t) {
             jlongArray result = t.native<jlongArray>("GetChildren", t.handle());
             t.expect(!t.host->isNull(result), "null children");
             t.harvestLongs(result);
         }},
        {"GetChildrenWithAttributes", H,
         [](T& t) {
             jlong h = t.handle();
             t.expectStride(t.native<jobjectArray>("GetChildrenWithAttributes", h, t.names()), 1);
         }},
        {"GetHierarchyWithAttributes", H,
         [](T& t) {
             jlong h = t.handle();
             jobjectArray names = t.names();
             t.expectStride(t.native<jobjectArray>("GetHierarchyWithAttributes", h, names, t.handles()), 2);
         }},
        {"GetParent", H, [](T& t) { t.harvest({t.native<jlong>("GetParent", t.handle())}); }},
        {"GetClassName", H,
         [](T& t) { t.expect(!t.host->isNull(t.native<jstring>("GetClassName", t.handle())), "null class name"); }},
        {"GetClassNames", H,
         [](T& t) {
             t.expect(!t.host->isNull(t.native<jobjectArray>("GetClassNames", t.handle())), "null class names");
         }},
        {"GetBounds", H,
         [](T& t) {
             jintArray result = t.native<jintArray>("GetBounds", t.handle());
             t.expect(!t.host->isNull(result) && t.host->ints(result).size() == 4, "bounds not four numbers");
         }},
        {"GetAttributes", H,
         [](T& t) {
             jlong h = t.handle();
             jobjectArray result = t.native<jobjectArray>("GetAttributes", h, t.names());
             t.expect(t.host->isNull(result) || t.host->strings(result).size() == t.namesCount, "not one per name");
         }},
        {"GetToplevels", N,
         [](T& t) {
             jlongArray result = t.native<jlongArray>("GetToplevels");
             t.expect(!t.host->isNull(result), "null top-level list");
             t.harvestLongs(result);
         }},
        {"GetElementsByProperty", H,
         [](T& t) {
             jlong h = t.handle();
             jstring name = t.string();
             t.harvestLongs(t.native<jlongArray>("GetElementsByProperty", h, name, t.string()));
         }},
        {"FindAllWindows", H, [](T& t) { t.harvestLongs(t.native<jlongArray>("FindAllWindows", t.handle())); }},
        {"GetElementFromPoint", N,
         [](T& t) { jint x = t.integer(); t.harvest({t.native<jlong>("GetElementFromPoint", x, t.integer())}); }},
        {"ReleaseControls", N,
         [](T& t) {
             // Now and then: every handle is invalid afterwards, until read again.
             if (t.below(20) == 0) {
                 t.out << " (released)";
                 t.native<void>("ReleaseControls");
             }
         }},
        // The window natives: this test's own window, or none.
        {"GetWindowClassName", N,
         [](T& t) {
             t.expect(!t.host->isNull(t.native<jstring>("GetWindowClassName", t.window(false))), "null class name");
         }},
        {"GetWindowText", N,
         [](T& t) { t.expect(!t.host->isNull(t.native<jstring>("GetWindowText", t.window(false))), "null text"); }},
        {"SetWindowText", N,
         [](T& t) { jlong hwnd = t.window(false); t.native<jboolean>("SetWindowText", hwnd, t.string()); }},
        {"GetWindowLong", N,
         [](T& t) { jlong hwnd = t.window(false); t.native<jint>("GetWindowLong", hwnd, t.integer()); }},
        {"SendMessage", N, [](T& t) { t.message<jint>("SendMessage"); }},
        {"PostMessage", N, [](T& t) { t.message<jboolean>("PostMessage"); }},
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
        runOne(native, native.check, index);
        if (index % 1000 == 999) {
            harvestTree();  // after ReleaseControls, the target is read again
        }
    }
    std::cout << "seed " << seed << ": " << calls << " calls in " << (GetTickCount64() - start) / 1000 << " s"
              << std::endl;
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
