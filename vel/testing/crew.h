// Threads of a test that do the same.
#pragma once

#include <thread>
#include <vector>

namespace vel::testing {

/// Starts threads that run `body` with their number, from 0 on; they are joined at the end of the scope.
template <class Body>
std::vector<std::jthread> crew(int count, const Body& body) {
    std::vector<std::jthread> threads;
    for (int number = 0; number < count; ++number) threads.emplace_back(body, number);
    return threads;
}

} // namespace vel::testing
