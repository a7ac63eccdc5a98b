// The project's target program (tests/target), started beside a test as a
// real process with top-level windows of the given titles, or serving: making
// windows on request, so that a test's windows live in another process.
#pragma once

#include <windows.h>

#include <sstream>
#include <string>
#include <vector>

namespace dwtest {

class TargetProcess {
public:
    struct Serving {};

    explicit TargetProcess(const std::wstring& title) { start(L"\"" + title + L"\"", false); }
    explicit TargetProcess(Serving) { start(L"--serve", true); }

    // A visible window of the target of a registered class ("DeskwrightTarget",
    // "Edit", "Button", ...), a child of `parent` if given, with that text
    // (UTF-8 on the way); null when it failed. Serving targets only.
    HWND makeWindow(const std::wstring& className, const std::wstring& text, RECT bounds, HWND parent = nullptr) {
        if (!requests_) return nullptr;
        std::ostringstream request;
        request << "make " << static_cast<void*>(parent) << ' ' << bounds.left << ' ' << bounds.top << ' '
                << bounds.right - bounds.left << ' ' << bounds.bottom - bounds.top << ' ' << utf8(className) << ' '
                << utf8(text) << '\n';
        const std::string line = request.str();
        DWORD written = 0;
        if (!WriteFile(requests_, line.data(), static_cast<DWORD>(line.size()), &written, nullptr)) return nullptr;
        std::string reply = readLine();
        if (reply.compare(0, 5, "made ") != 0) return nullptr;
        std::istringstream in(reply.substr(5));
        void* handle = nullptr;
        in >> handle;
        return static_cast<HWND>(handle);
    }

    // One line of what the serving target's windows received: the window and
    // "WM_LBUTTONDOWN 30,15 MK_LBUTTON|MK_SHIFT", "WM_MOUSEMOVE 4,5",
    // "WM_KEYDOWN 0x25 ext", "WM_SYSKEYUP 0x12", "WM_CHAR a", "BN_CLICKED".
    struct Received {
        HWND window;
        std::string what;
    };

    // What arrived since the last call, in order; empty if the target
    // doesn't serve or didn't answer.
    std::vector<Received> received() {
        std::vector<Received> lines;
        if (!request("log\n")) return lines;
        for (std::string line = readLine(); !line.empty() && line != "end"; line = readLine()) {
            std::istringstream in(line);
            void* window = nullptr;
            in >> window;
            std::string what;
            std::getline(in >> std::ws, what);
            lines.push_back({static_cast<HWND>(window), what});
        }
        return lines;
    }

    // The text of one of the target's windows as the target reads it (UTF-8).
    std::string text(HWND window) {
        std::ostringstream line;
        line << "text " << static_cast<void*>(window) << '\n';
        if (!request(line.str())) return std::string();
        const std::string reply = readLine();
        return reply.compare(0, 5, "text ") == 0 ? reply.substr(5) : std::string();
    }

    // Requests on one of the serving target's windows; true when the target
    // did it. A menu or dialog has closed again when the call returns.
    bool destroy(HWND window) { return act("destroy", window); }
    bool show(HWND window) { return act("show", window); }
    bool hide(HWND window) { return act("hide", window); }
    bool foreground(HWND window) { return act("foreground", window); }
    bool openMenu(HWND window) { return act("menu", window); }
    bool openDialog(HWND window) { return act("dialog", window); }
    // The target raises a create of the window's first client object, then
    // takes no message for that long; true when it is awake again.
    bool stall(HWND window, DWORD ms) {
        std::ostringstream line;
        line << "stall " << static_cast<void*>(window) << ' ' << ms << '\n';
        return request(line.str()) && readLine() == "done 1";
    }
    // A system window event raised by the target (NotifyWinEvent).
    bool notify(DWORD event, HWND window, LONG object, LONG child) {
        std::ostringstream line;
        line << "notify " << event << ' ' << static_cast<void*>(window) << ' ' << object << ' ' << child << '\n';
        return request(line.str()) && readLine() == "done 1";
    }

private:
    bool act(const char* verb, HWND window) {
        std::ostringstream line;
        line << verb << ' ' << static_cast<void*>(window) << '\n';
        return request(line.str()) && readLine() == "done 1";
    }

    bool request(const std::string& line) {
        DWORD written = 0;
        return requests_ && WriteFile(requests_, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    }

    void start(const std::wstring& args, bool serving) {
        SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
        HANDLE readEnd = nullptr;
        HANDLE writeEnd = nullptr;
        CreatePipe(&readEnd, &writeEnd, &inherit, 0);
        SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = writeEnd;
        startup.hStdError = writeEnd;
        // The target must not hold the test's own output open: the runner
        // waits for it to close.
        for (DWORD which : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
            SetHandleInformation(GetStdHandle(which), HANDLE_FLAG_INHERIT, 0);
        }
        HANDLE inputRead = nullptr;
        if (serving) {
            CreatePipe(&inputRead, &requests_, &inherit, 0);
            SetHandleInformation(requests_, HANDLE_FLAG_INHERIT, 0);
            startup.hStdInput = inputRead;
        }
        std::wstring command = L"target.exe " + args;
        started_ = CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                  &info_) != 0;
        CloseHandle(writeEnd);
        if (inputRead) CloseHandle(inputRead);
        replies_ = readEnd;
        if (started_ && serving) {
            while (!ready_) {
                const std::string line = readLine();
                if (line.empty()) break;
                ready_ = line == "ready";
            }
        } else if (started_) {
            readLines(readEnd);
        }
        if (!serving) {
            CloseHandle(readEnd);
            replies_ = nullptr;
        }
    }

public:
    ~TargetProcess() {
        if (requests_) CloseHandle(requests_);
        if (replies_) CloseHandle(replies_);
        if (started_) {
            TerminateProcess(info_.hProcess, 0);
            CloseHandle(info_.hProcess);
            CloseHandle(info_.hThread);
        }
    }
    bool ready() const { return started_ && (window_ || ready_); }
    DWORD pid() const { return info_.dwProcessId; }
    HWND window() const { return window_; }
    void kill() { TerminateProcess(info_.hProcess, 9); }
    HANDLE process() const { return info_.hProcess; }

private:
    static std::string utf8(const std::wstring& text) {
        if (text.empty()) return std::string();
        const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                          nullptr);
        std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
        if (n > 0) WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
        return out;
    }

    // One line of the serving target's output, without its end; empty at its end.
    std::string readLine() {
        std::string line;
        char c = 0;
        DWORD got = 0;
        while (ReadFile(replies_, &c, 1, &got, nullptr) && got == 1) {
            if (c == '\n') break;
            if (c != '\r') line += c;
        }
        return line;
    }

    // "pid N" then "window P": read until the window's line has come.
    void readLines(HANDLE pipe) {
        std::string text;
        char buffer[256];
        DWORD got = 0;
        while (text.find("window ") == std::string::npos || text.back() != '\n') {
            if (!ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) || got == 0) {
                return;
            }
            text.append(buffer, got);
        }
        std::istringstream lines(text.substr(text.find("window ") + 7));
        void* handle = nullptr;
        lines >> handle;
        window_ = static_cast<HWND>(handle);
    }

    PROCESS_INFORMATION info_ = {};
    bool started_ = false;
    bool ready_ = false;           // a serving target said "ready"
    HANDLE requests_ = nullptr;    // its standard input, while serving
    HANDLE replies_ = nullptr;     // its standard output, while serving
    HWND window_ = nullptr;
};

}  // namespace dwtest
