// Timings of the driver through its natives, over the simulated platform:
//  - one handle check (GetNativeHandle: the check and one property read) with
//    1,000 and with 100,000 controls in the table;
//  - GetHierarchyWithAttributes with "name" and "rid2" over trees of 1,000
//    and of 10,000 elements.
// Not a test: it prints the figures and their ratios. The simulated platform
// answers in-process, so the figures show the driver's own costs, not the
// round trips to a real target.
#include "Deskwright.h"

#include "FakeUia.h"
#include "JniHost.h"

#include <objbase.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double microsSince(Clock::time_point start, int count) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

// The best of five batches: other work on the machine only ever adds time.
template <class F>
double bestOfFive(int count, F once) {
    double best = 1e300;
    for (int batch = 0; batch < 5; ++batch) {
        const auto start = Clock::now();
        for (int i = 0; i < count; ++i) {
            once();
        }
        best = std::min(best, microsSince(start, count));
    }
    return best;
}

class Bench {
public:
    Bench() {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        platform_ = std::make_unique<fakeuia::Platform>();
        platform_->install();
        host_ = std::make_unique<jnihost::JavaHost>();
        env_ = host_->attachCurrentThread();
        self_ = host_->callbackObject();
        dll_ = std::make_unique<dwtest::Deskwright>();
        dll_->onLoad(host_->vm());
        native<jint>("SetupNativeLogging");
    }
    ~Bench() {
        native<void>("DetachClient");
        platform_->uninstall();
    }

    template <class R, class... A>
    R native(const std::string& method, A... args) {
        return host_->nativeCall([&] { return dll_->call<R>(method, env_, self_, args...); });
    }

    // A window of `groups` groups with `items` items each, all with runtime ids.
    fakeuia::Node& window(const std::wstring& name, int groups, int items) {
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_WindowControlTypeId;
        spec.name = name;
        spec.processId = static_cast<int>(GetCurrentProcessId());
        spec.bounds = {0, 0, 1000, 1000};
        fakeuia::Node& top = platform_->desktop().add(spec);
        for (int g = 0; g < groups; ++g) {
            fakeuia::NodeSpec group;
            group.controlType = UIA_GroupControlTypeId;
            group.name = L"group " + std::to_wstring(g);
            group.bounds = {0, g, 1000, g + 1};
            fakeuia::Node& groupNode = top.add(group);
            for (int i = 0; i < items; ++i) {
                fakeuia::NodeSpec item;
                item.controlType = UIA_ListItemControlTypeId;
                item.name = L"item " + std::to_wstring(g) + L"." + std::to_wstring(i);
                item.bounds = {i, g, i + 1, g + 1};
                groupNode.add(item);
            }
        }
        return top;
    }

    bool attach() {
        const std::wstring args = L"-pid " + std::to_wstring(GetCurrentProcessId());
        return native<jint>("AttachUiaClient", host_->str(args), 1000) != 0;
    }

    std::vector<jlong> toplevels() { return host_->longs(native<jlongArray>("GetToplevels")); }
    std::vector<jlong> children(jlong handle) { return host_->longs(native<jlongArray>("GetChildren", handle)); }

    // The mean time of a native with a handle check and nearly nothing else.
    double checkMicros(jlong handle, int count) {
        native<jlong>("GetNativeHandle", handle);
        return bestOfFive(count, [&] { native<jlong>("GetNativeHandle", handle); });
    }

    // The mean time of a native whose handle names no control: the table's
    // own test, then the exception.
    double rejectMicros(int count) {
        const jlong bogus = 0x7654320;
        return bestOfFive(count, [&] {
            native<jlong>("GetNativeHandle", bogus);
            host_->takeException();
        });
    }

    // The mean time of a whole hierarchy with two attributes, and its size.
    double hierarchyMillis(jlong handle, int count, size_t& entries) {
        jobjectArray names = host_->stringArray({L"name", L"rid2"});
        jlongArray excluded = host_->longArray({});
        entries = host_->strings(native<jobjectArray>("GetHierarchyWithAttributes", handle, names, excluded)).size();
        return bestOfFive(count, [&] { native<jobjectArray>("GetHierarchyWithAttributes", handle, names, excluded); }) /
               1000.0;
    }

    fakeuia::Platform& platform() { return *platform_; }

private:
    std::unique_ptr<fakeuia::Platform> platform_;
    std::unique_ptr<jnihost::JavaHost> host_;
    std::unique_ptr<dwtest::Deskwright> dll_;
    JNIEnv* env_ = nullptr;
    jobject self_ = nullptr;
};

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::printf("deskwright benchmark, %d-bit driver\n", static_cast<int>(sizeof(void*) * 8));
    Bench bench;
    // Handle checks: 100 groups of 999 items under one window; first the
    // window, its groups and one group's items stand in the table (1,100
    // controls), then all of them (100,001).
    bench.window(L"Checks", 100, 999);
    if (!bench.attach()) {
        std::printf("attach failed\n");
        return 1;
    }
    const jlong top = bench.toplevels().at(0);
    const std::vector<jlong> groups = bench.children(top);
    size_t controls = 1 + groups.size() + bench.children(groups.at(0)).size();
    const jlong probe = groups.at(0);
    const int checks = 4000;
    const double small = bench.checkMicros(probe, checks);
    const double smallReject = bench.rejectMicros(checks);
    std::printf("handle check, %zu controls: %.2f us (a rejected handle: %.2f us)\n", controls, small, smallReject);
    for (size_t g = 1; g < groups.size(); ++g) {
        controls += bench.children(groups[g]).size();
    }
    const double large = bench.checkMicros(probe, checks);
    const double largeReject = bench.rejectMicros(checks);
    std::printf("handle check, %zu controls: %.2f us (a rejected handle: %.2f us)\n", controls, large, largeReject);
    std::printf("ratio 100,000 : 1,000 controls = %.2f (rejected: %.2f)\n", large / small, largeReject / smallReject);

    // Hierarchies: a new window of 1,000 and one of 10,000 elements. The
    // table is emptied first, so that both start from the same state.
    bench.native<void>("ReleaseControls");
    bench.window(L"Small", 9, 110);    // 1 + 9 + 990 = 1,000
    bench.window(L"Large", 99, 100);   // 1 + 99 + 9,900 = 10,000
    std::vector<jlong> tops = bench.toplevels();
    if (tops.size() < 3) {
        std::printf("windows missing\n");
        return 1;
    }
    size_t smallEntries = 0;
    size_t largeEntries = 0;
    const double smallTree = bench.hierarchyMillis(tops[1], 2, smallEntries);
    const double largeTree = bench.hierarchyMillis(tops[2], 2, largeEntries);
    std::printf("hierarchy with name and rid2, %zu elements: %.1f ms\n", smallEntries / 4, smallTree);
    std::printf("hierarchy with name and rid2, %zu elements: %.1f ms\n", largeEntries / 4, largeTree);
    std::printf("ratio 10,000 : 1,000 elements = %.2f\n", largeTree / smallTree);
    return 0;
}
