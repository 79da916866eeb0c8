#include "command_line.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "vel/cpp_utils/error.h"

namespace Vel::Utils {

namespace {

constexpr const char* PROGRAM_NAME = "zeptfem";
constexpr const char* DESCRIPTION =
    "zeptfem (ZEP Transport stream FPGA Emulator).\n"
    "Emulates the software connected data paths of the FPGA by snooping\n"
    "changes in the memory mapped control devices of the FPGA.";

struct OptionSpec {
    char shortName;
    std::string_view longName;
    const char* defaultValue;   // null: none
    const char* implicitValue;  // taken where the value is left out; null: it may not be
    bool isList;
    const char* help;
};

constexpr std::array<OptionSpec, 7> OPTIONS = {{
    {'r', "router_dev", "/dev/zeptsif_pidlut", nullptr, false,
     "Device or file, which represents the device holding the pidlut, pidmap etc."},
    {'t', "tsio_dev", "/dev/zeptsif_iplut", nullptr, false,
     "Device or file, which represents the device holding the iplut, tsimap etc."},
    {'p', "pktioctrl_dev", "/dev/zeptsif_pktio", nullptr, false,
     "Device or file, which represents the device holding the control registers for the pktio "
     "functionality."},
    {'P', "pktiodata_dev", "/dev/zeptsif_pktio", nullptr, false,
     "Device or file, which represents the which the ZEPTSIF can write the streamed ZEP headered TS packets "
     "to."},
    {'f', "file_uri_pair", nullptr, "", true,
     "Configuration string, which links a ZEP input URI to a arbitrary file, containing MPEG-2 transport "
     "stream "
     "packets of 188 bytes size. Must conform to format [URI PATH]. A minimum of 1 of these options are "
     "required."},
    {'h', "help", nullptr, "implicit", false, "Displays this help text."},
    {'m', "pcrmode", nullptr, "true", false,
     "If given, the transport stream files, will be streamed by the rate of the PCR."},
}};

const OptionSpec* findOption(char shortName) {
    const auto* found = std::find_if(OPTIONS.begin(), OPTIONS.end(),
                                     [&](const OptionSpec& option) { return option.shortName == shortName; });
    return found == OPTIONS.end() ? nullptr : found;
}

const OptionSpec* findOption(std::string_view longName) {
    const auto* found = std::find_if(OPTIONS.begin(), OPTIONS.end(),
                                     [&](const OptionSpec& option) { return option.longName == longName; });
    return found == OPTIONS.end() ? nullptr : found;
}

/// Brings the arguments into the one form in which the library takes every value as it is, whatever it holds:
/// the option alone, then its value as an argument of its own. Values that are left out are put in. What is
/// not an option of this program stays as it is, for the library to judge.
class ArgumentSeparator {
public:
    ArgumentSeparator(int argc, const char* const* argv) : m_Arguments(argv, argv + argc) {}

    std::vector<std::string> separate() {
        while (m_Next < m_Arguments.size()) {
            const std::string& argument = m_Arguments[m_Next++];
            if (argument == "--") {
                m_Separated.push_back(argument);
                m_Separated.insert(m_Separated.end(),
                                   m_Arguments.begin() + static_cast<std::ptrdiff_t>(m_Next),
                                   m_Arguments.end());
                break;
            }
            if (argument.starts_with("--")) {
                separateLong(argument);
            } else if (argument.starts_with('-')) {
                separateGroup(argument);
            } else {
                m_Separated.push_back(argument);
            }
        }
        return std::move(m_Separated);
    }

private:
    void separateLong(const std::string& argument) {
        const std::size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const OptionSpec* option = findOption(std::string_view(name).substr(2));
        if (option == nullptr) {
            m_Separated.push_back(argument);
        } else if (equals != std::string::npos) {
            m_Separated.insert(m_Separated.end(), {name, argument.substr(equals + 1)});
        } else {
            m_Separated.push_back(name);
            takeNext(*option);
        }
    }

    /// Short options in one argument: those before the last one go without a value, or take the rest where
    /// they need one.
    void separateGroup(const std::string& argument) {
        for (std::size_t i = 1; i < argument.size(); ++i) {
            const OptionSpec* option = findOption(argument[i]);
            if (option == nullptr) {
                m_Separated.push_back("-" + argument.substr(i));
                return;
            }
            m_Separated.push_back({'-', argument[i]});
            if (i + 1 == argument.size()) {
                takeNext(*option);
            } else if (option->implicitValue != nullptr) {
                m_Separated.emplace_back(option->implicitValue);
            } else {
                m_Separated.push_back(argument.substr(i + 1));
                return;
            }
        }
        if (argument.size() == 1) {
            m_Separated.push_back(argument);
        }
    }

    void takeNext(const OptionSpec& option) {
        const bool hasNext = m_Next < m_Arguments.size();
        if (option.implicitValue != nullptr && (!hasNext || m_Arguments[m_Next].starts_with('-'))) {
            m_Separated.emplace_back(option.implicitValue);
        } else if (hasNext) {
            m_Separated.push_back(m_Arguments[m_Next++]);
        }
    }

    std::vector<std::string> m_Arguments;
    std::size_t m_Next = 1;  // behind the program's name
    std::vector<std::string> m_Separated = {PROGRAM_NAME};
};

/// Texts between blanks; two blanks in a row have an empty one between them, and so has a blank at either
/// end.
std::vector<std::string> splitAtBlanks(const std::string& text) {
    std::vector<std::string> tokens;
    std::string token;
    for (const char c : text) {
        if (c == ' ') {
            tokens.push_back(std::exchange(token, {}));
        } else {
            token += c;
        }
    }
    if (!tokens.empty() || !token.empty()) {
        tokens.push_back(token);
    }
    return tokens;
}

cxxopts::Options declare(bool withImplicitValues) {
    cxxopts::Options options(PROGRAM_NAME, DESCRIPTION);
    auto add = options.add_options();
    for (const OptionSpec& option : OPTIONS) {
        std::shared_ptr<cxxopts::Value> value;
        if (option.isList) {
            value = cxxopts::value<std::vector<std::string>>();
        } else {
            value = cxxopts::value<std::string>();
        }
        if (option.defaultValue != nullptr) {
            value->default_value(option.defaultValue);
        }
        if (withImplicitValues && option.implicitValue != nullptr) {
            value->implicit_value(option.implicitValue);
        }
        add(std::string(1, option.shortName) + "," + std::string(option.longName), option.help, value);
    }
    return options;
}

}  // namespace

cxxopts::Options declareOptions() {
    return declare(true);
}

/// Every value is an argument of its own by now, so the parser gets options whose value may not be left out.
cxxopts::ParseResult parseArguments(int argc, const char* const* argv) {
    const std::vector<std::string> arguments = ArgumentSeparator(argc, argv).separate();
    std::vector<const char*> pointers;
    std::transform(arguments.begin(), arguments.end(), std::back_inserter(pointers),
                   [](const std::string& argument) { return argument.c_str(); });
    return declare(false).parse(static_cast<int>(pointers.size()), pointers.data());
}

UriFileList parseUriFilePairs(const std::vector<std::string>& pairs) {
    UriFileList files;
    for (const std::string& pair : pairs) {
        const std::vector<std::string> tokens = splitAtBlanks(pair);
        if (tokens.size() != 2) {
            throw CppUtil::InitializationError("Invalid formatted URI/file pair \"" + pair + "\". ", __FILE__,
                                               __LINE__);
        }
        if (!files.emplace(tokens[0], tokens[1]).second) {
            throw CppUtil::InitializationError("Rendundant URI in URI/file pair \"" + pair + "\". ", __FILE__,
                                               __LINE__);
        }
    }
    return files;
}

Settings readSettings(const cxxopts::ParseResult& options) {
    if (options.count("file_uri_pair") == 0) {
        throw CppUtil::InitializationError("No file/URI pairs given via the -f/--file_uri_pair option.",
                                           __FILE__, __LINE__);
    }
    Settings settings;
    settings.files = parseUriFilePairs(options["file_uri_pair"].as<std::vector<std::string>>());
    settings.routerDevice = options["router_dev"].as<std::string>();
    settings.tsioDevice = options["tsio_dev"].as<std::string>();
    settings.pktioCtrlDevice = options["pktioctrl_dev"].as<std::string>();
    settings.pktioDataDevice = options["pktiodata_dev"].as<std::string>();
    settings.streamMode = options.count("pcrmode") == 0 ? StreamMode::MaxRate : StreamMode::PcrRate;
    return settings;
}

}  // namespace Vel::Utils
