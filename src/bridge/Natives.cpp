// The natives of DefaultDeskwright. Each routes by the back-end flag, in one
// shape: default result and pinned arguments first, the handle check of the
// automation branch, the branch itself, then the pins are released. Only a bad
// handle throws.
#include <net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright.h>

#include "bridge/Logging.h"
#include "bridge/Marshal.h"
#include "bridge/NullMarkers.h"
#include "bridge/Preferences.h"
#include "classic/ShmComm.h"
#include "element/UiaControl.h"
#include "engine/ProcessManager.h"
#include "engine/Uia.h"
#include "events/EventFilter.h"
#include "uiahelper/UiaHelper.h"

#include <atomic>

#define NATIVE(name) Java_net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright_##name

using namespace tolva;

namespace {

Logger& logger = Log::getLogger("tolva.deskwright");

// Set by the first AttachUiaClient and never cleared: from then on every
// routed native goes to the automation back end.
std::atomic<bool> useUia{false};

const char* const INVALID_HANDLE_EXCEPTION = "net/tolva/apps/cuebench/client/win/deskwright/InvalidHandleException";

#define NOT_IMPLEMENTED() TOLVA_LOG(logger, 3, "Not implemented")
#define NOT_YET_IMPLEMENTED() TOLVA_LOG(logger, 3, "Not yet implemented")
#define NOT_MAYBE_IMPLEMENTED() TOLVA_LOG(logger, 3, "Not (yet?) implemented")

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
    if (useUia) {
        Uia::getInstance().triggerThread();
    } else {
        ShmComm::getInstance().triggerThread();
    }
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
    Array<Handle> children;
    if (useUia) {
        if (ControlRef use = Uia_CheckHandle(env, handle)) {
            children = Uia::getInstance().getChildren(handleFromJava(handle));
        }
    } else {
        children = ShmComm::getInstance().getChildren(handleFromJava(handle));
    }
    return toJavaHandles(env, children);
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetChildrenWithAttributes)(JNIEnv* env, jobject, jlong handle,
                                                                  jobjectArray names) {
    jobjectArray result = nullptr;
    PinnedNames pinned(env, names);
    if (!useUia) {
        NOT_MAYBE_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Array<std::wstring> flat = Uia::getInstance().getChildrenWithAttributes(handleFromJava(handle), pinned.list());
        result = toJavaAttributes(env, flat.begin(), flat.size());
    }
    return result;
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetHierarchyWithAttributes)(JNIEnv* env, jobject, jlong handle,
                                                                   jobjectArray names, jlongArray excluded) {
    TOLVA_LOG(logger, 7, "handle: " << handle);
    jobjectArray result = nullptr;
    PinnedNames pinned(env, names);
    Array<Handle> excludedHandles = fromJavaHandles(env, excluded);
    if (!useUia) {
        NOT_MAYBE_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        std::vector<std::wstring> flat;
        Uia::getInstance().getHierarchyWithAttributes(handleFromJava(handle), pinned.list(), excludedHandles, flat, 0);
        TOLVA_LOG(logger, 9, "Got " << flat.size() << " elements");
        result = toJavaAttributes(env, flat.data(), flat.size());
    }
    return result;
}

JNIEXPORT jlong JNICALL NATIVE(GetParent)(JNIEnv* env, jobject, jlong handle) {
    Handle parent = 0;
    if (useUia) {
        if (ControlRef use = Uia_CheckHandle(env, handle)) {
            parent = Uia::getInstance().getParent(handleFromJava(handle));
        }
    } else {
        parent = ShmComm::getInstance().getParent(handleFromJava(handle));
    }
    return handleToJava(parent);
}

JNIEXPORT jlong JNICALL NATIVE(GetNativeHandle)(JNIEnv* env, jobject, jlong handle) {
    jlong result = 0;
    if (useUia) {
        if (ControlRef use = Uia_CheckHandle(env, handle)) {
            UIA_HWND hwnd = nullptr;
            use->getElement()->get_CurrentNativeWindowHandle(&hwnd);
            result = handleToJava(reinterpret_cast<Handle>(hwnd));
        }
    } else {
        result = handleToJava(ShmComm::getInstance().getNativeHandle(handleFromJava(handle)));
    }
    return result;
}

JNIEXPORT jstring JNICALL NATIVE(GetClassName)(JNIEnv* env, jobject, jlong handle) {
    std::wstring name;
    if (useUia) {
        if (ControlRef use = Uia_CheckHandle(env, handle)) {
            name = use->getClassName();
        }
    } else {
        name = ShmComm::getInstance().getClassName(handleFromJava(handle));
    }
    return toJavaString(env, name);
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetClassNames)(JNIEnv* env, jobject, jlong handle) {
    Array<std::wstring> names;
    if (useUia) {
        if (ControlRef use = Uia_CheckHandle(env, handle)) {
            names = use->getClassNames();
        }
    } else {
        names = ShmComm::getInstance().getClassNames(handleFromJava(handle));
    }
    return toJavaStrings(env, names);
}

JNIEXPORT jintArray JNICALL NATIVE(GetBounds)(JNIEnv* env, jobject, jlong handle) {
    jint bounds[4] = {0, 0, 0, 0};
    if (useUia) {
        if (ControlRef use = Uia_CheckHandle(env, handle)) {
            const RECT rect = use->getBounds();
            bounds[0] = rect.left;
            bounds[1] = rect.top;
            bounds[2] = rect.right - rect.left;
            bounds[3] = rect.bottom - rect.top;
        }
    } else {
        int classic[4] = {0, 0, 0, 0};
        ShmComm::getInstance().getBounds(handleFromJava(handle), classic);
        for (int i = 0; i < 4; ++i) {
            bounds[i] = classic[i];
        }
    }
    jintArray result = env->NewIntArray(4);
    env->SetIntArrayRegion(result, 0, 4, bounds);
    return result;
}

JNIEXPORT jstring JNICALL NATIVE(GetAttribute)(JNIEnv* env, jobject, jlong handle, jstring name) {
    jstring result = nullptr;
    PinnedString pinned(env, name);
    if (!useUia) {
        NOT_MAYBE_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        wchar_t* value = use->getAttribute(pinned.str());
        if (value) {
            result = toJavaString(env, value);
            delete[] value;
        }
    }
    return result;
}

JNIEXPORT jobjectArray JNICALL NATIVE(GetAttributes)(JNIEnv* env, jobject, jlong handle, jobjectArray names) {
    jobjectArray result = nullptr;
    PinnedNames pinned(env, names);
    if (!useUia) {
        NOT_MAYBE_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Array<std::wstring> flat = Uia::getInstance().getAttributes(handleFromJava(handle), pinned.list());
        result = toJavaAttributes(env, flat.begin(), flat.size());
    }
    return result;
}

JNIEXPORT jboolean JNICALL NATIVE(SetAttribute)(JNIEnv* env, jobject, jlong handle, jstring name, jstring value) {
    jboolean result = JNI_FALSE;
    PinnedString pinnedName(env, name);
    PinnedString pinnedValue(env, value);
    if (!useUia) {
        NOT_MAYBE_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        // Null is neither a name nor a value to write.
        if (!pinnedName.isNull() && !pinnedValue.isNull()) {
            result = use->setAttribute(pinnedName.str(), pinnedValue.str()) ? JNI_TRUE : JNI_FALSE;
        }
    }
    return result;
}

JNIEXPORT jstring JNICALL NATIVE(EvalJS)(JNIEnv* env, jobject, jlong handle, jstring script) {
    if (useUia) {
        NOT_MAYBE_IMPLEMENTED();
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
    Array<Handle> toplevels = useUia ? Uia::getInstance().getToplevels() : ShmComm::getInstance().getToplevels();
    TOLVA_LOG(logger, 9, "count: " << toplevels.size());
    return toJavaHandles(env, toplevels);
}

JNIEXPORT jlongArray JNICALL NATIVE(GetElementsByProperty)(JNIEnv* env, jobject, jlong handle, jstring name,
                                                            jstring value) {
    jlongArray result = nullptr;
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        PinnedString pinnedName(env, name);
        PinnedString pinnedValue(env, value);
        Array<Handle> found;  // a search for null finds nothing
        if (!pinnedName.isNull() && !pinnedValue.isNull()) {
            found = Uia::getInstance().getElementsByProperty(handleFromJava(handle), pinnedName.str(),
                                                             pinnedValue.str());
        }
        TOLVA_LOG(logger, 9, "count: " << found.size());
        result = toJavaHandles(env, found);
    }
    return result;
}

JNIEXPORT jlongArray JNICALL NATIVE(FindAllWindows)(JNIEnv* env, jobject, jlong handle) {
    jlongArray result = nullptr;
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Array<Handle> found = Uia::getInstance().findAllWindows(handleFromJava(handle));
        TOLVA_LOG(logger, 9, "count: " << found.size());
        result = toJavaHandles(env, found);
    }
    return result;
}

JNIEXPORT jlong JNICALL NATIVE(GetElementFromPoint)(JNIEnv*, jobject, jint x, jint y) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return 0;
    }
    return handleToJava(Uia::getInstance().getElementFromPoint(x, y));
}

JNIEXPORT jboolean JNICALL NATIVE(IsUia8)(JNIEnv*, jobject) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return JNI_FALSE;
    }
    return Uia::getInstance().isUia8() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(SetTimeouts)(JNIEnv*, jobject, jint connectionTimeout, jint transactionTimeout) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return JNI_FALSE;
    }
    return Uia::getInstance().setTimeouts(connectionTimeout, transactionTimeout) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(ReleaseControls)(JNIEnv*, jobject) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return;
    }
    UiaControl::removeControls();
}

JNIEXPORT jdouble JNICALL NATIVE(GetScreenScaleFactor)(JNIEnv*, jobject) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return 1.0;
    }
    return UiaHelper::GetScalingFactor();
}

// --- modes --------------------------------------------------------------------------

JNIEXPORT void JNICALL NATIVE(EnableEventListeners)(JNIEnv*, jobject, jint mode) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return;
    }
    Uia::getInstance().enableEventListeners(mode);
}

JNIEXPORT void JNICALL NATIVE(EnableCheckMode)(JNIEnv*, jobject, jboolean enable, jint mode) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return;
    }
    Uia::getInstance().enableCheckMode(enable != 0, mode);
}

JNIEXPORT void JNICALL NATIVE(EnableRecordingMode)(JNIEnv*, jobject, jboolean enable, jint mode) {
    if (!useUia) {
        NOT_IMPLEMENTED();
        return;
    }
    Uia::getInstance().enableRecordingMode(enable != 0, mode);
}

// --- actions ---------------------------------------------------------------------------

JNIEXPORT void JNICALL NATIVE(Highlight)(JNIEnv* env, jobject, jlong handle, jint duration, jint color) {
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().highlight(handleFromJava(handle), duration, color);
    }
}

JNIEXPORT void JNICALL NATIVE(SimulateMouseEvent)(JNIEnv* env, jobject, jlong handle, jint id, jint button, jint x,
                                                   jint y, jint modifiers, jint count) {
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().simulateMouseEvent(handleFromJava(handle), id, button, x, y, modifiers, count);
    }
}

JNIEXPORT void JNICALL NATIVE(SimulateKeyStroke)(JNIEnv* env, jobject, jlong handle, jchar c, jint keyCode,
                                                  jint modifiers) {
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().simulateKeyStroke(handleFromJava(handle), static_cast<wchar_t>(c), keyCode, modifiers);
    }
}

JNIEXPORT void JNICALL NATIVE(SetFocus)(JNIEnv* env, jobject, jlong handle) {
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().setFocus(handleFromJava(handle));
    }
}

JNIEXPORT jboolean JNICALL NATIVE(Move)(JNIEnv* env, jobject, jlong handle, jint x, jint y) {
    bool result = false;
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().moveControl(handleFromJava(handle), x, y);
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(Resize)(JNIEnv* env, jobject, jlong handle, jint width, jint height) {
    bool result = false;
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().resizeControl(handleFromJava(handle), width, height);
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(Close)(JNIEnv* env, jobject, jlong handle) {
    bool result = false;
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().closeControl(handleFromJava(handle));
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(BringToFront)(JNIEnv* env, jobject, jlong handle) {
    bool result = false;
    if (!useUia) {
        NOT_YET_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().bringToFront(handleFromJava(handle));
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(DoDefaultAction)(JNIEnv* env, jobject, jlong handle) {
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().doDefaultAction(handleFromJava(handle));
    }
}

JNIEXPORT void JNICALL NATIVE(Invoke)(JNIEnv* env, jobject, jlong handle) {
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().invoke(handleFromJava(handle));
    }
}

JNIEXPORT void JNICALL NATIVE(Select)(JNIEnv* env, jobject, jlong handle, jint mode) {
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().select(handleFromJava(handle), mode);
    }
}

JNIEXPORT jboolean JNICALL NATIVE(Toggle)(JNIEnv* env, jobject, jlong handle, jint mode) {
    bool result = false;
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().toggle(handleFromJava(handle), mode);
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL NATIVE(Expand)(JNIEnv* env, jobject, jlong handle, jboolean expand) {
    bool result = false;
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().expand(handleFromJava(handle), expand != 0 ? 1 : 0);
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL NATIVE(Scroll)(JNIEnv* env, jobject, jlong handle, jdouble horizontal, jdouble vertical) {
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        Uia::getInstance().scroll(handleFromJava(handle), horizontal, vertical);
    }
}

JNIEXPORT jboolean JNICALL NATIVE(ScrollIntoView)(JNIEnv* env, jobject, jlong handle) {
    bool result = false;
    if (!useUia) {
        NOT_IMPLEMENTED();
    } else if (ControlRef use = Uia_CheckHandle(env, handle)) {
        result = Uia::getInstance().scrollIntoView(handleFromJava(handle)) == 1;
    }
    return result ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"
