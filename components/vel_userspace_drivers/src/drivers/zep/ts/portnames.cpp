#include "vel/userspace_drivers/drivers/zep/ts/portnames.h"

#include <initializer_list>
#include <map>

namespace Vel::Drivers::Zep {

namespace {

/// Ports of one kind with successive numbers and indices.
struct PortGroup {
    const char* kind;
    std::uint32_t firstNumber;
    std::uint32_t firstIndex;
    std::uint32_t count;
};

/// The ports of one side, by name and by index.
struct Ports {
    explicit Ports(std::initializer_list<PortGroup> groups) {
        for (const PortGroup& group : groups) {
            for (std::uint32_t i = 0; i < group.count; ++i) {
                const std::string name = group.kind + std::to_string(group.firstNumber + i);
                indices[name] = group.firstIndex + i;
                names[group.firstIndex + i] = name;
            }
        }
    }

    std::map<std::string, std::uint32_t> indices;
    std::map<std::uint32_t, std::string> names;
};

const Ports INPUTS{{"tuner", 0, 0, 16}, {"cam", 0, 16, 8}, {"tuner", 16, 32, 6}};
const Ports OUTPUTS{{"modulator", 0, 0, 16}, {"cam", 0, 16, 8}};

}  // namespace

const std::map<std::uint32_t, std::string>& getPhysInNames() {
    return INPUTS.names;
}

const std::map<std::uint32_t, std::string>& getPhysOutNames() {
    return OUTPUTS.names;
}

std::uint32_t getPhysInIdxByName(const std::string& name) {
    return INPUTS.indices.at(name);
}

const std::string& getPhysInName(std::uint32_t phyiIdx) {
    return INPUTS.names.at(phyiIdx);
}

std::uint32_t getTunerPhysInIdx(std::uint32_t number) {
    return INPUTS.indices.at("tuner" + std::to_string(number));
}

std::uint32_t getCamPhysInIdx(std::uint32_t number) {
    return INPUTS.indices.at("cam" + std::to_string(number));
}

std::uint32_t getModulatorPhysOutIdx(std::uint32_t number) {
    return OUTPUTS.indices.at("modulator" + std::to_string(number));
}

std::uint32_t getCamPhysOutIdx(std::uint32_t number) {
    return OUTPUTS.indices.at("cam" + std::to_string(number));
}

}  // namespace Vel::Drivers::Zep
