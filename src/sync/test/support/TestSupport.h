// Helpers shared by the tests: polling with a generous deadline instead of sleeping, a start line
// for threads, and the stress scale.
#ifndef MW_SYNC_TEST_SUPPORT_H
#define MW_SYNC_TEST_SUPPORT_H

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace mwtest {

// Polls predicate until it holds or the deadline passes; returns whether it held.
template <typename Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds deadline = std::chrono::seconds(30)) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

// A one-shot start line: threads wait at it until released, so that they start together.
class Latch {
public:
    explicit Latch(int count) : m_count(count) {}
    void countDown() { m_count.fetch_sub(1); }
    void wait() const {
        while (m_count.load() > 0) std::this_thread::yield();
    }
    void arriveAndWait() {
        countDown();
        wait();
    }

private:
    std::atomic<int> m_count;
};

// Multiplies stress iteration counts; MW_STRESS_SCALE in the environment, default 1.
inline int stressScale() {
    const char* text = std::getenv("MW_STRESS_SCALE");
    int scale = text != nullptr ? std::atoi(text) : 1;
    return scale > 0 ? scale : 1;
}

}  // namespace mwtest

#endif
