// Window classes of the driver's own windows. They are registered for the
// program's module, so they outlive this DLL if it is unloaded; a class left
// by an earlier load points at a procedure that is gone.
#pragma once

#include <windows.h>

namespace tolva {

// Registers the class unless it stands already with this procedure; a class
// of the name with another procedure is taken away and registered anew.
// False, with the system's error, if it can't be registered.
inline bool registerWindowClass(const WNDCLASSW& windowClass) {
    WNDCLASSW existing{};
    if (GetClassInfoW(windowClass.hInstance, windowClass.lpszClassName, &existing)) {
        if (existing.lpfnWndProc == windowClass.lpfnWndProc) {
            return true;
        }
        UnregisterClassW(windowClass.lpszClassName, windowClass.hInstance);
    }
    return RegisterClassW(&windowClass) != 0;
}

}  // namespace tolva
