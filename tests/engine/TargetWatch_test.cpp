// The watch over a real target process: its end reaches Java as a terminate
// event on the dispatch thread, and the driver lets go of it.
#include "DriverTest.h"
#include "TargetProcess.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

using dwtest::DriverTest;
using dwtest::LogFile;
using dwtest::TargetProcess;

namespace {

const std::string WIN_EVENT = "net/tolva/apps/cuebench/client/win/deskwright/event/WinEvent";

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

TEST_F(TargetWatch, AfterAJavaDetachTheTargetsEndTellsNobody) {
    ASSERT_NE(0, attach(L"-pid " + std::to_wstring(target->pid()), 2000));
    ASSERT_TRUE(host->waitForCalls("filterEvent", 1, 5000));
    detachAndWait();
    StdoutCapture output;
    target->kill();
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(target->process(), 5000));
    Sleep(1000);  // the watch ended with the detach: nothing wakes now
    EXPECT_EQ(std::string::npos, output.restore().find("terminated"));
    EXPECT_EQ(1u, host->constructions(WIN_EVENT).size()) << "only the connect";
    EXPECT_EQ(JNI_FALSE, native<jboolean>("IsConnected"));
}

TEST_F(TargetWatch, DetachingTwiceSaysNoClientAttached) {
    ASSERT_NE(0, attach(L"-pid " + std::to_wstring(target->pid()), 2000));
    detachAndWait();
    native<void>("DetachClient");
    EXPECT_TRUE(LogFile::contains("No client attached", 3));
}
