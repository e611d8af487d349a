/// @class mw::Exception
/// Exception: the root of the library's own failures. Each object records where it was thrown and
/// carries the one-line message that what() returns:
/// `"Error in: <file> (<line>) <function>, Description: <description>"`
/// The message is built once, in the constructor; a copy takes it over unchanged. From the end of
/// its constructor on an exception object is constant.
#ifndef MW_CONCURRENT_EXCEPTION_H
#define MW_CONCURRENT_EXCEPTION_H

#include <exception>
#include <sstream>
#include <string>

namespace mw {

class Exception : public std::exception {
public:
    /// Records the site and builds the message. MW_THROW calls it with the site filled in.
    Exception(const std::string& file, const std::string& function, int line,
              const std::string& description)
        : std::exception(),
          m_message(description),
          m_file(file),
          m_function(function),
          m_line(line) {
        std::ostringstream text;
        text << "Error in: " << m_file << " (" << m_line << ") " << m_function
             << ", Description: " << m_message;
        m_message = text.str();
    }

    /// Takes the source's message and site over unchanged.
    Exception(const Exception& other)
        : std::exception(),
          m_message(other.m_message),
          m_file(other.m_file),
          m_function(other.m_function),
          m_line(other.m_line) {}

    virtual ~Exception() noexcept {}

    /// The one-line message (see Exception); valid as long as the object.
    virtual const char* what() const noexcept { return m_message.c_str(); }

private:
    std::string m_message;
    std::string m_file;
    std::string m_function;
    int m_line;
};

}  // namespace mw

/// @file
/// Exception, and the two macros through which the library declares and throws its failures.

/// Declares an exception type that differs from its base in type alone.
#define MW_DECLARE_EXCEPTION(Name, Base)                                     \
    class Name : public Base {                                               \
    public:                                                                  \
        Name(const std::string& file, const std::string& function, int line, \
             const std::string& description)                                 \
            : Base(file, function, line, description) {}                     \
        Name(const Name& other) : Base(other) {}                             \
    }

namespace mw {
namespace detail {

// Builds the description, the function's signature and the file name, in this order, and throws
// the exception by value. Kept out of line and cold, so that a throw site costs the fast path of
// its function only a call.
template <typename E>
[[noreturn]] __attribute__((noinline, cold)) void throwException(const char* description,
                                                                 const char* function,
                                                                 const char* file, int line) {
    const std::string descriptionText(description);
    const std::string functionText(function);
    const std::string fileText(file);
    throw E(fileText, functionText, line, descriptionText);
}

}  // namespace detail
}  // namespace mw

/// The one throw site form: the exception type and its description; the enclosing function's
/// signature, the file and the line come from the site.
#define MW_THROW(Type, description) \
    ::mw::detail::throwException<Type>(description, __PRETTY_FUNCTION__, __FILE__, __LINE__)

#endif
