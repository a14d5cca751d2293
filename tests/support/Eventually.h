// Waits for a condition; the deadline only ends a failing run.
#pragma once

#include <chrono>
#include <thread>

/** @return true as soon as the condition holds, false when it has not within 30 s */
template <class F> bool eventually(F condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
