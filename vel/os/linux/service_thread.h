// Threads that the boundary runs for itself.
#pragma once

#include <csignal>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace vel::os {

/// Starts a thread that takes no signal, so that the application's handlers run on its own threads. False when the
/// system gives none.
template <class Body>
bool start_service_thread(std::thread& thread, const char* name, Body body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread = std::thread(body);
        pthread_setname_np(thread.native_handle(), name);
    } catch (const std::system_error&) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread.joinable();
}

} // namespace vel::os
