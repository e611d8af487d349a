/// @class mw::FunctionRunnable
/// FunctionRunnable: a Runnable that runs a callable taking no arguments (a lambda, a
/// std::function<void()>, a function pointer), held by value. run() calls it; an empty one does
/// nothing. What the callable throws leaves run() unchanged. Header-only: each user compiles it.
#ifndef MW_CONCURRENT_FUNCTION_RUNNABLE_H
#define MW_CONCURRENT_FUNCTION_RUNNABLE_H

#include <functional>
#include <utility>

#include "Runnable.h"

namespace mw {

class FunctionRunnable : public Runnable {
public:
    /// Holds body; an empty one makes run() do nothing.
    explicit FunctionRunnable(std::function<void()> body) : m_body(std::move(body)) {}
    virtual ~FunctionRunnable() {}

    /// Calls the callable, if there is one; what it throws passes through unchanged.
    virtual void run() {
        if (m_body) m_body();
    }

private:
    std::function<void()> m_body;
};

}  // namespace mw

#endif
