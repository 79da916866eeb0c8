#pragma once

#include <iosfwd>
#include <string>

#include <cxxopts.hpp>

#include "tspacket_streaming/stream_mode.h"
#include "tspacket_streaming/uri_file_list.h"

namespace Vel::Utils {

/// What the command line asks for.
struct Settings {
    UriFileList files;
    std::string routerDevice;
    std::string tsioDevice;
    std::string pktioCtrlDevice;  // accepted, never opened
    std::string pktioDataDevice;
    StreamMode streamMode = StreamMode::MaxRate;
    PcrPacing pcrPacing = PcrPacing::Batches;
    bool isLooped = false;
    bool keepsFifo = false;
};

/// The program's options, with their help texts.
cxxopts::Options declareOptions();

/// Parses the process arguments. An option with an optional value takes the next argument as its value unless
/// that is missing or begins with "-".
/// @throws cxxopts::exceptions::exception for a wrong command line
cxxopts::ParseResult parseArguments(cxxopts::Options& options, int argc, const char* const* argv);

/// @throws CppUtil::InitializationError if the pairs are missing or wrong
Settings readSettings(const cxxopts::ParseResult& options);

}  // namespace Vel::Utils
