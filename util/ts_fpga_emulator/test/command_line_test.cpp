#include "command_line.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

/// @param text arguments with "|" between them; "@" is a good pair
cxxopts::ParseResult parse(const std::string& text) {
    std::vector<std::string> arguments = {"zeptfem"};
    std::istringstream stream(std::regex_replace(text, std::regex("@"), "udp://239.10.0.1:5000 /ts/a.ts"));
    for (std::string argument; std::getline(stream, argument, '|');) {
        arguments.push_back(argument);
    }
    std::vector<const char*> argv;
    std::ranges::transform(arguments, std::back_inserter(argv), &std::string::c_str);
    cxxopts::Options options = declareOptions();
    return parseArguments(options, static_cast<int>(argv.size()), argv.data());
}

/// All settings, "help", or why the command line is refused.
std::string outcome(const std::string& arguments) {
    try {
        const cxxopts::ParseResult parsed = parse(arguments);
        if (parsed.count("help") > 0) {
            return "help";
        }
        const Settings settings = readSettings(parsed);
        std::string text = fmt::format("{} {} {} {} {}", settings.routerDevice, settings.tsioDevice,
                                       settings.pktioCtrlDevice, settings.pktioDataDevice,
                                       settings.streamMode == StreamMode::PcrRate ? "PCR" : "MAX");
        for (const auto& [uri, path] : std::map(settings.files.begin(), settings.files.end())) {
            text += fmt::format(" <{}> <{}>", uri, path);
        }
        return text;
    } catch (const CppUtil::InitializationError& e) {
        return e.getMessage();
    }
}

TEST(CommandLine, IsReadInEverySpelling) {
    const std::string devices =
        "/dev/zeptsif_pidlut /dev/zeptsif_iplut /dev/zeptsif_pktio /dev/zeptsif_pktio";
    const std::string pair = " <udp://239.10.0.1:5000> </ts/a.ts>";
    const auto badPair = [](const std::string& text) {
        return "Initialization Error: Invalid formatted URI/file pair \"" + text + "\". ";
    };
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {devices + " MAX" + pair,
         {"-f|@", "-f@", "--file_uri_pair|@", "--file_uri_pair=@", "-f|@|--|-m", "stray|-f|@|argument"}},
        {devices + " PCR" + pair,
         {"-m|-f|@", "-f@|-m", "-m|off|-f|@", "-f|@|-m", "--pcrmode|--file_uri_pair|@",
          "--pcrmode|false|-f|@", "--pcrmode=false|-f|@"}},
        {"R T c /D,1 MAX" + pair,
         {"-r|R|-t|T|-p|c|-P/D,1|-f|@", "-f|@|--router_dev|R|--tsio_dev=T|-pc|--pktiodata_dev|/D,1"}},
        {devices + " MAX <> </no/uri> <U1> <other> <t\tt> <'quoted'> <u1> <a,b,,c> <u2> <x=y> <u3> <a\nb> "
                   "<u4> <\n-f\n>",
         {"-f|u1 a,b,,c|--file_uri_pair=u2 x=y|-f|u3 a\nb|--file_uri_pair=u4 \n-f\n|-f| /no/uri|-f|U1 other|"
          "-f|t\tt 'quoted'"}},
        {"help", {"-h", "--help", "-h|-f", "-mh", "--help=me", "-hf|bad"}},
        {"Initialization Error: No file/URI pairs given via the -f/--file_uri_pair option.",
         {"", "-m|@", "--|-f|@", "-r|-h"}},
        {badPair(""), {"-f", "-f|@|-f", "-f|-m", "--file_uri_pair="}},
        {"Initialization Error: Rendundant URI in URI/file pair \"u b\". ", {"-f|u a|-f|v a|-f|u b"}}};
    for (const auto& [expected, spellings] : cases) {
        for (const std::string& arguments : spellings) {
            EXPECT_EQ(outcome(arguments), expected) << arguments;
        }
    }
    for (const std::string text : {"uri", "uri\tfile", "uri  file", "uri file ", " uri file", "u r i"}) {
        EXPECT_EQ(outcome("-f|u a|-f|" + text + "|-f|u b"), badPair(text));
    }
    // A value that may not be left out is taken as it is.
    for (const std::string value :
         {"-f", "--file_uri_pair", "-h", "--", "-", "", "a\nb", "--pcrmode=x", "a=b"}) {
        for (const char* option : {"-r|", "--router_dev|", "--router_dev="}) {
            EXPECT_EQ(readSettings(parse(option + value + "|-f|@")).routerDevice, value) << option;
        }
    }
}

}  // namespace
}  // namespace Vel::Utils
