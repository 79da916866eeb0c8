#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <string>
#include <utility>

namespace Vel {

/// Root of every failure that a caller may handle. The complete text is built once, in the constructor: the
/// message and the location of the throw statement. Most derived classes only add a category prefix.
///
/// Every class takes the detail text first; file and line come last and default to those of the throw
/// statement. Immutable after construction, so any thread may read it.
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

/// The prefix of an error category, as a template argument.
template <std::size_t SIZE>
struct CategoryPrefix {
    consteval CategoryPrefix(const char (&prefix)[SIZE]) { std::ranges::copy(prefix, text); }
    char text[SIZE]{};
};

/// An error whose category stands in front of its detail text. The prefix is what makes the type: no two
/// categories share one.
template <typename Base, CategoryPrefix PREFIX>
class CategoryError : public Base {
public:
    CategoryError(const std::string& detail, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : Base(PREFIX.text + detail, file, line) {}
};

namespace CppUtil {

/// The program cannot start with the given configuration.
using InitializationError = CategoryError<Error, "Initialization Error: ">;
/// A text or a serialized form does not follow its format.
using ParsingError = CategoryError<Error, "Generic parsing Error: ">;
/// An index or a size lies outside of its range.
using OutOfRangeError = CategoryError<Error, "Out of Range Error: ">;
/// An argument is well-formed but not acceptable.
using InvalidArgumentError = CategoryError<Error, "Invalid Argument Error: ">;
/// The object does not support this call in its current state.
using NotImplementedError = CategoryError<Error, "Not Implemented Error: ">;

/// Reading from or writing to a file or device failed.
class IOError : public CategoryError<Error, "IOErrorr: "> {
public:
    /// @param reason the system's message, for example errnoText(errno); not part of what()
    IOError(const std::string& detail, std::string reason = {}, const char* file = __builtin_FILE(),
            int line = __builtin_LINE())
        : CategoryError(detail, file, line), m_Reason(std::move(reason)) {}

    const std::string& getReason() const { return m_Reason; }

private:
    std::string m_Reason;
};

}  // namespace CppUtil
}  // namespace Vel
