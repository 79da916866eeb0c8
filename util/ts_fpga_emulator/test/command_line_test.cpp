#include "command_line.h"

#include <gmock/gmock.h>

#include <sstream>

#include "support.h"
#include "thrown_text.h"
#include "vel/cpp_utils/error.h"

namespace Vel::Utils {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;

/// @param text arguments with "|" between them; "@" is a good pair
cxxopts::ParseResult parse(const std::string& text) {
    std::vector<std::string> arguments = {"zeptfem"};
    for (const char c : text.empty() ? text : "|" + text) {
        if (c == '|') {
            arguments.emplace_back();
        } else {
            arguments.back() += c == '@' ? "udp://239.10.0.1:5000 /ts/a.ts" : std::string(1, c);
        }
    }
    std::vector<const char*> argv;
    std::ranges::transform(arguments, std::back_inserter(argv), &std::string::c_str);
    cxxopts::Options options = declareOptions();
    return parseArguments(options, static_cast<int>(argv.size()), argv.data());
}

Settings settingsOf(const std::string& arguments) {
    return readSettings(parse(arguments));
}

TEST(CommandLine, DevicesAreTakenFromTheirOptionsOrTheirDefaults) {
    const auto devices = [](const std::string& arguments) {
        const Settings settings = settingsOf(arguments);
        return settings.routerDevice + " " + settings.tsioDevice + " " + settings.pktioCtrlDevice + " " +
               settings.pktioDataDevice;
    };
    EXPECT_EQ(devices("-f|@"),
              "/dev/zeptsif_pidlut /dev/zeptsif_iplut /dev/zeptsif_pktio /dev/zeptsif_pktio");
    EXPECT_EQ(devices("-r|R|-t|T|-p|c|-P/D,1|-f|@"), "R T c /D,1");
    EXPECT_EQ(devices("-f|@|--router_dev|R|--tsio_dev=T|-pc|--pktiodata_dev|D"), "R T c D");
}

TEST(CommandLine, PairAndModeAreReadInEverySpelling) {
    const auto expectMode = [](StreamMode mode, const std::vector<std::string>& spellings) {
        for (const std::string& arguments : spellings) {
            const Settings settings = settingsOf(arguments);
            EXPECT_THAT(settings.files, ElementsAre(Pair("udp://239.10.0.1:5000", "/ts/a.ts"))) << arguments;
            EXPECT_EQ(settings.streamMode, mode) << arguments;
        }
    };
    expectMode(StreamMode::MaxRate,
               {"-f|@", "--file_uri_pair|@", "--file_uri_pair=@", "-f|@|--|-m", "stray|-f|@|argument"});
    expectMode(StreamMode::PcrRate,
               {"-m|-f|@", "-f@|-m", "-m|off|-f|@", "-f|@|-m", "--pcrmode|--file_uri_pair|@",
                "--pcrmode|false|-f|@", "--pcrmode=false|-f|@"});
}

TEST(CommandLine, EachOccurrenceIsOnePairWhateverItHolds) {
    EXPECT_THAT(settingsOf("-f|u1 a,b,,c|--file_uri_pair=u2 x=y|-f|u3 a\nb|--file_uri_pair=u4 \n-f\n|"
                           "-f| /no/uri|-f|U1 other|-f|t\tt 'quoted'")
                    .files,
                UnorderedElementsAre(Pair("u1", "a,b,,c"), Pair("u2", "x=y"), Pair("u3", "a\nb"),
                                     Pair("u4", "\n-f\n"), Pair("", "/no/uri"), Pair("U1", "other"),
                                     Pair("t\tt", "'quoted'")));
}

TEST(CommandLine, ValueThatMayNotBeLeftOutIsTakenAsItIs) {
    for (const std::string value :
         {"-f", "--file_uri_pair", "-h", "--", "-", "", "a\nb", "--pcrmode=x", "a=b"}) {
        for (const char* option : {"-r|", "--router_dev|", "--router_dev="}) {
            EXPECT_EQ(settingsOf(option + value + "|-f|@").routerDevice, value) << option;
        }
    }
}

TEST(CommandLine, PairsThatAreMissingOrWrongAreRefused) {
    const auto error = [](const std::string& arguments) {
        return thrownText<CppUtil::InitializationError>([&] { settingsOf(arguments); });
    };
    for (const char* arguments : {"", "-m|@", "--|-f|@"}) {
        EXPECT_EQ(error(arguments),
                  "Initialization Error: No file/URI pairs given via the -f/--file_uri_pair option.");
    }
    for (const char* arguments : {"-f", "-f|@|-f", "-f|-m", "--file_uri_pair="}) {
        EXPECT_EQ(error(arguments), "Initialization Error: Invalid formatted URI/file pair \"\". ")
            << arguments;
    }
    for (const std::string pair : {"uri", "uri\tfile", "uri  file", "uri file ", " uri file", "u r i"}) {
        EXPECT_EQ(error("-f|u a|-f|" + pair + "|-f|u b"),
                  "Initialization Error: Invalid formatted URI/file pair \"" + pair + "\". ");
    }
    EXPECT_EQ(error("-f|u a|-f|v a|-f|u b"),
              "Initialization Error: Rendundant URI in URI/file pair \"u b\". ");
}

TEST(CommandLine, ArgumentsBeyondTheOptionsAreRefusedByName) {
    for (const auto& [arguments, name] : {std::pair("--colour", "colour"),
                                          {"--colour=red", "colour"},
                                          {"-x", "x"},
                                          {"-mx|-f|@", "x"},
                                          {"-r", "r"},
                                          {"--tsio_dev", "tsio_dev"},
                                          {"-?", "-?"},
                                          {"--R", "--R"}}) {
        try {
            parse(arguments);
            ADD_FAILURE() << arguments;
        } catch (const cxxopts::exceptions::exception& e) {
            EXPECT_THAT(e.what(), HasSubstr(name));
        }
    }
}

TEST(CommandLine, HelpIsCountedInEverySpelling) {
    for (const char* arguments : {"-h", "--help", "-h|-f", "-mh", "--help=me", "-hf|bad"}) {
        EXPECT_EQ(parse(arguments).count("help"), 1U) << arguments;
    }
    EXPECT_EQ(parse("-r|-h").count("help"), 0U);
}

TEST(CommandLine, HelpNamesTheProgramEveryOptionAndItsDefault) {
    const cxxopts::Options options = declareOptions();
    // Without the line breaks and columns.
    const auto words = [](const std::string& text) {
        std::istringstream stream(text);
        std::string joined;
        for (std::string word; stream >> word;) {
            joined += word + " ";
        }
        return joined;
    };
    const std::string help = words(options.help());
    EXPECT_THAT(help, StartsWith("zeptfem (ZEP Transport stream FPGA Emulator). Emulates the software"));
    for (const auto& option : options.group_help("").options) {
        EXPECT_THAT(help, HasSubstr("-" + option.s + ", --" + option.l.front() + " "));
        EXPECT_THAT(help, HasSubstr(words(option.desc)));
        EXPECT_THAT(help, HasSubstr(option.default_value));
        EXPECT_THAT(help, HasSubstr(option.implicit_value));
    }
}

}  // namespace
}  // namespace Vel::Utils
