#pragma once

#include <string>

#include "vel/cpp_utils/error.h"

/// The text of the `Expected` error that `call` throws, without the location of the throw statement; any
/// other error passes through.
template <typename Expected, typename Call>
std::string thrownText(Call call) {
    try {
        call();
    } catch (const Expected& error) {
        const std::string text = error.what();
        return text.substr(0, text.rfind('('));
    }
    return "nothing thrown";
}
