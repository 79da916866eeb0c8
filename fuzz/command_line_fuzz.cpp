// Arguments, one per line: refused with one of the two errors that the program reports, or read as settings.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "command_line.h"
#include "require.h"
#include "vel/cpp_utils/error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments = {"zeptfem"};
    std::for_each(data, data + size, [&](std::uint8_t byte) {
        if (byte == '\n') {
            arguments.emplace_back();
        } else if (byte != 0) {
            arguments.back() += static_cast<char>(byte);
        }
    });
    std::vector<const char*> argv;
    std::ranges::transform(arguments, std::back_inserter(argv), &std::string::c_str);
    try {
        cxxopts::Options options = Vel::Utils::declareOptions();
        const auto parsed = Vel::Utils::parseArguments(options, static_cast<int>(argv.size()), argv.data());
        REQUIRE(!Vel::Utils::readSettings(parsed).files.empty());
    } catch (const cxxopts::exceptions::exception&) {
    } catch (const Vel::CppUtil::InitializationError&) {
    }
    return 0;
}
