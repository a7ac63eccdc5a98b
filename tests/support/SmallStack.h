// Work on a thread whose stack is no larger than one of the driver's own
// threads or of a Java VM's may be: what overflows there must fail a test.
#pragma once

#include <windows.h>

#include <functional>

namespace dwtest {

// The stack that the driver's dispatch thread reserves.
const SIZE_T DISPATCH_STACK_BYTES = 0x100000;

namespace detail {
inline DWORD WINAPI RunWork(LPVOID work) {
    (*static_cast<const std::function<void()>*>(work))();
    return 0;
}
}  // namespace detail

// Runs the work on a new thread that reserves exactly `stackBytes`, and waits
// for it to end while serving the calling thread's windows, which the work
// may send messages to. False if no such thread could be started.
inline bool runOnStack(SIZE_T stackBytes, const std::function<void()>& work) {
    HANDLE thread = CreateThread(nullptr, stackBytes, &detail::RunWork, const_cast<std::function<void()>*>(&work),
                                 STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (!thread) return false;
    while (MsgWaitForMultipleObjects(1, &thread, FALSE, INFINITE, QS_ALLINPUT) != WAIT_OBJECT_0) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
    CloseHandle(thread);
    return true;
}

}  // namespace dwtest
