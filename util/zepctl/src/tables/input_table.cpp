#include "tables/input_table.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string>

#include "command_error.h"
#include "tables/row_text.h"
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
    for (const IpInEntry& row : list()) {
        if (isSameInput(row, input)) {
            throw CommandError(WRONG_USE, buildInputUri(row) + " is there already, with TSIIDX " +
                                              std::to_string(row.getTSIIDX()));
        }
        if (row.getTSIIDX() == input.getTSIIDX()) {
            throw CommandError(WRONG_USE, "TSIIDX " + std::to_string(row.getTSIIDX()) + " is taken by " +
                                              buildInputUri(row));
        }
    }
    if (std::ranges::all_of(m_Rows, &IpInEntry::isEnabled)) {
        throw CommandError(WRONG_USE,
                           "The IP LUT is full: all " + std::to_string(m_Rows.size()) + " rows are in use");
    }
    putInOrder();
    insert(input, m_Rows.size());
}

void InputTable::remove(const IpInEntry& input) {
    bool isFound = false;
    for (std::size_t i = 0; i < m_Rows.size(); ++i) {
        if (m_Rows[i].isEnabled() && isSameInput(m_Rows[i], input)) {
            clearRow(i);
            isFound = true;
        }
    }
    if (!isFound) {
        throw CommandError(WRONG_USE, "There is no input " + buildInputUri(input));
    }
    putInOrder();
}

void InputTable::clear() {
    for (std::size_t i = 0; i < m_Rows.size(); ++i) {
        clearRow(i);
    }
}

/// Rows before `i` ascend at every step. A row that is less than one before it gets a copy at its place among
/// them, and is itself met later as the second copy. That takes one free row, which the callers see to.
void InputTable::putInOrder() {
    for (std::size_t i = 0; i < m_Rows.size(); ++i) {
        const IpInEntry row = m_Rows[i];
        if (!row.isEnabled()) {
            continue;
        }
        const auto before = std::span(m_Rows).first(i);
        const auto isCopy = [&](const IpInEntry& other) { return other.isEnabled() && other == row; };
        const auto isGreater = [&](const IpInEntry& other) { return other.isEnabled() && row < other; };
        if (std::ranges::any_of(before, isCopy)) {
            clearRow(i);
        } else if (std::ranges::any_of(before, isGreater)) {
            insert(row, i);
            --i;  // The rows before it may have moved up.
        }
    }
}

/// Puts `input` in front of the first greater one of the rows before `end`, which ascend.
void InputTable::insert(const IpInEntry& input, std::size_t end) {
    std::size_t place = end;
    while (place > 0 && (!m_Rows[place - 1].isEnabled() || input < m_Rows[place - 1])) {
        --place;
    }
    // Behind the last one that is not greater, so a free row there is in front of the first greater one.
    const auto begin = m_Rows.begin();
    const auto isFree = [](const IpInEntry& row) { return !row.isEnabled(); };
    const auto above = std::find_if(begin + static_cast<std::ptrdiff_t>(place), m_Rows.end(), isFree);
    if (above != m_Rows.end()) {
        for (auto free = static_cast<std::size_t>(above - begin); free > place; --free) {
            moveRow(free - 1, free);
        }
    } else {
        --place;
        std::size_t free = place;
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
    clearRow(from);
}

void InputTable::writeRow(std::size_t index, const IpInEntry& row) {
    IpInEntry& target = m_Rows[index];
    target = row;
    target.toWords();
    const auto word = m_Base + static_cast<std::uint32_t>(index) * IpInEntry::WORDS;
    m_Memory.write32(word, target.getWords()[0]);
    m_Memory.write32(word + 1, target.getWords()[1]);
}

void InputTable::clearRow(std::size_t index) {
    IpInEntry& target = m_Rows[index];
    target.clear();
    target.toWords();
    const auto word = m_Base + static_cast<std::uint32_t>(index) * IpInEntry::WORDS;
    m_Memory.write32(word + 1, target.getWords()[1]);
    m_Memory.write32(word, target.getWords()[0]);
}

}  // namespace Vel::Zepctl
