// The classic back end's channel to the client library inside the target:
// the driver's own queue with the thread that serves it, the client's
// "connected" message, and the calls and requests that the natives make.
//
// Element handles of this back end are the client's names of its objects;
// the driver passes them back and never looks behind them. A call that
// fails on the queue (the client ended, the queue was terminated, a
// malformed answer) is logged and gives the empty result.
#pragma once

#include "common/Array.h"
#include "common/Handle.h"
#include "tolvacore/ipc/ShmQueue.h"

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace tolva {

class ShmComm : public tolvacore::ipc::ShmMessageHandler {
public:
    static ShmComm& getInstance();

    // Makes the own queue and starts the thread that serves it. A channel
    // still standing from before is ended first. False when the queue can't
    // be made.
    bool setup(unsigned size, int id);
    // Terminates the own queue, if there is one.
    void shutdown();
    // Whether the client has said "connected" and the serving thread goes on.
    bool isConnected() const { return async_.load() != nullptr; }
    // Waits, bounded, for the serving thread to end; true when none runs.
    bool awaitEnd(DWORD timeoutMs);

    void handleMessage(tolvacore::ipc::ShmQueue& queue) override;

    // Requests by name to the client's object for them.
    void triggerThread();
    void detaching();
    void terminate();

    // The method table of the client's objects.
    Handle getNativeHandle(Handle element);
    std::wstring getClassName(Handle element);
    Array<std::wstring> getClassNames(Handle element);
    Handle getParent(Handle element);
    Array<Handle> getChildren(Handle element);
    // Copies the first four values of the answer (x, y, width, height); the
    // rest of bounds stays as it was.
    void getBounds(Handle element, int bounds[4]);
    std::wstring evalJS(Handle element, const std::wstring& script);
    Array<Handle> getToplevels();

private:
    ShmComm() = default;
    ~ShmComm() override;
    static unsigned __stdcall shmThreadProc(void* comm);
    void serve(const std::shared_ptr<tolvacore::ipc::ShmQueue>& queue);

    std::shared_ptr<tolvacore::ipc::ShmQueue> ownQueue();
    // A call of the method on the object over the own queue; reader reads
    // the answer. False, logged, when the queue failed.
    bool call(const char* what, void* object, int method,
              const std::function<void(tolvacore::ipc::ShmQueue&)>& arguments,
              const std::function<void(tolvacore::ipc::ShmQueue&)>& reader);
    void request(const char* name);

    // Between "connected" setting async and the client's queue being
    // attached; a request in that gap waits for the attachment.
    void beginAttaching();
    void endAttaching(std::shared_ptr<tolvacore::ipc::ShmQueue> clientQueue);
    struct AttachingEnd {
        ShmComm& comm;
        const std::shared_ptr<tolvacore::ipc::ShmQueue>& clientQueue;
        ~AttachingEnd() { comm.endAttaching(clientQueue); }
    };
    std::shared_ptr<tolvacore::ipc::ShmQueue> clientQueueOnceAttached();

    std::mutex lock_;  // guards the two queues, the attaching state and the thread handle
    std::condition_variable attachingEnded_;
    bool attaching_ = false;
    DWORD threadId_ = 0;  // of the thread that serves the own queue
    std::shared_ptr<tolvacore::ipc::ShmQueue> queue_;
    std::shared_ptr<tolvacore::ipc::ShmQueue> clientQueue_;
    HANDLE thread_ = nullptr;
    std::atomic<void*> client_{nullptr};
    std::atomic<void*> async_{nullptr};
};

}  // namespace tolva
