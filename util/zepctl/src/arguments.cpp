#include "arguments.h"

#include <filesystem>

#include "command_result.h"

namespace Vel::Zepctl {

Arguments::Arguments(CLI::App& app) {
    const auto add = [&](const char* name, std::string& path, const char* help) {
        return app.add_option(name, path, help)->type_name("PATH")->capture_default_str();
    };
    const CLI::Option* tsioOption = add("-t,--tsio_dev", tsio, "device or file that holds the IP LUT");
    const CLI::Option* routerOption = add("-r,--router_dev", router, "device or file that holds the PID LUT");
    app.add_option("-d,--dir", deviceDirectory,
                   "directory that holds tsio, router and pktio; -t and -r take precedence")
        ->type_name("DIR")
        ->envname("ZEP_DIR");
    app.parse_complete_callback([this, tsioOption, routerOption] {
        if (!deviceDirectory.empty() && tsioOption->empty()) {
            tsio = std::filesystem::path(deviceDirectory) / "tsio";
        }
        if (!deviceDirectory.empty() && routerOption->empty()) {
            router = std::filesystem::path(deviceDirectory) / "router";
        }
    });
}

std::string Arguments::getPktio() const {
    if (deviceDirectory.empty()) {
        throw CommandError(WrongUse, "Name the directory of the devices with -d DIR or in ZEP_DIR");
    }
    return std::filesystem::path(deviceDirectory) / "pktio";
}

}  // namespace Vel::Zepctl
