#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace Vel::TestSupport {

/// A number from the environment, so that a test can be repeated or run for longer.
inline std::uint32_t testNumber(const char* variable, std::uint32_t otherwise) {
    const char* text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

/// Random choices. A test prints the seed when it fails, and ZEPTFEM_TEST_SEED repeats its choices.
class Random {
public:
    std::uint64_t bits() { return m_Engine(); }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(bits() % limit); }
    bool oneIn(std::uint32_t chances) { return below(chances) == 0; }
    std::string origin() const { return "ZEPTFEM_TEST_SEED=" + std::to_string(m_Seed); }

private:
    std::uint32_t m_Seed = testNumber("ZEPTFEM_TEST_SEED", std::random_device{}());
    std::mt19937_64 m_Engine{m_Seed};
};

}  // namespace Vel::TestSupport
