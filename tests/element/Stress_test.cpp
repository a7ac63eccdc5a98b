// Several Java threads read one tree through the natives while the dispatch
// thread makes and drops controls of the same elements, one of the Java
// threads now and then releases every control, and another changes
// preferences. Nothing may crash, no handle
// may stand for another element than the one it names, and everything the
// driver was given must be released at the end.
//
// The driver is linked in here (the natives are the functions the DLL
// exports), so that the test can hand work to the driver's own dispatch
// thread, as the recording posters do.
#include <net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright.h>

#include "DriverTest.h"
#include "JniHost.h"

#include "element/UiaControl.h"
#include "dispatch/Runnable.h"
#include "dispatch/UiaEventQueue.h"
#include "uiahelper/UiaHelper.h"

#include <objbase.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#define NATIVE(name) Java_net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright_##name

namespace {

const int READERS = 4;
const DWORD RUN_MS = 4000;
const DWORD MAX_RUN_MS = 60000;

std::wstring hex(int value) {
    wchar_t text[16];
    std::swprintf(text, 16, L"%x", static_cast<unsigned>(value));
    return text;
}

fakeuia::NodeSpec spec(CONTROLTYPEID type, const std::wstring& name, RECT bounds, std::vector<int> runtimeId) {
    return {.controlType = type, .name = name, .bounds = bounds, .runtimeId = std::move(runtimeId)};
}

// What went wrong anywhere, for the test thread to report.
struct Findings {
    std::mutex lock;
    std::vector<std::string> problems;
    void add(const std::string& problem) {
        std::lock_guard<std::mutex> guard(lock);
        if (problems.size() < 20) problems.push_back(problem);
    }
};

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// On the dispatch thread: reads the target's windows and their children and
// makes controls of them; every fourth round drops one of them again.
class ControlMaker : public tolva::Runnable {
public:
    ControlMaker(int pid, const std::map<std::wstring, std::wstring>* keys, Findings* findings,
                 std::atomic<int>* removals, int round)
        : pid_(pid), keys_(keys), findings_(findings), removals_(removals), round_(round) {}
    std::int32_t operator()() override {
        UiaHelper::ElementList tops = UiaHelper::GetToplevelsForPid(pid_);
        // Held while checked: a control that a Java thread removes meanwhile
        // must not be freed and its memory given to another control.
        std::vector<tolva::ControlRef> made;
        for (const UiaHelper::ElementPtr& top : tops) {
            UiaHelper::ElementList children = UiaHelper::GetChildren(top.get());
            for (const UiaHelper::ElementPtr& entry : children) {
                IUIAutomationElement* child = entry.get();
                tolva::ControlRef held = tolva::UiaControl::getControlInUse(child, std::wstring(), nullptr);
                if (!held) continue;
                const tolva::UiaControl* control = held.get();
                made.push_back(std::move(held));
                const std::wstring name = UiaHelper::GetControlName(child);
                const std::wstring key = tolva::UiaControl::keyOf(control);
                auto expected = keys_->find(name);
                // An empty key: another thread removed the control meanwhile.
                if (!key.empty() && (expected == keys_->end() || expected->second != key)) {
                    findings_->add("dispatch thread: " + narrow(name) + " under " + narrow(key));
                }
            }
        }
        if (!made.empty() && round_ % 4 == 0) {
            ++*removals_;  // before and after: a reader sees any removal that overlaps its reads
            tolva::UiaControl::remove(made[static_cast<size_t>(round_) % made.size()]->handle());
            ++*removals_;
        }
        return 0;
    }

private:
    int pid_;
    const std::map<std::wstring, std::wstring>* keys_;
    Findings* findings_;
    std::atomic<int>* removals_;
    int round_;
};

class Stress : public ::testing::Test {
protected:
    void SetUp() override {
        // The driver logs only what matters here: a log line per read would
        // make the log, not the table, the thing under test.
        _wputenv_s(L"TOLVA_LOG_LEVELS", L"*=3");
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
        platform = std::make_unique<fakeuia::Platform>();
        ASSERT_TRUE(SUCCEEDED(platform->install()));
        host = std::make_unique<jnihost::JavaHost>();
        env = host->attachCurrentThread();
        self = host->callbackObject();
        JNI_OnLoad(host->vm(), nullptr);
        NATIVE(SetupNativeLogging)(env, self);
        buildTree();
        ASSERT_NE(0, NATIVE(AttachUiaClient)(env, self, host->str(dwtest::ownPidArgs()), 1000));
    }

    void TearDown() override {
        NATIVE(DetachClient)(env, self);
        EXPECT_TRUE(dwtest::waitUntil([&] { return platform->outstandingReferences() == 0; }, 10000))
            << platform->outstandingBreakdown();
        for (const std::string& violation : host->violations()) ADD_FAILURE() << "JNI misuse: " << violation;
        for (const std::string& call : platform->unsupportedCalls()) ADD_FAILURE() << "unsupported: " << call;
        platform->uninstall();
    }

    // A window with groups of items; items with runtime ids and items whose
    // keys are made from their names under their group's key.
    void buildTree() {
        fakeuia::Node& top = platform->desktop().add({.controlType = UIA_WindowControlTypeId, .name = L"Target",
                                                      .processId = static_cast<int>(GetCurrentProcessId()),
                                                      .bounds = {0, 0, 800, 600}, .runtimeId = std::vector<int>{0x2a, 0x100}});
        keys[L"Target"] = L"Window_2a.100";
        keys[L"Desktop"] = L"Pane_2a.10010";
        parents[L"Target"] = L"Desktop";
        for (int g = 0; g < 12; ++g) {
            const std::wstring group = L"group" + std::to_wstring(g);
            fakeuia::Node& groupNode =
                top.add(spec(UIA_GroupControlTypeId, group, {10, 10 + 40 * g, 700, 45 + 40 * g}, {0x2a, 0x200 + g}));
            keys[group] = L"Group_2a." + hex(0x200 + g);
            parents[group] = L"Target";
            for (int i = 0; i < 6; ++i) {
                const std::wstring item = L"item" + std::to_wstring(g) + L"." + std::to_wstring(i);
                const RECT bounds = {20 + 100 * i, 12 + 40 * g, 110 + 100 * i, 40 + 40 * g};
                if (i % 2) {  // keyed by name under the group
                    groupNode.add(spec(UIA_TextControlTypeId, item, bounds, {}));
                    keys[item] = L"Text_" + keys[group] + L"_" + item;
                } else {
                    groupNode.add(spec(UIA_ButtonControlTypeId, item, bounds, {0x2a, 0x1000 + 16 * g + i}));
                    keys[item] = L"Button_2a." + hex(0x1000 + 16 * g + i);
                }
                parents[item] = group;
            }
        }
    }

    // One reader: walks the tree with the bulk natives and checks that every
    // handle names the element it was given for.
    void read(int index, std::atomic<bool>& stop) {
        JNIEnv* threadEnv = host->attachCurrentThread();
        const jobjectArray names = host->stringArray({L"name", L"rid2"});
        auto check = [&](const std::optional<std::wstring>& name, const std::optional<std::wstring>& key,
                         const char* where) {
            if (!name || !key) return;  // removed meanwhile: no values, as for a dead element
            auto expected = keys.find(*name);
            if (expected == keys.end() || expected->second != *key) {
                findings.add(std::string(where) + ": " + narrow(*name) + " under " + narrow(*key));
            }
        };
        auto thrown = [&]() {
            auto exception = host->takeException();
            if (exception && exception->className != dwtest::INVALID_HANDLE_EXCEPTION) {
                findings.add("unexpected exception " + exception->className);
            }
            return exception.has_value();
        };
        for (int round = 0; !stop; ++round) {
            threadEnv->PushLocalFrame(512);
            std::vector<jlong> tops = host->longs(NATIVE(GetToplevels)(threadEnv, self));
            jobjectArray children = tops.empty() ? nullptr : NATIVE(GetChildrenWithAttributes)(threadEnv, self, tops[0], names);
            std::vector<std::optional<std::wstring>> flat;
            if (!thrown() && children) flat = host->strings(children);
            for (size_t i = 0; i + 2 < flat.size(); i += 3) {
                check(flat[i + 1], flat[i + 2], "children of the window");
                // Parents are checked only where no control left the table
                // since the item's handle was handed out: a removed control's
                // address may be taken by a new control of another element,
                // which is allowed.
                const int removalsBefore = removals.load();
                jlongArray itemArray = NATIVE(GetChildren)(threadEnv, self, std::stoll(flat[i].value_or(L"0")));
                if (thrown()) continue;
                for (jlong item : host->longs(itemArray)) {
                    jobjectArray valueArray = NATIVE(GetAttributes)(threadEnv, self, item, names);
                    if (thrown()) continue;
                    auto values = host->strings(valueArray);
                    ++reads;
                    if (values.size() != 2) {
                        findings.add("GetAttributes gave " + std::to_string(values.size()) + " entries");
                        continue;
                    }
                    check(values[0], values[1], "an item");
                    const jlong parent = NATIVE(GetParent)(threadEnv, self, item);
                    if (thrown() || parent == 0 || !values[0]) continue;
                    jobjectArray parentArray = NATIVE(GetAttributes)(threadEnv, self, parent, names);
                    if (thrown()) continue;
                    auto parentValues = host->strings(parentArray);
                    if (parentValues.size() != 2 || !parentValues[0] || removals.load() != removalsBefore) continue;
                    check(parentValues[0], parentValues[1], "a parent");
                    ++parentChecks;
                    if (*parentValues[0] != parents[*values[0]]) {
                        findings.add("parent of " + narrow(*values[0]) + " is " + narrow(*parentValues[0]));
                    }
                }
            }
            if (index == 1) {
                // Preferences change while the others read them for every key.
                NATIVE(SetPreference)(threadEnv, self, host->str(L"deskwright.stress.round"),
                                      round % 2 ? host->str(std::to_wstring(round)) : nullptr);
            }
            if (index == 0 && round % 3 == 2) {
                ++removals;
                NATIVE(ReleaseControls)(threadEnv, self);
                ++removals;
                ++released;
            }
            threadEnv->PopLocalFrame(nullptr);
        }
        host->detachCurrentThread();
    }

    std::unique_ptr<fakeuia::Platform> platform;
    std::unique_ptr<jnihost::JavaHost> host;
    JNIEnv* env = nullptr;
    jobject self = nullptr;
    std::map<std::wstring, std::wstring> keys;     // name to the key it must stand under
    std::map<std::wstring, std::wstring> parents;  // name to the name of its parent
    Findings findings;
    std::atomic<int> removals{0};  // controls taken out of the table, by anyone
    std::atomic<int> released{0};
    std::atomic<long> reads{0};
    std::atomic<long> parentChecks{0};
};

}  // namespace

TEST_F(Stress, JavaThreadsAndTheDispatchThreadShareTheTable) {
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < READERS; ++i) {
        readers.emplace_back([&, i] { read(i, stop); });
    }
    const int pid = static_cast<int>(GetCurrentProcessId());
    std::thread feeder([&] {
        while (!stop) {
            tolva::UiaEventQueue::getInstance()->invokeLater(new ControlMaker(pid, &keys, &findings, &removals, rounds++));
            Sleep(5);
        }
    });
    // At least RUN_MS, and on a slow or busy machine until every kind of
    // work has happened often enough to mean something.
    const ULONGLONG start = GetTickCount64();
    auto enough = [&] {
        return GetTickCount64() - start >= RUN_MS && released >= 3 && rounds >= 50 && parentChecks >= 10 &&
               reads >= 100;
    };
    while (!enough() && GetTickCount64() - start < MAX_RUN_MS) Sleep(50);
    stop = true;
    feeder.join();
    for (std::thread& reader : readers) reader.join();

    std::lock_guard<std::mutex> guard(findings.lock);
    for (const std::string& problem : findings.problems) ADD_FAILURE() << problem;
    EXPECT_GE(reads.load(), 100) << "the readers got through the tree";
    EXPECT_GE(released.load(), 3) << "controls were released while in use";
    EXPECT_GE(rounds.load(), 50) << "the dispatch thread made controls meanwhile";
    EXPECT_GE(parentChecks.load(), 10) << "parents were checked";
    std::printf("reads: %ld, parent checks: %ld, releases: %d, dispatch rounds: %d\n", reads.load(),
                parentChecks.load(), released.load(), rounds.load());
}
