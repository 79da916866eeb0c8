#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include <cxxopts.hpp>

#include "tspacket_streaming/stream_mode.h"
#include "tspacket_streaming/uri_file_list.h"

namespace Vel::Utils {

/// What the program was asked to do.
struct Settings {
    UriFileList files;
    std::string routerDevice;
    std::string tsioDevice;
    std::string pktioCtrlDevice;  // accepted, never opened
    std::string pktioDataDevice;
    StreamMode streamMode = StreamMode::MaxRate;
    PcrPacing pcrPacing = PcrPacing::Batches;
};

/// The program's options, which the help text describes.
cxxopts::Options declareOptions();

/// Parses the process arguments. An option whose value may be left out takes the next argument as its value
/// unless that is missing or begins with "-".
/// @throws cxxopts::exceptions::exception for anything that the options do not allow
cxxopts::ParseResult parseArguments(cxxopts::Options& options, int argc, const char* const* argv);

/// @throws CppUtil::InitializationError where the pairs are missing or wrong
Settings readSettings(const cxxopts::ParseResult& options);

}  // namespace Vel::Utils
