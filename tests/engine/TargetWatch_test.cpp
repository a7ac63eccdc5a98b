// The watch over a real target process: its end reaches Java as a terminate
// event on the dispatch thread, and the driver lets go of it.
#include "DriverTest.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

using dwtest::DriverTest;
using dwtest::LogFile;

namespace {

const std::string WIN_EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/WinEvent";

// The project's target program, started beside the test with one window.
class TargetProcess {
public:
    explicit TargetProcess(const std::wstring& title) {
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
        std::wstring command = L"target.exe \"" + title + L"\"";
        started_ = CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                  &info_) != 0;
        CloseHandle(writeEnd);
        if (started_) {
            readLines(readEnd);
        }
        CloseHandle(readEnd);
    }
    ~TargetProcess() {
        if (started_) {
            TerminateProcess(info_.hProcess, 0);
            CloseHandle(info_.hProcess);
            CloseHandle(info_.hThread);
        }
    }
    bool ready() const { return started_ && window_; }
    DWORD pid() const { return info_.dwProcessId; }
    HWND window() const { return window_; }
    void kill() { TerminateProcess(info_.hProcess, 9); }

private:
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
    HWND window_ = nullptr;
};

// Sends the process's standard output into a file for a while.
class StdoutCapture {
public:
    StdoutCapture() {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        path_ = std::wstring(dir) + L"deskwright-stdout-" + std::to_wstring(GetCurrentProcessId()) + L".txt";
        std::fflush(stdout);
        saved_ = _dup(1);
        const int file = _wopen(path_.c_str(), _O_CREAT | _O_TRUNC | _O_WRONLY, _S_IREAD | _S_IWRITE);
        _dup2(file, 1);
        _close(file);
    }
    ~StdoutCapture() { restore(); }
    std::string restore() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            _dup2(saved_, 1);
            _close(saved_);
            saved_ = -1;
        }
        std::ifstream in(path_.c_str());
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }

private:
    std::wstring path_;
    int saved_ = -1;
};

class TargetWatch : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        target = std::make_unique<TargetProcess>(L"Target Main");
        ASSERT_TRUE(target->ready()) << "target.exe did not start";
        fakeuia::NodeSpec spec;
        spec.controlType = UIA_WindowControlTypeId;
        spec.name = L"Target Main";
        spec.className = L"DeskwrightTarget";
        spec.processId = static_cast<int>(target->pid());
        spec.nativeWindowHandle = target->window();
        platform->desktop().add(spec);
    }
    void TearDown() override {
        target.reset();
        DriverTest::TearDown();
    }
    std::unique_ptr<TargetProcess> target;
};

}  // namespace

TEST_F(TargetWatch, TheTargetsEndReachesJavaOnTheDispatchThread) {
    ASSERT_EQ(static_cast<jint>(target->pid()), attach(L"-pid " + std::to_wstring(target->pid()), 2000));
    ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
    EXPECT_EQ(JNI_TRUE, native<jboolean>("IsConnected"));
    const DWORD dispatch = host->calls("filterEvent")[0].threadId;

    StdoutCapture output;
    target->kill();
    ASSERT_TRUE(host->waitForConstructions(WIN_EVENT, 2, 5000)) << "no terminate event";
    ASSERT_TRUE(LogFile::waitFor("Done", 5000, 5));
    const std::string printed = output.restore();
    attached = false;  // the dispatch thread has ended by itself

    auto events = host->constructions(WIN_EVENT);
    EXPECT_EQ(101, events[1].args[0].i);
    EXPECT_EQ(dispatch, events[1].threadId);
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
    EXPECT_NE(std::string::npos, printed.find("terminated\n")) << printed;
    // Terminator ran before the quit event.
    auto lines = LogFile::lines();
    size_t terminate = lines.size();
    size_t quit = lines.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message.find(" terminated") != std::string::npos && terminate == lines.size()) terminate = i;
        if (lines[i].message == "quit") quit = i;
    }
    EXPECT_LT(terminate, quit);
}

TEST_F(TargetWatch, AfterAJavaDetachTheTargetsEndTellsJavaNothing) {
    ASSERT_NE(0, attach(L"-pid " + std::to_wstring(target->pid()), 2000));
    ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
    detachAndWait();
    StdoutCapture output;
    target->kill();
    ASSERT_TRUE(LogFile::waitFor(" terminated", 5000, 5));
    ASSERT_TRUE(LogFile::waitFor("No event queue", 5000, 3));
    EXPECT_NE(std::string::npos, output.restore().find("terminated"));
    EXPECT_EQ(1u, host->constructions(WIN_EVENT).size()) << "only the connect";
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
}

TEST_F(TargetWatch, DetachingTwiceSaysNoClientAttached) {
    ASSERT_NE(0, attach(L"-pid " + std::to_wstring(target->pid()), 2000));
    detachAndWait();
    native<void>("DetachClient");
    EXPECT_TRUE(LogFile::contains("No client attached", 3));
}
