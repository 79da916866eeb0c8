#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <utility>

namespace Vel {

/// Root of every failure that a caller may handle. The complete text is built once, in the constructor: the
/// message and the location of the throw statement. Most derived classes only add a category prefix.
///
/// Every class takes the detail text first; file and line default to those of the throw statement. Immutable
/// after construction, so any thread may read it.
class Error : public std::exception {
public:
    Error(const std::string& message, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : m_Text(message + "(" + file + ":" + std::to_string(line) + ")"), m_MessageLength(message.size()) {}

    const char* what() const noexcept override { return m_Text.c_str(); }
    /// The text without the location of the throw statement.
    std::string getMessage() const { return m_Text.substr(0, m_MessageLength); }

private:
    std::string m_Text;
    std::size_t m_MessageLength;
};

namespace CppUtil {

/// The program cannot start with the given configuration.
class InitializationError : public Error {
public:
    InitializationError(const std::string& detail, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE())
        : Error("Initialization Error: " + detail, file, line) {}
};

/// A text or a serialized form does not follow its format.
class ParsingError : public Error {
public:
    ParsingError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : Error("Generic parsing Error: " + detail, file, line) {}
};

/// An index or a size lies outside of its range.
class OutOfRangeError : public Error {
public:
    OutOfRangeError(const std::string& detail, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE())
        : Error("Out of Range Error: " + detail, file, line) {}
};

/// An argument is well-formed but not acceptable.
class InvalidArgumentError : public Error {
public:
    InvalidArgumentError(const std::string& detail, const char* file = __builtin_FILE(),
                         int line = __builtin_LINE())
        : Error("Invalid Argument Error: " + detail, file, line) {}
};

/// The object does not support this call in its current state.
class NotImplementedError : public Error {
public:
    NotImplementedError(const std::string& detail, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE())
        : Error("Not Implemented Error: " + detail, file, line) {}
};

/// Reading from or writing to a file or device failed.
class IOError : public Error {
public:
    /// @param reason the system's message, for example errnoText(errno); not part of what()
    IOError(const std::string& detail, std::string reason = {}, const char* file = __builtin_FILE(),
            int line = __builtin_LINE())
        : Error("IOErrorr: " + detail, file, line), m_Reason(std::move(reason)) {}

    const std::string& getReason() const { return m_Reason; }

private:
    std::string m_Reason;
};

}  // namespace CppUtil
}  // namespace Vel
