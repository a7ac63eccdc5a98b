// What the driver and a client library inside the target agree on over the
// channel, beside the event records (events/WinClientEvent.h): the id of the
// driver's queue and the method numbers of the client's objects.
#pragma once

namespace tolva {

// The driver's queue is known by the id of the target thread the client
// library was hooked into, plus this.
const int DRIVER_QUEUE_ID_OFFSET = 0x10000;

// Method numbers of the client's element objects, and of its root object.
enum ClientMethod : int {
    GET_NATIVE_HANDLE = 1,
    GET_CLASS_NAME = 3,
    GET_CLASS_NAMES = 5,
    GET_PARENT = 7,
    GET_CHILDREN = 9,
    GET_BOUNDS = 11,
    EVAL_JS = 13,
    GET_TOPLEVELS = 1,
};

}  // namespace tolva
