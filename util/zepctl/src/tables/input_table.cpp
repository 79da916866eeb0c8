#include "tables/input_table.h"

#include <algorithm>
#include <compare>
#include <iterator>

#include <fmt/format.h>

#include "command_result.h"
#include "vel/cpp_utils/error.h"
#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/uri/uri.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

namespace Vel::Zepctl {

using Drivers::Zep::IpInEntry;

IpInEntry parseInputUri(const std::string& text) {
    std::string advice = "its form is udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0";
    try {
        const CppUtil::UriAuthority authority = CppUtil::Uri::parse(text).getAuthority();
        const bool hasPort = authority.getPort() != CppUtil::UriAuthority::NO_PORT;
        IpInEntry input(0, CppUtil::IpAdrContainer(authority.getHost()),
                        hasPort ? static_cast<std::uint32_t>(authority.getPort()) : 0);
        const std::string canonical = buildInputUri(input);
        if (text == canonical) {
            return input;
        }
        advice = hasPort ? "write it as " + canonical : advice;
    } catch (const CppUtil::ParsingError&) {  // reported below
    }
    throw CommandError(WrongUse, fmt::format("\"{}\" is not the URI of an input: {}", text, advice));
}

std::string formatInput(const IpInEntry& input) {
    return fmt::format("{} {}", buildInputUri(input), input.getTSIIDX());
}

InputTable::InputTable(Drivers::IMemIf& memory)
    : m_Memory(memory),
      m_Base(Drivers::Zep::getIpLutBase(memory, 0)),
      m_Rows(Drivers::Zep::readIpLut(memory, 0, Drivers::Zep::getIpLutSize(), true)) {
    m_Memory.verifyMemory();
}

std::vector<IpInEntry> InputTable::list() const {
    std::vector<IpInEntry> inputs;
    std::ranges::copy_if(m_Rows, std::back_inserter(inputs), &IpInEntry::isEnabled);
    return inputs;
}

void InputTable::add(const IpInEntry& input) {
    checkOrder();
    for (const IpInEntry& row : list()) {
        if (std::is_eq(row <=> input)) {
            throw CommandError(WrongUse, fmt::format("{} already exists, with TSIIDX {}", buildInputUri(row),
                                                     row.getTSIIDX()));
        }
        if (row.getTSIIDX() == input.getTSIIDX()) {
            throw CommandError(WrongUse,
                               fmt::format("TSIIDX {} is taken by {}", row.getTSIIDX(), buildInputUri(row)));
        }
    }
    clearCopies();
    if (std::ranges::all_of(m_Rows, &IpInEntry::isEnabled)) {
        throw CommandError(WrongUse,
                           fmt::format("The IP LUT is full: all {} rows are in use", m_Rows.size()));
    }
    insert(input);
}

void InputTable::remove(const IpInEntry& input) {
    bool isFound = false;
    for (IpInEntry& row : m_Rows) {
        if (row.isEnabled() && std::is_eq(row <=> input)) {
            writeRow(row, m_Cleared);
            isFound = true;
        }
    }
    if (!isFound) {
        throw CommandError(WrongUse, "There is no input " + buildInputUri(input));
    }
    m_Memory.verifyMemory();
}

void InputTable::clear() {
    for (IpInEntry& row : m_Rows) {
        writeRow(row, m_Cleared);
    }
    m_Memory.verifyMemory();
}

void InputTable::checkOrder() const {
    const auto inputs = list();
    const auto wrong = std::is_sorted_until(inputs.begin(), inputs.end());
    if (wrong != inputs.end()) {
        throw CommandError(
            DeviceUnusable,
            fmt::format("The IP LUT is out of order: {} comes after {}; remove one of them with "
                        "\"zepctl input remove\", or all inputs with \"zepctl clear inputs\"",
                        buildInputUri(*wrong), buildInputUri(*std::prev(wrong))));
    }
}

/// A command killed while moving a row leaves two adjacent copies of it.
void InputTable::clearCopies() {
    for (std::size_t i = 1; i < m_Rows.size(); ++i) {
        if (m_Rows[i - 1].isEnabled() && m_Rows[i].isEnabled() && m_Rows[i - 1] == m_Rows[i]) {
            writeRow(m_Rows[i], m_Cleared);
        }
    }
}

void InputTable::insert(const IpInEntry& input) {
    const auto isFree = [](const IpInEntry& row) { return !row.isEnabled(); };
    const auto lastLess = std::find_if(m_Rows.rbegin(), m_Rows.rend(),
                                       [&](const IpInEntry& row) { return row.isEnabled() && row < input; });
    auto place = lastLess.base();
    auto free = std::find_if(place, m_Rows.end(), isFree);
    if (free == m_Rows.end()) {
        free = std::prev(std::find_if(lastLess, m_Rows.rend(), isFree).base());
        --place;
    }
    const int step = free < place ? 1 : -1;
    for (; free != place; free += step) {
        writeRow(*free, free[step]);
        writeRow(free[step], m_Cleared);
    }
    writeRow(*place, input);
    m_Memory.verifyMemory();
}

void InputTable::writeRow(IpInEntry& target, const IpInEntry& row) {
    static_assert(IpInEntry::WORDS == 2 && Drivers::Zep::IpLut::ENABLED.word == 1);
    target = row;
    target.toWords();
    const auto word = m_Base + static_cast<std::uint32_t>(&target - m_Rows.data()) * IpInEntry::WORDS;
    const std::uint32_t first = target.isEnabled() ? 0 : 1;
    for (const std::uint32_t i : {first, 1 - first}) {
        m_Memory.write32(word + i, target.getWords()[i]);
    }
}

}  // namespace Vel::Zepctl
