// tolvawinclient.dll: the client library of the classic back end, for tests
// and demos. The driver loads it and calls RegisterHooks with a thread of the
// target; the message hook brings the library into the target process, where
// it connects to the driver's queue (the thread id + 0x10000), makes its own
// queue for requests, says "connected", answers the method table over the
// target's real windows, and sends the user's mouse buttons and keys as event
// records. It leaves the target again on "detaching".
//
// Objects on the wire: a window is its handle; the root object and the
// object for requests are two fixed values that no window handle takes.
#include "classic/ClientProtocol.h"
#include "events/WinClientEvent.h"
#include "tolvacore/ipc/ShmQueue.h"

#include <windows.h>
#include <windowsx.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using tolva::tolvacore::ipc::ShmCallable;
using tolva::tolvacore::ipc::ShmException;
using tolva::tolvacore::ipc::ShmQueue;
using tolva::DRIVER_QUEUE_ID_OFFSET;
using tolva::EVENT_CALLBACK;
using tolva::EVENT_KEY;
using tolva::EVENT_MARKER;
using tolva::EVENT_MOUSE;
using tolva::EVAL_JS;
using tolva::GET_BOUNDS;
using tolva::GET_CHILDREN;
using tolva::GET_CLASS_NAME;
using tolva::GET_CLASS_NAMES;
using tolva::GET_NATIVE_HANDLE;
using tolva::GET_PARENT;
using tolva::GET_TOPLEVELS;

namespace {

HINSTANCE self = nullptr;
HHOOK hook = nullptr;  // in the driver's process: the hook RegisterHooks set

void* const ROOT = reinterpret_cast<void*>(std::uintptr_t(0x7F000001));
void* const REQUESTS = reinterpret_cast<void*>(std::uintptr_t(0x7F000002));
const int OWN_QUEUE_BASE = 0x40000000;
const unsigned QUEUE_SIZE = 4096;
const std::size_t MOST_WAITING_RECORDS = 10000;

// Java's input-event modifier bits.
const int SHIFT_MASK = 1, CTRL_MASK = 2, ALT_MASK = 8, BUTTON1_MASK = 16, BUTTON2_MASK = 8, BUTTON3_MASK = 4;

// One event record waiting to go to the driver.
struct Record {
    int type = 0;
    std::int64_t window = 0;
    int code = 0;
    int values[6] = {0, 0, 0, 0, 0, 0};  // mouse: x, y, screen x, screen y, button, modifiers; key: vk, character
    bool flags[3] = {false, false, false};  // key: shift, ctrl, alt
};

bool ownWindow(HWND window) {
    DWORD pid = 0;
    return window && IsWindow(window) && GetWindowThreadProcessId(window, &pid) && pid == GetCurrentProcessId();
}

void answerList(ShmQueue& queue, const std::vector<HWND>& windows) {
    queue.setupReturn() << static_cast<unsigned>(windows.size());
    for (HWND window : windows) {
        queue << static_cast<void*>(window);
    }
    queue.sendReturn();
}

BOOL CALLBACK collectShownWindow(HWND window, LPARAM windows) {
    if (ownWindow(window) && IsWindowVisible(window)) {
        reinterpret_cast<std::vector<HWND>*>(windows)->push_back(window);
    }
    return TRUE;
}

std::vector<HWND> toplevels() {
    std::vector<HWND> windows;
    EnumWindows(&collectShownWindow, reinterpret_cast<LPARAM>(&windows));
    return windows;
}

std::vector<HWND> childrenOf(HWND window) {
    std::vector<HWND> children;
    for (HWND child = GetWindow(window, GW_CHILD); child && children.size() < 400;
         child = GetWindow(child, GW_HWNDNEXT)) {
        children.push_back(child);
    }
    return children;
}

std::wstring classOf(HWND window) {
    wchar_t name[256] = {};
    GetClassNameW(window, name, 256);
    return name;
}

// The method table, for the driver's calls on windows and on the root.
class Elements : public ShmCallable {
public:
    void call(ShmQueue& queue) override {
        void* const object = queue.calledObject();
        int method = 0;
        queue >> method;
        if (object == ROOT) {
            if (method == GET_TOPLEVELS) {
                answerList(queue, toplevels());
            } else {
                queue.returnInt(0);
            }
            return;
        }
        HWND window = static_cast<HWND>(object);
        const bool known = ownWindow(window);
        switch (method) {
        case GET_NATIVE_HANDLE:
            queue.setupReturn() << static_cast<std::int64_t>(known ? reinterpret_cast<std::intptr_t>(window) : 0);
            queue.sendReturn();
            break;
        case GET_CLASS_NAME:
            queue.setupReturn() << (known ? classOf(window) : std::wstring());
            queue.sendReturn();
            break;
        case GET_CLASS_NAMES:
            answerClassNames(queue, window, known);
            break;
        case GET_PARENT: {
            HWND parent = known ? GetAncestor(window, GA_PARENT) : nullptr;
            queue.setupReturn() << static_cast<void*>(parent == GetDesktopWindow() ? nullptr : parent);
            queue.sendReturn();
            break;
        }
        case GET_CHILDREN:
            answerList(queue, known ? childrenOf(window) : std::vector<HWND>());
            break;
        case GET_BOUNDS:
            answerBounds(queue, window, known);
            break;
        case EVAL_JS: {
            std::wstring script;
            queue >> script;
            queue.setupReturn() << std::wstring(L"This client can't run script");
            queue.sendReturn();
            break;
        }
        default:
            queue.returnInt(0);
        }
    }

private:
    static void answerClassNames(ShmQueue& queue, HWND window, bool known) {
        std::vector<std::wstring> names;
        if (known) {
            names.push_back(classOf(window));
            wchar_t real[256] = {};
            if (RealGetWindowClassW(window, real, 256) && names.front() != real) {
                names.push_back(real);
            }
        }
        queue.setupReturn() << static_cast<unsigned>(names.size());
        for (const std::wstring& name : names) {
            queue << name;
        }
        queue.sendReturn();
    }
    static void answerBounds(ShmQueue& queue, HWND window, bool known) {
        RECT rect{};
        if (!known || !GetWindowRect(window, &rect)) {
            queue.setupReturn() << 0u;
        } else {
            queue.setupReturn() << 4u << static_cast<int>(rect.left) << static_cast<int>(rect.top)
                                << static_cast<int>(rect.right - rect.left) << static_cast<int>(rect.bottom - rect.top);
        }
        queue.sendReturn();
    }
};

// The client in the target process: at most one at a time.
class Client {
public:
    // On the hooked thread, at the driver's empty thread message.
    static void startOn(DWORD threadId);
    // A message the hooked thread takes out of its queue.
    static void observe(const MSG& message);

private:
    Client(DWORD threadId) : threadId_(threadId) {}
    static DWORD WINAPI mainThread(void* client);
    static DWORD WINAPI elementThread(void* client);
    static DWORD WINAPI requestThread(void* client);
    // Each thread's last act; the last one frees the library.
    void leave();

    bool connect();
    void sendRecords();
    void serveRequests();
    void post(const Record& record);
    void stop();
    void sendRecord(const Record& record);

    const DWORD threadId_;
    std::shared_ptr<ShmQueue> driver_;
    std::shared_ptr<ShmQueue> own_;
    int ownId_ = 0;
    void* eventFilter_ = nullptr;
    Elements elements_;
    std::mutex lock_;  // guards records_ and stopping_
    std::condition_variable recordsChanged_;
    std::deque<Record> records_;
    bool stopping_ = false;
    std::atomic<int> threads_{0};
    std::atomic<bool> terminateAfter_{false};  // "terminate": the target ends with the client
};

std::mutex clientLock;
Client* client = nullptr;  // the running client, until its last thread leaves

void Client::startOn(DWORD threadId) {
    std::lock_guard<std::mutex> hold(clientLock);
    if (client) {
        return;
    }
    HMODULE pinned = nullptr;  // released by the last thread's FreeLibraryAndExitThread
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&Client::startOn),
                            &pinned)) {
        return;
    }
    client = new Client(threadId);
    client->threads_ = 1;
    HANDLE thread = CreateThread(nullptr, 0, &Client::mainThread, client, 0, nullptr);
    if (!thread) {
        delete client;
        client = nullptr;
        FreeLibrary(pinned);
        return;
    }
    CloseHandle(thread);
}

void Client::observe(const MSG& message) {
    Record record;
    switch (message.message) {
    case WM_LBUTTONDOWN: case WM_LBUTTONUP: case WM_RBUTTONDOWN: case WM_RBUTTONUP:
    case WM_MBUTTONDOWN: case WM_MBUTTONUP: {
        record.type = EVENT_MOUSE;
        POINT point = {GET_X_LPARAM(message.lParam), GET_Y_LPARAM(message.lParam)};
        POINT screen = point;
        ClientToScreen(message.hwnd, &screen);
        const bool right = message.message == WM_RBUTTONDOWN || message.message == WM_RBUTTONUP;
        const bool middle = message.message == WM_MBUTTONDOWN || message.message == WM_MBUTTONUP;
        const WPARAM keys = message.wParam;
        const int modifiers = ((keys & MK_SHIFT) ? SHIFT_MASK : 0) | ((keys & MK_CONTROL) ? CTRL_MASK : 0) |
                              ((keys & MK_LBUTTON) ? BUTTON1_MASK : 0) | ((keys & MK_MBUTTON) ? BUTTON2_MASK : 0) |
                              ((keys & MK_RBUTTON) ? BUTTON3_MASK : 0) |
                              ((GetKeyState(VK_MENU) < 0) ? ALT_MASK : 0);
        const int values[6] = {point.x, point.y, screen.x, screen.y, right ? 1 : middle ? 2 : 0, modifiers};
        std::copy(values, values + 6, record.values);
        break;
    }
    case WM_KEYDOWN: case WM_KEYUP: case WM_SYSKEYDOWN: case WM_SYSKEYUP:
        record.type = EVENT_KEY;
        record.values[0] = static_cast<int>(message.wParam);
        record.values[1] = static_cast<int>(MapVirtualKeyW(static_cast<UINT>(message.wParam), MAPVK_VK_TO_CHAR) & 0xFFFF);
        record.flags[0] = GetKeyState(VK_SHIFT) < 0;
        record.flags[1] = GetKeyState(VK_CONTROL) < 0;
        record.flags[2] = GetKeyState(VK_MENU) < 0;
        break;
    default:
        return;
    }
    record.window = reinterpret_cast<std::intptr_t>(message.hwnd);
    record.code = static_cast<int>(message.message);
    std::lock_guard<std::mutex> hold(clientLock);
    if (client) {
        client->post(record);
    }
}

void Client::post(const Record& record) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (stopping_ || records_.size() >= MOST_WAITING_RECORDS) {
            return;
        }
        records_.push_back(record);
    }
    recordsChanged_.notify_one();
}

DWORD WINAPI Client::mainThread(void* param) {
    auto* self = static_cast<Client*>(param);
    if (self->connect()) {
        self->sendRecords();
    } else {
        self->stop();
    }
    self->leave();
    return 0;
}

bool Client::connect() {
    try {
        driver_ = ShmQueue::attachQueue(static_cast<int>(threadId_) + DRIVER_QUEUE_ID_OFFSET);
        for (int i = 0; i < 64 && !own_; ++i) {
            try {
                ownId_ = OWN_QUEUE_BASE + static_cast<int>(GetCurrentProcessId() % 0x100000) * 64 + i;
                own_ = ShmQueue::createQueue(QUEUE_SIZE, ownId_);
            } catch (const ShmException&) {
                // taken: the next id
            }
        }
        if (!own_) {
            return false;
        }
        for (LPTHREAD_START_ROUTINE body : {&Client::elementThread, &Client::requestThread}) {
            ++threads_;
            HANDLE thread = CreateThread(nullptr, 0, body, this, 0, nullptr);
            if (!thread) {
                --threads_;
                return false;
            }
            CloseHandle(thread);
        }
        driver_->setupMessage("ClientMessage") << std::wstring(L"connected") << ownId_ << REQUESTS << ROOT;
        driver_->send();
        driver_->readAndDispatch(nullptr, 0);
        *driver_ >> eventFilter_;
        return true;
    } catch (const ShmException&) {
        return false;
    }
}

DWORD WINAPI Client::elementThread(void* param) {
    auto* self = static_cast<Client*>(param);
    try {
        for (;;) {
            self->driver_->readAndDispatch(&self->elements_, 0);
        }
    } catch (const ShmException&) {
        // the driver's queue ended: so does this client
    }
    self->stop();
    self->leave();
    return 0;
}

DWORD WINAPI Client::requestThread(void* param) {
    auto* self = static_cast<Client*>(param);
    self->serveRequests();
    self->stop();
    self->leave();
    return 0;
}

void Client::serveRequests() {
    struct Requests : ShmCallable {
        explicit Requests(Client& client) : client(client) {}
        void call(ShmQueue& queue) override {
            std::wstring name;
            queue >> name;
            queue.returnInt(0);
            if (name == L"triggerThread") {
                Record record;
                record.type = EVENT_CALLBACK;
                client.post(record);
            } else if (name == L"detaching" || name == L"terminate") {
                client.terminateAfter_ = name == L"terminate";
                client.stop();
            }
        }
        Client& client;
    } requests(*this);
    try {
        for (;;) {
            own_->readAndDispatch(&requests, 0);
        }
    } catch (const ShmException&) {
        // stopped, or the driver went away
    }
}

void Client::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }
    recordsChanged_.notify_all();
    if (driver_) {
        driver_->terminate();
    }
    if (own_) {
        own_->terminate();
    }
}

void Client::sendRecords() {
    for (;;) {
        Record record;
        {
            std::unique_lock<std::mutex> hold(lock_);
            recordsChanged_.wait(hold, [&] { return stopping_ || !records_.empty(); });
            if (stopping_) {
                return;
            }
            record = records_.front();
            records_.pop_front();
        }
        try {
            sendRecord(record);
        } catch (const ShmException&) {
            stop();
            return;
        }
    }
}

void Client::sendRecord(const Record& record) {
    driver_->setupCall(eventFilter_);
    driver_->push(static_cast<int>(EVENT_MARKER));
    *driver_ << record.type << record.window << record.code;
    if (record.type == EVENT_MOUSE) {
        for (int value : record.values) {
            *driver_ << value;
        }
    } else if (record.type == EVENT_KEY) {
        *driver_ << record.values[0] << record.values[1] << record.flags[0] << record.flags[1] << record.flags[2];
    }
    driver_->send();
    driver_->readAndDispatch(nullptr, 0);
    int answer = 0;
    *driver_ >> answer;
}

void Client::leave() {
    if (--threads_ > 0) {
        return;
    }
    const bool terminate = terminateAfter_.load();
    {
        std::lock_guard<std::mutex> hold(clientLock);
        client = nullptr;
    }
    delete this;  // closes both queues: the driver sees this side's end
    if (terminate) {
        ExitProcess(0);
    }
    FreeLibraryAndExitThread(self, 0);
}

LRESULT CALLBACK messageHook(int code, WPARAM removed, LPARAM param) {
    if (code == HC_ACTION && removed == PM_REMOVE) {
        const MSG& message = *reinterpret_cast<const MSG*>(param);
        if (!message.hwnd && message.message == WM_NULL) {
            Client::startOn(GetCurrentThreadId());  // the driver's knock after RegisterHooks
        } else {
            Client::observe(message);
        }
    }
    return CallNextHookEx(nullptr, code, removed, param);
}

}  // namespace

extern "C" __declspec(dllexport) int RegisterHooks(DWORD threadId) {
    if (hook) {
        UnhookWindowsHookEx(hook);
    }
    hook = SetWindowsHookExW(WH_GETMESSAGE, &messageHook, self, threadId);
    return hook ? 1 : -static_cast<int>(GetLastError());
}

extern "C" __declspec(dllexport) int UnregisterHooks() {
    const bool had = hook != nullptr;
    if (hook) {
        UnhookWindowsHookEx(hook);
        hook = nullptr;
    }
    return had ? 1 : 0;
}

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        self = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}
