#pragma once

#include <string>

namespace Vel {

/// Text of the `ErrorType` that `call` throws, without the place of the throw statement; "no error" if it
/// returns.
template <typename ErrorType, typename Call>
std::string errorText(Call call) {
    try {
        call();
    } catch (const ErrorType& error) {
        const std::string text = error.what();
        return text.substr(0, text.rfind('('));
    }
    return "no error";
}

}  // namespace Vel
