// The natives that work on plain windows of the system, whatever the back
// end, and the rundll32 entry that switches the system's screen-reader flag.
// The window handle is the low word of the Java long.
#include <net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright.h>

#include "bridge/Handles.h"
#include "bridge/Marshal.h"
#include "uiahelper/Naming.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#define NATIVE(name) Java_net_tolva_apps_cuebench_client_win_deskwright_DefaultDeskwright_##name

using namespace tolva;

namespace {

HWND windowFromJava(jlong value) {
    return reinterpret_cast<HWND>(handleFromJava(value));
}

const UINT SET_TEXT_TIMEOUT_MS = 5000;
const int CLASS_NAME_LENGTH = 256;

bool equalsIgnoringCase(const char* text, const char* word) {
    return _stricmp(text, word) == 0;
}

}  // namespace

extern "C" {

JNIEXPORT jstring JNICALL NATIVE(GetWindowClassName)(JNIEnv* env, jobject, jlong hwnd) {
    wchar_t name[CLASS_NAME_LENGTH] = L"";
    if (GetClassNameW(windowFromJava(hwnd), name, CLASS_NAME_LENGTH) == 0) {
        name[0] = L'\0';
    }
    return toJavaString(env, name);
}

JNIEXPORT jstring JNICALL NATIVE(GetWindowText)(JNIEnv* env, jobject, jlong hwnd) {
    return toJavaString(env, UiaHelper::GetWindowTextViaMessage(windowFromJava(hwnd)));
}

JNIEXPORT jboolean JNICALL NATIVE(SetWindowText)(JNIEnv* env, jobject, jlong hwnd, jstring text) {
    if (!text) {
        return JNI_FALSE;  // null is no text: the window keeps its own
    }
    PinnedString pinned(env, text);
    const std::wstring value = pinned.str();
    DWORD_PTR result = 0;
    const bool sent = SendMessageTimeoutW(windowFromJava(hwnd), WM_SETTEXT, 0,
                                          reinterpret_cast<LPARAM>(value.c_str()), SMTO_NORMAL,
                                          SET_TEXT_TIMEOUT_MS, &result) != 0;
    return sent && result == 1 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jint JNICALL NATIVE(GetWindowLong)(JNIEnv*, jobject, jlong hwnd, jint index) {
    return GetWindowLongW(windowFromJava(hwnd), index);
}

JNIEXPORT jint JNICALL NATIVE(SendMessage)(JNIEnv*, jobject, jlong hwnd, jint message, jlong wParam,
                                           jlong lParam) {
    return static_cast<jint>(SendMessageW(windowFromJava(hwnd), static_cast<UINT>(message),
                                          static_cast<WPARAM>(handleFromJava(wParam)),
                                          static_cast<LPARAM>(handleFromJava(lParam))));
}

JNIEXPORT jboolean JNICALL NATIVE(PostMessage)(JNIEnv*, jobject, jlong hwnd, jint message, jlong wParam,
                                               jlong lParam) {
    return PostMessageW(windowFromJava(hwnd), static_cast<UINT>(message), static_cast<WPARAM>(handleFromJava(wParam)),
                        static_cast<LPARAM>(handleFromJava(lParam)))
               ? JNI_TRUE
               : JNI_FALSE;
}

// rundll32 deskwright.dll,EnableScreenReader TRUE|FALSE|1|0
JNIEXPORT void CALLBACK EnableScreenReader(HWND, HINSTANCE, LPSTR commandLine, int) {
    const char* text = commandLine ? commandLine : "";
    char line[512];
    std::snprintf(line, sizeof line, "Enable screen reader: %s\n", text);
    OutputDebugStringA(line);
    if (std::string(text) == "1" || equalsIgnoringCase(text, "true")) {
        SystemParametersInfoW(SPI_SETSCREENREADER, 1, nullptr, 0);
    } else if (std::string(text) == "0" || equalsIgnoringCase(text, "false")) {
        SystemParametersInfoW(SPI_SETSCREENREADER, 0, nullptr, 0);
    }
    BOOL enabled = FALSE;
    SystemParametersInfoW(SPI_GETSCREENREADER, 0, &enabled, 0);
    std::snprintf(line, sizeof line, "Screen reader enabled: %d\n", enabled);
    OutputDebugStringA(line);
}

}  // extern "C"
