// Helpers shared by the tests: polling with a generous deadline instead of sleeping, a start line
// for threads, a fresh thread for a body, timing, thread-local hooks, and the stress scale.
#ifndef MW_SYNC_TEST_SUPPORT_H
#define MW_SYNC_TEST_SUPPORT_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace mwtest {

// Polls predicate until it holds or the deadline passes; returns whether it held. It yields
// between polls, or only after every spin-th poll: a waker that must catch a moment spins.
template <typename Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds deadline = std::chrono::seconds(30),
                unsigned spin = 1) {
    auto end = std::chrono::steady_clock::now() + deadline;
    for (unsigned i = 1; !predicate(); ++i) {
        if (i % spin != 0) continue;
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

// Runs body on a thread of its own and joins it: the thread starts with no permit, no interrupt,
// no thread-local values, and its record dies before this returns.
template <typename Body>
void onFreshThread(Body body) {
    std::thread(body).join();
}

template <typename Body>
std::chrono::steady_clock::duration elapsed(Body body) {
    auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::steady_clock::now() - start;
}

// A thread-local pointer's cleaning policy for a hook: cleaning a value runs it, then frees it.
struct RunWhenCleaned {
    static void deallocate(std::function<void()>* hook) {
        std::unique_ptr<std::function<void()>> owned(hook);
        (*owned)();
    }
};

// True if action throws E whose message ends in the description and, when an operation
// "Class::function" is given, names it: a refusal reports what the caller called, not a helper.
template <typename E, typename Action>
bool throwsWith(Action action, const std::string& description, const std::string& operation = "") {
    try {
        action();
    } catch (const E& e) {
        const std::string text = e.what();
        const std::string tail = ", Description: " + description;
        if (text.size() < tail.size() || text.substr(text.size() - tail.size()) != tail) {
            return false;
        }
        if (operation.empty()) return true;
        std::string::size_type split = operation.rfind("::");
        std::string::size_type at = text.find(operation.substr(0, split));
        return at != std::string::npos &&
               text.find(operation.substr(split) + "(", at) != std::string::npos;
    } catch (...) {
    }
    return false;
}

// For the tests that are programs of their own: ends the process with a failure unless done is
// set within the limit, so that a hang fails the check instead of running into the test timeout.
// done must outlive the process's exit handlers.
inline void startProcessWatchdog(const std::atomic<bool>& done, std::chrono::seconds limit) {
    std::thread([&done, limit] {
        auto end = std::chrono::steady_clock::now() + limit;
        while (!done.load()) {
            if (std::chrono::steady_clock::now() > end) {
                std::puts("FAILED: still running at the watchdog's deadline");
                std::fflush(stdout);
                std::_Exit(1);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // a deadline, not a wait
        }
    }).detach();
}

// Multiplies stress iteration counts; MW_STRESS_SCALE in the environment, default 1.
inline int stressScale() {
    const char* text = std::getenv("MW_STRESS_SCALE");
    int scale = text != nullptr ? std::atoi(text) : 1;
    return scale > 0 ? scale : 1;
}

}  // namespace mwtest

#endif
