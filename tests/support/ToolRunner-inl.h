#pragma once

#include <chrono>
#include <thread>

namespace qmedtest {

template <typename Pred>
bool waitUntil(Pred pred, int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace qmedtest
