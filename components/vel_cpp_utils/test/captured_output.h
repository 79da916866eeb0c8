#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>

/// Lets `descriptor` (1 or 2) lead to `target` while it lives.
class RedirectedDescriptor {
public:
    RedirectedDescriptor(int descriptor, int target) : m_Descriptor(descriptor), m_Original(dup(descriptor)) {
        flush();
        dup2(target, m_Descriptor);
    }
    ~RedirectedDescriptor() {
        flush();
        dup2(m_Original, m_Descriptor);
        close(m_Original);
    }
    RedirectedDescriptor(const RedirectedDescriptor&) = delete;
    RedirectedDescriptor& operator=(const RedirectedDescriptor&) = delete;

private:
    static void flush() {
        std::cout.flush();
        std::fflush(nullptr);
    }

    int m_Descriptor;
    int m_Original;
};

/// All bytes up to the end of the file, which is then closed.
inline std::string readToEnd(int file) {
    std::string text;
    std::array<char, 4096> block{};
    for (ssize_t got = 0; (got = read(file, block.data(), block.size())) > 0;) {
        text.append(block.data(), static_cast<std::size_t>(got));
    }
    close(file);
    return text;
}

/// What `body` and the threads that it ends write to `descriptor`.
inline std::string outputOf(int descriptor, const std::function<void()>& body) {
    const int file = memfd_create("captured", 0);
    {
        const RedirectedDescriptor redirected(descriptor, file);
        body();
    }
    lseek(file, 0, SEEK_SET);
    return readToEnd(file);
}
