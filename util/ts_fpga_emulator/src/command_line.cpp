#include "command_line.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <span>
#include <string>

#include "vel/cpp_utils/error.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"

namespace Vel::Utils {

namespace {

constexpr const char* PROGRAM_NAME = "zeptfem";
constexpr const char* DESCRIPTION =
    "zeptfem (ZEP Transport stream FPGA Emulator).\n"
    "Emulates the software connected data paths of the FPGA by snooping\n"
    "changes in the memory mapped control devices of the FPGA.";

const cxxopts::HelpOptionDetails* findOption(const std::vector<cxxopts::HelpOptionDetails>& options,
                                             const std::string& argument) {
    const auto found = std::ranges::find_if(options, [&](const cxxopts::HelpOptionDetails& option) {
        return argument == "-" + option.s || argument == "--" + option.l.front();
    });
    return found == options.end() ? nullptr : &*found;
}

/// Rewrites the arguments for cxxopts, which accepts the value of an option with an implicit value only after
/// "=", and a value directly after a short option only if it is alphanumeric.
std::vector<std::string> joinValues(const cxxopts::Options& options, std::span<const char* const> arguments) {
    const auto& known = options.group_help("").options;
    std::vector<std::string> joined;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string argument = arguments[i];
        if (argument == "--") {
            joined.insert(joined.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i), arguments.end());
            break;
        }
        if (const auto* option = findOption(known, argument)) {
            // A value that is not optional may look like an option.
            const bool takesNext =
                i + 1 < arguments.size() && (!option->has_implicit || arguments[i + 1][0] != '-');
            joined.push_back(takesNext ? "--" + option->l.front() + "=" + arguments[++i] : argument);
            continue;
        }
        const auto* attached =
            argument.starts_with("--") ? nullptr : findOption(known, argument.substr(0, 2));
        const bool takesRest =
            attached != nullptr && (!attached->has_implicit || attached->implicit_value.empty());
        joined.push_back(takesRest ? "--" + attached->l.front() + "=" + argument.substr(2) : argument);
    }
    return joined;
}

/// A pair is two texts, either of which may be empty, with the only space between them.
void addUriFilePair(UriFileList& files, const std::string& pair) {
    const std::size_t space = pair.find(' ');
    if (space == std::string::npos || space != pair.rfind(' ')) {
        throw CppUtil::InitializationError("Invalid formatted URI/file pair \"" + pair + "\". ");
    }
    if (!files.emplace(pair.substr(0, space), pair.substr(space + 1)).second) {
        throw CppUtil::InitializationError("Rendundant URI in URI/file pair \"" + pair + "\". ");
    }
}

}  // namespace

cxxopts::Options declareOptions() {
    const auto text = [] { return cxxopts::value<std::string>(); };
    const auto flag = [&](const char* value = "true") { return text()->implicit_value(value); };
    cxxopts::Options options(PROGRAM_NAME, DESCRIPTION);
    // clang-format off
    options.add_options()
        ("r,router_dev", "Device or file, which represents the device holding the pidlut, pidmap etc.",
         text()->default_value(Drivers::Zep::ROUTER_DEVICE.path))
        ("t,tsio_dev", "Device or file, which represents the device holding the iplut, tsimap etc.",
         text()->default_value(Drivers::Zep::TSIO_DEVICE.path))
        ("p,pktioctrl_dev",
         "Device or file, which represents the device holding the control registers for the pktio functionality.",
         text()->default_value(Drivers::Zep::PKTIO_DEVICE_PATH))
        ("P,pktiodata_dev",
         "Device or file, which represents the which the ZEPTSIF can write the streamed ZEP headered TS packets to.",
         text()->default_value(Drivers::Zep::PKTIO_DEVICE_PATH))
        ("f,file_uri_pair",
         "Configuration string, which links a ZEP input URI to a arbitrary file, containing MPEG-2 transport stream "
         "packets of 188 bytes size. Must conform to format [URI PATH]. A minimum of 1 of these options are required.",
         flag(""))
        ("h,help", "Displays this help text.", flag("implicit"))
        ("m,pcrmode", "If given, the transport stream files, will be streamed by the rate of the PCR.", flag())
        ("c,pcrclock", "If given, each packet is sent at the time derived from the PCRs before and after it.", flag())
        ("v,verbose", "If given, debug messages are logged as well.", flag())
        ("V,version", "Displays the program's name and version.", flag())
        ("l,loop", "If given, files are repeated endlessly, with continuous clock and counters.", flag())
        ("k,keep", "If given, a FIFO data device stays open when its reader closes it.", flag())
        ("d,dir", "If given, the devices are tsio, router and pktio in this directory, unless -t, -r or -P names one.",
         text());
    // clang-format on
    return options;
}

cxxopts::ParseResult parseArguments(cxxopts::Options& options, int argc, const char* const* argv) {
    std::vector<const char*> pointers = {PROGRAM_NAME};
    const std::vector<std::string> arguments =
        joinValues(options, std::span(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0));
    std::ranges::transform(arguments, std::back_inserter(pointers), &std::string::c_str);
    return options.parse(static_cast<int>(pointers.size()), pointers.data());
}

Settings readSettings(const cxxopts::ParseResult& options) {
    if (options.count("file_uri_pair") == 0) {
        throw CppUtil::InitializationError("No file/URI pairs given via the -f/--file_uri_pair option.");
    }
    Settings settings;
    for (const cxxopts::KeyValue& option : options.arguments()) {
        if (option.key() == "file_uri_pair") {
            addUriFilePair(settings.files, option.value());
        }
    }
    const auto device = [&](const char* option, const char* nameInDirectory) {
        return options.count(option) > 0 || options.count("dir") == 0 ||
                       options["dir"].as<std::string>().empty()
                   ? options[option].as<std::string>()
                   : (std::filesystem::path(options["dir"].as<std::string>()) / nameInDirectory).string();
    };
    settings.routerDevice = device("router_dev", "router");
    settings.tsioDevice = device("tsio_dev", "tsio");
    settings.pktioCtrlDevice = options["pktioctrl_dev"].as<std::string>();
    settings.pktioDataDevice = device("pktiodata_dev", "pktio");
    if (options.count("pcrclock") > 0) {
        settings.pcrPacing = PcrPacing::Clock;
    }
    const bool isPaced = options.count("pcrmode") + options.count("pcrclock") > 0;
    settings.isLooped = options.count("loop") > 0;
    settings.keepsFifo = options.count("keep") > 0;
    settings.streamMode = isPaced ? StreamMode::PcrRate : StreamMode::MaxRate;
    return settings;
}

}  // namespace Vel::Utils
