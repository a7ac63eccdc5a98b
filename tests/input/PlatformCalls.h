// The system's input, pointer, screen and timing functions as the driver
// calls them: while a recording runs, the driver's calls of them on the
// recording thread are written, with their arguments, into one ordered list
// and answered by a simulated system (a 1920 x 1080 screen, a cursor where the
// test puts it, a keyboard layout the test sets, sleeps that don't sleep).
// Calls from other threads of the driver (its dispatch thread) and calls
// outside a recording go to the real functions.
#pragma once

#include <windows.h>

#include "ImportPatch.h"

#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace dwtest {

class PlatformCalls {
public:
    // Takes the functions over in the driver's import table. Only one
    // instance may live at a time.
    explicit PlatformCalls(HMODULE driver);
    ~PlatformCalls();
    PlatformCalls(const PlatformCalls&) = delete;
    PlatformCalls& operator=(const PlatformCalls&) = delete;

    // The functions that the driver doesn't import by name: none may be
    // missing, or the recording would miss its calls.
    std::vector<std::string> missing() const;

    // Starts a new list; the calling thread's calls are recorded from now on.
    void start();
    // Ends the recording and gives the list as "call; call; ...", without
    // the calls of the functions named in `omit`.
    std::string take(std::initializer_list<const char*> omit = {});

    // What the simulated system answers.
    POINT cursor{0, 0};
    int screenWidth = 1920;
    int screenHeight = 1080;
    std::map<wchar_t, SHORT> layout;  // VkKeyScanW; a character not in it gives -1
    std::map<UINT, UINT> scanCodes;   // MapVirtualKeyW(key, 0); a key not in it gives 0
    BOOL dpiAware = TRUE;
    int vertRes = 1080, desktopVertRes = 1620, logPixelsY = 96;  // 150 %

    // For the stand-ins: whether this call is to be recorded, and recording it.
    bool recordsThisThread() const;
    void record(std::string call) { calls_.push_back(std::move(call)); }

private:
    std::vector<std::unique_ptr<ImportPatch>> patches_;
    std::vector<std::string> names_;
    std::vector<std::string> calls_;
};

}  // namespace dwtest
