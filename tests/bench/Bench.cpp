// Timings of the driver through its natives, over the simulated platform, each
// beside what it can't do without:
//  - the platform calls the native has to make, made directly against the
//    same simulation in the same run;
//  - the test host's share: an empty native frame, and the JNI calls the
//    native makes (exception, strings, arrays), made directly;
//  - the driver's own share: the native less both.
// Measured: one handle check (GetNativeHandle: the check and one property
// read) with 1,000 and with 100,000 controls in the table, a rejected handle,
// and GetHierarchyWithAttributes with "name" and "rid2" over trees of 1,000
// and of 10,000 elements, with the ratios of the larger to the smaller case.
// Not a test: it prints the figures. The simulated platform answers
// in-process; against a real target every platform call is a round trip.
#include "Deskwright.h"

#include "FakeUia.h"
#include "ImportPatch.h"
#include "JniHost.h"

#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

// The driver's own heap blocks: every malloc of the DLL (operator new included).
long driverAllocations = 0;
void* (*driverMalloc)(size_t) = nullptr;
void* countedMalloc(size_t size) {
    ++driverAllocations;
    return driverMalloc(size);
}

// Heap blocks the driver takes for one call.
template <class F>
double allocationsOf(F call) {
    const long before = driverAllocations;
    call();
    return static_cast<double>(driverAllocations - before);
}

using Clock = std::chrono::steady_clock;

double microsSince(Clock::time_point start, int count) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / count;
}

// The mean time of one call of each of `calls`, the best of `rounds`
// batches of `count` calls. The calls take turns batch by batch, so that
// other work on the machine, which only ever adds time, falls on all of them
// alike.
std::vector<double> bestOf(int rounds, int count, const std::vector<std::function<void()>>& calls) {
    std::vector<double> best(calls.size(), 1e300);
    for (int round = 0; round < rounds; ++round) {
        for (size_t c = 0; c < calls.size(); ++c) {
            const auto start = Clock::now();
            for (int i = 0; i < count; ++i) {
                calls[c]();
            }
            best[c] = std::min(best[c], microsSince(start, count));
        }
    }
    return best;
}

// The entries of a String[] result; null ones unset.
using Entries = std::vector<std::optional<std::wstring>>;

// One native's figures, in microseconds per call.
struct Figure {
    std::string what;
    double native = 0;
    double platform = 0;
    double host = 0;
    double own() const { return native - platform - host; }
};

void print(const Figure& f) {
    std::printf("%-36s %10.2f %10.2f %8.2f %9.2f\n", f.what.c_str(), f.native, f.platform, f.host, f.own());
}

void printHeader() {
    std::printf("%-36s %10s %10s %8s %9s   (us per call)\n", "native", "native", "platform", "host", "driver");
}

// A counted platform object, released at scope end.
template <class T>
struct Held {
    T* p = nullptr;
    ~Held() {
        if (p) p->Release();
    }
    T** put() { return &p; }
    T* operator->() const { return p; }
};

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
        mallocPatch_ = std::make_unique<dwtest::ImportPatch>(dll_->module(), "malloc",
                                                             reinterpret_cast<void*>(&countedMalloc));
        driverMalloc = reinterpret_cast<void* (*)(size_t)>(mallocPatch_->original());
        // The bench's own automation object, for the platform calls made directly.
        CoCreateInstance(CLSID_CUIAutomation, nullptr, CLSCTX_INPROC_SERVER, IID_IUIAutomation,
                         reinterpret_cast<void**>(automation_.put()));
        automation_->get_RawViewWalker(walker_.put());
        using NativeHandleFn = jlong(JNICALL*)(JNIEnv*, jobject, jlong);
        using HierarchyFn = jobjectArray(JNICALL*)(JNIEnv*, jobject, jlong, jobjectArray, jlongArray);
        getNativeHandle_ = dll_->exportAs<NativeHandleFn>(dwtest::Deskwright::nativeName<jlong>("GetNativeHandle"));
        getHierarchy_ = dll_->exportAs<HierarchyFn>(
            dwtest::Deskwright::nativeName<jlong, jobjectArray, jlongArray>("GetHierarchyWithAttributes"));
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
    void window(const std::wstring& name, int groups, int items) {
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
    }

    bool attach() {
        const std::wstring args = L"-pid " + std::to_wstring(GetCurrentProcessId());
        return native<jint>("AttachUiaClient", host_->str(args), 1000) != 0;
    }

    std::vector<jlong> toplevels() { return host_->longs(native<jlongArray>("GetToplevels")); }
    std::vector<jlong> children(jlong handle) { return host_->longs(native<jlongArray>("GetChildren", handle)); }

    // The element of the desktop's child `top`, and of its child `child` (-1: the window itself).
    IUIAutomationElement* element(int top, int child) {
        Held<IUIAutomationElement> root;
        automation_->GetRootElement(root.put());
        IUIAutomationElement* at = nullptr;
        walker_->GetFirstChildElement(root.p, &at);
        for (int i = 0; i < top && at; ++i) {
            IUIAutomationElement* next = nullptr;
            walker_->GetNextSiblingElement(at, &next);
            at->Release();
            at = next;
        }
        if (at && child >= 0) {
            IUIAutomationElement* below = nullptr;
            walker_->GetFirstChildElement(at, &below);
            for (int i = 0; i < child && below; ++i) {
                IUIAutomationElement* next = nullptr;
                walker_->GetNextSiblingElement(below, &next);
                below->Release();
                below = next;
            }
            at->Release();
            at = below;
        }
        return at;
    }

    // The calls measured, one call each.

    // The host's part of every native: entering and leaving a native frame.
    std::function<void()> emptyFrame() {
        return [this] { host_->nativeCall([] { return jlong(0); }); };
    }

    // GetNativeHandle of a handle.
    std::function<void()> nativeHandleOf(jlong handle) {
        return [this, handle] { nativeHandle(handle); };
    }

    // The platform calls of one handle check, then the window handle read.
    std::function<void()> rawNativeHandle(IUIAutomationElement* element) {
        return [this, element] {
            rawCheck(element);
            UIA_HWND hwnd = nullptr;
            element->get_CurrentNativeWindowHandle(&hwnd);
        };
    }

    // GetNativeHandle of a handle that names no control: the table's own
    // test, then the exception, which the caller takes.
    std::function<void()> rejection() {
        return [this] {
            nativeHandle(0x7654320);
            host_->takeException();
        };
    }

    // The host's part of a rejection: the frame, the exception's class and
    // its throw, and taking it afterwards.
    std::function<void()> rejectionInHost() {
        return [this] {
            host_->nativeCall([&] {
                jclass type = env_->FindClass("net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException");
                env_->ThrowNew(type, "Invalid handle value");
                return jlong(0);
            });
            host_->takeException();
        };
    }

    // GetHierarchyWithAttributes with name and rid2; `entries` gets the
    // entries of a first call.
    std::function<void()> hierarchyOf(jlong handle, Entries& entries) {
        jobjectArray names = host_->stringArray({L"name", L"rid2"});
        jlongArray excluded = host_->longArray({});
        entries = host_->strings(hierarchy(handle, names, excluded));
        return [this, handle, names, excluded] { hierarchy(handle, names, excluded); };
    }

    // The platform calls of a hierarchy below an element: the handle check,
    // then for each element its name, its type and its children by the
    // walker, and for each child its offscreen flag, its runtime id, its type
    // (both for its key) and its name (the control found under the key takes
    // the fresh name).
    std::function<void()> rawHierarchy(IUIAutomationElement* root) {
        return [this, root] {
            rawCheck(root);
            rawVisit(root);
        };
    }

    // The host's part of a hierarchy: the frame, the two names pinned and
    // released, the excluded handles read, and the result array of `entries`.
    std::function<void()> hierarchyInHost(const Entries& entries) {
        jobjectArray names = host_->stringArray({L"name", L"rid2"});
        jlongArray excluded = host_->longArray({});
        return [this, &entries, names, excluded] {
            host_->nativeCall([&] {
                const jsize length = env_->GetArrayLength(names);
                std::vector<const jchar*> pinned;
                for (jsize i = 0; i < length; ++i) {
                    auto name = static_cast<jstring>(env_->GetObjectArrayElement(names, i));
                    pinned.push_back(env_->GetStringChars(name, nullptr));
                }
                env_->GetArrayLength(excluded);
                jlong* values = env_->GetLongArrayElements(excluded, nullptr);
                env_->ReleaseLongArrayElements(excluded, values, 0);
                jclass stringClass = env_->FindClass("java/lang/String");
                jobjectArray result = env_->NewObjectArray(static_cast<jsize>(entries.size()), stringClass, nullptr);
                for (size_t i = 0; i < entries.size(); ++i) {
                    if (!entries[i]) {
                        continue;  // an attribute without a value stays null
                    }
                    const std::wstring& text = *entries[i];
                    env_->SetObjectArrayElement(
                        result, static_cast<jsize>(i),
                        env_->NewString(reinterpret_cast<const jchar*>(text.data()), static_cast<jsize>(text.size())));
                }
                for (jsize i = 0; i < length; ++i) {
                    auto name = static_cast<jstring>(env_->GetObjectArrayElement(names, i));
                    env_->ReleaseStringChars(name, pinned[static_cast<size_t>(i)]);
                }
                return result;
            });
        };
    }

    jlong nativeHandle(jlong handle) {
        return host_->nativeCall([&] { return getNativeHandle_(env_, self_, handle); });
    }
    jobjectArray hierarchy(jlong handle, jobjectArray names, jlongArray excluded) {
        return host_->nativeCall([&] { return getHierarchy_(env_, self_, handle, names, excluded); });
    }

private:
    void rawCheck(IUIAutomationElement* element) {
        CONTROLTYPEID type = 0;
        element->get_CurrentControlType(&type);
        {
            Held<IUIAutomationElement> desktop;
            automation_->GetRootElement(desktop.put());
            BOOL same = FALSE;
            automation_->CompareElements(element, desktop.p, &same);
        }
        Held<IUIAutomationTreeWalker> walker;
        automation_->get_RawViewWalker(walker.put());
        Held<IUIAutomationElement> parent;
        walker->GetParentElement(element, parent.put());
    }

    static void rawName(IUIAutomationElement* element) {
        BSTR name = nullptr;
        element->get_CurrentName(&name);
        SysFreeString(name);
    }

    static void rawRuntimeId(IUIAutomationElement* element) {
        SAFEARRAY* id = nullptr;
        element->GetRuntimeId(&id);
        if (id) {
            void* data = nullptr;
            SafeArrayAccessData(id, &data);
            LONG lower = 0;
            LONG upper = 0;
            SafeArrayGetLBound(id, 1, &lower);
            SafeArrayGetUBound(id, 1, &upper);
            SafeArrayUnaccessData(id);
            SafeArrayDestroy(id);
        }
    }

    void rawVisit(IUIAutomationElement* element) {
        rawName(element);
        CONTROLTYPEID type = 0;
        element->get_CurrentControlType(&type);
        std::vector<IUIAutomationElement*> children;
        {
            Held<IUIAutomationTreeWalker> walker;
            automation_->get_RawViewWalker(walker.put());
            IUIAutomationElement* child = nullptr;
            walker->GetFirstChildElement(element, &child);
            while (child) {
                children.push_back(child);
                IUIAutomationElement* next = nullptr;
                walker->GetNextSiblingElement(child, &next);
                child = next;
            }
        }
        for (IUIAutomationElement* child : children) {
            BOOL offscreen = FALSE;
            child->get_CurrentIsOffscreen(&offscreen);
        }
        for (IUIAutomationElement* child : children) {
            rawRuntimeId(child);
            CONTROLTYPEID childType = 0;
            child->get_CurrentControlType(&childType);
            rawName(child);
        }
        for (IUIAutomationElement* child : children) {
            rawVisit(child);
            child->Release();
        }
    }

    std::unique_ptr<fakeuia::Platform> platform_;
    std::unique_ptr<jnihost::JavaHost> host_;
    std::unique_ptr<dwtest::Deskwright> dll_;
    std::unique_ptr<dwtest::ImportPatch> mallocPatch_;
    JNIEnv* env_ = nullptr;
    jobject self_ = nullptr;
    Held<IUIAutomation> automation_;
    Held<IUIAutomationTreeWalker> walker_;
    jlong(JNICALL* getNativeHandle_)(JNIEnv*, jobject, jlong) = nullptr;
    jobjectArray(JNICALL* getHierarchy_)(JNIEnv*, jobject, jlong, jobjectArray, jlongArray) = nullptr;
};

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::printf("deskwright benchmark, %d-bit driver\n", static_cast<int>(sizeof(void*) * 8));
    Bench bench;
    // Handle checks: 100 groups of 999 items under one window. In each round
    // first the window, its groups and one group's items stand in the table
    // (1,100 controls), then all of them (100,001).
    bench.window(L"Checks", 100, 999);
    if (!bench.attach()) {
        std::printf("attach failed\n");
        return 1;
    }
    IUIAutomationElement* probeElement = bench.element(0, 0);
    const int rounds = 3;
    const int checks = 2000;
    std::vector<double> small(5, 1e300);
    std::vector<double> large(5, 1e300);
    size_t controls[2] = {0, 0};
    double checkBlocks = 0;
    double rejectBlocks = 0;
    const std::vector<std::function<void()>> parts = {bench.rawNativeHandle(probeElement), bench.emptyFrame(),
                                                      bench.rejectionInHost()};
    for (int round = 0; round < rounds; ++round) {
        bench.native<void>("ReleaseControls");
        const jlong top = bench.toplevels().at(0);
        const std::vector<jlong> groups = bench.children(top);
        controls[0] = 1 + groups.size() + bench.children(groups.at(0)).size();
        std::vector<std::function<void()>> calls = {bench.nativeHandleOf(groups.at(0)), bench.rejection()};
        calls.insert(calls.end(), parts.begin(), parts.end());
        std::vector<double> best = bestOf(3, checks, calls);
        for (size_t i = 0; i < small.size(); ++i) {
            small[i] = std::min(small[i], best[i]);
        }
        controls[1] = controls[0];
        for (size_t g = 1; g < groups.size(); ++g) {
            controls[1] += bench.children(groups[g]).size();
        }
        best = bestOf(3, checks, calls);
        checkBlocks = allocationsOf(calls[0]);
        rejectBlocks = allocationsOf(calls[1]);
        for (size_t i = 0; i < large.size(); ++i) {
            large[i] = std::min(large[i], best[i]);
        }
    }
    probeElement->Release();
    // Platform and host parts are the best of all rounds, whatever the table.
    for (size_t i = 2; i < small.size(); ++i) {
        small[i] = large[i] = std::min(small[i], large[i]);
    }

    // Each: the native, a rejected native, the platform calls, an empty
    // frame, a rejection in the host.
    std::printf("test host: an empty native frame %.2f us\n", small[3]);
    printHeader();
    const Figure smallCheck{"GetNativeHandle, " + std::to_string(controls[0]) + " controls", small[0], small[2],
                            small[3]};
    const Figure smallReject{"  rejected handle", small[1], 0, small[4]};
    const Figure largeCheck{"GetNativeHandle, " + std::to_string(controls[1]) + " controls", large[0], large[2],
                            large[3]};
    const Figure largeReject{"  rejected handle", large[1], 0, large[4]};
    print(smallCheck);
    print(smallReject);
    print(largeCheck);
    print(largeReject);

    // Hierarchies: a new window of 1,000 and one of 10,000 elements. The
    // table is emptied first; the two take turns in each round.
    bench.native<void>("ReleaseControls");
    bench.window(L"Small", 9, 110);   // 1 + 9 + 990 = 1,000
    bench.window(L"Large", 99, 100);  // 1 + 99 + 9,900 = 10,000
    std::vector<jlong> tops = bench.toplevels();
    if (tops.size() < 3) {
        std::printf("windows missing\n");
        return 1;
    }
    Entries entries[2];
    IUIAutomationElement* roots[2] = {bench.element(1, -1), bench.element(2, -1)};
    std::vector<std::function<void()>> calls;
    for (int t = 0; t < 2; ++t) {
        calls.push_back(bench.hierarchyOf(tops[static_cast<size_t>(1 + t)], entries[t]));
        calls.push_back(bench.rawHierarchy(roots[t]));
        calls.push_back(bench.hierarchyInHost(entries[t]));
    }
    const std::vector<double> best = bestOf(2 * rounds, 1, calls);
    Figure trees[2];
    size_t sizes[2] = {entries[0].size() / 4, entries[1].size() / 4};
    for (int t = 0; t < 2; ++t) {
        roots[t]->Release();
        const size_t at = static_cast<size_t>(3 * t);
        trees[t] = Figure{"GetHierarchyWithAttributes, " + std::to_string(sizes[t]) + " elements", best[at],
                          best[at + 1], best[at + 2]};
        print(trees[t]);
    }
    const double treeBlocks[2] = {allocationsOf(calls[0]), allocationsOf(calls[3])};
    for (int t = 0; t < 2; ++t) {
        const double n = static_cast<double>(sizes[t]);
        print(Figure{"  per element of " + std::to_string(sizes[t]), trees[t].native / n, trees[t].platform / n,
                     trees[t].host / n});
    }

    std::printf("the driver's heap blocks: GetNativeHandle %.0f, rejected %.0f, hierarchy %.1f per element\n",
                checkBlocks, rejectBlocks, treeBlocks[1] / static_cast<double>(sizes[1]));
    std::printf("ratio 100,000 : 1,000 controls: handle check %.2f (driver's share %.2f), rejected %.2f\n",
                largeCheck.native / smallCheck.native, largeCheck.own() / smallCheck.own(),
                largeReject.native / smallReject.native);
    std::printf("ratio 10,000 : 1,000 elements: hierarchy %.2f (driver's share %.2f)\n",
                trees[1].native / trees[0].native, trees[1].own() / trees[0].own());
    return 0;
}
