#pragma once

#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace Vel::TestSupport {

using Bytes = std::vector<std::uint8_t>;

/// A temporary directory, removed by the destructor.
class TemporaryFolder {
public:
    TemporaryFolder() : m_Path(::mkdtemp(m_Template.data())) {}
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string operator/(const std::string& name) const { return m_Path / name; }

private:
    std::string m_Template = std::filesystem::temp_directory_path() / "zeptfem-test-XXXXXX";
    std::filesystem::path m_Path;
};

/// The content of a file, as std::string or Bytes; empty if it cannot be read.
template <typename Content = Bytes>
Content readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// @param content std::string or Bytes
template <typename Content>
void writeFile(const std::string& path, const Content& content) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

/// Waits until `condition` holds; false after a time that only a broken program can take.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    for (const auto end = std::chrono::steady_clock::now() + limit; !condition();) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace Vel::TestSupport
