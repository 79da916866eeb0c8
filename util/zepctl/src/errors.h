#pragma once

#include <stdexcept>

namespace Vel::Zepctl {

// What ends a command before its work is done. main() turns each into its exit status and one line on
// standard error, so a text holds the value that was refused and its limits, and no line end.

/// The checked stream is faulty: exit status 1.
class StreamFault : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Wrong use, or a value out of range: exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A file or device cannot be used: exit status 3.
class DeviceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Vel::Zepctl
