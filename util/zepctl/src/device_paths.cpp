#include "device_paths.h"

#include <filesystem>

#include "command_error.h"

namespace Vel::Zepctl {

DevicePaths::DevicePaths(CLI::App& app) {
    const CLI::Option* tsio = app.add_option("-t,--tsio_dev", m_Tsio, "device or file that holds the IP LUT")
                                  ->type_name("PATH")
                                  ->capture_default_str();
    const CLI::Option* router =
        app.add_option("-r,--router_dev", m_Router, "device or file that holds the PID LUT")
            ->type_name("PATH")
            ->capture_default_str();
    app.add_option("-d,--dir", m_Directory,
                   "directory that holds the devices: tsio, router and pktio; -t and -r take precedence")
        ->type_name("DIR")
        ->envname("ZEP_DIR");
    app.parse_complete_callback([this, tsio, router] {
        const std::filesystem::path directory(m_Directory);
        if (!directory.empty()) {
            m_Tsio = tsio->empty() ? (directory / "tsio").string() : m_Tsio;
            m_Router = router->empty() ? (directory / "router").string() : m_Router;
            m_Pktio = directory / "pktio";
        }
    });
}

const std::string& DevicePaths::getPktio() const {
    if (m_Pktio.empty()) {
        throw CommandError(WrongUse, "Name the directory of the devices with -d DIR or in ZEP_DIR");
    }
    return m_Pktio;
}

}  // namespace Vel::Zepctl
