// Records of any bytes: the check counts each whole one exactly once.

#include <cstdint>
#include <span>
#include <string>

#include "records/record_check.h"
#include "records/record_report.h"
#include "require.h"
#include "vel/ts_basics/zep_record.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace Zepctl = Vel::Zepctl;
    const std::size_t torn = size % Vel::Ts::RECORD_SIZE;
    const std::size_t records = size / Vel::Ts::RECORD_SIZE;
    Zepctl::RecordCheck check;
    check.add(std::span(data, size - torn));
    check.end(torn);
    REQUIRE(check.getFaults().getRecords() == records);
    REQUIRE(torn == 0 || !check.getFaults().isEmpty());
    std::uint64_t packets = check.getFaults().get(Zepctl::FaultKind::BadSync).count +
                            check.getFaults().get(Zepctl::FaultKind::UnknownTsiidx).count;
    for (const auto& [tsiidx, input] : check.getInputs()) {
        packets += input.getTotal().packets;
    }
    REQUIRE(packets == records);
    REQUIRE(!Zepctl::formatJsonReport("file", check).empty());
    return 0;
}
