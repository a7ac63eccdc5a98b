#include "classic/ShmComm.h"

#include "classic/ClientProtocol.h"
#include "common/Logging.h"
#include "events/EventFilter.h"

#include <process.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace tolva {

using tolvacore::ipc::ShmCallable;
using tolvacore::ipc::ShmException;
using tolvacore::ipc::ShmQueue;
using tolvacore::ipc::ShmTerminatedException;

namespace {

Logger& logger = Log::getLogger("tolva.ShmComm");

const unsigned THREAD_STACK_SIZE = 0x10000;
const DWORD PREVIOUS_END_WAIT_MS = 5000;
// How long a request waits for the client's queue that "connected" is
// attaching right now. The attachment opens a mapping and its events; this
// bounds it should the thread be stuck.
const DWORD ATTACHING_WAIT_MS = 5000;

void* objectOf(Handle handle) { return reinterpret_cast<void*>(handle); }
Handle handleOf(void* object) { return reinterpret_cast<Handle>(object); }

// An answer's count, then that many values. The count isn't trusted for
// room: a value takes at least two bytes, so no honest answer holds more
// than the queue's size of them, and reading past the end throws.
template <class T>
std::vector<T> readList(ShmQueue& queue) {
    unsigned count = 0;
    queue >> count;
    std::vector<T> values;
    values.reserve(std::min<unsigned>(count, queue.getSize()));
    for (unsigned i = 0; i < count; ++i) {
        T value{};
        queue >> value;
        values.push_back(std::move(value));
    }
    return values;
}

template <class T, class From>
Array<T> toArray(const std::vector<From>& values, T (*convert)(From)) {
    Array<T> result(static_cast<std::int32_t>(values.size()));
    for (std::size_t i = 0; i < values.size(); ++i) {
        result[static_cast<std::int32_t>(i)] = convert(values[i]);
    }
    return result;
}

std::wstring same(std::wstring text) { return text; }

}  // namespace

ShmComm& ShmComm::getInstance() {
    static ShmComm instance;
    return instance;
}

ShmComm::~ShmComm() {
    // At the process's end the serving thread has been cut off wherever it
    // was, perhaps holding a queue's lock: the queues are left to the system
    // rather than closed, and nothing waits, which the loader lock forbids.
    new std::shared_ptr<ShmQueue>(std::move(queue_));
    new std::shared_ptr<ShmQueue>(std::move(clientQueue_));
    if (thread_) {
        CloseHandle(thread_);
    }
}

bool ShmComm::setup(unsigned size, int id) {
    shutdown();
    if (!awaitEnd(PREVIOUS_END_WAIT_MS)) {
        TOLVA_LOG(logger, 1, "The previous channel has not ended");
        return false;
    }
    {
        // The queue of the channel before goes first: the new one may take its id.
        std::lock_guard<std::mutex> hold(lock_);
        queue_.reset();
        clientQueue_.reset();
        async_ = nullptr;
        client_ = nullptr;
    }
    std::shared_ptr<ShmQueue> queue;
    try {
        queue = ShmQueue::createQueue(size, id);
    } catch (const ShmException& e) {
        TOLVA_LOG(logger, 1, e.getMessage());
        return false;
    }
    std::lock_guard<std::mutex> hold(lock_);
    queue_ = queue;
    if (thread_) {
        CloseHandle(thread_);
    }
    thread_ = reinterpret_cast<HANDLE>(
        _beginthreadex(nullptr, THREAD_STACK_SIZE, &ShmComm::shmThreadProc, this, 0, nullptr));
    if (!thread_) {
        TOLVA_LOG(logger, 1, "The channel's thread could not be started");
        queue_.reset();
        return false;
    }
    return true;
}

void ShmComm::shutdown() {
    std::shared_ptr<ShmQueue> queue = ownQueue();
    if (queue) {
        queue->terminate();
    }
}

bool ShmComm::awaitEnd(DWORD timeoutMs) {
    HANDLE thread = nullptr;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (!thread_ || !DuplicateHandle(GetCurrentProcess(), thread_, GetCurrentProcess(), &thread, SYNCHRONIZE,
                                         FALSE, 0)) {
            return true;
        }
    }
    const bool ended = WaitForSingleObject(thread, timeoutMs) == WAIT_OBJECT_0;
    CloseHandle(thread);
    return ended;
}

std::shared_ptr<ShmQueue> ShmComm::ownQueue() {
    std::lock_guard<std::mutex> hold(lock_);
    return queue_;
}

unsigned __stdcall ShmComm::shmThreadProc(void* param) {
    auto* comm = static_cast<ShmComm*>(param);
    tolva_logSetThreadName("dispatch");
    TOLVA_LOG(logger, 5, "start");
    {
        std::lock_guard<std::mutex> hold(comm->lock_);
        comm->threadId_ = GetCurrentThreadId();
    }
    const std::shared_ptr<ShmQueue> queue = comm->ownQueue();
    if (queue) {
        queue->registerMessageHandler("ClientMessage", comm);
        EventFilter::getInstance().attachThread();
        comm->serve(queue);
        comm->async_ = nullptr;
        EventFilter::getInstance().detachThread();
    }
    TOLVA_LOG(logger, 5, "done");
    return 0;
}

void ShmComm::serve(const std::shared_ptr<ShmQueue>& queue) {
    try {
        for (;;) {
            queue->readAndDispatch(nullptr, 0);
        }
    } catch (const ShmTerminatedException&) {
        TOLVA_LOG(logger, 9, "terminated");
    } catch (const ShmException& e) {
        std::fputs((e.getMessage() + "\n").c_str(), stdout);
        std::fflush(stdout);
        TOLVA_LOG(logger, 1, e.getMessage());
    }
}

void ShmComm::handleMessage(ShmQueue& queue) {
    std::wstring message;
    queue >> message;
    TOLVA_LOG(logger, 7, "msg: " << message);
    if (message == L"connected") {
        int shmid = 0;
        void* async = nullptr;
        void* client = nullptr;
        queue >> shmid >> async >> client;
        beginAttaching();
        async_ = async;
        client_ = client;
        TOLVA_LOG(logger, 9, "shmid: " << shmid << ", async: " << async << ", client: " << client);
        std::shared_ptr<ShmQueue> clientQueue;
        // Ends the attaching with what clientQueue holds, also when the
        // answer to the client throws.
        const AttachingEnd end{*this, clientQueue};
        EventFilter::getInstance().onConnect();
        queue.setupReturn() << static_cast<ShmCallable*>(&EventFilter::getInstance());
        queue.sendReturn();
        try {
            clientQueue = ShmQueue::attachQueue(shmid);
        } catch (const ShmException& e) {
            TOLVA_LOG(logger, 1, e.getMessage());
        }
    } else {
        queue.returnInt(0);
    }
    TOLVA_LOG(logger, 9, "end");
}

bool ShmComm::call(const char* what, void* object, int method, const std::function<void(ShmQueue&)>& arguments,
                   const std::function<void(ShmQueue&)>& reader) {
    const std::shared_ptr<ShmQueue> queue = ownQueue();
    if (!queue) {
        TOLVA_LOG(logger, 3, what << ": no channel");
        return false;
    }
    try {
        queue->setupCall() << object << method;
        if (arguments) {
            arguments(*queue);
        }
        queue->send();
        queue->readAndDispatch(nullptr, 0);
        reader(*queue);
        return true;
    } catch (const ShmException& e) {
        TOLVA_LOG(logger, 1, what << ": " << e.getMessage());
        return false;
    }
}

void ShmComm::beginAttaching() {
    std::lock_guard<std::mutex> hold(lock_);
    attaching_ = true;
}

void ShmComm::endAttaching(std::shared_ptr<ShmQueue> clientQueue) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        clientQueue_ = std::move(clientQueue);
        attaching_ = false;
    }
    attachingEnded_.notify_all();
}

std::shared_ptr<ShmQueue> ShmComm::clientQueueOnceAttached() {
    std::unique_lock<std::mutex> hold(lock_);
    // Java learns of the client in onConnect, on the serving thread, and
    // may ask from there: that thread can't wait for itself.
    if (GetCurrentThreadId() != threadId_) {
        attachingEnded_.wait_for(hold, std::chrono::milliseconds(ATTACHING_WAIT_MS), [this] { return !attaching_; });
    }
    return clientQueue_;
}

void ShmComm::request(const char* name) {
    TOLVA_LOG(logger, 7, "");
    void* const async = async_.load();
    TOLVA_LOG(logger, 9, "async: " << async);
    const std::shared_ptr<ShmQueue> clientQueue = clientQueueOnceAttached();
    if (!clientQueue) {
        TOLVA_LOG(logger, 3, name << ": the client has no request queue");
        return;
    }
    try {
        clientQueue->setupCall(async) << std::wstring(name, name + std::char_traits<char>::length(name));
        clientQueue->send();
        clientQueue->readAndDispatch(nullptr, 0);
    } catch (const ShmException& e) {
        TOLVA_LOG(logger, 1, name << ": " << e.getMessage());
    }
}

void ShmComm::triggerThread() { request("triggerThread"); }
void ShmComm::detaching() { request("detaching"); }
void ShmComm::terminate() { request("terminate"); }

Handle ShmComm::getNativeHandle(Handle element) {
    std::int64_t native = 0;
    call("getNativeHandle", objectOf(element), GET_NATIVE_HANDLE, nullptr, [&](ShmQueue& q) { q >> native; });
    return static_cast<Handle>(native);
}

std::wstring ShmComm::getClassName(Handle element) {
    std::wstring name;
    if (!call("getClassName", objectOf(element), GET_CLASS_NAME, nullptr, [&](ShmQueue& q) { q >> name; })) {
        name.clear();
    }
    return name;
}

Array<std::wstring> ShmComm::getClassNames(Handle element) {
    std::vector<std::wstring> names;
    call("getClassNames", objectOf(element), GET_CLASS_NAMES, nullptr,
         [&](ShmQueue& q) { names = readList<std::wstring>(q); });
    return toArray<std::wstring, std::wstring>(names, &same);
}

Handle ShmComm::getParent(Handle element) {
    void* parent = nullptr;
    if (!call("getParent", objectOf(element), GET_PARENT, nullptr, [&](ShmQueue& q) { q >> parent; })) {
        parent = nullptr;
    }
    return handleOf(parent);
}

Array<Handle> ShmComm::getChildren(Handle element) {
    std::vector<void*> children;
    call("getChildren", objectOf(element), GET_CHILDREN, nullptr,
         [&](ShmQueue& q) { children = readList<void*>(q); });
    return toArray<Handle, void*>(children, &handleOf);
}

void ShmComm::getBounds(Handle element, int bounds[4]) {
    std::vector<int> values;
    call("getBounds", objectOf(element), GET_BOUNDS, nullptr, [&](ShmQueue& q) { values = readList<int>(q); });
    std::copy_n(values.begin(), std::min<std::size_t>(values.size(), 4), bounds);
}

std::wstring ShmComm::evalJS(Handle element, const std::wstring& script) {
    std::wstring answer;
    if (!call("evalJS", objectOf(element), EVAL_JS, [&](ShmQueue& q) { q << script; },
              [&](ShmQueue& q) { q >> answer; })) {
        answer.clear();
    }
    return answer;
}

Array<Handle> ShmComm::getToplevels() {
    TOLVA_LOG(logger, 7, "");
    std::vector<void*> tops;
    call("getToplevels", client_.load(), GET_TOPLEVELS, nullptr, [&](ShmQueue& q) { tops = readList<void*>(q); });
    return toArray<Handle, void*>(tops, &handleOf);
}

}  // namespace tolva
