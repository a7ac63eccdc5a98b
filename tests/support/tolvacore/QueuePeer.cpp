// The other side of a queue, in a process of its own, for the queue's tests:
//
//   queue_peer serve <id>    attaches to queue <id> and serves calls on it
//   queue_peer create <id>   makes queue <id> and serves calls on it
//
// Calls name any object; the first int is the operation:
//   1 v          answers v * 2
//   2 text       answers the text reversed
//   3 ms v       sleeps ms milliseconds, then answers v
//   4 target v   calls target with v on this queue and answers its answer + 1
//   5            ends this process at once, with no answer
//   6 name text  sends a message of that name with the text and answers its answer
//   7 target n   calls target n times with 0..n-1 and answers the sum of the answers
//   8            answers 0 and ends the serving
// The process prints "ready" when it serves, and ends with 0 after 8, with 3
// when the queue ended under it.
#include "tolvacore/ipc/ShmQueue.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

using tolva::tolvacore::ipc::ShmCallable;
using tolva::tolvacore::ipc::ShmException;
using tolva::tolvacore::ipc::ShmQueue;

namespace {

int callOn(ShmQueue& queue, void* target, int value) {
    queue.setupCall(target) << value;
    queue.send();
    queue.readAndDispatch(nullptr, 0);
    int answer = 0;
    queue >> answer;
    return answer;
}

class Server : public ShmCallable {
public:
    void call(ShmQueue& queue) override {
        int operation = 0;
        queue >> operation;
        switch (operation) {
        case 1: {
            int value = 0;
            queue >> value;
            queue.returnInt(value * 2);
            break;
        }
        case 2: {
            std::wstring text;
            queue >> text;
            std::reverse(text.begin(), text.end());
            queue.setupReturn() << text;
            queue.sendReturn();
            break;
        }
        case 3: {
            int ms = 0, value = 0;
            queue >> ms >> value;
            Sleep(static_cast<DWORD>(ms));
            queue.returnInt(value);
            break;
        }
        case 4: {
            void* target = nullptr;
            int value = 0;
            queue >> target >> value;
            queue.returnInt(callOn(queue, target, value) + 1);
            break;
        }
        case 5:
            std::fflush(stdout);
            ExitProcess(5);
        case 6: {
            std::wstring name, text;
            queue >> name >> text;
            queue.setupMessage(std::string(name.begin(), name.end()).c_str()) << text;
            queue.send();
            queue.readAndDispatch(nullptr, 0);
            int answer = 0;
            queue >> answer;
            queue.returnInt(answer);
            break;
        }
        case 7: {
            void* target = nullptr;
            int count = 0, sum = 0;
            queue >> target >> count;
            for (int i = 0; i < count; ++i) {
                sum += callOn(queue, target, i);
            }
            queue.returnInt(sum);
            break;
        }
        case 8:
            queue.returnInt(0);
            done = true;
            break;
        default:
            queue.returnInt(-1);
        }
    }
    bool done = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: queue_peer serve|create <id>\n");
        return 2;
    }
    const std::string mode = argv[1];
    const int id = std::atoi(argv[2]);
    std::shared_ptr<ShmQueue> queue;
    try {
        queue = mode == "create" ? ShmQueue::createQueue(4096, id) : ShmQueue::attachQueue(id);
    } catch (const ShmException& e) {
        std::printf("no queue: %s\n", e.what());
        return 4;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    Server server;
    try {
        while (!server.done) {
            queue->readAndDispatch(&server, 0);
        }
    } catch (const ShmException& e) {
        std::printf("ended: %s\n", e.what());
        return 3;
    }
    return 0;
}
