#pragma once

namespace Vel::Utils {

/// How every input stream of the run is played.
enum class StreamMode {
    MaxRate = 0,  ///< as fast as the file and the data device allow
    PcrRate = 1,  ///< at the rate of the PCR in the stream
};

/// How the rate of the PCR is kept in the mode PcrRate.
enum class PcrPacing {
    Batches,  ///< by the mean time per packet, one sleep per batch
    Clock,    ///< every packet at the time that the PCRs around it give
};

}  // namespace Vel::Utils
