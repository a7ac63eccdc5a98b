// The event filter over the JNI test host, without the rest of the driver:
// the host and its callback object handed to the filter, and the checks of
// JNI use at the end of each test.
#pragma once

#include "events/EventFilter.h"

#include "JniHost.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace dwtest {

// Runs work on a thread that the filter attaches, as the dispatch thread
// and the queue's thread do.
inline void onAttachedThread(const std::function<void(tolva::EventFilter&)>& work) {
    std::thread thread([&] {
        tolva::EventFilter& filter = tolva::EventFilter::getInstance();
        filter.attachThread();
        work(filter);
        filter.detachThread();
    });
    thread.join();
}

class FilterTest : public ::testing::Test {
protected:
    void connect(jnihost::JavaHost::Options options = {}) {
        host = std::make_unique<jnihost::JavaHost>(options);
        JNIEnv* env = host->attachCurrentThread();
        tolva::EventFilter::getInstance().setJavaVM(host->vm());
        tolva::EventFilter::getInstance().setJavaCallbackObject(env, host->callbackObject());
    }
    void TearDown() override {
        for (const std::string& violation : host->violations()) ADD_FAILURE() << "JNI misuse: " << violation;
        for (const std::string& uncaught : host->uncaughtExceptions()) ADD_FAILURE() << "left pending: " << uncaught;
    }

    std::unique_ptr<jnihost::JavaHost> host;
};

}  // namespace dwtest
