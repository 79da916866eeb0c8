#include "device_paths.h"

#include <unistd.h>

#include <filesystem>

#include "command_error.h"

namespace Vel::Zepctl {

DevicePaths::DevicePaths(CLI::App& app) {
    const auto add = [&](const char* name, std::string& path, const char* help) {
        return app.add_option(name, path, help)->type_name("PATH")->capture_default_str();
    };
    const CLI::Option* tsioOption = add("-t,--tsio_dev", tsio, "device or file that holds the IP LUT");
    const CLI::Option* routerOption = add("-r,--router_dev", router, "device or file that holds the PID LUT");
    app.add_option("-d,--dir", directory,
                   "directory that holds tsio, router and pktio; -t and -r take precedence")
        ->type_name("DIR")
        ->envname("ZEP_DIR");
    app.parse_complete_callback([this, tsioOption, routerOption] {
        if (!directory.empty() && tsioOption->empty()) {
            tsio = std::filesystem::path(directory) / "tsio";
        }
        if (!directory.empty() && routerOption->empty()) {
            router = std::filesystem::path(directory) / "router";
        }
    });
}

std::string DevicePaths::getPktio() const {
    if (directory.empty()) {
        throw CommandError(WrongUse, "Name the directory of the devices with -d DIR or in ZEP_DIR");
    }
    return std::filesystem::path(directory) / "pktio";
}

const std::string& requireExisting(const std::string& path) {
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        throw CommandError(DeviceUnusable,
                           path +
                               " does not exist; -d DIR names a directory of stand-ins, which "
                               "\"zepctl create --fifo DIR\" creates");
    }
    return path;
}

}  // namespace Vel::Zepctl
