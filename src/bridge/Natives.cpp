// The natives of DefaultDeskwright. Each routes by the back-end flag, in one
// shape (route, routeChecked): default result and pinned arguments first, the
// handle check of the automation branch, the branch itself, then the pins are
// released. Only a bad handle throws.
#include <net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright.h>

#include "common/Logging.h"
#include "bridge/Marshal.h"
#include "common/NullMarkers.h"
#include "common/Preferences.h"
#include "classic/ShmComm.h"
#include "element/UiaControl.h"
#include "engine/ProcessManager.h"
#include "engine/Uia.h"
#include "events/EventFilter.h"
#include "uiahelper/UiaHelper.h"

#include <array>
#include <atomic>
#include <type_traits>

#define NATIVE(name) Java_net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright_##name

using namespace tolva;

namespace {

Logger& logger = Log::getLogger("tolva.deskwright");

// Set by the first AttachUiaClient and never cleared: from then on every
// routed native goes to the automation back end.
std::atomic<bool> useUia{false};

const char* const INVALID_HANDLE_EXCEPTION = "net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException";

// The log word of a back end that lacks a native, logged at level 3 under
// the native's own name.
struct Missing {
    const char* word;
};
const Missing NOT_IMPLEMENTED{"Not implemented"};
const Missing NOT_YET_IMPLEMENTED{"Not yet implemented"};
const Missing NOT_MAYBE_IMPLEMENTED{"Not (yet?) implemented"};

void logMissing(const char* native, const Missing& missing) {
    TOLVA_LOG_AS(logger, 3, native, missing.word);
}

}  // namespace

// The single handle gate of the natives: an empty use, with
// InvalidHandleException pending, when the handle names no living element.
// The native holds the use while it works with the control, so that another
// thread that removes the control meanwhile can't delete it under its feet.
static ControlRef Uia_CheckHandle(JNIEnv* env, jlong handle) {
    int check = Uia::getInstance().checkHandle(handleFromJava(handle));
    ControlRef use;
    if (check == 0) {
        use = UiaControl::acquire(handleFromJava(handle));
        if (use) {
            return use;
        }
        check = 1;  // removed by another thread since the check
    }
    jclass exceptionClass = env->FindClass(INVALID_HANDLE_EXCEPTION);
    const char* message = check == 2 ? "Control does no longer exist" : "Invalid handle value";
    if (!exceptionClass || env->ThrowNew(exceptionClass, message) != 0) {
        TOLVA_LOG(logger, 1, "Could not throw in " << "Uia_CheckHandle()");
    }
    return use;
}

// --- routing ---------------------------------------------------------------------
// Every routed native has one shape: its default result (and its pinned
// arguments) first; then, by the back-end flag, either the automation branch
// or the classic one; then the result. A classic branch is a call of the
// classic back end, or the log word of a native it lacks.

namespace {

template <class Classic>
void classicBranch(const char* native, Classic& classic) {
    if constexpr (std::is_same_v<std::decay_t<Classic>, Missing>) {
        logMissing(native, classic);
    } else {
        classic();
    }
}

// A classic branch that stores what it gives in the result.
template <class Result, class Classic>
auto storingIn(Result& result, Classic& classic) {
    if constexpr (std::is_same_v<std::decay_t<Classic>, Missing>) {
        return classic;
    } else {
        return [&result, &classic] { result = classic(); };
    }
}

// A native that names an element. In the automation back end the handle is
// checked first (Uia_CheckHandle), and only the handle of a living control
// goes on: `automation` gets the back end and the control, whose use is held
// until it returns. No other way leads from a handle to a control.
template <class Automation, class Classic>
void routeChecked(const char* native, JNIEnv* env, jlong handle, Automation&& automation, Classic&& classic) {
    if (!useUia) {
        classicBranch(native, classic);
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        automation(Uia::getInstance(), *use);
    }
}

// The same with a result, which keeps its default unless a branch gives one.
template <class Result, class Automation, class Classic>
Result routeChecked(const char* native, JNIEnv* env, jlong handle, Result result, Automation&& automation,
                    Classic&& classic) {
    routeChecked(
        native, env, handle, [&](Uia& uia, UiaControl& control) { result = automation(uia, control); },
        storingIn(result, classic));
    return result;
}

// A native that names no element: the automation back end gets the call as it is.
template <class Automation, class Classic>
void route(const char* native, Automation&& automation, Classic&& classic) {
    if (useUia) {
        automation(Uia::getInstance());
    } else {
        classicBranch(native, classic);
    }
}

template <class Result, class Automation, class Classic>
Result route(const char* native, Result result, Automation&& automation, Classic&& classic) {
    route(native, [&](Uia& uia) { result = automation(uia); }, storingIn(result, classic));
    return result;
}

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void*) {
    EventFilter::getInstance().setJavaVM(vm);
    return JNI_VERSION_1_4;
}

// --- set-up, connection and preferences ---------------------------------------

JNIEXPORT jint JNICALL NATIVE(SetupNativeLogging)(JNIEnv*, jobject) {
    tolva_logSetThreadName("main");
    Log::logToShm("deskwright", 4466);  // the writer stays registered
    Log::setOutputLogLevel(2);
    TOLVA_LOG(logger, 3, "");
    return 0;
}

JNIEXPORT jint JNICALL NATIVE(StartClient)(JNIEnv* env, jobject self, jstring command) {
    PinnedString text(env, command);
    EventFilter::getInstance().setJavaCallbackObject(env, self);
    return ProcessManager::getInstance().startProcess(text.str());
}

JNIEXPORT jint JNICALL NATIVE(AttachClient__I)(JNIEnv* env, jobject self, jint tid) {
    EventFilter::getInstance().setJavaCallbackObject(env, self);
    return ProcessManager::getInstance().attachProcess(tid, 0);
}

JNIEXPORT jint JNICALL NATIVE(AttachClient__Ljava_lang_String_2)(JNIEnv* env, jobject self, jstring title) {
    PinnedString text(env, title);
    EventFilter::getInstance().setJavaCallbackObject(env, self);
    return ProcessManager::getInstance().attachProcess(text.str());
}

JNIEXPORT jint JNICALL NATIVE(AttachUiaClient)(JNIEnv* env, jobject self, jstring args, jint timeoutMs) {
    useUia = true;  // first of all, before the arguments are looked at
    PinnedString text(env, args);
    // The dispatch thread of a connection before lets go of the callback
    // object at its end: it must be over before the new object is set.
    if (!ProcessManager::getInstance().endPreviousUiaConnection()) {
        return 0;
    }
    EventFilter::getInstance().setJavaCallbackObject(env, self);
    return ProcessManager::getInstance().attachUiaProcess(text.str(), timeoutMs);
}

JNIEXPORT void JNICALL NATIVE(CacheExistingWindowHandles)(JNIEnv*, jobject) {
    Uia::getInstance().cacheExistingWindows();
}

JNIEXPORT void JNICALL NATIVE(DetachClient)(JNIEnv*, jobject) {
    ProcessManager::getInstance().detachProcess();
}

JNIEXPORT jint JNICALL NATIVE(GetThreadId)(JNIEnv*, jobject) {
    TOLVA_LOG(logger, 3, "Do you really want to know a Thread ID?");
    return ProcessManager::getInstance().getThreadId();
}

JNIEXPORT jboolean JNICALL NATIVE(IsConnected)(JNIEnv*, jobject) {
    return ProcessManager::getInstance().isConnected() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(TriggerThread)(JNIEnv*, jobject) {
    route(__func__, [](Uia& uia) { uia.triggerThread(); }, [] { ShmComm::getInstance().triggerThread(); });
}

JNIEXPORT void JNICALL NATIVE(Terminate)(JNIEnv*, jobject) {
    ShmComm::getInstance().terminate();
}

JNIEXPORT void JNICALL NATIVE(SetPreference)(JNIEnv* env, jobject, jstring key, jstring value) {
    if (!key) {
        TOLVA_LOG(logger, 3, "No key");
        return;
    }
    PinnedString keyText(env, key);
    if (value) {
        PinnedString valueText(env, value);
        Preferences::getInstance().setPreference(keyText.str(), valueText.str());
    } else {
        Preferences::getInstance().setPreference(keyText.str(), NULL_JAVA_STRING);
    }
}

JNIEXPORT jstring JNICALL NATIVE(GetPreference)(JNIEnv* env, jobject, jstring key) {
    std::wstring value;
    {
        PinnedString keyText(env, key);
        value = Preferences::getInstance().getPreference(keyText.str());
    }
    return toJavaString(env, value);
}

// --- element queries ------------------------------------------------------------

JNIEXPORT jlongArray JNICALL NATIVE(GetChildren)(JNIEnv* env, jobject, jlong handle) {
    Array<Handle> children = routeChecked(
        __func__, env, handle, Array<Handle>(),
        [](Uia& uia, UiaControl& control) { return uia.getChildren(control); },
        [&] { return ShmComm::getInstance().getChildren(handleFromJava(handle)); });
    return toJavaHandles(env, children);
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetChildrenWithAttributes)(JNIEnv* env, jobject, jlong handle,
                                                                  jobjectArray names) {
    PinnedNames pinned(env, names);
    return routeChecked(
        __func__, env, handle, jobjectArray(nullptr),
        [&](Uia& uia, UiaControl& control) {
            Array<std::wstring> flat = uia.getChildrenWithAttributes(control, pinned.list());
            return toJavaAttributes(env, flat.begin(), flat.size());
        },
        NOT_MAYBE_IMPLEMENTED);
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetHierarchyWithAttributes)(JNIEnv* env, jobject, jlong handle,
                                                                   jobjectArray names, jlongArray excluded) {
    TOLVA_LOG(logger, 7, "handle: " << handle);
    PinnedNames pinned(env, names);
    Array<Handle> excludedHandles = fromJavaHandles(env, excluded);
    return routeChecked(
        __func__, env, handle, jobjectArray(nullptr),
        [&, native = __func__](Uia& uia, UiaControl& control) {
            std::vector<std::wstring> flat;
            uia.getHierarchyWithAttributes(control, pinned.list(), excludedHandles, flat, 0);
            TOLVA_LOG_AS(logger, 9, native, "Got " << flat.size() << " elements");
            return toJavaAttributes(env, flat.data(), flat.size());
        },
        NOT_MAYBE_IMPLEMENTED);
}

JNIEXPORT jlong JNICALL NATIVE(GetParent)(JNIEnv* env, jobject, jlong handle) {
    const Handle parent = routeChecked(
        __func__, env, handle, Handle(0), [](Uia& uia, UiaControl& control) { return uia.getParent(control); },
        [&] { return ShmComm::getInstance().getParent(handleFromJava(handle)); });
    return handleToJava(parent);
}

JNIEXPORT jlong JNICALL NATIVE(GetNativeHandle)(JNIEnv* env, jobject, jlong handle) {
    return routeChecked(
        __func__, env, handle, jlong(0),
        [](Uia&, UiaControl& control) {
            // A failed read leaves the output undefined: it gives 0.
            UIA_HWND hwnd = nullptr;
            if (FAILED(control.getElement()->get_CurrentNativeWindowHandle(&hwnd))) {
                return jlong(0);
            }
            return handleToJava(reinterpret_cast<Handle>(hwnd));
        },
        [&] { return handleToJava(ShmComm::getInstance().getNativeHandle(handleFromJava(handle))); });
}

JNIEXPORT jstring JNICALL NATIVE(GetClassName)(JNIEnv* env, jobject, jlong handle) {
    const std::wstring name = routeChecked(
        __func__, env, handle, std::wstring(), [](Uia&, UiaControl& control) { return control.getClassName(); },
        [&] { return ShmComm::getInstance().getClassName(handleFromJava(handle)); });
    return toJavaString(env, name);
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetClassNames)(JNIEnv* env, jobject, jlong handle) {
    Array<std::wstring> names = routeChecked(
        __func__, env, handle, Array<std::wstring>(),
        [](Uia&, UiaControl& control) { return control.getClassNames(); },
        [&] { return ShmComm::getInstance().getClassNames(handleFromJava(handle)); });
    return toJavaStrings(env, names);
}

JNIEXPORT jintArray JNICALL NATIVE(GetBounds)(JNIEnv* env, jobject, jlong handle) {
    using Bounds = std::array<jint, 4>;
    const Bounds bounds = routeChecked(
        __func__, env, handle, Bounds{0, 0, 0, 0},
        [](Uia&, UiaControl& control) {
            const RECT rect = control.getBounds();
            return Bounds{rect.left, rect.top, rect.right - rect.left, rect.bottom - rect.top};
        },
        [&] {
            int classic[4] = {0, 0, 0, 0};
            ShmComm::getInstance().getBounds(handleFromJava(handle), classic);
            return Bounds{classic[0], classic[1], classic[2], classic[3]};
        });
    jintArray result = env->NewIntArray(4);
    env->SetIntArrayRegion(result, 0, 4, bounds.data());
    return result;
}

JNIEXPORT jstring JNICALL NATIVE(GetAttribute)(JNIEnv* env, jobject, jlong handle, jstring name) {
    PinnedString pinned(env, name);
    return routeChecked(
        __func__, env, handle, jstring(nullptr),
        [&](Uia&, UiaControl& control) {
            jstring result = nullptr;
            wchar_t* value = control.getAttribute(pinned.str());
            if (value) {
                result = toJavaString(env, value);
                delete[] value;
            }
            return result;
        },
        NOT_MAYBE_IMPLEMENTED);
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetAttributes)(JNIEnv* env, jobject, jlong handle, jobjectArray names) {
    PinnedNames pinned(env, names);
    return routeChecked(
        __func__, env, handle, jobjectArray(nullptr),
        [&](Uia& uia, UiaControl& control) {
            Array<std::wstring> flat = uia.getAttributes(control, pinned.list());
            return toJavaAttributes(env, flat.begin(), flat.size());
        },
        NOT_MAYBE_IMPLEMENTED);
}

JNIEXPORT jboolean JNICALL NATIVE(SetAttribute)(JNIEnv* env, jobject, jlong handle, jstring name, jstring value) {
    PinnedString pinnedName(env, name);
    PinnedString pinnedValue(env, value);
    const bool written = routeChecked(
        __func__, env, handle, false,
        [&](Uia&, UiaControl& control) {
            // Null is neither a name nor a value to write.
            return !pinnedName.isNull() && !pinnedValue.isNull() &&
                   control.setAttribute(pinnedName.str(), pinnedValue.str());
        },
        NOT_MAYBE_IMPLEMENTED);
    return written ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jstring JNICALL NATIVE(EvalJS)(JNIEnv* env, jobject, jlong handle, jstring script) {
    if (useUia) {
        logMissing(__func__, NOT_MAYBE_IMPLEMENTED);
        return nullptr;
    }
    if (!script) {
        return nullptr;  // nothing to evaluate
    }
    std::wstring answer;
    {
        PinnedString text(env, script);
        answer = ShmComm::getInstance().evalJS(handleFromJava(handle), text.str());
    }
    return toJavaString(env, answer);
}

JNIEXPORT jlongArray JNICALL NATIVE(GetToplevels)(JNIEnv* env, jobject) {
    TOLVA_LOG(logger, 7, "");
    Array<Handle> toplevels = route(
        __func__, Array<Handle>(), [](Uia& uia) { return uia.getToplevels(); },
        [] { return ShmComm::getInstance().getToplevels(); });
    TOLVA_LOG(logger, 9, "count: " << toplevels.size());
    return toJavaHandles(env, toplevels);
}

JNIEXPORT jlongArray JNICALL NATIVE(GetElementsByProperty)(JNIEnv* env, jobject, jlong handle, jstring name,
                                                            jstring value) {
    return routeChecked(
        __func__, env, handle, jlongArray(nullptr),
        [&, native = __func__](Uia& uia, UiaControl& control) {
            PinnedString pinnedName(env, name);
            PinnedString pinnedValue(env, value);
            Array<Handle> found;  // a search for null finds nothing
            if (!pinnedName.isNull() && !pinnedValue.isNull()) {
                found = uia.getElementsByProperty(control, pinnedName.str(), pinnedValue.str());
            }
            TOLVA_LOG_AS(logger, 9, native, "count: " << found.size());
            return toJavaHandles(env, found);
        },
        NOT_IMPLEMENTED);
}

JNIEXPORT jlongArray JNICALL NATIVE(FindAllWindows)(JNIEnv* env, jobject, jlong handle) {
    return routeChecked(
        __func__, env, handle, jlongArray(nullptr),
        [&, native = __func__](Uia& uia, UiaControl& control) {
            Array<Handle> found = uia.findAllWindows(control);
            TOLVA_LOG_AS(logger, 9, native, "count: " << found.size());
            return toJavaHandles(env, found);
        },
        NOT_IMPLEMENTED);
}

JNIEXPORT jlong JNICALL NATIVE(GetElementFromPoint)(JNIEnv*, jobject, jint x, jint y) {
    return handleToJava(route(
        __func__, Handle(0), [&](Uia& uia) { return uia.getElementFromPoint(x, y); }, NOT_IMPLEMENTED));
}

JNIEXPORT jboolean JNICALL NATIVE(IsUia8)(JNIEnv*, jobject) {
    return route(__func__, false, [](Uia& uia) { return uia.isUia8(); }, NOT_IMPLEMENTED) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(SetTimeouts)(JNIEnv*, jobject, jint connectionTimeout, jint transactionTimeout) {
    const bool set = route(
        __func__, false, [&](Uia& uia) { return uia.setTimeouts(connectionTimeout, transactionTimeout); },
        NOT_IMPLEMENTED);
    return set ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(ReleaseControls)(JNIEnv*, jobject) {
    route(__func__, [](Uia&) { UiaControl::removeControls(); }, NOT_IMPLEMENTED);
}

JNIEXPORT jdouble JNICALL NATIVE(GetScreenScaleFactor)(JNIEnv*, jobject) {
    return route(__func__, 1.0, [](Uia&) { return UiaHelper::GetScalingFactor(); }, NOT_IMPLEMENTED);
}

// --- modes --------------------------------------------------------------------------

JNIEXPORT void JNICALL NATIVE(EnableEventListeners)(JNIEnv*, jobject, jint mode) {
    route(__func__, [&](Uia& uia) { uia.enableEventListeners(mode); }, NOT_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(EnableCheckMode)(JNIEnv*, jobject, jboolean enable, jint mode) {
    route(__func__, [&](Uia& uia) { uia.enableCheckMode(enable != 0, mode); }, NOT_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(EnableRecordingMode)(JNIEnv*, jobject, jboolean enable, jint mode) {
    route(__func__, [&](Uia& uia) { uia.enableRecordingMode(enable != 0, mode); }, NOT_IMPLEMENTED);
}

// --- actions ---------------------------------------------------------------------------

JNIEXPORT void JNICALL NATIVE(Highlight)(JNIEnv* env, jobject, jlong handle, jint duration, jint color) {
    routeChecked(
        __func__, env, handle, [&](Uia& uia, UiaControl& control) { uia.highlight(control, duration, color); },
        NOT_YET_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(SimulateMouseEvent)(JNIEnv* env, jobject, jlong handle, jint id, jint button, jint x,
                                                   jint y, jint modifiers, jint count) {
    routeChecked(
        __func__, env, handle,
        [&](Uia& uia, UiaControl& control) { uia.simulateMouseEvent(control, id, button, x, y, modifiers, count); },
        NOT_YET_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(SimulateKeyStroke)(JNIEnv* env, jobject, jlong handle, jchar c, jint keyCode,
                                                  jint modifiers) {
    routeChecked(
        __func__, env, handle,
        [&](Uia& uia, UiaControl& control) {
            uia.simulateKeyStroke(control, static_cast<wchar_t>(c), keyCode, modifiers);
        },
        NOT_YET_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(SetFocus)(JNIEnv* env, jobject, jlong handle) {
    routeChecked(
        __func__, env, handle, [](Uia& uia, UiaControl& control) { uia.setFocus(control); }, NOT_YET_IMPLEMENTED);
}

JNIEXPORT jboolean JNICALL NATIVE(Move)(JNIEnv* env, jobject, jlong handle, jint x, jint y) {
    const bool moved = routeChecked(
        __func__, env, handle, false, [&](Uia& uia, UiaControl& control) { return uia.moveControl(control, x, y); },
        NOT_YET_IMPLEMENTED);
    return moved ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(Resize)(JNIEnv* env, jobject, jlong handle, jint width, jint height) {
    const bool resized = routeChecked(
        __func__, env, handle, false,
        [&](Uia& uia, UiaControl& control) { return uia.resizeControl(control, width, height); },
        NOT_YET_IMPLEMENTED);
    return resized ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(Close)(JNIEnv* env, jobject, jlong handle) {
    const bool closed = routeChecked(
        __func__, env, handle, false, [](Uia& uia, UiaControl& control) { return uia.closeControl(control); },
        NOT_YET_IMPLEMENTED);
    return closed ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(BringToFront)(JNIEnv* env, jobject, jlong handle) {
    const bool brought = routeChecked(
        __func__, env, handle, false, [](Uia& uia, UiaControl& control) { return uia.bringToFront(control); },
        NOT_YET_IMPLEMENTED);
    return brought ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(DoDefaultAction)(JNIEnv* env, jobject, jlong handle) {
    routeChecked(
        __func__, env, handle, [](Uia& uia, UiaControl& control) { uia.doDefaultAction(control); }, NOT_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(Invoke)(JNIEnv* env, jobject, jlong handle) {
    routeChecked(
        __func__, env, handle, [](Uia& uia, UiaControl& control) { uia.invoke(control); }, NOT_IMPLEMENTED);
}

JNIEXPORT void JNICALL NATIVE(Select)(JNIEnv* env, jobject, jlong handle, jint mode) {
    routeChecked(
        __func__, env, handle, [&](Uia& uia, UiaControl& control) { uia.select(control, mode); }, NOT_IMPLEMENTED);
}

JNIEXPORT jboolean JNICALL NATIVE(Toggle)(JNIEnv* env, jobject, jlong handle, jint mode) {
    const bool toggled = routeChecked(
        __func__, env, handle, false, [&](Uia& uia, UiaControl& control) { return uia.toggle(control, mode); },
        NOT_IMPLEMENTED);
    return toggled ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(Expand)(JNIEnv* env, jobject, jlong handle, jboolean expand) {
    const bool expanded = routeChecked(
        __func__, env, handle, false,
        [&](Uia& uia, UiaControl& control) { return uia.expand(control, expand != 0 ? 1 : 0); }, NOT_IMPLEMENTED);
    return expanded ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(Scroll)(JNIEnv* env, jobject, jlong handle, jdouble horizontal, jdouble vertical) {
    routeChecked(
        __func__, env, handle, [&](Uia& uia, UiaControl& control) { uia.scroll(control, horizontal, vertical); },
        NOT_IMPLEMENTED);
}

JNIEXPORT jboolean JNICALL NATIVE(ScrollIntoView)(JNIEnv* env, jobject, jlong handle) {
    const bool shown = routeChecked(
        __func__, env, handle, false,
        [](Uia& uia, UiaControl& control) { return uia.scrollIntoView(control) == 1; }, NOT_IMPLEMENTED);
    return shown ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"
