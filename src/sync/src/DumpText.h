// DumpText: the pieces of the thread dump's text that its lines and its graph share.
#ifndef MW_SYNC_DUMP_TEXT_H
#define MW_SYNC_DUMP_TEXT_H

#include <string>

#include "concurrent/Thread.h"

namespace mw {
namespace detail {

// "0x" and lower-case hex digits, the same on every platform.
std::string hexAddress(const void* address);
const char* stateName(Thread::State state);
// Nanoseconds as milliseconds with three decimals.
std::string millis(long long nanos);
// text in double quotes, with '"' and '\' escaped.
std::string quoted(const std::string& text);

}  // namespace detail
}  // namespace mw

#endif
