#pragma once

#include <cstdint>
#include <map>
#include <string>

/// Names of the board's physical ports: "tuner0" to "tuner21" and "cam0" to "cam7" among the inputs,
/// "modulator0" to "modulator15" and "cam0" to "cam7" among the outputs. Every look-up throws
/// std::out_of_range for a port that does not exist. Thread-safe.
namespace Vel::Drivers::Zep {

/// All names of one side, by index.
const std::map<std::uint32_t, std::string>& getPhysInNames();
const std::map<std::uint32_t, std::string>& getPhysOutNames();

std::uint32_t getPhysInIdxByName(const std::string& name);
const std::string& getPhysInName(std::uint32_t phyiIdx);

/// PHYIIDX of "tuner" or "cam" `number`.
std::uint32_t getTunerPhysInIdx(std::uint32_t number);
std::uint32_t getCamPhysInIdx(std::uint32_t number);
/// PHYOIDX of "modulator" or "cam" `number`.
std::uint32_t getModulatorPhysOutIdx(std::uint32_t number);
std::uint32_t getCamPhysOutIdx(std::uint32_t number);

}  // namespace Vel::Drivers::Zep
