#include "tables/input_table.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "command_error.h"
#include "vel/userspace_drivers/drivers/zep/ts/diag/iplut_diag.h"

namespace Vel::Zepctl {

using Drivers::Zep::IpInEntry;

namespace {

/// Same address and port.
bool isSameInput(const IpInEntry& left, const IpInEntry& right) {
    return !(left < right) && !(right < left);
}

}  // namespace

InputTable::InputTable(Drivers::IMemIf& memory)
    : m_Memory(memory),
      m_Base(Drivers::Zep::getIpLutBase(memory, 0)),
      m_Rows(Drivers::Zep::readIpLut(memory, 0, Drivers::Zep::getIpLutSize(), true)) {}

std::vector<IpInEntry> InputTable::list() const {
    std::vector<IpInEntry> inputs;
    std::ranges::copy_if(m_Rows, std::back_inserter(inputs), &IpInEntry::isEnabled);
    return inputs;
}

void InputTable::add(const IpInEntry& input) {
    checkOrder();
    for (const IpInEntry& row : list()) {
        if (isSameInput(row, input)) {
            throw CommandError(WRONG_USE, fmt::format("{} is there already, with TSIIDX {}",
                                                      buildInputUri(row), row.getTSIIDX()));
        }
        if (row.getTSIIDX() == input.getTSIIDX()) {
            throw CommandError(WRONG_USE,
                               fmt::format("TSIIDX {} is taken by {}", row.getTSIIDX(), buildInputUri(row)));
        }
    }
    clearCopies();
    if (std::ranges::all_of(m_Rows, &IpInEntry::isEnabled)) {
        throw CommandError(WRONG_USE,
                           fmt::format("The IP LUT is full: all {} rows are in use", m_Rows.size()));
    }
    insert(input);
}

void InputTable::remove(const IpInEntry& input) {
    checkOrder();
    bool isFound = false;
    for (std::size_t i = 0; i < m_Rows.size(); ++i) {
        if (m_Rows[i].isEnabled() && isSameInput(m_Rows[i], input)) {
            writeRow(i, m_Cleared);
            isFound = true;
        }
    }
    if (!isFound) {
        throw CommandError(WRONG_USE, "There is no input " + buildInputUri(input));
    }
}

void InputTable::clear() {
    for (std::size_t i = 0; i < m_Rows.size(); ++i) {
        writeRow(i, m_Cleared);
    }
}

void InputTable::checkOrder() const {
    const IpInEntry* previous = nullptr;
    for (std::size_t i = 0; i < m_Rows.size(); ++i) {
        if (!m_Rows[i].isEnabled()) {
            continue;
        }
        if (previous != nullptr && m_Rows[i] < *previous) {
            throw CommandError(DEVICE_UNUSABLE,
                               fmt::format("Row {} of the IP LUT is out of order: {} comes after {}; "
                                           "\"zepctl clear inputs\" clears the table",
                                           i, buildInputUri(m_Rows[i]), buildInputUri(*previous)));
        }
        previous = &m_Rows[i];
    }
}

/// A command that was killed while it moved a row leaves two of it in succession.
void InputTable::clearCopies() {
    for (std::size_t i = 1; i < m_Rows.size(); ++i) {
        if (m_Rows[i - 1].isEnabled() && m_Rows[i].isEnabled() && m_Rows[i - 1] == m_Rows[i]) {
            writeRow(i, m_Cleared);
        }
    }
}

void InputTable::insert(const IpInEntry& input) {
    std::size_t place = m_Rows.size();  // the row after the last one that is less
    while (place > 0 && !(m_Rows[place - 1].isEnabled() && m_Rows[place - 1] < input)) {
        --place;
    }
    std::size_t free = place;
    while (free < m_Rows.size() && m_Rows[free].isEnabled()) {
        ++free;
    }
    if (free < m_Rows.size()) {
        for (; free > place; --free) {
            moveRow(free - 1, free);
        }
    } else {
        --place;
        free = place;
        while (m_Rows[free].isEnabled()) {
            --free;
        }
        for (; free < place; ++free) {
            moveRow(free + 1, free);
        }
    }
    writeRow(place, input);
}

void InputTable::moveRow(std::size_t from, std::size_t to) {
    writeRow(to, m_Rows[from]);
    writeRow(from, m_Cleared);
}

void InputTable::writeRow(std::size_t index, const IpInEntry& row) {
    static_assert(IpInEntry::WORDS == 2 && Drivers::Zep::IpLut::ENABLED.word == 1);
    IpInEntry& target = m_Rows[index];
    target = row;
    target.toWords();
    const auto word = m_Base + static_cast<std::uint32_t>(index) * IpInEntry::WORDS;
    const std::uint32_t first = target.isEnabled() ? 0 : 1;
    for (const std::uint32_t i : {first, 1 - first}) {
        m_Memory.write32(word + i, target.getWords()[i]);
    }
}

}  // namespace Vel::Zepctl
